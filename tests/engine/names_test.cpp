#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <tuple>

#include "ZrFile.h"
#include "engine/EngineFixture.h"
#include "support/Processes.h"
#include "support/RawFile.h"
#include "support/SyscallFaults.h"

namespace Zarn {
namespace {

using Name = PelmUnicodeString;
using Support::operator+;

Name Numbered(unsigned int number) { return Name::FromUtf8("14/" + std::to_string(number)); }

// In both byte orders.
class Names : public EngineTest, public ::testing::WithParamInterface<bool> {
 public:
  unsigned int Put(const Name& name, std::string_view text, unsigned long long version = 1,
                   unsigned long long capacity = 0) {
    return object.SetAt(name, Data(text), capacity, 0, version);
  }
  Tile Get(const Name& name, unsigned long long version = 1) {
    return ReadTile(object, name, version);
  }
  std::multiset<std::string> List() {
    PelmArray<Name> names;
    EXPECT_TRUE(object.GetValidNamingList(names));
    std::multiset<std::string> list;
    for (const Name& name : names)
      list.insert(name.ToUtf8());
    return list;
  }
};
INSTANTIATE_TEST_SUITE_P(Engine, Names, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Foreign" : "Native"; });

TEST_P(Names, Answers) {
  MakeNaming(4, GetParam());
  const Name longest(std::u16string(128, u'x')), tooLong(std::u16string(129, u'x'));
  EXPECT_EQ(Put(u"", "x"), 10U);
  EXPECT_EQ(Put(tooLong, "x"), 10U);
  EXPECT_EQ(Put(u"a", ""), 10U);
  EXPECT_EQ(Get(u""), (Tile{9, "before", 0}));
  EXPECT_EQ(object.Remove(u"a", 1), 10U) << "never stored";
  EXPECT_EQ(object.GetStatus(u""), ZrCompactFile::kUnknown);
  ASSERT_EQ(Put(longest, "longest") + Put(u"a", "piece", 1, 9), 0U);
  EXPECT_EQ(Get(longest), (Tile{0, "longest", 7}));
  EXPECT_EQ(Get(tooLong).result, 5U);
  EXPECT_EQ(Get(u"A").result, 5U) << "names are compared exactly";
  const Name lone(u"\xD800", 1), other(u"\xDC00", 1);
  ASSERT_EQ(Put(lone, "high") + Put(other, "low"), 0U);
  EXPECT_EQ(Get(lone).payload, "high");
  EXPECT_EQ(object.Remove(u"a", 1), 0U);
  EXPECT_EQ(List(),
            (std::multiset<std::string>{"a", longest.ToUtf8(), lone.ToUtf8(), other.ToUtf8()}))
      << "removed names are listed";

  // From disk files, and on a grid.
  Support::WriteFile(folder.GetPath("disk"), Support::Text("disk"));
  Support::WriteFile(folder.GetPath("empty"), {});
  EXPECT_EQ(object.SetAt(u"disk", folder.GetPath("disk"), 3), 0U);
  EXPECT_EQ(Get(u"disk"), (Tile{0, "disk", 4}));
  EXPECT_EQ(object.SetAt(u"e", folder.GetPath("empty"), 3), 10U);
  EXPECT_EQ(object.SetAt(u"n", folder.GetPath("none"), 3), 10U);
  object.Close();
  EXPECT_EQ(Put(u"a", "x"), 6U);
  EXPECT_EQ(Get(u"a").result, 9U);
  ZrFile::Delete(path);
  MakeGrid(1, 1, GetParam());
  const Support::Bytes grid = Support::ReadFile(path);
  EXPECT_EQ(Put(u"a", "x"), 10U);
  EXPECT_EQ(Get(u"a").result, 9U);
  EXPECT_EQ(object.Remove(u"a", 1), 10U);
  EXPECT_EQ(object.GetStatus(u"a"), ZrCompactFile::kUnknown);
  PelmArray<Name> names;
  EXPECT_FALSE(object.GetValidNamingList(names));
  EXPECT_EQ(Support::ReadFile(path), grid);
  EXPECT_EQ(object.SetAt(0, 0, folder.GetPath("disk"), 3), 0U);
  EXPECT_EQ(Read(0, 0, 3).payload, "disk");
}

// Names as bytes of the current charset.
TEST_P(Names, OfAnOlderFile) {
  MakeNaming(4, GetParam(), 20111111);
  const Name name(u"caf\u00E9");
  ASSERT_EQ(Put(name, "tile"), 0U);
  Check();
  const Support::Bytes file = Support::ReadFile(path);
  const Support::Bytes expected =
      Number(250, 4) + Number(5, 4) + Support::Bytes{'c', 'a', 'f', 0xC3, 0xA9};
  EXPECT_EQ(Support::Bytes(file.begin() + 164 + 8, file.begin() + 164 + 21), expected);
  Reopen();
  EXPECT_EQ(Get(name).payload, "tile");
  EXPECT_EQ(List(), std::multiset<std::string>{""});
  object.Close();
  MakeNaming(4, GetParam(), 20111112);
  EXPECT_EQ(Put(name, "tile"), 10U) << "an unknown version: nobody could find it again";
  EXPECT_EQ(Get(name).result, 5U);
}

// A record that cannot be read may have any name of its hash. It hides no other one, but nothing is
// stored beside it.
TEST_P(Names, DamagedRecordsFailForTheirOwnNameOnly) {
  const Name first = u"1yeg98dgy", second = u"sm38f3s71";  // of one hash
  // What is put where; the status of the first name, and what looking for the second, which is not
  // there, and storing either answer.
  using Case = std::tuple<std::size_t, Support::Bytes, unsigned int, unsigned int, unsigned int>;
  for (const bool isAlone : {true, false}) {
    ZrFile::Delete(path);
    MakeNaming(4, GetParam());
    ASSERT_EQ(Put(first, "first"), 0U);  // record at 164
    ASSERT_TRUE(isAlone || Put(second, "second") == 0);
    object.Close();
    const Support::Bytes good = Support::ReadFile(path);
    for (const auto& [offset, bytes, status, unknown, stored] :
         {Case{164, Number(10000), 1, 9, 10},      // runs over the end
          {164, Number(20), 1, 9, 10},             // too short for its name
          {176, Number(UINT32_MAX, 4), 1, 9, 10},  // name over the end
          {176, Number(20, 4), 1, 9, 10},          // name over the version table
          {100, Number(1ULL << 56 | 99), 1, 9, 10},
          {100, Number(3ULL << 56 | 164), 3, 5, 0}}) {
      SCOPED_TRACE(std::to_string(offset) + (isAlone ? " alone" : ""));
      Support::WriteFile(path, good);
      Support::Poke(path, offset, bytes);
      Reopen();
      EXPECT_EQ(Get(first).result, 9U);
      EXPECT_EQ(object.GetStatus(first), status);
      EXPECT_EQ(Put(first, "new"), stored);
      if (isAlone) {
        EXPECT_EQ(Get(second).result, unknown);
      } else {
        EXPECT_EQ(Get(second).payload, "second");
        EXPECT_EQ(Put(second, "2nd"), 0U);
        EXPECT_EQ(object.Remove(second, 1), 0U);
      }
      EXPECT_EQ(Put(second, "again"), stored) << "neither a new slot nor one that is gone";
      object.Close();
    }
  }
}

// Memory for names depends on what the file has, not on what it claims; and a table that is just
// full is no larger than one for a name less.
TEST_F(EngineTest, NamesTakeMemoryForWhatIsThere) {
  using Support::operator+;
  const auto open = [&](std::uint64_t count, std::uint64_t present) {
    object.Close();
    MakeNaming(1);
    object.Close();
    std::filesystem::resize_file(path.ToUtf8(), 100 + 16 * count);
    Support::Poke(path, 64, Number(count) + Number(count));
    Support::Bytes slots;
    for (std::uint64_t i = 0; i < present; ++i)
      for (const unsigned char byte : Number(0) + Number(i + 1))
        slots.push_back(byte);
    Support::Poke(path, 100 + 16 * (count - present), slots);
    const struct mallinfo2 before = ::mallinfo2();
    EXPECT_EQ(object.Open(path, u"", kMode), 0U);
    const struct mallinfo2 after = ::mallinfo2();
    return after.uordblks + after.hblkhd - before.uordblks - before.hblkhd;
  };
  const std::size_t usual = open(65535, 65535);
  EXPECT_LT(open(65536, 65536), usual + 100000);
  EXPECT_LT(open(4000000, 20), 1000000U);
  PelmArray<Name> names;
  EXPECT_TRUE(object.GetValidNamingList(names));
  EXPECT_EQ(object.GetStatus(u"a"), ZrCompactFile::kEmpty);
  ZrCompactFile::ZrVerifySummary summary;
  EXPECT_EQ(object.Verify(summary), 9U);
  EXPECT_LT(summary.findings, 10000U);
  ASSERT_EQ(object.SetAt(u"a", Data("tile"), 0, 0, 1), 0U);
  EXPECT_EQ(object.Compact(), 0U);
  EXPECT_EQ(ReadTile(object, u"a", 1).payload, "tile");
}

// Another process stores names; what it has finished is found, at a cost that does not grow.
TEST_F(EngineTest, NamesOfAnotherProcessAreFound) {
  constexpr unsigned int kCount = 20000;
  int done[2];
  ASSERT_EQ(::pipe(done), 0);
  MakeNaming(1);
  object.Close();
  const auto writer = Support::Fork(1, [&](unsigned int) {
    ZrCompactFile file;
    bool ok = file.Open(path, u"", 12) == 0;
    for (unsigned int i = 0; ok && i < kCount; ++i)
      ok = file.SetAt(Numbered(i), Data("tile"), 0, 0, 1) == 0 &&
           ::write(done[1], &i, sizeof i) == sizeof i;
    return ok ? 0 : 1;
  });
  ::close(done[1]);
  ASSERT_EQ(object.Open(path, u"", 12), 0U);
  unsigned int newest, missed = 0, capacity = 0, count = 0;
  std::size_t calls[2] = {0, 0};  // for the first 1,000 names and for the last
  while (::read(done[0], &newest, sizeof newest) == sizeof newest) {
    const SyscallFaults counter;
    missed += ReadTile(object, Numbered(newest * 7919U % (newest + 1)), 1).result != 0;
    if (newest < 1000) calls[0] += counter.GetCount();
    if (newest >= kCount - 1000) calls[1] += counter.GetCount();
  }
  ::close(done[0]);
  Support::ExpectEnd(writer, 0);
  EXPECT_EQ(missed, 0U);
  EXPECT_LE(calls[1], 20 * 1000U);
  EXPECT_GT(calls[0], 0U);
  EXPECT_NE(ReadTile(object, u"none", 1).result, 0U);  // takes notice of the last ones
  EXPECT_EQ(object.GetIndexInfo(capacity, count), 1U);
  EXPECT_EQ(capacity, 32768U) << "doubled again and again";
  EXPECT_EQ(count, kCount);
  Check();
}

// Other openers tell by the time of creation that a compaction has put the slots into another
// order. So that must grow even if the clock stands still behind it.
TEST_F(EngineTest, NamesAreFoundAfterACompactionWhateverTheClock) {
  constexpr unsigned int kLocked = kMode | ZrCompactFile::kProcessLock;
  const auto put = [&](const Name& name) {
    return object.SetAt(name, Data(name.ToUtf8()), 0, 0, 1);
  };
  MakeNaming(64);
  for (unsigned int i = 0; i < 40; ++i)
    ASSERT_EQ(put(Numbered(i)), 0U);
  PelmArray<Name> names;  // in the order that compaction gives them
  ASSERT_TRUE(object.GetValidNamingList(names));
  for (const double time : {1e9, 0.0, -1e9, HUGE_VAL, std::nan("")}) {
    SCOPED_TRACE(time);
    object.Close();
    ZrFile::Delete(path);
    MakeNaming(64);
    object.Close();
    Support::Poke(path, 11, Number(std::bit_cast<std::uint64_t>(time)));
    ZrCompactFile other;
    ASSERT_EQ(object.Open(path, u"", kLocked) + other.Open(path, u"", kLocked), 0U);
    // All in another order, but the last one.
    for (std::size_t i = names.GetSize() - 1; i-- > 0;)
      ASSERT_EQ(put(names[i]), 0U);
    ASSERT_EQ(put(names[names.GetSize() - 1]), 0U);
    double before = std::isfinite(time) ? time : 0;
    for (int round = 0; round < 2; ++round) {
      ASSERT_EQ(other.Compact(), 0U);
      double now;
      std::memcpy(&now, Support::ReadFile(path).data() + 11, sizeof now);
      EXPECT_LT(before, now);
      before = now;
      for (const Name& name : names)
        EXPECT_EQ(ReadTile(object, name, 1).payload, name.ToUtf8());
    }
  }
}

}  // namespace
}  // namespace Zarn
