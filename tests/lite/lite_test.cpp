#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <tuple>
#include <utility>

#include "ZrCompactFileReader.h"
#include "ZrCompactFileWriter.h"
#include "ZrFile.h"
#include "engine/EngineFixture.h"
#include "support/SyscallFaults.h"

namespace Zarn {
namespace {

using namespace Support;

constexpr bool kIsBig = std::endian::native == std::endian::big;
/// The masks of two passwords, which depend on the host.
constexpr unsigned char kSecret = kIsBig ? 0x3E : 0x3B, kAbc = kIsBig ? 0xF0 : 0x19;
/// Plus a position: the index value of a complete tile.
constexpr unsigned long long kCompleteAt = 1ULL << 56;

const Tile kUnread = {9, "before", 0};

class Lite : public EngineTest {
 protected:
  /// A grid of one row.
  void Create(unsigned int cols) { ASSERT_EQ(writer.Create(path, 1, cols, u"", 4), 0U); }
  void Reopen() {
    writer.Close();
    ASSERT_EQ(writer.Open(path, u"", 4), 0U);
  }
  unsigned int Store(unsigned int col, std::string_view text, unsigned long long capacity = 0) {
    return writer.SetAt(0, col, Data(text), capacity, 0, 1);
  }
  /// Stores a tile and returns where its record is.
  unsigned long long Put(unsigned int col, std::string_view text, unsigned long long capacity = 0) {
    EXPECT_EQ(Store(col, text, capacity), 0U);
    unsigned long long entry = 0;
    EXPECT_TRUE(writer.ReadIndexValue(0, col, entry));
    return entry & 0x00FFFFFFFFFFFFFF;
  }
  /// Writes a record where a writer appends that knows only the length of the file.
  unsigned long long Write(std::string_view text, unsigned long long capacity,
                           unsigned long long position) {
    ZrCompactFile::ZrStatus status;
    return writer.WriteDataToFile(status, Data(text), capacity, 0, 1, position);
  }
  Tile Lookup(unsigned int col, unsigned long long version) {
    return ReadTile(reader, {0, col}, version);
  }
  Tile Read(unsigned int col) {
    reader.Close();
    EXPECT_EQ(reader.Open(path, u"", 2), 0U);
    return Lookup(col, 100);
  }
  /// One call after the other fails: a tile is there, and the file no longer, except by a copy that
  /// the entry may name.
  void FailEverywhere(unsigned int col, std::size_t size, unsigned long long capacity,
                      std::size_t copySize) {
    for (std::size_t n = 1, result = 1; result != 0; ++n) {
      const std::size_t before = File().size();
      {
        SyscallFaults faults;
        faults.FailCall(n, EIO);
        result = Store(col, std::string(size, 'x'), capacity);
      }
      const std::size_t more = File().size() - before;
      EXPECT_TRUE(result == 0 || more == 0 || more == copySize) << n;
      EXPECT_EQ(Read(col).result, 0U) << n;
    }
  }
  Bytes File() { return ReadFile(path); }
  void Resize(std::size_t size) { std::filesystem::resize_file(path.ToUtf8(), size); }

