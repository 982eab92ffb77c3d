#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <string>
#include <thread>
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
  void Create(unsigned int rows, unsigned int cols) {
    ASSERT_EQ(writer.Create(path, rows, cols, u"", 4), 0U);
  }
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
  Tile Read(unsigned int col, unsigned long long version = 100) {
    reader.Close();
    EXPECT_EQ(reader.Open(path, u"", 2), 0U);
    return Lookup(reader, 0, col, version);
  }
  Bytes File() { return ReadFile(path); }

  TemporaryFolder folder;
  PelmUnicodeString path = folder.GetPath("t.cf");
  ZrCompactFileWriter writer;
  ZrCompactFileReader reader;
};

TEST_F(Lite, WritesTheFormatByteForByte) {
  for (const auto& [password, mask] : {std::pair{u"", 0x00}, {u"secret", 0x3B}, {u"abc", 0x19}}) {
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
  EXPECT_EQ(ZrCompactFile::GenerateKey(u"secret"), 0x2DA4971FU);
  unsigned char state[256], stream[256] = {}, header[64] = {};
  stream[255] = 0xA5;
  ZrCompactFile::GenerateStream(state, 0x2DA4971F);
  ZrCompactFile::GenerateXorString(stream, state);
  EXPECT_EQ(stream[64], 0x3B);
  EXPECT_EQ(stream[255], 0xA5) << "the last byte is not written";
  ZrCompactFile::ReMakeStream(header, 64, stream);
  ZrCompactFile::ReMakeStream(header, 0, stream);
  ZrCompactFile::ReMakeStream(header, -1, stream);
  ZrCompactFile::ReMakeStream(header, 64, nullptr);
  EXPECT_THAT(header, ::testing::Each(0x3B));
  ZrCompactFile::SwapByte(header[0], stream[255]);
  EXPECT_TRUE(header[0] == 0xA5 && stream[255] == 0x3B);
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
      {path, 0x10000001, 1, 4, 2, false}};
  for (const auto& [where, rows, cols, mode, answer, isThere] : steps) {
    EXPECT_EQ(writer.Create(where, rows, cols, u"", mode), answer) << where.ToUtf8() << mode;
    EXPECT_EQ(writer.IsOpen(), answer == 0) << where.ToUtf8() << mode;
    EXPECT_EQ(ZrFile::IsExist(where), isThere) << where.ToUtf8() << mode;
  }
  SyscallFaults faults;
  faults.FailCall(1, ENOENT);  // no file at first
  EXPECT_EQ(writer.Create(deep, 1, 1, u"", 4), 2U) << "there is one by now";
  EXPECT_EQ(ReadFile(deep).size(), 124U);
}

TEST_F(Lite, WrappedGridHasNoCells) {
  Create(65536, 65536);
  EXPECT_EQ(File().size(), 76U);
  EXPECT_EQ(Store(0, "x"), 10U);
  EXPECT_EQ(writer.GetStatus(0, 0), ZrCompactFile::kUnknown);
  EXPECT_EQ(std::get<0>(Read(0)), 9U);
}

