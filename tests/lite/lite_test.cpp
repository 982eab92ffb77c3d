#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>
#include <tuple>
#include <utility>

#include "FileSyscalls.h"
#include "ZrCompactFileReader.h"
#include "ZrCompactFileWriter.h"
#include "ZrFile.h"
#include "support/RawFile.h"
#include "support/SyscallFaults.h"
#include "support/TemporaryFolder.h"

namespace Zarn {
namespace {

using namespace Support;

constexpr bool kBigHost = std::endian::native == std::endian::big;
/// The masks of two passwords, which depend on the host.
constexpr unsigned char kSecret = kBigHost ? 0x3E : 0x3B, kAbc = kBigHost ? 0xF0 : 0x19;
/// Plus a position: the index value of a complete tile.
constexpr unsigned long long kCompleteAt = 1ULL << 56;

/// Result, payload and filled length of a lookup.
using Tile = std::tuple<unsigned int, std::string, unsigned long long>;
const Tile kUnread = {9, "before", 0};

ZrByteArray Data(std::string_view text) { return ZrByteArray(text.data(), text.size()); }

Tile Lookup(ZrCompactFileReader& reader, unsigned row, unsigned col, unsigned long long stamp) {
  ZrByteArray data = Data("before");
  unsigned long long filled = 77;
  const unsigned int result = reader.Lookup(row, col, data, filled, stamp);
  return {result, std::string(data.GetData(), data.GetData() + data.GetSize()), filled};
}

class Lite : public ::testing::Test {
 protected:
  /// A grid of one row.
  void Create(unsigned int cols) { ASSERT_EQ(writer.Create(path, 1, cols, u"", 4), 0U); }
  void Reopen() {
    writer.Close();
    ASSERT_EQ(writer.Open(path, u"", 4), 0U);
  }
  unsigned int Store(unsigned int col, std::string_view text, unsigned long long capacity = 0,
                     unsigned long long offset = 0) {
    return writer.SetAt(0, col, Data(text), capacity, offset, 1);
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
  Tile Read(unsigned int col, unsigned long long version = 100) {
    reader.Close();
    EXPECT_EQ(reader.Open(path, u"", 2), 0U);
    return Lookup(reader, 0, col, version);
  }
  Bytes File() { return ReadFile(path); }
  void Resize(std::size_t size) { std::filesystem::resize_file(path.ToUtf8(), size); }

  TemporaryFolder folder;
  PelmUnicodeString path = folder.GetPath("t.cf");
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
    EXPECT_EQ(file, Hex(kBigHost ? "43 46 01" : "43 46 00") + Native(20120214, 4) + Native(0, 4) +
                        Hex("00x8") + Native(64) + Hex("00x37") +
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
  EXPECT_TRUE(stream[64] == kSecret && stream[255] == 0xA5) << "the last byte is not written";
  for (const int length : {64, 0, -1})
    ZrCompactFile::ReMakeStream(header, length, stream);
  ZrCompactFile::ReMakeStream(header, 64, nullptr);
  EXPECT_THAT(header, ::testing::Each(kSecret));
  ZrCompactFile::SwapByte(header[0], stream[255]);
  EXPECT_TRUE(header[0] == 0xA5 && stream[255] == kSecret);
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
  EXPECT_EQ(std::get<0>(Read(0)), 9U);
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
  const auto close = [&] { return writer.Close() && reader.Close(); };
  const PelmUnicodeString locked = folder.GetPath("locked"), cache = folder.GetPath("x.SC");
  ASSERT_EQ(writer.Create(locked, 1, 1, u"secret", 4), 0U);
  Create(1);
  const Bytes good = File();
  // How much of the file is left, what is put where, and the answer.
  const std::tuple<std::ptrdiff_t, Bytes, std::size_t, unsigned int> files[] = {
      {84, Native(7, 4), 3, 0},  // a later format
      {63, {}, 0, 9},
      {75, {}, 0, 9},
      {84, Text("G"), 1, 9},
      {84, Native(1, 4), 7, 9},
      {84, Native(63), 19, 9},
      {84, Native(~5ULL), 19, 9},
      {84, {}, 0, 0}};
  for (const auto& [size, bytes, offset, expected] : files) {
    ASSERT_TRUE(close());
    WriteFile(path, Bytes(good.begin(), good.begin() + size));
    Poke(path, offset, bytes);
    EXPECT_EQ(open(path), expected) << size << ' ' << offset;
  }
  EXPECT_EQ(open(locked, u"fur"), 0U) << "the same mask as secret";
  EXPECT_EQ(open(path), 0U) << "without a password after one with a password";
  EXPECT_EQ(open(locked, u"secret"), 0U);
  EXPECT_EQ(open(locked + u".cf", u"wrong"), 0U) << "open already";
  EXPECT_EQ(open(locked, u"wrong"), 9U) << "not completed, so not the open path";

  WriteFile(cache, good);
  ZrFile::MkDirEx(folder.GetPath("dir.cf"));
  const std::pair<PelmUnicodeString, unsigned int> failing[] = {
      {folder.GetPath("none"), 5}, {u"", 5}, {cache, 1}, {folder.GetPath("dir"), 6}};
  for (const auto& [which, expected] : failing) {
    EXPECT_TRUE(open(path) == 0 && open(which) == expected) << which.ToUtf8();
    EXPECT_EQ(Lookup(reader, 0, 0, 0), (Tile{6, "before", 77})) << which.ToUtf8();
    EXPECT_EQ(Store(0, "to no file at all"), 6U) << which.ToUtf8();
  }
  EXPECT_EQ(open(path), 0U);
  Poke(path, 7, Native(1, 4));
  EXPECT_TRUE(reader.ReadHeader() == 0 && reader.ReadHeaderGrid() == 3) << "a naming file now";
  EXPECT_EQ(Lookup(reader, 0, 0, 1), (Tile{9, "before", 77}));
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
  Poke(path, 72, Hex("FFx4"));  // flags
  Reopen();
  writer.Close();
  Poke(path, 2, Hex(kBigHost ? "00" : "01"));
  ASSERT_EQ(writer.Open(path, u"", 4), 9U);
  path = folder.GetPath("new.cf");
  Create(3);
  Poke(path, 11, Bytes(fresh.begin() + 11, fresh.begin() + 19));  // the time
  EXPECT_EQ(File(), fresh);
}

TEST_F(Lite, StoreArguments) {
  EXPECT_TRUE(writer.WriteHeader() == 1 && writer.WriteHeaderGrid(1, 1) == 10) << "closed";
  ASSERT_EQ(writer.Create(path, 2, 2, u"", 4), 0U);
  EXPECT_EQ(Store(0, "xy", 5, UINT64_MAX), 10U);
  EXPECT_TRUE(Store(2, "x") == 10 && writer.SetAt(2, 0, Data("x"), 0, 0, 1) == 10) << "no cell";
  EXPECT_EQ(Write("x", 1, 107), 0U) << "inside the index";
  EXPECT_EQ(Write("xy", 1, 108), 0U);
  for (unsigned long long capacity : {1ULL << 57, (1ULL << 56) - 108})
    EXPECT_EQ(Write("x", capacity, 108), 0U) << "too far";
  EXPECT_EQ(File().size(), 108U) << "nothing was written";
  Resize(84);
  EXPECT_EQ(Put(0, "x", 0x7FFFFF9C), 108U) << "behind the index, even one that is cut off";
  EXPECT_EQ(writer.GetStatus(0, 0), ZrCompactFile::kPartial);
}

TEST_F(Lite, StepsOfCreateForgetNoTile) {
  Create(2);
  Poke(path, 76, Native(kCompleteAt | 84));
  EXPECT_EQ(writer.WriteHeaderGrid(1, 1), 0U) << "nothing to lose yet";
  EXPECT_TRUE(File().size() == 84 && writer.GetStatus(0, 0) == ZrCompactFile::kEmpty);
  Put(0, "tile");
  EXPECT_TRUE(writer.WriteHeaderGrid(1, 1) == 10 && writer.WriteHeader() == 0);
  EXPECT_EQ(Read(0), (Tile{0, "tile", 4}));
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
  EXPECT_TRUE(Read(0) == Tile(0, "shortAAAAA", 5) && Read(1) == Tile(0, "neighbour", 9));
  EXPECT_EQ(writer.GetStatus(0, 0), ZrCompactFile::kComplete) << "the entry keeps its status";

  const auto last = Put(2, "last");
  for (const bool isFull : {false, true}) {
    const std::size_t size = File().size();
    {
      const SyscallFaults restore;
      if (isFull)
        GetFileSyscalls().fallocate = [](int, int, off_t, off_t) { return errno = ENOSPC, -1; };
      else
        GetFileSyscalls().pwritev = [](auto...) -> ssize_t { return errno = EIO, -1; };
      EXPECT_EQ(Store(2, std::string(20, 'L')), 10U);
    }
    EXPECT_TRUE(Read(2) == Tile(0, "last", 4) && File().size() == size) << isFull;
  }
  EXPECT_EQ(Put(2, std::string(20, 'L')), last) << "the last may grow by what the length allows";
  const auto next = Put(2, std::string(37, 'M'));
  EXPECT_NE(next, last);

  Poke(path, 64 + 8, Native(0, 4));  // without versions, however large
  Reopen();
  EXPECT_EQ(Put(2, std::string(500, 'M')), next);
  EXPECT_NE(Put(0, std::string(500, 'A')), moved);
  EXPECT_EQ(Read(2), (Tile{0, std::string(500, 'M'), 500}));
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
  const std::string zeros(16, '\0');
  Tile tile = {0, large + zeros, 5000};
  bool hasFailed = true;
  for (std::size_t n = 1; hasFailed; ++n) {
    const std::size_t size = File().size();
    const std::string next(5000, static_cast<char>('a' + n));
    unsigned int answer = 0;
    {
      SyscallFaults faults;
      faults.FailCall(n, EIO);
      answer = Store(2, next, 5016);
      hasFailed = faults.HasFailed();
    }
    const std::size_t more = File().size() - size;  // a copy stays that the entry may name
    EXPECT_TRUE(answer == 0 || more == 0 || more == 44 + 5016) << n;
    if (answer == 0) tile = {0, next + zeros, 5000};
    EXPECT_TRUE(Read(2) == tile) << n;
  }
}

// An odd word says that a writer changes an entry.
TEST_F(Lite, MakesAWordEvenThatADeadWriterHasLeft) {
  ZrCompactFileWriter other;
  Create(1);
  for (const bool isAlive : {true, false}) {
    Poke(path, 48, Hex("01 00x6 01"));
    EXPECT_EQ(other.Open(path, u"", 4), 0U);
    EXPECT_EQ(File()[kBigHost ? 55 : 48] % 2 != 0, isAlive);
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

// Another writer appends where the file ends, which is in what the last record has reserved.
TEST_F(Lite, RunsOverNobodyInWhatARecordHasReserved) {
  for (const std::size_t size : {55U, 57U, 9000U}) {
    ZrFile::Delete(path);
    Create(3);
    for (const unsigned int col : {0U, 1U})
      ASSERT_TRUE(writer.WriteIndexValue(
          0, col, kCompleteAt | Write("tile", 20000, File().size() + col * 52)));
    Resize(30000);
    Reopen();
    EXPECT_EQ(Put(0, std::string(size, 'n')) == 100, size == 55);
    EXPECT_EQ(std::get<1>(Read(0)).substr(0, size), std::string(size, 'n'));
    EXPECT_EQ(std::get<1>(Read(1)).substr(0, 5), std::string("tile\0", 5));
  }
}

TEST_F(Lite, HostileEntriesAndRecords) {
  // Records begin at 236. Each record also lies at 124, in the unused part of the index.
  constexpr unsigned long long kAt = kCompleteAt | 236, kInIndex = kCompleteAt | 124;
  enum Effect { kRewritten, kAppended, kNothing, kRefused };
  const auto record = [](unsigned long long length, unsigned int count, unsigned long long capacity,
                         unsigned long long filled) {
    return Native(length) + Native(count, 4) +
           (count == 0 ? Bytes() : Native(1) + Native(kCompleteAt)) + Native(capacity) +
           Native(filled) + Text("payload!");
  };
  const Bytes good = record(52, 1, 8, 8);
  const Tile whole = {0, "payload!", 8};
  const std::tuple<const char*, unsigned long long, Bytes, Tile, Effect> cases[] = {
      {"good", kAt, good, whole, kRewritten},
      {"in the index", kInIndex, good, kUnread, kAppended},
      {"long, in the index", kInIndex, record(999, 1, 8, 8), kUnread, kAppended},
      {"beyond the file", kAt + 99, good, kUnread, kRefused},
      {"length 43", kAt, record(43, 0, 15, 8) + Hex("00x7"), kUnread, kAppended},
      {"length over the end", kAt, record(53, 1, 8, 8), kUnread, kNothing},
      {"largest length", kAt, record(UINT64_MAX, 1, 8, 8), kUnread, kNothing},
      {"capacity over the record", kAt, record(52, 1, 9, 8), kUnread, kRewritten},
      {"largest count", kAt, record(52, 0xFFFFFFFF, 8, 8), kUnread, kRewritten},
      {"filled beyond the capacity", kAt, record(52, 1, 8, 99), whole, kRewritten},
      {"status 3", kAt | 2ULL << 56, record(999, 1, 8, 8), {0, "", 0}, kAppended}};
  Create(20);
  const Bytes empty = File();
  for (const auto& [what, entry, bytes, read, effect] : cases) {
    // The next entry tells the reader no size, the right one or a wrong one; it names no record.
    for (unsigned long long next : {0ULL, kAt + 52, kAt + 49}) {
      WriteFile(path, empty + bytes);
      Poke(path, 124, bytes);
      Poke(path, 76, Native(entry) + Native(next));
      const Bytes file = File();
      EXPECT_EQ(Read(0), read) << what;
      Reopen();
      const bool isStored = effect == kRewritten || effect == kAppended;
      EXPECT_EQ(Store(0, "new"), effect == kRefused ? 9U : 0U) << what;
      unsigned long long now = 0, end = file.size();
      if (next % kCompleteAt == end) ++end;  // that record is lost, and would lie there
      EXPECT_TRUE(writer.ReadIndexValue(0, 0, now));
      EXPECT_EQ(now, effect == kAppended ? kCompleteAt | end : entry) << what;
      EXPECT_EQ(File() != file, isStored) << what;
      EXPECT_EQ(Read(0), isStored ? Tile(0, "new", 3) : read) << what;
    }
  }
}

// Records as the engine leaves them: several versions, slack behind the payload, no table at all.
TEST_F(Lite, ReadsTheNewestOfSeveralVersions) {
  Create(2);
  Poke(path, 76, Native(kCompleteAt | 92) + Native(kCompleteAt | (92 + 44 + 4)));
  Poke(path, 92,
       Native(12 + 3 * 16 + 16 + 4 + 16) + Native(3, 4) + Native(9) + Native(kCompleteAt) +
           Native(7) + Native(kCompleteAt | 92) + Native(5) + Native(kCompleteAt | 92) + Native(4) +
           Native(4) + Text("nine") + Hex("00x16"));
  for (unsigned long long stamp : {100U, 9U, 8U, 7U, 6U, 5U, 1U})
    EXPECT_EQ(Read(0, stamp), stamp == 7 || stamp == 5 ? Tile(0, "before", 0) : Tile(0, "nine", 4))
        << "older versions are not followed";
  Poke(path, 92, Native(84) + Native(0, 4) + Native(4) + Native(3) + Text("none"));
  EXPECT_EQ(Read(0, 0), (Tile{0, "none", 3})) << "a record without a table";
}

TEST_F(Lite, ReadsFilesOfTheOtherByteOrder) {
  const auto number = [](unsigned long long value, std::size_t width = 8) {
    return Number(value, width, !kBigHost);
  };
  const auto record = [&](const Bytes& text) {
    return number(44 + text.size()) + number(1, 4) + number(7) + number(kCompleteAt) +
           number(text.size()) + number(text.size()) + text;
  };
  const Bytes index = Hex(kBigHost ? "43 46 00" : "43 46 C8") + number(20120214, 4) + Hex("00x12") +
                      number(64) + Hex("00x37") + number(1, 4) + number(3, 4) + number(1, 4) +
                      number(0) + number(kCompleteAt | 100) + number(kCompleteAt | 147);
  WriteFile(path, index);
  Reopen();
  EXPECT_EQ(writer.WriteHeader(), 10U) << "would turn the file's order around";
  EXPECT_EQ(writer.WriteHeaderGrid(1, 3), 10U);
  WriteFile(path, index + record(Text("one")) + record(Text("two!")));
  EXPECT_EQ(Read(0), (Tile{0, "", 0}));
  EXPECT_EQ(Read(1), (Tile{0, "one", 3}));
  EXPECT_EQ(Read(2), (Tile{0, "two!", 4}));

  EXPECT_EQ(Put(1, "1"), 100U) << "in place";
  Resize(194);
  EXPECT_EQ(Put(0, "host order"), 195U) << "behind the last record";
  EXPECT_EQ(Read(1), kUnread) << "a limit: records are written in host order";
}

TEST_F(Lite, SystemCallsPerOperation) {
  const std::string half(250, '1'), tile(500, '2'), larger(600, '3');
  Create(8);
  // The first store prepares the words: a page, its file system, and the following.
  const std::tuple<unsigned int, std::string, std::size_t> stores[] = {
      {0, half, 7}, {7, tile, 4}, {1, tile, 4}, {0, tile, 4}, {0, larger, 5}};
  for (const auto& [col, text, count] : stores) {
    const SyscallFaults calls;
    EXPECT_EQ(Store(col, text, std::max(tile.size(), text.size())), 0U);
    EXPECT_EQ(calls.GetCount(), count) << col << ' ' << text.size();
  }
  Reopen();
  Put(2, tile);  // looks for the end of the last record
  Read(0);
  const SyscallFaults calls;
  EXPECT_EQ(Lookup(reader, 0, 1, 1), (Tile{0, tile, 500}));
  EXPECT_EQ(calls.GetCount(), 3U) << "entry, record, words";
  EXPECT_EQ(Store(2, larger), 0U);
  EXPECT_EQ(calls.GetCount(), 8U) << "the end is known";
}

// What a writer does before a read: an open makes two, a lookup those of entry, record and entry.
std::function<void()> g_beforeRead;
int g_readsBefore;

TEST_F(Lite, ReadsATileBesideAWriter) {
  constexpr unsigned int kCell = 502;  // whose entry lies on two pages
  Create(600);
  const auto home = Put(kCell, std::string(9000, 'a'));
  const Bytes file = File();
  const auto point = [&](unsigned long long to) {
    Poke(path, 76 + kCell * 8, Native(kCompleteAt | to));
  };
  const std::tuple<int, std::function<void()>, Tile> cases[] = {
      {3,
       [&] {  // the copy is cut off, and another cell takes its place
         point(home);
         Resize(file.size());
         EXPECT_EQ(Put(0, std::string(9000, 'b')), file.size());
       },
       {0, std::string(9000, 'a'), 9000}},
      {4,
       [&] {  // the record shrinks, once its head was read
         EXPECT_EQ(Put(kCell, std::string(1000, 'c')), home);
       },
       {0, std::string(1000, 'c'), 1000}}};
  for (const auto& [reads, change, tile] : cases) {
    if (reads == 3) {
      WriteFile(path, file + Bytes(file.begin() + static_cast<std::ptrdiff_t>(home), file.end()));
      point(file.size());
    }
    const SyscallFaults restore;
    g_readsBefore = reads;
    g_beforeRead = change;
    GetFileSyscalls().pread = [](int fd, void* bytes, size_t size, off_t position) {
      if (g_readsBefore-- == 0) std::exchange(g_beforeRead, nullptr)();
      return ::pread(fd, bytes, size, position);
    };
    EXPECT_TRUE(Read(kCell) == tile) << reads;
    EXPECT_EQ(g_beforeRead, nullptr);
  }
}

}  // namespace
}  // namespace Zarn
