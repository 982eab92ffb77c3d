// Fuzzes the light reader on a file that is damaged in any way. Commands: 1 byte, the password and
// the number of stamps; then stamps.
#include "Harness.h"
#include "ZrCompactFileReader.h"

using namespace Fuzz;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  constexpr unsigned int kRows = 5, kCols = 5;
  static const PelmUnicodeString path = Path("t.cf");
  auto [contents, commands] = Split(bytes, size);
  WriteFile(path, contents);
  const auto limit = MemoryLimit::ForFile(contents.size(), kBuffers);
  Zarn::ZrCompactFileReader reader;
  const unsigned char flags = commands.Next();
  const unsigned int opened = reader.Open(path, PasswordOf(flags & 1), 0);
  CHECK(opened == ZrResult::kOk || opened == ZrResult::kReadFailure);
  CHECK(reader.IsOpen() == (opened == ZrResult::kOk));
  for (unsigned int left = 1 + flags % 4; left > 0; --left) {
    const Number stamp = commands.size > 0 ? commands.NextNumber() : UINT64_MAX;
    for (unsigned int cell = 0; cell < kRows * kCols; ++cell) {
      const unsigned int row = cell / kCols, col = cell % kCols;
      const Bytes before = "before";
      Zarn::ZrByteArray data(before.data(), before.size());
      Number filled = 77, value;
      const unsigned int result = reader.Lookup(row, col, data, filled, stamp);
      const Bytes payload(data.GetData(), data.GetData() + data.GetSize());
      const bool exists = reader.ReadIndexValue(row, col, value);
      CHECK(reader.GetStatus(row, col) == (exists ? value >> 56 : Number{ZrCompactFile::kUnknown}));
      if (result == ZrResult::kOk)
        CHECK(exists && filled <= payload.size());
      else
        CHECK(result == (reader.IsOpen() ? ZrResult::kReadFailure : ZrResult::kNotOpen) &&
              payload == before && filled == (exists ? 0 : 77));
    }
  }
  return 0;
}