TEST_F(Lite, OpenAnswers) {
  const auto open = [&](const PelmUnicodeString& which, const char16_t* password = u"") {
    const unsigned int answer = writer.Open(which, password, 4);
    EXPECT_EQ(reader.Open(which, password, 2), answer) << which.ToUtf8();
    const bool isOpen[] = {writer.IsOpen(), reader.IsOpen(), reader.IsReadOnly()};
    EXPECT_THAT(isOpen, ::testing::Each(answer == 0)) << which.ToUtf8();
    return answer;
  };
  Create(1, 1);
  const Bytes good = File();
  // How much of the file is left, what is put where, and the answer.
  const std::tuple<std::ptrdiff_t, Bytes, std::size_t, unsigned int> files[] = {
      {84, Native(7, 4), 3, 0},
      {63, {}, 0, 9},
      {75, {}, 0, 9},
      {84, Text("G"), 1, 9},
      {84, Native(1, 4), 7, 9},
      {84, Native(63), 19, 9},
      {84, Native(UINT64_MAX - 5), 19, 9},
      {84, {}, 0, 0}};
  for (const auto& [size, bytes, offset, expected] : files) {
    writer.Close();
    reader.Close();
    WriteFile(path, Bytes(good.begin(), good.begin() + size));
    Poke(path, offset, bytes);
    EXPECT_EQ(open(path), expected) << size << ' ' << offset;
  }

  const PelmUnicodeString locked = folder.GetPath("locked");
  ASSERT_EQ(writer.Create(locked, 1, 1, u"secret", 4), 0U);
  writer.Close();
  EXPECT_EQ(open(locked, u"9"), 0U) << "the same mask as secret";
  EXPECT_EQ(open(path), 0U) << "without a password after one with a password";
  EXPECT_EQ(open(locked, u"secret"), 0U);
  EXPECT_EQ(open(locked + u".cf", u"wrong"), 0U) << "open already";
  EXPECT_EQ(open(locked, u"wrong"), 9U) << "not completed, so not the open path";

  WriteFile(folder.GetPath("x.SC"), good);
  ZrFile::MkDirEx(folder.GetPath("dir.cf"));
  ASSERT_EQ(::mkfifo(folder.GetPath("fifo.cf").ToUtf8().c_str(), 0600), 0);
  const std::pair<PelmUnicodeString, unsigned int> failing[] = {
      {folder.GetPath("none"), 5},        {u"", 5},
      {PelmUnicodeString(u"a\0b", 3), 5}, {folder.GetPath("x.SC"), 1},
      {folder.GetPath("dir"), 6},         {folder.GetPath("fifo"), 6}};
  for (const auto& [which, expected] : failing) {
    EXPECT_EQ(open(path), 0U);
    EXPECT_EQ(open(which), expected) << which.ToUtf8();
    EXPECT_EQ(Lookup(reader, 0, 0, 0), (Tile{6, "before", 77})) << which.ToUtf8();
    EXPECT_EQ(Store(0, "to no file at all"), 6U) << which.ToUtf8();
  }
}

TEST_F(Lite, AHeaderIsReadAgain) {
  Create(1, 1);
  Read(0);
  Poke(path, 0, Text("X"));
  Poke(path, 7, Native(1, 4));
  EXPECT_EQ(reader.ReadHeader(), 3U);
  EXPECT_EQ(reader.ReadHeaderGrid(), 0U) << "by the header that the object keeps";
  Poke(path, 0, Text("C"));
  EXPECT_EQ(reader.ReadHeader(), 0U);
  EXPECT_EQ(reader.ReadHeaderGrid(), 3U) << "a naming file";
  EXPECT_EQ(Lookup(reader, 0, 0, 1), (Tile{9, "before", 77}));
  EXPECT_FALSE(reader.IsVersionEnabled());
}

TEST_F(Lite, AnotherSpellingIsTheOpenFileUnlessItIsAnotherFile) {
  const PelmUnicodeString upper = folder.GetPath("T.CF");
  Create(1, 1);
  EXPECT_EQ(writer.Open(upper, u"", 4), 0U);
  EXPECT_EQ(writer.GetFilePath(), path) << "still the same";
  ASSERT_EQ(ZrCompactFileWriter().Create(upper, 2, 2, u"", 4), 0U);
  EXPECT_EQ(writer.Open(upper, u"", 4), 0U);
  EXPECT_EQ(writer.GetFilePath(), upper);
}

TEST_F(Lite, NothingOfAnEarlierFileStays) {
  Create(2, 3);
  Put(0, "first", 1000);
  path = folder.GetPath("far.cf");
  Create(2, 3);
  const Bytes fresh = File();
  Put(0, "far", 100000);
  path = folder.GetPath("t.cf");
  ASSERT_EQ(writer.Open(path, u"", 4), 0U) << "without a Close";
  EXPECT_EQ(Put(1, "next"), 124U + 44 + 1000) << "behind the last record of this file";

  Poke(path, 72, Hex("FFx4"));  // flags
  Reopen();
  writer.Close();
  Poke(path, 2, Hex(kBigHost ? "00" : "01"));
  ASSERT_EQ(writer.Open(path, u"", 4), 9U);
  path = folder.GetPath("new.cf");
  Create(2, 3);
  Poke(path, 11, Bytes(fresh.begin() + 11, fresh.begin() + 19));  // the time
  EXPECT_EQ(File(), fresh);
}

