// Fuzzes the engine: opens a file, of any kind and damaged in any way, and works on it. Commands:
//   1 byte         the password, and how it is opened: see Open
//   9 bytes each   operations: see Operate
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "FileHeader.h"
#include "Harness.h"
#include "IndexShape.h"
#include "ZrFile64.h"

namespace {

using namespace Fuzz;
using Name = PelmUnicodeString;

// Two and two of the first four have one hash.
const Name kNames[] = {u"1yeg98dgy", u"sm38f3s71", u"fqecng9yn", u"f1qe6747c",
                       u"a",         u"caf\u00E9", u"",          Name(std::u16string(128, u'x'))};
constexpr unsigned int kRows = 3, kCols = 5;
constexpr Number kMaxCapacity = 60000;
constexpr Number kMaxFile = 1 << 20;  // a file that has become larger is left alone: too slow

struct Place {
  bool named;
  unsigned int row, col;
  Name name;
};

class Session {
 public:
  explicit Session(const Parts& parts) : m_commands(parts.commands) {
    WriteFile(m_path, parts.file);
    for (unsigned int cell = 0; cell < kRows * kCols; ++cell)
      m_places.push_back({false, cell / kCols, cell % kCols, u""});
    for (const Name& name : kNames)
      m_places.push_back({true, 0, 0, name});
  }

  void Run() {
    const unsigned char flags = m_commands.Next();
    m_secret = flags & 1;
    Open(flags);
    for (char letter = 'a'; letter <= 'z' && m_commands.size > 0; ++letter) {
      const Number length = LengthOf(m_path);
      if (length > kMaxFile) break;
      const auto limit = MemoryLimit::ForFile(length + 10 * kMaxCapacity, kCompactionBuffers);
      Operate(letter);
    }
    ExpectSameAfterOpening();
  }

 private:
  void Open(unsigned char flags) {
    m_file.Close();
    constexpr unsigned int kModes = ZrCompactFile::kReadOnly | ZrCompactFile::kCreateMissing |
                                    ZrCompactFile::kProcessLock | ZrCompactFile::kMapped;
    m_mode = flags & kModes;
    m_poked = false;
    const auto limit = MemoryLimit::ForFile(LengthOf(m_path), kBuffers);
    const unsigned int result = m_file.Open(m_path, PasswordOf(m_secret), m_mode);
    CHECK(result == ZrResult::kOk || result == ZrResult::kWrongFile ||
          result == ZrResult::kNotUsable);
    CHECK(m_file.IsOpen() == (result == ZrResult::kOk));
    m_cut = result == ZrResult::kOk && LacksNames();
  }

  // Whether the file ends within the slots that are in use. Half a slot at its end is none until
  // the file grows, so names come and go with opening it.
  bool LacksNames() {
    Zarn::ZrFile64 stream;
    Zarn::Format::HeaderImage header;
    bool swap;
    unsigned int capacity, count;
    const auto password = Zarn::Format::MakeXorString(PasswordOf(m_secret).GetBuffer());
    CHECK(stream.Open(m_path, Zarn::ZrFile64::kRead) &&
          Zarn::Io::ReadFileHeader(stream, password, header, swap) == Zarn::Io::HeaderRead::kOk);
    return m_file.GetIndexInfo(capacity, count) == 1 &&
           Zarn::Format::IndexShape::OfNames(Zarn::Format::HeaderView(header).IndexOffset(), count)
                   .End() > LengthOf(m_path);
  }

  void Operate(char letter) {
    const unsigned char kind = m_commands.Next();
    const Place& place = m_places[m_commands.Next() % m_places.size()];
    const Number count = m_commands.Next(), stamp = m_commands.NextNumber();
    const Number first = m_commands.NextNumber(), last = m_commands.NextNumber();
    const Number offset = m_commands.NextLength();
    const unsigned char flags = m_commands.Next();
    const Zarn::ZrByteArray data(Bytes(count, letter).data(), count);
    const Number capacity = first > kMaxCapacity && first <= ZrCompactFile::kMaxCapacity
                                ? kMaxCapacity
                                : first;  // the disk is memory
    switch (kind % 12) {
      case 0:
      case 1:
      case 2:
        return Change(place, capacity, [&] {
          return place.named ? m_file.SetAt(place.name, data, capacity, last, stamp)
                             : m_file.SetAt(place.row, place.col, data, capacity, last, stamp);
        });
      case 3:
        return Change(place, 0, [&] {
          return place.named ? m_file.Remove(place.name, stamp)
                             : m_file.Remove(place.row, place.col, stamp);
        });
      case 4:
        return StoreMany(flags % 10, data, capacity, stamp);
      case 5:
        Look(place, stamp);
        return LookFrom(offset, stamp);
      case 6:
        m_file.SetMaxSize(1, 2);
        CHECK(m_file.Flush() == m_file.IsOpen());
        if (m_file.SetPassword(PasswordOf(flags % 2)) == 1) m_secret = flags % 2;
        return;
      case 7:
        return Open(flags);
      case 8:
        return static_cast<void>(m_file.Compact());
      default:
        return Poke(offset % (LengthOf(m_path) + 1), first, last % 8 + 1);
    }
  }

