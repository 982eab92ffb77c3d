#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "PELM.h"
#include "ZrCompactFileReader.h"
#include "ZrCompactFileWriter.h"
#include "ZrFile.h"
#include "support/RawFile.h"
#include "support/SyscallFaults.h"
#include "support/TemporaryFolder.h"

namespace Zarn {
namespace {

using Support::Bytes;
using Support::Hex;
using Support::Number;
using Support::Poke;
using Support::operator+;

const bool kBigHost = PELM::un_bigendina != 1;

Bytes Native(unsigned long long value, std::size_t width = 8) {
  return Number(value, width, kBigHost);
}

Bytes Text(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

ZrByteArray Data(std::string_view text) {
  return ZrByteArray(text.data(), text.size());
}

std::string Content(const ZrByteArray& data) {
  return data.IsEmpty() ? std::string()
                        : std::string(reinterpret_cast<const char*>(data.GetData()),
                                      static_cast<std::size_t>(data.GetSize()));
}

struct Tile {
  unsigned int result;
  std::string payload;
  unsigned long long filled;
};
bool operator==(const Tile& a, const Tile& b) {
  return a.result == b.result && a.payload == b.payload && a.filled == b.filled;
}
void PrintTo(const Tile& tile, std::ostream* out) {
  *out << tile.result << " \"" << tile.payload << "\" " << tile.filled;
}

/// A folder, a writer, and fresh readers.
class Lite : public ::testing::Test {
 protected:
  /// A file of rows x cols, open in the writer.
  void Create(unsigned int rows, unsigned int cols) {
    ASSERT_EQ(writer.Create(path, rows, cols, u"", 4), 0U);
  }
  void Reopen() {
    writer.Close();
    ASSERT_EQ(writer.Open(path, u"", 4), 0U);
  }
  unsigned int Store(unsigned int col, std::string_view text, unsigned long long capacity = 0,
                     unsigned long long offset = 0, unsigned long long version = 1) {
    return writer.SetAt(0, col, Data(text), capacity, offset, version);
  }
  Tile Read(unsigned int col, unsigned long long version = 100, unsigned int row = 0) {
    ZrCompactFileReader reader;
    EXPECT_EQ(reader.Open(path, u"", 2), 0U);
    ZrByteArray data = Data("before");
    Tile tile{0, "", 77};
    tile.result = reader.Lookup(row, col, data, tile.filled, version);
    tile.payload = Content(data);
    return tile;
  }
  unsigned long long Position(unsigned int col) {
    unsigned long long entry = 0;
    EXPECT_TRUE(writer.ReadIndexValue(0, col, entry));
    return entry & 0x00FFFFFFFFFFFFFF;
  }
  std::size_t FileSize() { return Support::ReadFile(path).size(); }
  std::size_t FilesInFolder() {
    using Walk = std::filesystem::recursive_directory_iterator;
    return static_cast<std::size_t>(std::distance(Walk(folder.GetFolder()), Walk()));
  }

  TemporaryFolder folder;
  PelmUnicodeString path = folder.GetPath("t.cf");
  ZrCompactFileWriter writer;
};

// Header, one cell, one record: every byte of the file.
TEST_F(Lite, WritesTheFormatByteForByte) {
  for (const auto& [password, mask] :
       {std::pair{u"", 0x00}, std::pair{u"secret", 0x3B}, std::pair{u"abc", 0x19}}) {
    ZrFile::Delete(path);
    ASSERT_EQ(writer.Create(path, 1, 1, password, 4), 0U);
    ASSERT_EQ(writer.SetAt(0, 0, Data("AAAA"), 6, 0, 5), 0U);
    ASSERT_EQ(writer.SetAt(0, 0, Data("BBBB"), 0, 0, 5), 0U) << "over the end: does nothing";
    writer.Close();
    Bytes file = Support::ReadFile(path);
    ASSERT_EQ(file.size(), 132U);
    for (std::size_t i = 0; i < 64; ++i)
      file[i] ^= static_cast<unsigned char>(mask);
    std::fill_n(file.begin() + 11, 8, 0);  // the time
    EXPECT_EQ(file, Hex(kBigHost ? "43 46 01" : "43 46 00") + Native(20120214, 4) + Native(0, 4) +
                        Hex("00x8") + Native(64) + Hex("00x37") +
                        // rows, columns, flags, entry: partial, at 84
                        Native(1, 4) + Native(1, 4) + Native(1, 4) + Native(0x0200000000000054) +
                        // length, count, stamp, locator, capacity, filled
                        Native(50) + Native(1, 4) + Native(5) + Native(0x0200000000000000) +
                        Native(6) + Native(4) + Text("AAAA"));
  }
}

TEST_F(Lite, CreateAnswers) {
  const PelmUnicodeString deep = folder.GetPath("a/b/c");
  EXPECT_EQ(writer.Create(deep, 2, 3, u"", 4), 0U);
  EXPECT_EQ(writer.GetFilePath(), deep + u".cf");
  EXPECT_TRUE(writer.IsVersionEnabled());
  EXPECT_EQ(Support::ReadFile(deep + u".cf").size(), 124U);

  EXPECT_EQ(writer.Create(deep, 2, 3, u"", 4), 2U) << "exists";
  EXPECT_FALSE(writer.IsOpen());
  EXPECT_TRUE(ZrFile::IsExist(deep + u".cf"));
  EXPECT_EQ(writer.Create(deep, 2, 3, u"", 1), 2U) << "deleted, not yet created";
  EXPECT_FALSE(ZrFile::IsExist(deep + u".cf"));
  EXPECT_EQ(writer.Create(deep, 2, 3, u"", 1), 0U);

  Support::WriteFile(folder.GetPath("old.Sc"), Text("kept"));
  EXPECT_EQ(writer.Create(folder.GetPath("old.Sc"), 0, 0, u"", 1), 1U);
  EXPECT_TRUE(ZrFile::IsExist(folder.GetPath("old.Sc")));
  EXPECT_EQ(writer.Create(folder.GetPath("old.Sc/x"), 1, 1, u"", 4), 1U) << "no such folder";
  EXPECT_EQ(writer.Create(u"", 1, 1, u"", 4), 2U);
  EXPECT_EQ(writer.Create(PelmUnicodeString(u"a\0b", 3), 1, 1, u"", 4), 2U);
  EXPECT_EQ(writer.Create(path, 0, 1, u"", 4), 2U);
  EXPECT_EQ(writer.Create(path, 1, 0, u"", 4), 2U);
  EXPECT_EQ(writer.Create(path, 0x10000001, 1, u"", 4), 2U);
  EXPECT_FALSE(ZrFile::IsExist(path));
}

// 65536 x 65536 wraps to no cell at all.
TEST_F(Lite, WrappedGridHasNoCells) {
  Create(65536, 65536);
  EXPECT_EQ(FileSize(), 76U);
  EXPECT_EQ(Store(0, "x"), 10U);
  EXPECT_EQ(writer.GetStatus(0, 0), ZrCompactFile::kUnknown);
  EXPECT_EQ(Read(0).result, 9U);
}

TEST_F(Lite, OpenAnswers) {
  Create(1, 1);
  writer.Close();
  const Bytes good = Support::ReadFile(path);
  const auto with = [&](std::size_t offset, const Bytes& bytes) {
    Bytes file = good;
    std::copy(bytes.begin(), bytes.end(), file.begin() + static_cast<std::ptrdiff_t>(offset));
    return file;
  };
  const Bytes truncated(good.begin(), good.begin() + 75);
  const std::pair<Bytes, unsigned int> files[] = {
      {good, 0},
      {with(3, Native(20111111, 4)), 0},
      {with(3, Native(7, 4)), 0},
      {{}, 9},
      {Bytes(good.begin(), good.begin() + 63), 9},
      {truncated, 9},
      {with(1, Text("G")), 9},
      {with(7, Native(1, 4)), 9},
      {with(19, Native(63)), 9},
      {with(19, Native(85)), 9},
      {with(19, Native(UINT64_MAX - 5)), 9},
      {with(2, kBigHost ? Hex("00") : Hex("01")), 9},  // kind 0 either way, but no such offset
  };
  for (const auto& [bytes, expected] : files) {
    writer.Close();
    Support::WriteFile(path, bytes);
    ZrCompactFileReader reader;
    EXPECT_EQ(reader.Open(path, u"", 2), expected) << bytes.size();
    EXPECT_EQ(writer.Open(path, u"", 4), expected) << bytes.size();
    EXPECT_EQ(reader.IsOpen(), expected == 0);
    EXPECT_EQ(writer.IsOpen(), expected == 0);
  }
  EXPECT_EQ(writer.Create(folder.GetPath("new"), 1, 1, u"secret", 4), 0U)
      << "nothing of a failed Open is left behind";
  writer.Close();
  const PelmUnicodeString locked = folder.GetPath("new");
  EXPECT_EQ(writer.Open(locked, u"secret", 4), 0U);
  EXPECT_EQ(writer.Open(locked, u"wrong", 4), 9U) << "not completed, so not the open path";
  EXPECT_EQ(writer.Open(locked, u"9", 4), 0U) << "the same mask as secret";
  EXPECT_EQ(writer.Open(locked + u".cf", u"wrong", 4), 0U) << "open already";

  EXPECT_EQ(writer.Open(folder.GetPath("none"), u"", 4), 5U);
  EXPECT_EQ(writer.Open(u"", u"", 4), 5U);
  EXPECT_EQ(writer.Open(PelmUnicodeString(u"a\0b", 3), u"", 4), 5U);
  EXPECT_EQ(writer.Open(folder.GetPath("x.SC"), u"", 4), 1U);
  ZrFile::MkDirEx(folder.GetPath("dir.cf"));
  EXPECT_EQ(writer.Open(folder.GetPath("dir"), u"", 4), 6U);
  ASSERT_EQ(::mkfifo(folder.GetPath("fifo.cf").ToUtf8().c_str(), 0600), 0);
  EXPECT_EQ(writer.Open(folder.GetPath("fifo"), u"", 4), 6U);
  ZrCompactFileReader reader;
  EXPECT_EQ(reader.Open(folder.GetPath("fifo"), u"", 2), 6U);
  ZrByteArray data;
  unsigned long long filled = 0;
  EXPECT_EQ(reader.Lookup(0, 0, data, filled, 0), 6U);
  EXPECT_EQ(Store(0, "x"), 6U);
}

TEST_F(Lite, AnotherSpellingIsTheOpenFileUnlessItIsAnotherFile) {
  Create(1, 1);
  EXPECT_EQ(writer.Open(folder.GetPath("T.CF"), u"", 4), 0U);
  EXPECT_EQ(writer.GetFilePath(), path) << "still the same";
  ZrCompactFileWriter other;
  ASSERT_EQ(other.Create(folder.GetPath("T.CF"), 2, 2, u"", 4), 0U);
  EXPECT_EQ(writer.Open(folder.GetPath("T.CF"), u"", 4), 0U);
  EXPECT_EQ(writer.GetFilePath(), folder.GetPath("T.CF"));
}

TEST_F(Lite, StoreArguments) {
  Create(1, 2);
  EXPECT_EQ(Store(0, ""), 10U);
  EXPECT_EQ(Store(0, "x", 0x7FFFFF9D), 10U);
  EXPECT_EQ(Store(0, "x", 0, 1), 10U);
  EXPECT_EQ(Store(0, "xy", 5, UINT64_MAX), 10U);
  EXPECT_EQ(Store(2, "x"), 10U);
  EXPECT_EQ(writer.SetAt(1, 0, Data("x"), 0, 0, 1), 10U);
  EXPECT_EQ(writer.GetStatus(0, 0), ZrCompactFile::kEmpty);
  EXPECT_EQ(FileSize(), 92U) << "nothing was written";
  EXPECT_EQ(Store(0, "x", 0x7FFFFF9C), 0U);
  EXPECT_EQ(writer.GetStatus(0, 0), ZrCompactFile::kPartial);
  EXPECT_EQ(writer.GetStatus(0, 2), ZrCompactFile::kUnknown);
  ZrCompactFile::ZrStatus status;
  EXPECT_EQ(writer.WriteDataToFile(status, Data("x"), 1, 0, 1, 91), 0U) << "inside the index";
  EXPECT_EQ(writer.WriteDataToFile(status, Data("xy"), 1, 0, 1, 200), 0U);
}

TEST_F(Lite, StepsOfCreateForgetNoTile) {
  Create(1, 2);
  EXPECT_EQ(writer.WriteHeaderGrid(1, 1), 0U) << "nothing to lose yet";
  ASSERT_EQ(Store(0, "tile"), 0U);
  EXPECT_EQ(writer.WriteHeaderGrid(1, 2), 10U);
  EXPECT_EQ(writer.WriteHeader(), 0U);
  EXPECT_EQ(Read(0).payload, "tile");
  EXPECT_EQ(writer.Open(folder.GetPath("x.sc"), u"", 4), 1U);
  EXPECT_EQ(Store(0, "into the wrong file"), 6U);
  EXPECT_EQ(writer.WriteHeader(), 1U);
  EXPECT_EQ(writer.WriteHeaderGrid(1, 1), 10U);
}

TEST_F(Lite, RewritesInPlaceOnlyWhereNobodyIsRunOver) {
  Create(1, 3);
  const std::string a(100, 'A'), b(50, 'B');
  ASSERT_EQ(Store(0, a), 0U);
  ASSERT_EQ(Store(1, b), 0U);
  const auto first = Position(0);
  // One to 16 bytes more would still pass for a fit by the length alone.
  for (std::size_t more : {1, 16, 17}) {
    ASSERT_EQ(Store(0, a + std::string(more, '+')), 0U);
    EXPECT_EQ(Read(1), (Tile{0, b, 50})) << more;
    EXPECT_EQ(Read(0).payload.size(), 100 + more);
  }
  EXPECT_NE(Position(0), first);
  const auto moved = Position(0);
  const std::size_t size = FileSize();
  EXPECT_EQ(Store(0, "short", 10), 0U);
  EXPECT_EQ(Position(0), moved) << "in place";
  EXPECT_EQ(writer.GetStatus(0, 0), ZrCompactFile::kComplete) << "the entry keeps its status";
  EXPECT_EQ(FileSize(), size);
  EXPECT_EQ(Read(0).filled, 5U);

  ASSERT_EQ(Store(2, "last"), 0U);
  const auto last = Position(2);
  EXPECT_EQ(Store(2, std::string(20, 'L')), 0U);
  EXPECT_EQ(Position(2), last) << "the last record may grow by what the length allows";
  EXPECT_EQ(Store(2, std::string(40, 'M')), 0U);
  EXPECT_NE(Position(2), last);
  EXPECT_EQ(Read(2).payload, std::string(40, 'M'));
}

TEST_F(Lite, WithoutVersionsInPlaceStillSparesTheNeighbour) {
  Create(1, 2);
  Poke(path, 64 + 8, Native(0, 4));
  Reopen();
  EXPECT_FALSE(writer.IsVersionEnabled());
  ASSERT_EQ(Store(0, "one"), 0U);
  const auto alone = Position(0);
  ASSERT_EQ(Store(0, std::string(500, '1')), 0U);
  EXPECT_EQ(Position(0), alone) << "the last record grows in place, however large";
  ASSERT_EQ(Store(1, "two"), 0U);
  ASSERT_EQ(Store(0, std::string(501, '1')), 0U);
  EXPECT_EQ(Read(1).payload, "two");
  EXPECT_EQ(Read(0).payload, std::string(501, '1'));
}

// The unused capacity of a tile is not written, so the file ends before its last record does.
TEST_F(Lite, NothingIsAppendedIntoTheLastRecord) {
  Create(1, 4);
  ASSERT_EQ(Store(0, "first", 1000), 0U);
  EXPECT_EQ(Read(0), (Tile{9, "before", 0})) << "runs over the end of the file";
  EXPECT_EQ(Store(0, "again", 1000), 0U);
  EXPECT_EQ(Read(0).result, 9U) << "and nothing was written";
  const auto end = Position(0) + 44 + 1000;
  ASSERT_EQ(Store(1, "second", 2000), 0U);
  EXPECT_EQ(Position(1), end);
  const Tile first = Read(0);
  EXPECT_EQ(first.payload, "first" + std::string(995, '\0'));
  EXPECT_EQ(first.filled, 5U);

  Reopen();
  const auto second = Position(1);
  ASSERT_EQ(Store(2, "third"), 0U);
  EXPECT_EQ(Position(2), second + 44 + 2000) << "found again after opening";
  EXPECT_EQ(Read(1).payload.substr(0, 6), "second");

  // A damaged length of the highest record must not send the next one to an absurd place.
  for (unsigned long long absurd : {43ULL, 0x7FFFFFC9ULL, 1ULL << 60}) {
    Poke(path, static_cast<std::size_t>(Position(2)), Native(absurd));
    Reopen();
    const std::size_t size = FileSize();
    ASSERT_EQ(Store(3, "fourth"), 0U);
    EXPECT_EQ(Position(3), size);
    Poke(path, 76 + 3 * 8, Native(0));
  }
}

TEST_F(Lite, HostileEntriesAndRecords) {
  struct Case {
    const char* what;
    Bytes entry;
    Bytes record;  // at 124, where the first record of this grid lies
    unsigned int stored, read;
  };
  const Bytes entry = Native(0x010000000000007C);
  const auto record = [](unsigned long long length, unsigned long long count,
                         unsigned long long capacity, unsigned long long filled) {
    return Native(length) + Native(count, 4) + Native(1) + Native(1ULL << 56) + Native(capacity) +
           Native(filled) + Text("payload!");
  };
  const Case cases[] = {
      {"good", entry, record(52, 1, 8, 8), 0, 0},
      {"position in the index", Native(0x0100000000000040), record(52, 1, 8, 8), 0, 9},
      {"position beyond the file", Native(0x01000000000000C0), record(52, 1, 8, 8), 9, 9},
      {"largest position", Native(0x01FFFFFFFFFFFFFF), record(52, 1, 8, 8), 9, 9},
      {"length 0", entry, record(0, 1, 8, 8), 0, 9},
      {"length 43", entry, record(43, 1, 0, 0), 0, 9},
      {"length over the end", entry, record(53, 1, 8, 8), 0, 9},
      {"largest length", entry, record(UINT64_MAX, 1, 8, 8), 0, 9},
      {"capacity over the record", entry, record(52, 1, 9, 8), 0, 9},
      {"largest capacity", entry, record(52, 1, UINT64_MAX, 8), 0, 9},
      {"largest count", entry, record(52, 0xFFFFFFFF, 8, 8), 0, 9},
      {"filled beyond the capacity", entry, record(52, 1, 8, 99), 0, 0},
      {"status 3", Native(0x030000000000007C), record(52, 1, 8, 8), 0, 0},
  };
  Create(1, 6);
  const Bytes empty = Support::ReadFile(path);
  for (const Case& test : cases) {
    Bytes file = empty + test.record;
    std::copy(test.entry.begin(), test.entry.end(), file.begin() + 76);
    Support::WriteFile(path, file);
    const Tile tile = Read(0);
    EXPECT_EQ(tile.result, test.read) << test.what;
    if (test.read == 9) {
      EXPECT_EQ(tile.payload, "before") << test.what;
    }
    EXPECT_LE(tile.filled, 8U) << test.what;
    Reopen();
    EXPECT_EQ(Store(0, "new"), test.stored) << test.what;
    EXPECT_EQ(Support::ReadFile(path).size() <= file.size() + 44 + 3, true) << test.what;
  }
}

// Records as the engine leaves them: several versions, slack behind the payload, no table at all.
TEST_F(Lite, ReadsTheNewestOfSeveralVersions) {
  Create(1, 1);
  const Bytes record = Native(12 + 3 * 16 + 16 + 4 + 16) + Native(3, 4) + Native(9) +
                       Native(1ULL << 56) + Native(7) + Native(1ULL << 56 | 84) + Native(5) +
                       Native(1ULL << 56 | 84) + Native(4) + Native(4) + Text("nine") +
                       Hex("00x16");
  Bytes file = Support::ReadFile(path) + record;
  Poke(path, 76, Native(1ULL << 56 | 84));
  Poke(path, 84, record);
  for (unsigned long long stamp : {100, 9, 8, 6, 1})
    EXPECT_EQ(Read(0, stamp), (Tile{0, "nine", 4}));
  for (unsigned long long stamp : {7, 5})
    EXPECT_EQ(Read(0, stamp), (Tile{0, "before", 0})) << "older versions are not followed";

  Poke(path, 84, Native(84) + Native(0, 4) + Native(4) + Native(3) + Text("none"));
  EXPECT_EQ(Read(0, 0), (Tile{0, "none", 3})) << "a record without a table";
}

// 20 x 30 cells of the other byte order, made by hand.
TEST_F(Lite, ReadsFilesOfTheOtherByteOrder) {
  const bool big = !kBigHost;
  const auto number = [big](unsigned long long value, std::size_t width = 8) {
    return Number(value, width, big);
  };
  const auto payload = [](unsigned int cell) {
    return "tile " + std::to_string(cell) + std::string(cell % 40, '.');
  };
  const Bytes header = Text("CF") + Bytes{static_cast<unsigned char>(big ? 200 : 0)} +
                       number(20120214, 4) + number(0, 4) + Hex("00x8") + number(64) +
                       Hex("00x37") + number(20, 4) + number(30, 4) + number(1, 4);
  Bytes index, records;
  for (unsigned int cell = 0; cell < 600; ++cell) {
    if (cell % 7 == 3) {
      index = index + number(0);
      continue;
    }
    index = index + number(1ULL << 56 | (76 + 600 * 8 + records.size()));
    const std::string text = payload(cell);
    records = records + number(44 + text.size()) + number(1, 4) + number(cell) +
              number(1ULL << 56) + number(text.size()) + number(text.size()) + Text(text);
  }
  Support::WriteFile(path, header + index + records);
  for (unsigned int cell = 0; cell < 600; ++cell) {
    const Tile expected =
        cell % 7 == 3 ? Tile{0, "", 0} : Tile{0, payload(cell), payload(cell).size()};
    EXPECT_EQ(Read(cell % 30, 1000, cell / 30), expected) << cell;
  }

  Reopen();
  EXPECT_EQ(writer.WriteHeader(), 10U) << "would turn the file's order around";
  EXPECT_EQ(writer.WriteHeaderGrid(1, 1), 10U);
  ASSERT_EQ(writer.SetAt(0, 3, Data("host order"), 0, 0, 1), 0U);
  EXPECT_EQ(writer.GetStatus(0, 3), ZrCompactFile::kComplete);
  EXPECT_EQ(Read(3).result, 9U) << "a limit: records are written in host order";
  EXPECT_EQ(Read(4), (Tile{0, payload(4), payload(4).size()}));
}

// In and out of order, so that the reader's guess of a tile's size is right, wrong and missing.
TEST_F(Lite, EveryTileReadsBackWhateverTheOrder) {
  std::mt19937 random(7);
  constexpr unsigned int kTiles = 300;
  Create(1, kTiles);
  std::vector<std::string> tiles(kTiles);
  for (int round = 0; round < 4; ++round) {
    std::vector<unsigned int> order(kTiles);
    std::iota(order.begin(), order.end(), 0U);
    if (round > 0) std::shuffle(order.begin(), order.end(), random);
    for (unsigned int col : order) {
      tiles[col] = std::string(1 + random() % 3000, static_cast<char>('a' + random() % 26));
      ASSERT_EQ(Store(col, tiles[col]), 0U);
      if (random() % 50 == 0) Reopen();
    }
    ZrCompactFileReader reader;
    ASSERT_EQ(reader.Open(path, u"", 2), 0U);
    ZrByteArray data;
    unsigned long long filled = 0;
    for (unsigned int col = 0; col < kTiles; ++col) {
      ASSERT_EQ(reader.Lookup(0, col, data, filled, 1), 0U);
      ASSERT_EQ(Content(data), tiles[col]) << col;
      ASSERT_EQ(filled, tiles[col].size());
    }
  }
}

TEST_F(Lite, SystemCallsPerOperation) {
  Create(1, 8);
  const auto countCalls = [](auto operation) {
    const SyscallFaults calls;
    operation();
    return calls.GetCount();
  };
  for (unsigned int col = 0; col < 8; ++col)
    EXPECT_EQ(countCalls([&] { ASSERT_EQ(Store(col, "12345678"), 0U); }), 4U)
        << "entry, length of the file, record, entry";
  EXPECT_EQ(countCalls([&] { ASSERT_EQ(Store(3, "abcdefgh"), 0U); }), 4U)
      << "entry, old length, length of the file, record";

  ZrCompactFileReader reader;
  ASSERT_EQ(reader.Open(path, u"", 2), 0U);
  ZrByteArray data;
  unsigned long long filled = 0;
  for (unsigned int col = 0; col < 7; ++col)
    EXPECT_EQ(countCalls([&] { ASSERT_EQ(reader.Lookup(0, col, data, filled, 1), 0U); }), 2U)
        << "entry, record";
}

TEST_F(Lite, EveryFailingCallOfCreateLeavesNothing) {
  unsigned int result = 1;
  SyscallFaults faults;
  for (std::size_t n = 1; result != 0; ++n) {
    ASSERT_LT(n, 50U);
    faults.FailCall(n, ENOSPC, SyscallFaults::kFromThenOn);
    result = writer.Create(path, 64, 64, u"", 4);
    faults.FailCall(1, 0);
    EXPECT_EQ(writer.IsOpen(), result == 0);
    EXPECT_EQ(ZrFile::IsExist(path), result == 0) << n;
    if (result != 0) {
      // A temporary file stays only because its removal fails here as well.
      for (const auto& file : std::filesystem::directory_iterator(folder.GetFolder()))
        std::filesystem::remove(file);
    }
    writer.Close();
    if (result == 0) continue;
    faults.FailCall(n, EIO);
    const bool created = writer.Create(path, 64, 64, u"", 4) == 0;
    EXPECT_EQ(FilesInFolder(), created ? 1U : 0U) << n;
    faults.FailCall(1, 0);
    writer.Close();
    ZrFile::Delete(path);
  }
  EXPECT_EQ(writer.Open(path, u"", 4), 0U);
}

TEST_F(Lite, EveryFailingCallOfAStoreIsReportedAndKeepsTheOldTile) {
  Create(1, 2);
  ASSERT_EQ(Store(0, "old"), 0U);
  ASSERT_EQ(Store(1, "neighbour"), 0U);
  Reopen();
  SyscallFaults faults;
  std::size_t failures = 0;
  for (std::size_t n = 1;; ++n) {
    Reopen();
    faults.FailCall(n, ENOSPC);
    const unsigned int result = Store(0, "a tile that has to be appended");
    const bool failed = faults.HasFailed();
    faults.FailCall(1, 0);
    if (!failed) break;
    if (result != 0) {
      ++failures;
      EXPECT_EQ(Read(0), (Tile{0, "old", 3})) << n;
    } else {
      EXPECT_EQ(Read(0).payload, "a tile that has to be appended") << n;
      break;
    }
    EXPECT_EQ(Read(1), (Tile{0, "neighbour", 9})) << n;
  }
  EXPECT_GE(failures, 4U);
}

TEST_F(Lite, OfManyCreatorsOneWins) {
  for (int round = 0; round < 50; ++round) {
    const PelmUnicodeString contested = folder.GetPath("race" + std::to_string(round));
    std::atomic<int> won = 0, lost = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
      threads.emplace_back([&] {
        ZrCompactFileWriter creator;
        const unsigned int result = creator.Create(contested, 4, 4, u"", 4);
        if (result == 0 && creator.SetAt(1, 1, Data("winner"), 0, 0, 1) == 0) ++won;
        if (result == 2) ++lost;
      });
    for (std::thread& thread : threads)
      thread.join();
    EXPECT_EQ(won, 1);
    EXPECT_EQ(lost, 3);
    ZrCompactFileReader reader;
    EXPECT_EQ(reader.Open(contested, u"", 2), 0U);
    EXPECT_EQ(reader.GetStatus(1, 1), ZrCompactFile::kComplete);
  }
  EXPECT_EQ(FilesInFolder(), 50U) << "and no temporary file stays";
}

}  // namespace
}  // namespace Zarn