TEST_F(Lite, StoreArguments) {
  Create(1, 2);
  EXPECT_EQ(Store(0, "xy", 5, UINT64_MAX), 10U);
  EXPECT_EQ(Store(2, "x"), 10U);
  EXPECT_EQ(writer.SetAt(1, 0, Data("x"), 0, 0, 1), 10U);
  ZrCompactFile::ZrStatus status;
  EXPECT_EQ(writer.WriteDataToFile(status, Data("x"), 1, 0, 1, 91), 0U) << "inside the index";
  EXPECT_EQ(writer.WriteDataToFile(status, Data("xy"), 1, 0, 1, 92), 0U);
  for (unsigned long long capacity : {1ULL << 57, (1ULL << 56) - 60})
    EXPECT_EQ(writer.WriteDataToFile(status, Data("x"), capacity, 0, 1, 92), 0U) << "too far";
  EXPECT_EQ(writer.GetStatus(0, 0), ZrCompactFile::kEmpty);
  EXPECT_EQ(File().size(), 92U) << "nothing was written";
  std::filesystem::resize_file(path.ToUtf8(), 84);
  EXPECT_EQ(Put(0, "x", 0x7FFFFF9C), 92U) << "behind the index, even one that is cut off";
  EXPECT_EQ(writer.GetStatus(0, 0), ZrCompactFile::kPartial);
}

TEST_F(Lite, StepsOfCreateForgetNoTile) {
  EXPECT_EQ(writer.WriteHeader(), 1U) << "closed";
  EXPECT_EQ(writer.WriteHeaderGrid(1, 1), 10U);
  Create(1, 2);
  Poke(path, 76, Native(kCompleteAt | 84));
  EXPECT_EQ(writer.WriteHeaderGrid(1, 1), 0U) << "nothing to lose yet";
  EXPECT_EQ(File().size(), 84U);
  EXPECT_EQ(writer.GetStatus(0, 0), ZrCompactFile::kEmpty);
  Put(0, "tile");
  EXPECT_EQ(writer.WriteHeaderGrid(1, 1), 10U);
  EXPECT_EQ(writer.WriteHeader(), 0U);
  EXPECT_EQ(Read(0), (Tile{0, "tile", 4}));
  Poke(path, 19, Native(96));
  Reopen();
  EXPECT_EQ(writer.WriteHeader(), 10U) << "the index would not be found any more";
}

TEST_F(Lite, RewritesInPlaceOnlyWhereNobodyIsRunOver) {
  Create(1, 3);
  const auto first = Put(0, std::string(100, 'A'));
  Put(1, "neighbour");
  // One to 16 bytes more would still pass for a fit by the length alone.
  for (std::size_t size : {101U, 116U, 117U}) {
    EXPECT_NE(Put(0, std::string(size, 'A')), first) << size;
    EXPECT_EQ(Read(1), (Tile{0, "neighbour", 9})) << size;
    EXPECT_EQ(Read(0), (Tile{0, std::string(size, 'A'), size}));
  }
  const auto moved = Put(0, std::string(117, 'A'));
  EXPECT_EQ(Put(0, "short", 10), moved) << "in place";
  EXPECT_EQ(Read(0), (Tile{0, "shortAAAAA", 5}));
  EXPECT_EQ(writer.GetStatus(0, 0), ZrCompactFile::kComplete) << "the entry keeps its status";

  const auto last = Put(2, "last");
  EXPECT_EQ(Put(2, std::string(20, 'L')), last) << "the last may grow by what the length allows";
  const auto next = Put(2, std::string(37, 'M'));
  EXPECT_NE(next, last);

  Poke(path, 64 + 8, Native(0, 4));  // without versions, however large
  Reopen();
  EXPECT_FALSE(writer.IsVersionEnabled());
  EXPECT_EQ(Put(2, std::string(500, 'M')), next);
  EXPECT_NE(Put(0, std::string(500, 'A')), moved);
  EXPECT_EQ(Read(2), (Tile{0, std::string(500, 'M'), 500}));
}