  ZrCompactFileWriter writer;
  ZrCompactFileReader reader;
};

TEST_F(Lite, WritesTheFormatByteForByte) {
  for (const auto& [password, mask] : {std::pair{u"", 0}, {u"secret", kSecret}, {u"abc", kAbc}}) {
    ZrFile::Delete(path);
    ASSERT_EQ(writer.Create(path, 1, 1, password, 4), 0U);
    ASSERT_EQ(writer.SetAt(0, 0, Data("AAAA"), 6, 0, 5), 0U);
    writer.Close();
    Bytes file = File();
    ASSERT_EQ(file.size(), 132U);
    for (std::size_t i = 0; i < 64; ++i)
      file[i] ^= static_cast<unsigned char>(mask);
    std::fill_n(file.begin() + 11, 8, 0);  // the time
    EXPECT_EQ(file, Text("CF") + Native(kIsBig, 1) + Native(20120214, 4) + Native(0, 4) + Bytes(8) +
                        Native(64) + Bytes(37) +
                        // rows, columns, flags, entry: partial, at 84
                        Native(1, 4) + Native(1, 4) + Native(1, 4) + Native(0x0200000000000054) +
                        // length, count, stamp, locator, capacity, filled
                        Native(50) + Native(1, 4) + Native(5) + Native(0x0200000000000000) +
                        Native(6) + Native(4) + Text("AAAA"));
  }
}

TEST(LiteStatics, OneByteOfThePasswordsStreamMasksAHeader) {
  unsigned char state[256], stream[256] = {}, header[64] = {};
  stream[255] = 0xA5;
  ZrCompactFile::GenerateStream(state, ZrCompactFile::GenerateKey(u"secret"));
  ZrCompactFile::GenerateXorString(stream, state);
  for (const int length : {64, 0, -1})
    ZrCompactFile::ReMakeStream(header, length, stream);
  EXPECT_THAT(header, ::testing::Each(kSecret));
  EXPECT_EQ(stream[255], 0xA5) << "the last byte is not written";
}

TEST_F(Lite, CreateAnswers) {
  const PelmUnicodeString deep = folder.GetPath("a/b/c.cf"), old = folder.GetPath("old.Sc");
  WriteFile(old, Text("kept"));
  // Path, rows, columns, mode, the answer, and whether the path exists then.
  const std::tuple<PelmUnicodeString, unsigned, unsigned, unsigned, unsigned, bool> steps[] = {
      {folder.GetPath("a/b/c"), 2, 3, 4, 0, false},
      {deep, 2, 3, ~1U, 2, true},
      {deep, 2, 3, 5, 2, false},  // deleted, not yet created
      {deep, 2, 3, 1, 0, true},
      {old, 0, 0, 1, 1, true},
      {folder.GetPath("old.Sc/x"), 1, 1, 4, 1, false},
      {u"", 1, 1, 4, 2, false},
      {PelmUnicodeString(u"a\0b", 3), 1, 1, 4, 2, false},
      {path, 0, 1, 4, 2, false},
      {path, 1, 0, 4, 2, false},
      {path, 0x10000001, 1, 4, 2, false},
      {path, 65536, 65536, 4, 0, true}};
  for (const auto& [where, rows, cols, mode, answer, isThere] : steps) {
    EXPECT_EQ(writer.Create(where, rows, cols, u"", mode), answer) << where.ToUtf8() << mode;
    EXPECT_EQ(writer.IsOpen(), answer == 0) << where.ToUtf8() << mode;
    EXPECT_EQ(ZrFile::IsExist(where), isThere) << where.ToUtf8() << mode;
  }
  EXPECT_EQ(File().size(), 76U) << "the product wraps: there is no cell";
  EXPECT_TRUE(Store(0, "x") == 10 && writer.GetStatus(0, 0) == ZrCompactFile::kUnknown);
  EXPECT_EQ(Read(0).result, 9U);
  writer.Close();
  SyscallFaults faults;
  faults.FailCall(1, ENOENT);  // no file at first
  EXPECT_EQ(writer.Create(deep, 1, 1, u"", 4), 2U) << "there is one by now";
  EXPECT_EQ(ReadFile(deep).size(), 124U);
}

TEST_F(Lite, OpenAnswers) {
  const auto open = [&](const PelmUnicodeString& which, const char16_t* password = u"") {
    const unsigned int answer = writer.Open(which, password, 4);
    EXPECT_EQ(reader.Open(which, password, 2), answer) << which.ToUtf8();
    const bool isOpen[] = {writer.IsOpen(), reader.IsOpen(), reader.IsReadOnly()};
    EXPECT_THAT(isOpen, ::testing::Each(answer == 0)) << which.ToUtf8();
    return answer;
  };
  const PelmUnicodeString locked = folder.GetPath("locked"), cache = folder.GetPath("x.SC");
  ASSERT_EQ(writer.Create(locked, 1, 1, u"secret", 4), 0U);
  Create(1);
  EXPECT_EQ(open(locked, u"fur"), 0U) << "the same mask as secret";
  EXPECT_EQ(open(path), 0U) << "without a password after one with a password";
  EXPECT_EQ(open(locked, u"secret"), 0U);
  EXPECT_EQ(open(locked + u".cf", u"wrong"), 0U) << "open already";
  EXPECT_EQ(open(locked, u"wrong"), 9U) << "not completed, so not the open path";

  WriteFile(cache, File());
  ZrFile::MkDirEx(folder.GetPath("dir.cf"));
  const std::pair<PelmUnicodeString, unsigned int> failing[] = {
      {folder.GetPath("none"), 5}, {u"", 5}, {cache, 1}, {folder.GetPath("dir"), 6}};
  for (const auto& [which, expected] : failing) {
    EXPECT_TRUE(open(path) == 0 && open(which) == expected) << which.ToUtf8();
    EXPECT_EQ(Lookup(0, 0), (Tile{6, "before", 77})) << which.ToUtf8();
    EXPECT_EQ(Store(0, "to no file at all"), 6U) << which.ToUtf8();
  }
  EXPECT_EQ(open(path), 0U);
  Poke(path, 7, Native(1, 4));
  EXPECT_TRUE(reader.ReadHeader() == 0 && reader.ReadHeaderGrid() == 3) << "a naming file now";
  EXPECT_EQ(Lookup(0, 1), (Tile{9, "before", 77}));
}

TEST_F(Lite, NothingOfAnEarlierFileStays) {
  Create(3);
  const Bytes fresh = File();
  Put(0, "far", 100000);
  ZrFile::Delete(path);
  WriteFile(path, fresh);
  path = folder.GetPath("T.CF");
  EXPECT_EQ(writer.Open(path, u"", 4), 0U) << "a spelling of the open file";
  WriteFile(path, fresh);
  EXPECT_EQ(writer.Open(path, u"", 4), 0U) << "a file of its own now";
  EXPECT_EQ(Put(1, "next"), 100U) << "without regard to the file before";
  Poke(path, 72, Bytes(4, 0xFF));  // flags
  Reopen();
  writer.Close();
  Poke(path, 2, {!kIsBig});
  ASSERT_EQ(writer.Open(path, u"", 4), 9U);
  path = folder.GetPath("new.cf");
  Create(3);
  Poke(path, 11, Bytes(fresh.begin() + 11, fresh.begin() + 19));  // the time
  EXPECT_EQ(File(), fresh);
}

TEST_F(Lite, ForgetsNoTileAndReachesNoOtherPlace) {
  Create(2);
  Poke(path, 76, Native(kCompleteAt | 84));
  EXPECT_EQ(writer.WriteHeaderGrid(1, 1), 0U) << "nothing to lose yet";
  EXPECT_TRUE(File().size() == 84 && writer.GetStatus(0, 0) == ZrCompactFile::kEmpty);
  ASSERT_EQ(writer.WriteHeaderGrid(1, 2), 0U);
  EXPECT_TRUE(Store(2, "x") == 10 && writer.SetAt(1, 0, Data("x"), 0, 0, 1) == 10) << "no cell";
  EXPECT_EQ(Store(0, "x", 1ULL << 31), 10U);
  EXPECT_EQ(Write("x", 1, 91), 0U) << "inside the index";
  for (unsigned long long capacity : {1ULL << 57, (1ULL << 56) - 92})
    EXPECT_EQ(Write("x", capacity, 92), 0U) << "too far";
  EXPECT_EQ(File().size(), 92U) << "nothing was written";
  Resize(84);
  EXPECT_EQ(Put(0, "x", 9), 92U) << "behind the index, even one that is cut off";
  EXPECT_EQ(writer.GetStatus(0, 0), ZrCompactFile::kPartial);
  EXPECT_TRUE(writer.WriteHeaderGrid(1, 1) == 10 && writer.WriteHeader() == 0);
  Poke(path, 19, Native(96));
  Reopen();
  EXPECT_EQ(writer.WriteHeader(), 10U) << "the index would not be found any more";
}

TEST_F(Lite, RewritesInPlaceOnlyWhereNobodyIsRunOver) {
  Create(3);
  const auto first = Put(0, std::string(100, 'A'));
  Put(1, "neighbour");
  // One to 16 bytes more would still pass for a fit by the length alone.
  EXPECT_NE(Put(0, std::string(116, 'A')), first);
  const auto moved = Put(0, std::string(117, 'A'));
  EXPECT_EQ(Put(0, "short", 10), moved) << "in place";
  EXPECT_TRUE(Read(0) == (Tile{0, "shortAAAAA", 5}) && Read(1) == (Tile{0, "neighbour", 9}));
  EXPECT_EQ(writer.GetStatus(0, 0), ZrCompactFile::kComplete) << "the entry keeps its status";

  const auto last = Put(2, "last");
  {
    const SyscallFaults restore;
    GetFileSyscalls().fallocate = [](int, int, off_t, off_t) { return errno = ENOSPC, -1; };
    EXPECT_EQ(Store(2, std::string(20, 'L')), 10U) << "before anything is overwritten";
  }
  FailEverywhere(2, 20, 20, 0);
  EXPECT_EQ(Put(2, std::string(20, 'L')), last) << "the last may grow by what the length allows";
  const auto next = Put(2, std::string(37, 'M'));
  EXPECT_NE(next, last);

  Poke(path, 64 + 8, Native(0, 4));  // without versions, however large
  Reopen();
  EXPECT_EQ(Put(2, std::string(500, 'M')), next);
  EXPECT_NE(Put(0, std::string(500, 'A')), moved);
  EXPECT_EQ(Read(2), (Tile{0, std::string(500, 'M'), 500}));

  MakeCrowded(3, 9000);  // the next ones lie in what a record has reserved
  Reopen();
  EXPECT_NE(Put(0, std::string(56, 'n')), 100U);
  EXPECT_EQ(Read(1).payload.substr(0, 6), "tile 1");
}

// A record on several pages has a copy while it is rewritten.
TEST_F(Lite, NothingIsLeftOfACopy) {
  const std::string large(5000, 'L');
  Create(3);
  const auto first = Put(0, large);
  EXPECT_TRUE(Put(0, large) == first && writer.GetStatus(0, 0) == ZrCompactFile::kComplete);
  EXPECT_EQ(Put(1, "next"), first + 44 + 5000) << "where the copy was";
  const auto last = Put(2, large);
  EXPECT_EQ(Put(2, large, 5016), last);
  EXPECT_EQ(Put(1, "longer than next"), last + 44 + 5016) << "behind what the last one states";
  FailEverywhere(2, 5000, 5016, 44 + 5016);
}

// An odd word says that a writer changes an entry.
TEST_F(Lite, MakesAWordEvenThatADeadWriterHasLeft) {
  ZrCompactFileWriter other;
  Create(1);
  for (const bool isAlive : {true, false}) {
    Poke(path, 48, {1, 0, 0, 0, 0, 0, 0, 1});
    EXPECT_EQ(other.Open(path, u"", 4), 0U);
    EXPECT_EQ(File()[kIsBig ? 55 : 48] % 2 != 0, isAlive);
    other.Close();
    writer.Close();
  }
}

// The unused capacity of a tile is not written, so the file ends before its last record does.
TEST_F(Lite, NothingIsAppendedIntoTheLastRecord) {
  Create(20000);
  for (std::size_t size : {76U, 76 + 8 * 20000U})
    Resize(size);  // makes the index a hole
  const auto first = Put(19999, "first", 5000);
  EXPECT_EQ(Read(19999), kUnread) << "runs over the end of the file";
  Reopen();
  {
    const SyscallFaults restore;
    GetFileSyscalls().pread = [](int fd, void* bytes, std::size_t size, off_t position) {
      return size == 8 && position > 160000 ? errno = EIO, -1 : ::pread(fd, bytes, size, position);
    };
    EXPECT_EQ(Store(1, "second", 2000), 10U) << "the head of the first cannot be read";
  }
  const auto second = Put(1, "second", 2000);
  EXPECT_EQ(second, first + 44 + 5000) << "found after opening";
  EXPECT_EQ(Read(19999), (Tile{0, "first" + std::string(4995, '\0'), 5}));
  Reopen();
  const auto third = Put(2, "third", 3000);
  EXPECT_EQ(third, second + 44 + 2000) << "the highest of two";
  EXPECT_EQ(Put(3, "fourth"), third + 44 + 3000) << "remembered";
  const auto free = Write("free", 4000, File().size());
  const auto fifth = Put(4, "fifth");
  EXPECT_EQ(fifth, free + 44 + 4000) << "a record without an entry";

  // A damaged length of the highest record must not send the next one to an absurd place.
  for (unsigned long long absurd : {0x7FFFFFC9ULL, 1ULL << 60}) {
    Poke(path, fifth, Native(absurd));
    Poke(path, fifth + 28, Native(absurd - 44));  // the capacity
    Reopen();
    const std::size_t size = File().size();
    EXPECT_EQ(Put(5, "sixth"), size);
    Poke(path, 76 + 5 * 8, Native(0));
  }
}

TEST_F(Lite, TakesNothingForARecordThatIsNone) {
  const Bytes whole = Native(52) + Native(1, 4) + Native(1) + Native(kCompleteAt) + Native(8) +
                      Native(8) + Text("payload!"),
              small = Native(43) + Native(0, 4) + Native(15) + Native(8) + Bytes(15);
  for (const auto& [position, bytes] : {std::pair{124U, whole}, {236U, small}}) {
    ZrFile::Delete(path);
    Create(20);
    Poke(path, 76, Native(kCompleteAt | position));
    Poke(path, position, bytes);
    const std::size_t size = File().size();
    EXPECT_EQ(Read(0), kUnread) << position;
    Reopen();
    EXPECT_EQ(Put(0, "new"), size) << position;
  }
}

TEST_F(Lite, ReadsTheNewestVersionOnly) {
  for (const bool isForeign : {false, true}) {
    MakeGrid(1, 3, isForeign);
    ASSERT_EQ(EngineTest::Store(0, 1, "older", 7) + EngineTest::Store(0, 1, "one", 9), 0U);
    object.Close();
    if (IsBig()) Poke(path, 2, {0xC8});  // any number but 0
    EXPECT_EQ(Read(0), (Tile{0, "", 0}));
    EXPECT_EQ(Read(1), (Tile{0, "one", 3}));
    EXPECT_EQ(Lookup(1, 7), (Tile{0, "before", 0}));
    EXPECT_EQ(Lookup(1, 8), (Tile{0, "one", 3}));
  }
}

TEST_F(Lite, UsesFilesOfTheOtherByteOrder) {
  MakeGrid(1, 3, true);
  ASSERT_EQ(EngineTest::Store(0, 1, "one", 7) + EngineTest::Store(0, 2, "two!", 7), 0U);
  object.Close();
  Reopen();
  EXPECT_EQ(Put(1, "1"), 100U) << "in place";
  Resize(194);
  EXPECT_EQ(Put(0, "host order"), 195U) << "behind the last record";
  EXPECT_EQ(Read(1), kUnread) << "a limit: records are written in host order";
  Resize(100);
  EXPECT_EQ(writer.WriteHeader(), 10U) << "would turn the file's order around";
  EXPECT_EQ(writer.WriteHeaderGrid(1, 3), 10U);
}

TEST_F(Lite, SystemCallsPerOperation) {
  const std::string half(250, '1'), tile(500, '2');
  Create(8);
  // The first store prepares the words; the last one is in place, behind what was filled.
  const std::tuple<unsigned int, std::string, std::size_t> stores[] = {
      {0, half, 7}, {7, tile, 4}, {1, tile, 4}, {0, tile, 4}};
  for (const auto& [col, text, count] : stores) {
    const SyscallFaults calls;
    EXPECT_EQ(Store(col, text, tile.size()), 0U);
    EXPECT_EQ(calls.GetCount(), count) << col;
  }
  Put(2, tile);
  Read(0);
  const SyscallFaults calls;
  EXPECT_EQ(Lookup(1, 1), (Tile{0, tile, 500}));
  EXPECT_EQ(calls.GetCount(), 3U) << "entry, record, words";
}

}  // namespace
}  // namespace Zarn
