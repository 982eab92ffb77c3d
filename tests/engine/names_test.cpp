#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ZrTileCursor.h"
#include "engine/EngineFixture.h"
#include "support/RawFile.h"

namespace Zarn {
namespace {

using Name = PelmUnicodeString;
using Support::operator+;

// In both byte orders.
class Names : public EngineTest, public ::testing::WithParamInterface<bool> {
 public:
  Names() : EngineTest(TemporaryFolder::kMemory) {}

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
  const Support::Bytes sizes = Number(0x3FF8000000000000) + Number(0x4004000000000000);
  Support::Poke(path, 80, sizes);
  Reopen();
  const Name longest(std::u16string(128, u'x')), tooLong(std::u16string(129, u'x'));
  const Name lone(u"\xD800", 1), other(u"\xDC00", 1);
  EXPECT_EQ(Store(u"", "x") + Store(tooLong, "x") + Store(u"a", ""), 30U);
  EXPECT_EQ(Read(u""), (Tile{9, "before", 0}));
  EXPECT_EQ(object.Remove(u"a", 1), 10U) << "never stored";
  EXPECT_EQ(object.GetStatus(u""), ZrCompactFile::kUnknown);
  ASSERT_EQ(Store(longest, "longest") + Store(u"a", "tile"), 0U);
  ASSERT_EQ(Store(lone, "high") + Store(other, "low"), 0U);
  EXPECT_EQ(Read(longest).payload + Read(lone).payload, "longesthigh");
  EXPECT_TRUE(Read(tooLong).result == 5 && Read(u"A").result == 5) << "compared exactly";
  EXPECT_EQ(object.Remove(u"a", 1), 0U);
  EXPECT_EQ(List(),
            (std::multiset<std::string>{"a", longest.ToUtf8(), lone.ToUtf8(), other.ToUtf8()}))
      << "removed names are listed";
  const Support::Bytes file = Support::ReadFile(path);
  EXPECT_EQ(Support::Bytes(file.begin() + 80, file.begin() + 96), sizes);