  Tile Look(const Place& place, Number stamp) {
    return place.named ? Fuzz::Look(m_file, stamp, place.name)
                       : Fuzz::Look(m_file, stamp, place.row, place.col);
  }

  // A cell anywhere in the grid.
  void LookFrom(Number cell, Number stamp) {
    unsigned int rows = 0, cols = 0;
    if (m_file.GetIndexInfo(rows, cols) != 0 || cols == 0) return;
    const auto row = static_cast<unsigned int>(cell / cols % (rows + Number{1}));
    Fuzz::Look(m_file, stamp, row, static_cast<unsigned int>(cell % cols));
    Fuzz::Look(m_file, stamp, rows - 1, cols - 1);
  }

  // What fails must change nothing; and no change takes more of the disk than it has reason to.
  template <typename Operation>
  void Change(const Place& place, Number capacity, Operation operation) {
    const Tile before = Look(place, UINT64_MAX);
    const struct stat old = StatusOf(m_path);
    const unsigned int result = operation();
    CHECK(result == ZrResult::kOk || result == ZrResult::kWriteFailure ||
          (result == ZrResult::kNotOpen && !m_file.IsOpen()));
    const Tile after = Look(place, UINT64_MAX);
    CHECK(result == ZrResult::kOk || after == before);
    const long more = StatusOf(m_path).st_blocks - old.st_blocks;
    CHECK(more * 512 <= 3 * old.st_size + static_cast<long>(capacity) + 100000);
  }

  void StoreMany(unsigned int count, const Zarn::ZrByteArray& data, Number capacity, Number stamp) {
    std::vector<ZrCompactFile::ZrCellStore> cells;
    std::vector<ZrCompactFile::ZrNameStore> names;
    for (unsigned int i = 0; i < count; ++i) {
      const Place& place = m_places[(i + stamp) % m_places.size()];
      cells.push_back({place.row, place.col, &data, i == 3 ? capacity : 0, 0, stamp});
      names.push_back({i % 3 == 0 ? place.name : Name::FromUtf8(std::to_string(stamp + i)), &data,
                       i == 3 ? capacity : 0, 0, stamp});
    }
    std::vector<unsigned int> results;
    m_file.SetBatch(cells, results);
    CHECK(results.size() == cells.size());
    m_file.SetBatch(names, results);
    CHECK(results.size() == names.size());
  }

  // Somebody else damages the file, which is noticed only with the lock.
  void Poke(Number offset, Number number, Number width) {
    const int file = ::open(m_path.ToUtf8().c_str(), O_WRONLY | O_CLOEXEC);
    if (file < 0) return;
    if (width < 3) number |= number << 56;  // a status
    CHECK(::pwrite(file, &number, width, static_cast<off_t>(offset)) > 0);
    ::close(file);
    m_poked = true;
  }

  struct Everything {
    std::vector<Tile> tiles;
    std::vector<unsigned int> states;
    bool listed = false;
    std::vector<Bytes> names;

    bool operator==(const Everything&) const = default;
  };

  Everything LookAtAll() {
    Everything all;
    PelmArray<Name> names;
    {
      const auto limit = MemoryLimit::ForFile(LengthOf(m_path), kBuffers);
      all.listed = m_file.GetValidNamingList(names);
    }
    for (const Name& name : names)
      all.names.push_back(name.ToUtf8());
    for (const Place& place : m_places) {
      all.tiles.push_back(Look(place, UINT64_MAX));
      unsigned long long value;
      if (!place.named) m_file.GetGridIdxValue(place.row, place.col, value);
      all.states.push_back(place.named ? m_file.GetStatus(place.name)
                                       : m_file.GetStatus(place.row, place.col));
    }
    return all;
  }

  // What the object knows of the file is what there is in it.
  void ExpectSameAfterOpening() {
    if (LengthOf(m_path) > kMaxFile) return;
    const Everything before = LookAtAll();
    if (m_poked || m_cut || !m_file.IsOpen()) return;
    m_file.Close();
    CHECK(m_file.Open(m_path, PasswordOf(m_secret), m_mode) == ZrResult::kOk);
    CHECK(LookAtAll() == before);
  }

  const PelmUnicodeString m_path = Path("t.cf");
  Input m_commands;
  std::vector<Place> m_places;
  ZrCompactFile m_file;
  ZrCompactFile::ZrOpenMode m_mode = 0;
  bool m_secret = false;
  bool m_poked = false;  // since it was opened
  bool m_cut = false;    // see LacksNames, when it was opened
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  Session(Split(bytes, size)).Run();
  return 0;
}
