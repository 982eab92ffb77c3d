// Fuzzes what is found where a compaction was cut short: a file, and another one beside it. If the
// first has the mark of the second, which is whole, it becomes that; if not, neither is touched.
// Commands:
//   1 byte   a set of Flag
//   2 bytes  how long the first file is; the second is the rest
#include <algorithm>
#include <cstring>

#include "Harness.h"
#include "RedoMarks.h"
#include "ZrCompactFileReader.h"
#include "ZrCompactFileWriter.h"

namespace {

using namespace Fuzz;
namespace Format = Zarn::Format;

// The first file gets a mark; the second a trailer, with the id of the mark, its length and its
// checksum. No mutation would find these.
enum Flag { kSecret = 1, kMark = 2, kTrailer = 4, kOtherId = 8, kOtherSum = 16, kLight = 32 };

const PelmUnicodeString kPath = Path("t.cf"), kBeside = Path(".$t.cf");

Format::HeaderImage HeaderOf(const Bytes& file) {
  Format::HeaderImage header = {};
  std::memcpy(header.data(), file.data(), std::min(header.size(), file.size()));
  return header;
}

Bytes TrailerOf(const Bytes& image, int flags) {
  Format::RedoChecksum sum;
  sum.Add(0, reinterpret_cast<const unsigned char*>(image.data()), image.size());
  const auto trailer = Format::EncodeRedoTrailer(
      {{1, flags & kOtherId ? 3ULL : 2ULL}, image.size(), sum.Get() + (flags & kOtherSum ? 1 : 0)});
  return Bytes(trailer.begin(), trailer.end());
}

// Whether the second file is what the first one's mark asks for.
bool IsReplacement(const Bytes& file, const Bytes& beside) {
  Format::RedoTrailerImage bytes;
  if (file.size() < Format::kHeaderSize || beside.size() < Format::kHeaderSize + bytes.size())
    return false;
  const std::size_t length = beside.size() - bytes.size();
  std::memcpy(bytes.data(), beside.data() + length, bytes.size());
  const auto id = Format::DecodeRedoMark(HeaderOf(file));
  const auto trailer = Format::DecodeRedoTrailer(bytes);
  Format::RedoChecksum sum;
  sum.Add(0, reinterpret_cast<const unsigned char*>(beside.data()), length);
  return id && trailer && trailer->id == *id && trailer->imageLength == length &&
         trailer->checksum == sum.Get();
}

// Opens, and reads what there is; nothing is written but by finishing the replacement.
template <typename File>
unsigned int OpenAndRead(File& file, int flags) {
  const unsigned int result = file.Open(kPath, PasswordOf(flags & kSecret), 0);
  for (unsigned int cell = 0; cell < 16; ++cell)
    file.GetStatus(cell / 4, cell % 4);
  return result;
}

unsigned int OpenAndRead(int flags) {
  if ((flags & kLight) == 0) {
    ZrCompactFile file;
    const unsigned int result = OpenAndRead(file, flags);
    for (unsigned int cell = 0; cell < 16; ++cell)
      Look(file, UINT64_MAX, cell / 4, cell % 4);
    Look(file, UINT64_MAX, PelmUnicodeString(u"a"));
    return result;
  }
  Zarn::ZrCompactFileReader reader;
  Zarn::ZrCompactFileWriter writer;
  const unsigned int result = OpenAndRead(reader, flags);
  CHECK(OpenAndRead(writer, flags) == result);
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  auto [both, commands] = Split(bytes, size);
  const int flags = commands.Next();
  const std::size_t split = commands.NextLength();
  Bytes file = both.substr(0, split), beside = both.substr(file.size());
  if (flags & kMark) {
    const auto mark = Format::EncodeRedoMark({1, 2}, HeaderOf(beside));
    file.replace(0, mark.size(), Bytes(mark.begin(), mark.end()));
  }
  if (flags & kTrailer) beside += TrailerOf(beside, flags);
  WriteFile(kPath, file);
  WriteFile(kBeside, beside);
  const auto limit = MemoryLimit::ForFile(file.size() + beside.size(), kCompactionBuffers);

  const unsigned int result = OpenAndRead(flags);
  const bool replaced = IsReplacement(file, beside);
  const Bytes image = beside.substr(0, beside.size() - (replaced ? Format::kRedoTrailerSize : 0));
  CHECK(WithoutWords(ReadFile(kPath)) == WithoutWords(replaced ? image : file));
  CHECK(replaced ? !Exists(kBeside) : ReadFile(kBeside) == beside);
  const auto unusable = flags & kLight ? ZrResult::kReadFailure : ZrResult::kWrongFile;
  CHECK(replaced || !Format::DecodeRedoMark(HeaderOf(file)) || result == unusable);
  if (!replaced) return 0;
  WriteFile(kPath, image);
  CHECK(OpenAndRead(flags) == result);
  return 0;
}