  // From disk files, on a grid, and closed.
  const Name disk = folder.GetPath("disk"), empty = folder.GetPath("empty");
  Support::WriteFile(disk, Support::Text("disk"));
  Support::WriteFile(empty, {});
  EXPECT_EQ(object.SetAt(u"disk", disk, 3), 0U);
  EXPECT_EQ(Read(u"disk"), (Tile{0, "disk", 4}));
  EXPECT_EQ(object.SetAt(u"e", empty, 3) + object.SetAt(u"n", folder.GetPath("none"), 3), 20U);
  MakeGrid(1, 1, GetParam());
  EXPECT_EQ(object.SetAt(0, 0, disk, 3), 0U);
  EXPECT_EQ(EngineTest::Read(0, 0, 3).payload, "disk");
  EXPECT_EQ(Store(u"a", "x") + object.Remove(u"a", 1), 20U);
  EXPECT_EQ(Read(u"a").result, 9U);
  EXPECT_EQ(object.GetStatus(u"a"), ZrCompactFile::kUnknown);
  PelmArray<Name> names;
  EXPECT_FALSE(object.GetValidNamingList(names));
  object.Close();
  EXPECT_TRUE(Store(u"a", "x") == 6 && Read(u"a").result == 9);
}

// Names as bytes of the current charset.
TEST_P(Names, OfAnOlderFile) {
  MakeNaming(4, GetParam(), 20111111);
  const Name name(u"caf\u00E9");
  ASSERT_EQ(Store(name, "tile"), 0U);
  const Support::Bytes file = Support::ReadFile(path), bytes = {'c', 'a', 'f', 0xC3, 0xA9};
  EXPECT_EQ(Support::Bytes(file.begin() + 164 + 8, file.begin() + 164 + 21),
            Number(250, 4) + Number(5, 4) + bytes);
  Reopen();
  EXPECT_EQ(Read(name).payload, "tile");
  EXPECT_EQ(List(), std::multiset<std::string>{""});
  MakeNaming(4, GetParam(), 20111112);
  EXPECT_EQ(Store(name, "tile"), 10U) << "an unknown version: nobody could find it again";
  EXPECT_EQ(Read(name).result, 5U);
}

// The table of names knows a part of each code, and four bits of its ordinal: slots of which it
// cannot tell which one is meant. Of those with one code the last counts.
TEST_P(Names, AreFoundByTheirWholeCode) {
  constexpr std::uint64_t kCode = 100 + 8, kSlot = 16;
  MakeNaming(3, GetParam());
  ASSERT_EQ(Store(u"a", "A") + Store(u"b", "B") + Store(u"c", "C"), 0U);
  object.Close();
  const Support::Bytes file = Support::ReadFile(path);
  const auto codeAt = [&](std::uint64_t slot) {
    const auto from = file.begin() + static_cast<std::ptrdiff_t>(kCode + slot * kSlot);
    return Support::Bytes(from, from + 8);
  };
  const Support::Bytes ordinal = Number(std::uint64_t{16} << 56);
  Support::Bytes later = codeAt(1);
  for (std::size_t i = 0; i < later.size(); ++i)
    later[i] |= ordinal[i];
  Support::Poke(path, kCode, later);
  Support::Poke(path, kCode + 2 * kSlot, later);
  Reopen();
  EXPECT_EQ(Read(u"b").payload, "B");
  Support::Poke(path, kCode + 2 * kSlot, codeAt(1));
  Reopen();
  EXPECT_EQ(Read(u"b").result, 5U);
}

// As only a damaged file has them: all codes of one hash, which lead to the record of one name. And
// an index that can grow no more.
TEST_P(Names, OfOneHashAreNoMoreThanOrdinals) {
  constexpr std::uint64_t kOrdinals = 256, kSlots = 1 << 27, kCode = 0x000077B24DCCC90D;
  const Name first(u"1yeg98dgy"), second(u"sm38f3s71");
  MakeNaming(kOrdinals + 1, GetParam());
  ASSERT_EQ(Store(first, "first"), 0U);
  for (std::uint64_t i = 1; i < kOrdinals; ++i)
    Support::Poke(path, 100 + i * 16, Number(1ULL << 56 | 4212) + Number(kCode | i << 56));
  Support::Poke(path, 72, Number(kOrdinals));
  Reopen();
  std::vector<ZrVersion> versions;
  EXPECT_EQ((std::vector{Read(first).result, Read(second).result, Store(second, "x"),
                         object.Remove(second, 1), object.RemoveAll(second),
                         object.GetVersions(second, versions), StatusOf(object, second)}),
            (std::vector{0U, 5U, 10U, 10U, 10U, 5U, 0U}));
  ZrTileCursor cursor(object);
  EXPECT_TRUE(cursor.Next() == 0 && cursor.GetName() == first && cursor.Next() == 5);
  EXPECT_EQ(object.Compact(), 9U) << "so many tiles share one record";

  MakeNaming(1, GetParam());
  std::filesystem::resize_file(path.ToUtf8(), 100 + kSlots * 16);
  Support::Poke(path, 64, Number(kSlots) + Number(kSlots));
  Reopen();
  EXPECT_EQ(Store(second, "x"), 10U);
}

// The header of the index, as another process has left it, is believed as far as when it is opened.
TEST_P(Names, FollowTheHeaderOfTheIndex) {
  constexpr auto kLocked = ZrCompactFile::kProcessLock;
  for (const auto& [offset, number] : {std::pair(64U, 5U), {64, 1}, {72, 0}, {72, 1}, {72, 9}}) {
    SCOPED_TRACE(std::to_string(offset) + " " + std::to_string(number));
    MakeNaming(4, GetParam());
    Reopen(kLocked);
    ZrCompactFile other, fresh;
    ASSERT_EQ(other.Open(path, u"", kLocked) + Store(u"a", "A"), 0U);
    ASSERT_EQ(StoreTile(other, u"b", Data("B"), 1), 0U);
    ASSERT_EQ(Read(u"b").payload, "B");
    ASSERT_EQ(StoreTile(other, u"c", Data("C"), 1), 0U);
    Support::Poke(path, offset, Number(number));
    const bool isOpen = fresh.Open(path, u"", kMode) == 0;
    for (const char16_t* name : {u"c", u"b", u"a"})
      EXPECT_EQ(Read(name), isOpen ? ReadTile(fresh, name, ~0ULL) : (Tile{9, "before", 0}));
  }
}

// With lookups of another thread, and of an object that hears of them one by one, or of many.
TEST_P(Names, AreFoundWhileTheirTableGrows) {
  constexpr int kCount = 6000, kUnheard = 1000;
  MakeNaming(1, GetParam());
  Reopen(ZrCompactFile::kProcessLock);
  ZrCompactFile beside;
  ASSERT_EQ(beside.Open(path, u"", ZrCompactFile::kProcessLock), 0U);
  const auto nameOf = [](int i) { return Name::FromUtf8("name " + std::to_string(i)); };
  const auto isThere = [&](ZrCompactFile& file, int i) {
    return ReadTile(file, nameOf(i), 0) == Tile{0, std::to_string(i), std::to_string(i).size()};
  };
  std::atomic<int> stored{0};
  std::thread looking([&] {
    for (int i = 0, known = 0; known < kCount; ++i, known = stored)
      EXPECT_TRUE(known == 0 || (isThere(object, i % known) && isThere(object, known - 1)))
          << known;
  });
  for (int i = 0; i < kCount; ++i) {
    EXPECT_EQ(Store(nameOf(i), std::to_string(i)), 0U);
    stored = i + 1;
    if (i / kUnheard % 2 == 0) {
      EXPECT_TRUE(isThere(beside, i)) << i;
      EXPECT_TRUE(isThere(beside, i)) << i << ", from what is kept";
    }
  }
  looking.join();
  Reopen(ZrCompactFile::kProcessLock);
  for (int i = 0; i < kCount; ++i)
    EXPECT_TRUE(isThere(object, i) && isThere(beside, i)) << i;
  EXPECT_EQ(Read(u"name 6000").result, 5U);
}

// Memory for names depends on what the file has, not on what it claims; and a table that is just
// full is no larger than one for a name less.
TEST_F(EngineTest, NamesTakeMemoryForWhatIsThere) {
  const auto open = [&](std::uint64_t count, std::uint64_t present) {
    MakeNaming(1);
    object.Close();
    std::filesystem::resize_file(path.ToUtf8(), 100 + 16 * count);
    Support::Poke(path, 64, Number(count) + Number(count));
    for (std::uint64_t i = 0; i < present; ++i)
      Support::Poke(path, 100 + 16 * (count - present + i), Number(0) + Number(i + 1));
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
  ZrCompactFile::ZrVerifySummary summary;
  EXPECT_EQ(object.Verify(summary), 9U);
  EXPECT_LT(summary.findings, 10000U);
  ASSERT_EQ(Store(u"a", "tile"), 0U);
  EXPECT_EQ(object.Compact(), 0U);
  EXPECT_EQ(Read(u"a").payload, "tile");
}

}  // namespace
}  // namespace Zarn