// A record on several pages has a copy while it is rewritten.
TEST_F(Lite, NothingIsLeftOfACopy) {
  const std::string large(5000, 'L'), longer(100, 'l');
  Create(1, 3);
  const auto first = Put(0, large);
  EXPECT_EQ(Put(0, large), first);
  EXPECT_EQ(Put(1, "next"), first + 44 + 5000) << "where the copy was";
  const auto last = Put(2, large);
  EXPECT_EQ(Put(2, large, 5016), last);
  EXPECT_EQ(Put(1, longer), last + 44 + 5016) << "behind what the last one states";
  EXPECT_EQ(Read(2), (Tile{0, large + std::string(16, '\0'), 5000}));
}

// The copy that a cell names while it is rewritten is cut off, and the next tile takes its place.
TEST_F(Lite, ReadsNoOtherTileWhereACopyWas) {
  Create(1, 3);
  const auto home = Put(0, "rewritten");
  EXPECT_TRUE(writer.WriteIndexValue(0, 0, kCompleteAt | File().size()));
  ASSERT_EQ(reader.Open(path, u"", 2), 0U);
  static std::function<void()> goOn;
  goOn = [&] {
    goOn = nullptr;
    EXPECT_TRUE(writer.WriteIndexValue(0, 0, kCompleteAt | home));
    Put(1, "another");
  };
  const SyscallFaults restore;
  GetFileSyscalls().pread = [](int fd, void* bytes, std::size_t size, off_t position) {
    if (position > 100 && goOn != nullptr) goOn();  // once the entry was read
    return ::pread(fd, bytes, size, position);
  };
  EXPECT_EQ(Lookup(reader, 0, 0, 1), (Tile{0, "rewritten", 9}));
  EXPECT_EQ(goOn, nullptr);
}

// The unused capacity of a tile is not written, so the file ends before its last record does.
TEST_F(Lite, NothingIsAppendedIntoTheLastRecord) {
  constexpr unsigned int kLast = 19999;
  Create(1, kLast + 1);
  for (std::size_t size : {76U, 76 + 8 * (kLast + 1)})  // makes the index a hole
    std::filesystem::resize_file(path.ToUtf8(), size);
  const auto first = Put(kLast, "first", 5000);
  EXPECT_EQ(Read(kLast), kUnread) << "runs over the end of the file";
  Reopen();
  const auto second = Put(1, "second", 2000);
  EXPECT_EQ(second, first + 44 + 5000) << "found after opening";
  EXPECT_EQ(Read(kLast), (Tile{0, "first" + std::string(4995, '\0'), 5}));
  Reopen();
  {
    SyscallFaults faults;
    faults.FailCall(1, ENOSPC, SyscallFaults::kFromThenOn);
    EXPECT_EQ(Store(kLast, std::string(5000, '1')), 10U) << "no room for a copy";
  }
  const auto third = Put(2, "third", 3000);
  EXPECT_EQ(third, second + 44 + 2000) << "the highest of two";
  EXPECT_EQ(Put(3, "fourth"), third + 44 + 3000) << "remembered";
  ZrCompactFile::ZrStatus status;
  const auto free = writer.WriteDataToFile(status, Data("free"), 4000, 0, 1, File().size());
  const auto fifth = Put(4, "fifth");
  EXPECT_EQ(fifth, free + 44 + 4000) << "a record without an entry";

  // A damaged length of the highest record must not send the next one to an absurd place.
  for (unsigned long long absurd : {43ULL, 0x7FFFFFC9ULL, 1ULL << 60}) {
    Poke(path, fifth, Native(absurd));
    Reopen();
    const std::size_t size = File().size();
    EXPECT_EQ(Put(5, "sixth"), size);
    Poke(path, 76 + 5 * 8, Native(0));
  }
}

