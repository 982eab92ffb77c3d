#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ZrCompactFileWriter.h"
#include "engine/EngineFixture.h"

namespace Zarn {
namespace {

using Finding = ZrCompactFile::ZrFinding;

constexpr const char16_t *kFirst = u"1yeg98dgy", *kSecond = u"sm38f3s71";  // of one hash
constexpr unsigned long long kStatus1 = 1ULL << 56;

class Verify : public EngineTest, public ::testing::WithParamInterface<bool> {
 public:
  Verify() : EngineTest(TemporaryFolder::kMemory) {}

  /// Kind and position of each finding, and the result.
  std::string Find(ZrCompactFile& file) {
    std::string text;
    const unsigned int result = file.Verify(summary, [&text](const Finding& finding) {
      text += std::to_string(finding.kind) + "@" + std::to_string(finding.position) + " ";
      return true;
    });
    return text + std::to_string(result);
  }
  /// What is counted in a sound file: tiles, versions, and bytes of index, records, dead space and
  /// what was not written.
  void ExpectSound(const std::vector<unsigned long long>& counts) {
    EXPECT_EQ(Find(object), "0");
    EXPECT_EQ((std::vector{summary.tiles, summary.versions, summary.indexBytes, summary.liveBytes,
                           summary.deadBytes, summary.unwrittenBytes}),
              counts);
  }
  Support::Bytes ReadBytes() const { return Support::ReadFile(path); }

  /// A grid with two versions, a tile with room to spare, and one that is gone; or two names of one
  /// hash, and one for which the index has grown.
  void MakeSmall(bool named) {
    if (named) {
      MakeNaming(2, GetParam());
      ASSERT_EQ(Store(kFirst, "one"), 0U);   // at 132
      ASSERT_EQ(Store(kSecond, "two"), 0U);  // at 205
      ASSERT_EQ(Store(u"a", "three"), 0U);   // at 378, behind the index at 278
      return;
    }
    MakeGrid(2, 2, GetParam());
    ASSERT_EQ(Store(0, 0, "AAAA", 5), 0U);     // at 108
    ASSERT_EQ(Store(0, 0, "BBBBBB", 9), 0U);   // at 156
    ASSERT_EQ(Store(0, 1, "part", 1, 8), 0U);  // at 222
    ASSERT_EQ(Store(1, 0, "gone", 1), 0U);     // at 274
    ASSERT_EQ(object.Remove(1, 0, 1), 0U);
    ASSERT_EQ(Store(1, 1, "last", 1), 0U);  // at 322, up to 370
  }
  /// The newest of each tile of that file, opened anew.
  std::vector<Tile> ReadFour(bool named) const {
    ZrCompactFile file;
    EXPECT_EQ(file.Open(path, u"", ZrCompactFile::kReadOnly), 0U);
    std::vector<Tile> tiles;
    for (unsigned int cell = 0; !named && cell < 4; ++cell)
      tiles.push_back(ReadTile(file, cell / 2, cell % 2, 9));
    for (const char16_t* name : {kFirst, kSecond, u"a", u"none"})
      if (named) tiles.push_back(ReadTile(file, name, 9));
    return tiles;
  }

