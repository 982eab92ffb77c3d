// Fuzzes the light writer, and the reader on what it writes. An input makes a file of 3 x 4 cells
// and works on it, with damage at any moment:
//   1 byte        what kind of file: a set of Flag
//   12 bytes      what its cells hold: see MakeFile
//   8 bytes each  operations: see LLVMFuzzerTestOneInput
// or, with kGiven, the rest is a file, and operations as in Split.
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Harness.h"
#include "ZrCompactFileReader.h"
#include "ZrCompactFileWriter.h"

namespace {

using namespace Fuzz;

enum Flag { kLocked = 1, kBigEndian = 2, kNoVersions = 4, kGiven = 8 };
constexpr unsigned int kCols = 4, kCells = 3 * kCols;
constexpr Number kHead = 44;  // of a record with one version
// What damage may leave out: a damaged size of the grid, and length of the last record.
constexpr Number kGap = 8ULL << 30;
constexpr Number kMaxFile = 1 << 18;  // a file that has become larger is left alone: too slow

struct Reader : Zarn::ZrCompactFileReader {
  using ZrGridFile::m_bSwap;
};

// The file under test.
const PelmUnicodeString g_path = Path("t.cf");
const int g_file = ::open(g_path.ToUtf8().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
bool g_damaged;
Zarn::ZrCompactFileWriter g_writer;
Reader g_reader;

// A byte per cell says what it holds: nothing, or 0 to 3 versions of 1 to 32 bytes, 16 more bytes
// of capacity, and slack or none. The records follow one another.
std::string MakeFile(Input& input, int flags) {
  const bool big = (flags & kBigEndian) != 0;
  const auto put = [big](std::string& target, Number value, unsigned int width = 8) {
    for (unsigned int i = 0; i < width; ++i)
      target += static_cast<char>(value >> 8 * (big ? width - 1 - i : i));
  };
  std::string file = {'C', 'F', static_cast<char>(big)}, records;
  put(file, 20120214, 4), put(file, 0, 4), put(file, 0), put(file, 64);
  file.resize(64);
  put(file, kCells / kCols, 4), put(file, kCols, 4), put(file, (flags & kNoVersions) == 0, 4);
  for (unsigned int cell = 0; cell < kCells; ++cell) {
    const unsigned char byte = input.Next();
    const Number size = 1 + byte / 8, versions = byte % 4, slack = byte & 4 ? 20 : 0;
    put(file, byte == 0 ? 0 : 2ULL << 56 | (76 + 8 * kCells + records.size()));
    if (byte == 0) continue;
    put(records, kHead + versions * 16 + size + slack), put(records, versions, 4);
    for (Number stamp = versions; stamp > 0; --stamp)
      put(records, stamp), put(records, 2ULL << 56);
    put(records, size + 16), put(records, size);
    records += std::string(size, static_cast<char>('a' + cell)) + std::string(16 + slack, '.');
  }
  for (std::size_t i = 0; (flags & kLocked) && i < 64; ++i)
    file[i] ^= 0x3B;  // of "secret"
  return file + records;
}

Number FileLength() { return static_cast<Number>(::lseek(g_file, 0, SEEK_END)); }

// A cell: its entry, where that points, the length stated there, and what a lookup answers.
struct View {
  Number entry = 0, position = 0, length = 0, filled = 77;
  unsigned int result = 0;
  std::string payload = "untouched";
};

View Look(unsigned int row, unsigned int col, Number stamp) {
  View tile;
  const bool open = g_reader.IsOpen(), exists = g_reader.ReadIndexValue(row, col, tile.entry);
  CHECK(g_writer.GetStatus(row, col) ==
        (exists ? tile.entry >> 56 : Number{ZrCompactFile::kUnknown}));
  tile.position = tile.entry << 8 >> 8;
  if (::pread(g_file, &tile.length, 8, static_cast<off_t>(tile.position)) != 8) tile.length = 0;
  if (g_reader.m_bSwap) tile.length = __builtin_bswap64(tile.length);

  Zarn::ZrByteArray data(tile.payload.data(), tile.payload.size());
  tile.result = g_reader.Lookup(row, col, data, tile.filled, stamp);
  const std::string payload(data.GetData(), data.GetData() + data.GetSize());
  if (tile.result == ZrResult::kOk) {
    CHECK(open && tile.filled <= payload.size());
  } else {
    CHECK(tile.result == (open ? ZrResult::kReadFailure : ZrResult::kNotOpen));
    CHECK(payload == tile.payload && tile.filled == (exists ? 0 : 77));
  }
  tile.payload = payload;
  return tile;
}

std::vector<View> LookAtAll() {
  std::vector<View> tiles;
  for (unsigned int cell = 0; cell < kCells; ++cell)
    tiles.push_back(Look(cell / kCols, cell % kCols, UINT64_MAX));
  return tiles;
}

// Stores a tile, and looks what became of it and of the others. `limit`: how long the file may be.
void Store(unsigned int row, unsigned int col, const std::string& text, Number capacity,
           Number offset, Number stamp, Number& limit) {
  const Number size = text.size(), area = capacity == 0 ? size : capacity, length = FileLength();
  const bool open = g_writer.IsOpen(), fits = size <= area && offset <= area - size;
  const bool valid = open && size > 0 && capacity <= ZrCompactFile::kMaxCapacity && fits;
  const std::vector<View> before = LookAtAll();
  const View old = Look(row, col, stamp);
  const unsigned int result =
      g_writer.SetAt(row, col, {text.data(), size}, capacity, offset, stamp);
  const bool stored = result == ZrResult::kOk;
  CHECK(stored || result == (open ? ZrResult::kWriteFailure : ZrResult::kNotOpen) ||
        (valid && result == ZrResult::kReadFailure));
  CHECK(valid || (!stored && FileLength() == length));
  if (stored) limit += kHead + area;
  CHECK(FileLength() <= limit);
  if (FileLength() > kMaxFile) return;

  const View now = Look(row, col, stamp);
  const bool inPlace = now.entry == old.entry;
  const bool isTile = now.entry >> 56 == 1 || now.entry >> 56 == 2;
  CHECK(!stored || (isTile && (inPlace || now.position >= length)));
  if (stored && inPlace && old.length > length - old.position) {
    CHECK(FileLength() == length);           // it ended beyond the file: silently nothing
  } else if (stored && !g_reader.m_bSwap) {  // records are written in host order
    // Not readable while its unused capacity lies beyond the file.
    const bool whole = now.position + kHead + area <= FileLength();
    CHECK(now.result == (whole ? ZrResult::kOk : ZrResult::kReadFailure));
    CHECK(!whole || (now.payload.size() == area && now.filled == offset + size));
    CHECK(!whole || now.payload.compare(0, size, text) == 0);
  }
  const std::vector<View> after = LookAtAll();
  for (unsigned int cell = 0; cell < kCells; ++cell) {
    const View &was = before[cell], &is = after[cell];
    // Nothing is appended into a record, not even into the last one's part beyond the file.
    const bool behind = was.entry == 0 || was.position + was.length <= now.position;
    CHECK(!stored || inPlace || behind || g_damaged || g_reader.m_bSwap);
    // Only in a damaged file two tiles share bytes.
    const bool shared = inPlace && was.position < old.position + old.length &&
                        old.position < was.position + was.length;
    if (stored && (shared || (row == cell / kCols && col == cell % kCols))) continue;
    if (was.result != ZrResult::kOk) continue;  // it may have become readable
    CHECK(is.result == ZrResult::kOk && is.payload == was.payload && is.filled == was.filled);
  }
}

bool g_secret;

void Open(bool secret) {
  g_secret = secret;
  const PelmUnicodeString password = PasswordOf(secret);
  const unsigned int result = g_writer.Open(g_path, password, ZrCompactFile::kCreateMissing);
  CHECK(result == ZrResult::kOk || result == ZrResult::kReadFailure);
  CHECK(g_reader.Open(g_path, password, ZrCompactFile::kReadOnly) == result);
  CHECK(g_writer.IsOpen() == !result && g_reader.IsOpen() == !result);
}

// The steps of Create, on a file that is open: no tile that could be read may be lost.
void BeginAnew(unsigned int rows, unsigned int cols) {
  const auto reopen = [] {
    g_writer.Close(), g_reader.Close();
    Open(g_secret);
  };
  reopen();  // damage may have come in the meantime
  if (!g_writer.IsOpen()) return;
  const std::vector<View> before = LookAtAll();
  const unsigned int result =
      rows == 0 ? g_writer.WriteHeader() : g_writer.WriteHeaderGrid(rows, cols);
  CHECK(result == ZrResult::kOk || result == ZrResult::kWriteFailure);
  reopen();
  const std::vector<View> after = LookAtAll();
  for (unsigned int cell = 0; cell < kCells; ++cell) {
    const View &was = before[cell], &is = after[cell];
    const bool isTile = was.result == ZrResult::kOk && !was.payload.empty();
    CHECK(!isTile || (is.result == ZrResult::kOk && is.payload == was.payload));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  Input input{bytes, size};
  const int flags = input.Next();
  Bytes file;
  g_damaged = flags & kGiven;
  if (g_damaged) {
    Parts parts = Split(input.bytes, input.size);
    file.swap(parts.file);
    input = parts.commands;
  } else {
    file = MakeFile(input, flags);
  }
  CHECK(::ftruncate(g_file, 0) == 0);
  CHECK(::pwrite(g_file, file.data(), file.size(), 0) == static_cast<ssize_t>(file.size()));
  g_writer.Close(), g_reader.Close();
  Open(flags & kLocked);
  const std::vector<View> views = LookAtAll();
  for (const View& view : views)
    CHECK(g_damaged || (view.result == ZrResult::kOk &&
                        (view.entry == 0 || view.payload.size() == view.filled + 16)));

  Number limit = file.size() + (g_damaged ? kGap : 0);
  for (char letter = 'A'; letter <= 'Z' && input.size > 0 && FileLength() <= kMaxFile; ++letter) {
    const unsigned int kind = input.Next() % 8, row = input.Next() % 4, col = input.Next() % 5;
    const unsigned int count = input.Next(), extra = input.Next();
    const auto memory = MemoryLimit::ForFile(FileLength(), kBuffers);
    const Number stamp = input.NextNumber(), first = input.NextNumber(), last = input.NextNumber();
    if (kind < 3) {
      Store(row, col, std::string(count, letter), first, last, stamp, limit);
    } else if (kind == 3) {
      Look(row, col, stamp);
    } else if (kind == 4) {
      if (extra & 2) g_writer.Close(), g_reader.Close();
      Open(extra & 1);
    } else if (kind == 5) {
      BeginAnew(count % 8, extra % 8);
      limit += 64 + 12 + 8 * 7 * 7;
    } else {  // damage: a number of 1 to 8 bytes
      const Number offset = (extra * 256 + count) % (FileLength() + 1);
      CHECK(::pwrite(g_file, &first, 1 + last % 8, static_cast<off_t>(offset)) > 0);
      g_damaged = true;
      limit += kGap;
    }
  }
  return 0;
}