// Another writer appends where the file ends, which is in what the last record has reserved.
TEST_F(Lite, RunsOverNobodyInWhatARecordHasReserved) {
  for (const std::size_t size : {55U, 57U, 1000U, 9000U}) {
    ZrFile::Delete(path);
    Create(1, 3);
    ZrCompactFile::ZrStatus status;
    for (const unsigned int col : {0U, 1U}) {
      const auto at =
          writer.WriteDataToFile(status, Data("tile"), 20000, 0, 1, File().size() + col * 52);
      ASSERT_TRUE(writer.WriteIndexValue(0, col, kCompleteAt | at));
    }
    std::filesystem::resize_file(path.ToUtf8(), 30000);
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
  Create(1, 20);
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
      if (effect == kRewritten || effect == kAppended) {
        const bool isLost = next % kCompleteAt == file.size();  // whose record would lie there
        const auto end = file.size() + (isLost ? 1 : 0);
        EXPECT_EQ(Put(0, "new"), effect == kRewritten ? 236 : end) << what;
        EXPECT_EQ(Read(0), (Tile{0, "new", 3})) << what;
      } else {
        EXPECT_EQ(Store(0, "new"), effect == kRefused ? 9U : 0U) << what;
        EXPECT_EQ(File(), file) << what;
      }
    }
  }
}

// Records as the engine leaves them: several versions, slack behind the payload, no table at all.
TEST_F(Lite, ReadsTheNewestOfSeveralVersions) {
  Create(1, 2);
  Poke(path, 76, Native(kCompleteAt | 92) + Native(kCompleteAt | (92 + 44 + 4)));
  Poke(path, 92,
       Native(12 + 3 * 16 + 16 + 4 + 16) + Native(3, 4) + Native(9) + Native(kCompleteAt) +
           Native(7) + Native(kCompleteAt | 92) + Native(5) + Native(kCompleteAt | 92) + Native(4) +
           Native(4) + Text("nine") + Hex("00x16"));
  for (unsigned long long stamp : {100U, 9U, 8U, 6U, 1U})
    EXPECT_EQ(Read(0, stamp), (Tile{0, "nine", 4}));
  for (unsigned long long stamp : {7U, 5U})
    EXPECT_EQ(Read(0, stamp), (Tile{0, "before", 0})) << "older versions are not followed";
  Poke(path, 92, Native(84) + Native(0, 4) + Native(4) + Native(3) + Text("none"));
  EXPECT_EQ(Read(0, 0), (Tile{0, "none", 3})) << "a record without a table";
}

TEST_F(Lite, ReadsFilesOfTheOtherByteOrder) {
  const auto number = [](unsigned long long value, std::size_t width = 8) {
    return Number(value, width, !kBigHost);
  };
  const Bytes head = Hex(kBigHost ? "43 46 00" : "43 46 C8") + number(20120214, 4) + Hex("00x12") +
                     number(64) + Hex("00x37") + number(1, 4) + number(9, 4) + number(1, 4);
  const std::size_t start = head.size() + 9 * 8;
  Bytes index, records;
  for (unsigned int cell = 0; cell < 9; ++cell) {
    const Bytes text(cell * 9, 't');  // none in the first
    index = index + number(cell == 0 ? 0 : kCompleteAt | (start + records.size()));
    if (cell == 0) continue;
    records = records + number(44 + text.size()) + number(1, 4) + number(cell) +
              number(kCompleteAt) + number(text.size()) + number(text.size()) + text;
  }
  WriteFile(path, head + index);
  Reopen();
  EXPECT_EQ(writer.WriteHeader(), 10U) << "would turn the file's order around";
  EXPECT_EQ(writer.WriteHeaderGrid(1, 9), 10U);
  WriteFile(path, head + index + records);
  for (unsigned int cell = 0; cell < 9; ++cell)
    EXPECT_EQ(Read(cell), (Tile{0, std::string(cell * 9, 't'), cell * 9})) << cell;

  EXPECT_EQ(Put(1, "1"), start) << "in place";
  const std::size_t size = File().size();
  std::filesystem::resize_file(path.ToUtf8(), size - 1);
  EXPECT_EQ(Put(0, "host order"), size) << "behind the last record";
  EXPECT_EQ(Read(1), kUnread) << "a limit: records are written in host order";
}