  ZrCompactFile::ZrVerifySummary summary;
};
INSTANTIATE_TEST_SUITE_P(Engine, Verify, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Foreign" : "Native"; });

TEST_P(Verify, CountsWhatIsAlive) {
  MakeGrid(2, 2, GetParam());
  ExpectSound({0, 0, 108, 0, 0, 0});
  ASSERT_EQ(Store(0, 0, "AAAA", 5) + Store(0, 0, "BB", 3), 0U);
  ASSERT_EQ(Store(0, 1, "piece", 1, 10, 5), 0U);
  ExpectSound({2, 3, 108, 46 + 64 + 54, 48, 0});
  ASSERT_EQ(object.Remove(0, 0, 5) + object.Remove(0, 1, 1), 0U);
  ExpectSound({1, 1, 108, 46, 48 + 64 + 54, 0});
  MakeNaming(1, GetParam());
  ASSERT_EQ(Store(kFirst, "one") + Store(kSecond, "two") + object.Remove(kFirst, 1), 0U);
  ExpectSound({1, 1, 64 + 68, 73, 52 + 73, 0});
  ASSERT_EQ(Store(u"fqecng9yn", "another hash"), 0U);
  Support::Poke(path, ReadBytes().size(), Support::Bytes(5, 'x'));  // of a writer that was killed
  ExpectSound({2, 2, 64 + 100, 73 + 82, 52 + 73 + 68 + 5, 0});
}

// Light writers leave out the capacity that the data of the last record do not need; and the next
// ones may lie in what a record has reserved.
TEST_P(Verify, KnowsWhatLightWritersHaveReserved) {
  ZrCompactFileWriter writer;
  ASSERT_EQ(writer.Create(path, 1, 2, u"", kMode), 0U);
  for (const unsigned int col : {0U, 1U}) {
    ASSERT_EQ(writer.SetAt(0, col, Data("data"), 10, 0, 1), 0U);
    Reopen();
    ExpectSound({col + 1, col + 1, 92, 54U * col + 48, 0, 6});
  }
  for (const bool endsInFile : {true, false}) {
    MakeCrowded(3, 300, endsInFile);  // records at 100, 150 and 200
    Reopen();
    ExpectSound({3, 3, 100, endsInFile ? 444U : 150U, 0, endsInFile ? 0U : 294U});
  }
}

// Bits that may be flipped without making the file another than writers leave. By fields: offset,
// width, bits (0: all), and a bit for each tile that may read otherwise then.
constexpr const char* kOfSmallGrid =
    "11 8 0 0  274 48 0 0 "                        // time of creation; dead space
    "152 4 0 1  216 6 0 1  266 8 0 2  366 4 0 8 "  // payloads
    "208 8 6 1  258 8 3 2 "                        // how much is filled, within the capacity
    "64 4 80000000 0 "                             // rows that wrap to the same number of cells
    "68 4 80000000 c "                             // columns likewise; all are in row 0 then
    "76 8 100000000000000 1  84 8 200000000000000 2  100 8 100000000000000 8 "  // a tile less
    "92 8 3ffffffffffffff 4 "                              // of one that is gone, or it is back
    "192 8 100000000000000 0 "                             // a version marked as gone
    "168 8 fffffffffffffff7 1  234 8 0 0  334 8 0 0 "      // a stamp that stays the newest
    "128 8 180 0  176 8 180 0  242 8 180 0  342 8 180 0 "  // where the own version once was
    "222 8 b 0 ";                                          // a record longer by dead space
constexpr const char* kOfSmallNames =
    "11 8 0 0  202 3 0 1  275 3 0 2  432 5 0 4  194 8 3 1  267 8 3 2  424 8 5 4 "  // as above
    "170 8 0 0  243 8 0 0  400 8 0 0  178 8 1c0 0  251 8 1c0 0  408 8 1c0 0 "      // as above
    "64 68 0 0  362 16 0 0 "    // the outgrown index; a slot that is not in use
    "314 8 100000000000000 3 "  // a tile less, which ends the walk through its hash
    "330 8 100000000000000 2  346 8 100000000000000 4 "
    "286 8 3 6 "               // fewer slots in use
    "294 16 0 0  310 4 1 0 ";  // the host's two numbers; whether there are versions

/// The tiles of each bit of a file that the list has.
std::map<std::size_t, unsigned int> BitsOf(const char* list, bool big) {
  std::map<std::size_t, unsigned int> bits;
  std::istringstream in(list);
  std::size_t offset, width;
  unsigned long long mask;
  unsigned int tiles;
  while (in >> std::dec >> offset >> width >> std::hex >> mask >> tiles)
    for (std::size_t bit = 0; bit < width * 8; ++bit)
      if (mask == 0 || (mask >> bit & 1) != 0)
        bits[(offset + (big ? width - 1 - bit / 8 : bit / 8)) * 8 + bit % 8] = tiles;
  return bits;
}

// Each bit of the file is found, or it is in the list; then the other tiles read as before. So is
// each byte that is missing at the end.
TEST_P(Verify, EachFlippedBitIsFoundOrHarmsNobodyElse) {
  for (const bool named : {false, true}) {
    MakeSmall(named);
    object.Close();
    auto hidden = BitsOf(named ? kOfSmallNames : kOfSmallGrid, IsBig());
    const Support::Bytes good = ReadBytes();
    const std::vector<Tile> tiles = ReadFour(named);
    const auto isFound = [&] {
      ZrCompactFile file;
      return file.Open(path, u"", ZrCompactFile::kReadOnly) != 0 || Find(file) != "0";
    };
    for (std::size_t bit = 0; bit < 8 * good.size(); ++bit) {
      SCOPED_TRACE("byte " + std::to_string(bit / 8) + ", bit " + std::to_string(bit % 8));
      const auto flipped = static_cast<unsigned char>(good[bit / 8] ^ 1U << bit % 8);
      Support::Poke(path, bit / 8, {flipped});
      const bool isOfBoard = bit / 8 >= 32 && bit / 8 < 56;  // words that a kill may leave
      const bool found = isFound();
      ASSERT_EQ(found, hidden.count(bit) == 0 && !isOfBoard);
      const std::vector<Tile> now = found ? tiles : ReadFour(named);
      for (unsigned int tile = 0; tile < 4; ++tile)
        EXPECT_TRUE(now[tile] == tiles[tile] || (hidden[bit] >> tile & 1) != 0) << tile;
      Support::Poke(path, bit / 8, {good[bit / 8]});
    }
    for (std::size_t length = good.size(); length-- > 0;) {
      std::filesystem::resize_file(path.ToUtf8(), length);
      EXPECT_TRUE(isFound()) << length;
    }
  }
}

// What is there: two versions of a tile, or two names of one hash, or the first of these alone.
enum Kind { kCells, kNames, kAlone };

// Bytes that are cut off or changed, and what is answered then; on the right: what Verify finds.
struct Damage {
  Kind kind;
  std::size_t cut;  // so much is left of the file; 0: all
  std::size_t offset;
  unsigned long long number;
  std::size_t width;  // 0: nothing is changed
  const char* answers;
};
const Damage kDamages[] = {
    {kCells, 0, 0, 0, 0, "1 0 0 0 0 0 0 | 0"},
    {kCells, 63, 0, 0, 0, "opened 3"},
    {kCells, 75, 0, 0, 0, "opened 1"},
    {kCells, 76, 0, 0, 0, "0 5 5 0 0 0 0 | 1@76 9"},  // no entry is left
    {kCells, 369, 0, 0, 0, "1 0 0 0 0 0 9 | 3@322 9"},
    {kCells, 0, 0, 'X', 1, "opened 3"},
    {kCells, 0, 3, 7, 4, "1 0 0 0 0 0 0 | 0@3 9"},     // of an unknown version
    {kCells, 0, 7, 7, 4, "4 9 9 10 10 10 8 | 0@7 9"},  // of no known kind
    {kCells, 0, 19, 63, 8, "opened 1"},
    {kCells, 0, 19, 370, 8, "opened 1"},
    {kCells, 0, 19, UINT64_MAX - 5, 8, "opened 1"},
    {kCells, 0, 76, 3 * kStatus1 | 156, 8,
     "3 9 9 0 0 0 9 | 2@76 9"},  // occupied by something unknown
    {kCells, 0, 76, kStatus1 | 90, 8, "1 9 9 10 10 10 9 | 2@76 9"},  // within the index
    {kCells, 0, 76, kStatus1 | 8, 8, "1 9 9 10 10 10 9 | 2@76 9"},
    {kCells, 0, 76, kStatus1 | 370, 8, "1 9 9 10 10 10 9 | 2@76 9"},
    {kCells, 0, 76, kStatus1 | 322, 8, "1 0 0 0 0 0 0 | 5@322 9"},     // a record of two tiles
    {kCells, 0, 76, kStatus1 | 110, 8, "1 9 9 10 10 10 9 | 3@110 9"},  // within a record
    {kCells, 0, 156, 215, 8, "1 9 9 10 10 10 9 | 3@156 9"},
    {kCells, 0, 164, 0, 4, "1 9 9 10 10 10 9 | 3@156 9"},
    {kCells, 0, 164, UINT32_MAX, 4, "1 9 9 10 10 10 9 | 3@156 9"},
    {kCells, 0, 200, UINT64_MAX, 8, "1 9 9 10 10 10 9 | 3@156 9"},
    {kCells, 0, 184, 9, 8, "1 0 0 0 0 10 0 | 3@156 4@108 9"},
    {kCells, 0, 192, kStatus1 | 90, 8, "1 0 9 0 10 10 9 | 4@184 9"},
    {kCells, 0, 192, kStatus1 | 156, 8,
     "1 0 0 0 10 10 0 | 4@156 5@156 9"},  // a version that is the newest
    {kCells, 0, 192, kStatus1 | 222, 8, "1 0 0 0 10 10 0 | 4@222 5@222 9"},  // of another tile
    {kCells, 0, 192, 3 * kStatus1 | 108, 8, "1 0 0 0 0 0 0 | 4@184 9"},
    {kCells, 0, 120, 7, 8, "1 0 0 0 10 10 0 | 4@108 9"},  // with another stamp
    {kCells, 0, 108, 1, 8, "1 0 9 0 10 10 9 | 4@108 9"},
    {kCells, 0, 322, UINT64_MAX, 8, "1 0 0 0 0 0 9 | 3@322 9"},
    {kNames, 0, 0, 0, 0, "1 0 0 0 0 0 0 | 0"},
    {kNames, 313, 0, 0, 0, "opened 1"},
    {kNames, 340, 0, 0, 0, "1 0 5 0 0 10 0 | 1@340 9"},
    {kNames, 0, 278, 0x8000001, 8, "opened 1"},
    {kNames, 0, 286, 5, 8, "opened 1"},
    {kNames, 0, 286, UINT64_MAX, 8, "opened 1"},
    {kNames, 0, 314, 3 * kStatus1 | 132, 8, "3 9 0 0 0 0 9 | 2@314 9"},
    {kNames, 0, 314, kStatus1 | 300, 8, "1 9 0 10 0 0 9 | 2@314 9"},
    {kNames, 0, 132, 10000, 8, "1 9 0 10 0 0 9 | 3@132 9"},
    {kNames, 0, 132, 20, 8, "1 9 0 10 0 0 9 | 3@132 9"},
    {kNames, 0, 144, UINT32_MAX, 4, "1 9 0 10 0 0 9 | 3@132 9"},
    {kNames, 0, 144, 20, 4, "1 9 0 10 0 0 9 | 3@132 9"},  // a name over the table
    {kNames, 0, 144, 17, 4, "1 9 0 10 0 0 9 | 3@132 9"},  // half a unit of a name
    {kNames, 0, 166, 0, 4, "1 9 0 10 0 0 9 | 3@132 9"},
    {kNames, 0, 205, 10000, 8, "1 0 9 0 10 10 9 | 3@205 9"},
    {kAlone, 0, 0, 0, 0, "1 0 5 0 0 10 0 | 0"},
    {kAlone, 0, 164, 10000, 8, "1 9 9 10 10 10 9 | 3@164 9"},  // may have any name of its hash
    {kAlone, 0, 176, 20, 4, "1 9 9 10 10 10 9 | 3@164 9"},
    {kAlone, 0, 100, 3 * kStatus1 | 164, 8, "3 9 5 0 0 10 9 | 2@100 9"},
    {kAlone, 0, 100, kStatus1 | 99, 8, "1 9 9 10 10 10 9 | 2@100 9"},
};

TEST_P(Verify, DamageIsReportedAndChangesNothing) {
  using Operation = std::function<unsigned int()>;
  const Operation withCells[] = {[&] { return unsigned{object.GetStatus(0, 0)}; },
                                 [&] { return Read(0, 0, 9).result; },
                                 [&] { return Read(0, 0, 5).result; },
                                 [&] { return Store(0, 0, "new", 9); },
                                 [&] { return Store(0, 0, "new", 5); },
                                 [&] { return object.Remove(0, 0, 9); },
                                 [&] { return object.Compact(); }};
  const Operation withNames[] = {[&] { return unsigned{object.GetStatus(kFirst)}; },
                                 [&] { return Read(kFirst).result; },
                                 [&] { return Read(kSecond).result; },
                                 [&] { return Store(kFirst, "new"); },
                                 [&] { return Store(kSecond, "new"); },
                                 [&] { return object.Remove(kSecond, 1); },
                                 [&] { return object.Compact(); }};
  for (const Damage& damage : kDamages) {
    SCOPED_TRACE(&damage - kDamages);
    damage.kind == kAlone ? MakeNaming(4, GetParam()) : MakeSmall(damage.kind == kNames);
    if (damage.kind == kAlone) {
      ASSERT_EQ(Store(kFirst, "one"), 0U);
    }
    object.Close();
    if (damage.cut != 0) std::filesystem::resize_file(path.ToUtf8(), damage.cut);
    Support::Poke(path, damage.offset, Number(damage.number, damage.width));
    const Support::Bytes bytes = ReadBytes();
    for (const auto mode : {kMode, kMode | ZrCompactFile::kMapped}) {
      std::string answers;
      unsigned int opened = 0;
      for (const Operation& operation : damage.kind == kCells ? withCells : withNames) {
        Support::WriteFile(path, bytes);
        opened = object.Open(path, u"", mode);
        if (opened != 0) break;
        const unsigned int result = operation();
        object.Close();
        EXPECT_TRUE(result == 0 || ReadBytes() == bytes);
        answers += std::to_string(result) + " ";
      }
      Support::WriteFile(path, bytes);
      if (object.Open(path, u"", mode) == 0) answers += "| " + Find(object);
      EXPECT_EQ(opened == 0 ? answers : "opened " + std::to_string(opened), damage.answers);
      object.Close();
    }
  }
}

// Every cell names one record, and each version in its long table that record again.
TEST_P(Verify, HostileTablesTakeNoTime) {
  constexpr unsigned long long kVersions = 4000, kRecord = 76 + 64 * 64 * 8;
  MakeGrid(64, 64, GetParam());
  using Support::operator+;
  Support::Bytes cells, table;
  for (int i = 0; i < 64 * 64; ++i)
    cells = cells + Number(kStatus1 | kRecord);
  for (unsigned long long i = kVersions; i > 0; --i)
    table = table + Number(i) + Number(kStatus1 | kRecord);
  Support::Poke(path, 76,
                cells + Number(30 + 16 * kVersions) + Number(kVersions, 4) + table + Number(2) +
                    Number(2) + Support::Text("at"));
  EXPECT_EQ(Find(object).substr(0, 8), "4@32844 ");
  EXPECT_LT(summary.versions, 10U);
  std::filesystem::resize_file(path.ToUtf8(), 1ULL << 40);  // what it states is there, as a hole
  Support::Poke(path, kRecord, Number(1ULL << 39) + Number(0x7FFFFFFF, 4));
  EXPECT_EQ(Find(object).substr(0, 8), "3@32844 ");
}

TEST_P(Verify, EndsWhenItIsTold) {
  MakeGrid(64, 64, GetParam(), kMode | ZrCompactFile::kProcessLock);
  ASSERT_EQ(Store(0, 1, "tile", 1), 0U);
  unsigned long long told = 0;
  const auto progress = [&](unsigned long long done, unsigned long long total) {
    // Lookups go on meanwhile, more of them than share the lock otherwise.
    std::thread([this] {
      for (int i = 0; i < 200; ++i)
        EXPECT_EQ(Read(0, 1, 1), (Tile{0, "tile", 4}));
      object.Close();
    }).join();
    EXPECT_GE(done, std::exchange(told, done));
    return total == 64 * 64;
  };
  EXPECT_EQ(object.Verify(summary, {}, progress), 0U);
  EXPECT_EQ(told, 64U * 64U);
  EXPECT_EQ(object.Verify(summary, {}, [](auto, auto) { return false; }), 1U);
  EXPECT_EQ(object.Verify(summary, {}, [](auto, auto) -> bool { throw 1; }), 1U);
  for (const unsigned int cell : {1U, 65U})
    Support::Poke(path, 76 + cell * 8, Number(kStatus1 | 1));
  EXPECT_EQ(Find(object), "2@84 2@596 9");
  const auto end = [](const Finding& finding) {
    EXPECT_EQ(finding.number * 100 + finding.row * 10 + finding.col, 101U);
    return false;
  };
  EXPECT_EQ(object.Verify(summary, end), 9U);
  EXPECT_EQ(summary.findings, 1U);
  object.Close();
  EXPECT_EQ(object.Verify(summary), 6U);
}

}  // namespace
}  // namespace Zarn