TEST_F(Lite, SystemCallsPerOperation) {
  const std::string tile(500, '1'), larger(600, '2');
  const auto countCalls = [&](unsigned int col, const std::string& text) {
    const SyscallFaults calls;
    EXPECT_EQ(Store(col, text), 0U);
    return calls.GetCount();
  };
  Create(1, 8);
  EXPECT_EQ(countCalls(0, tile), 7U) << "words, their page, its file system, and the following";
  EXPECT_EQ(countCalls(7, tile), 4U) << "entry, length of the file, record, entry";
  EXPECT_EQ(countCalls(1, tile), 4U);
  EXPECT_EQ(countCalls(0, tile), 4U) << "entry, length of the file, old length, record";
  EXPECT_EQ(countCalls(0, larger), 5U) << "those of both";
  Reopen();
  Put(2, tile);  // looks for the end of the last record
  EXPECT_EQ(countCalls(2, larger), 5U) << "which is then known";
  Read(0);
  const SyscallFaults calls;
  EXPECT_EQ(Lookup(reader, 0, 1, 1), (Tile{0, tile, 500}));
  EXPECT_EQ(calls.GetCount(), 3U) << "entry, record, words";
}

// The last record may grow in its place, but only into room that is there.
TEST_F(Lite, AFullDiskDoesNotCostTheLastTile) {
  Create(1, 2);
  ASSERT_EQ(Store(0, "acknowledged"), 0U);
  {
    SyscallFaults restore;
    GetFileSyscalls().fallocate = [](int, int, off_t, off_t) { return errno = ENOSPC, -1; };
    EXPECT_EQ(Store(0, "a little too long"), 10U);
  }
  EXPECT_EQ(Read(0), (Tile{0, "acknowledged", 12}));
  EXPECT_EQ(Store(0, "a little too long"), 0U);
  EXPECT_EQ(std::get<1>(Read(0)), "a little too long");
}

std::size_t g_room;  // bytes that can be written before one write fails

ssize_t WriteIfThereIsRoom(int fd, const iovec* parts, int count, off_t position) {
  Bytes bytes;
  for (const iovec& part : std::vector(parts, parts + count)) {
    const auto* begin = static_cast<const unsigned char*>(part.iov_base);
    bytes.insert(bytes.end(), begin, begin + part.iov_len);
  }
  const std::size_t size = std::min(g_room, bytes.size());
  if (size == 0) return g_room = SIZE_MAX, errno = EFBIG, -1;
  g_room -= size;
  return ::pwrite(fd, bytes.data(), size, position);
}

// A write is cut short, as by a limit on the size of files, and then fails.
TEST_F(Lite, AStoreThatFailsLeavesTheOldTile) {
  const std::string small(300, 'o'), large(5000, 'o');
  for (const auto& [before, size] :
       {std::pair{small, 300}, {small, 310}, {small, 400}, {large, 5000}})
    for (std::size_t room = 0; room < 2 * (before.size() + 100); room += 1 + before.size() / 1000) {
      SCOPED_TRACE(std::to_string(size) + " " + std::to_string(room));
      const std::string after(static_cast<std::size_t>(size), 'n');
      writer.Close();
      ZrFile::Delete(path);
      Create(1, 2);
      Put(0, before);
      const SyscallFaults restore;
      g_room = room;
      GetFileSyscalls().pwritev = WriteIfThereIsRoom;
      GetFileSyscalls().pwrite = [](int fd, const void* bytes, std::size_t count, off_t position) {
        const iovec part = {const_cast<void*>(bytes), count};
        return WriteIfThereIsRoom(fd, &part, 1, position);
      };
      const unsigned int result = Store(0, after);
      const std::string& left = result == 0 ? after : before;
      ASSERT_TRUE(result == 0 || result == 10);
      ASSERT_TRUE(Read(0) == Tile(0, left, left.size()));
    }
}

// What a writer does before the n-th read of an open (1, 2) and a lookup (entry, record, entry).
std::function<void(unsigned int n)> g_atRead;
unsigned int g_reads;

class LiteBesideAWriter : public Lite {
 protected:
  Tile ReadWhile(unsigned int col, const std::function<void(unsigned int)>& atRead) {
    const SyscallFaults restore;
    g_atRead = atRead;
    g_reads = 0;
    GetFileSyscalls().pread = [](int fd, void* bytes, size_t size, off_t position) {
      if (const auto step = std::exchange(g_atRead, nullptr)) {
        step(++g_reads);
        g_atRead = step;
      }
      return ::pread(fd, bytes, size, position);
    };
    return Read(col);
  }
  void SetEntry(unsigned int col, unsigned long long entry) {
    Poke(path, 76 + col * 8, Native(entry));
  }
};

TEST_F(LiteBesideAWriter, ACopyIsCutOffAndAnotherCellTakesItsPlace) {
  constexpr unsigned int kCell = 502;  // whose entry lies on two pages
  Create(1, 600);
  const auto home = Put(kCell, std::string(9000, 'a'));
  const Bytes file = File();
  WriteFile(path, file + Bytes(file.begin() + static_cast<std::ptrdiff_t>(home), file.end()));
  SetEntry(kCell, kCompleteAt | file.size());
  const Tile read = ReadWhile(kCell, [&](unsigned int n) {
    if (n != 4) return;
    SetEntry(kCell, kCompleteAt | home);
    std::filesystem::resize_file(path.ToUtf8(), file.size());
    EXPECT_EQ(Put(0, std::string(9000, 'b')), file.size());
  });
  EXPECT_TRUE(read == Tile(0, std::string(9000, 'a'), 9000));
}

TEST_F(LiteBesideAWriter, ARecordShrinks) {
  Create(1, 2);
  const auto first = Put(0, std::string(3000, 'a'));
  const Tile shrunk = {0, std::string(1000, 'b'), 1000};
  const Tile read = ReadWhile(0, [&](unsigned int n) {
    if (n != 5) return;  // the head was read
    EXPECT_EQ(Put(0, std::get<1>(shrunk)), first);
  });
  EXPECT_TRUE(read == shrunk);
}

// Two cells are rewritten in place, two move with each store; of each kind one has its entry on two
// pages. No lookup gives anything of another cell; a tile that moves is whole, and never old.
TEST_F(LiteBesideAWriter, ThatNeverPauses) {
  constexpr unsigned int kCells[] = {0, 502, 6, 1014}, kSize = 9000, kStep = 24;
  std::atomic<unsigned int> stored[4] = {}, faults = 0;
  std::atomic<bool> isOver = false;
  const auto tileOf = [](unsigned int i, unsigned int n) {
    return std::string(kSize + (i < 2 ? 0 : kStep * n), static_cast<char>(64 * i + n % 64));
  };
  Create(1, 1100);
  ASSERT_EQ(reader.Open(path, u"", 2), 0U);
  const SyscallFaults restore;
  GetFileSyscalls().pread = [](int fd, void* bytes, size_t size, off_t position) {
    for (std::atomic<unsigned int> i = size > 16 ? 3000 : 0; i > 0;)
      --i;  // the writer gets ahead
    return ::pread(fd, bytes, size, position);
  };
  std::thread writing([&] {
    for (unsigned int n = 1; n <= 800; stored[3] = n++)
      for (const unsigned int i : {0U, 2U, 1U, 3U})
        faults += Store(kCells[i], tileOf(i, n)) != 0;
    isOver = true;
  });
  while (!isOver)
    for (unsigned int i = 0; i < 4; ++i) {
      const unsigned int known = stored[3];
      const auto [result, text, filled] = Lookup(reader, 0, kCells[i], 1);
      if (result == 9 || (known == 0 && text.empty())) continue;
      const auto n = (static_cast<unsigned int>(text.size()) - kSize) / kStep;
      const auto isOwn = [&](char c) { return static_cast<unsigned char>(c) / 64 == i; };
      const bool isGood = i < 2
                              ? text.size() == kSize && std::all_of(text.begin(), text.end(), isOwn)
                              : n >= known && text == tileOf(i, n);
      faults += !isGood;
    }
  writing.join();
  EXPECT_EQ(faults, 0U);
}

}  // namespace
}  // namespace Zarn
