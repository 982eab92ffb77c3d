#include <gtest/gtest.h>

#include <filesystem>
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
  /// What is counted in a sound file: tiles, versions, and bytes of index, records and dead space.
  void ExpectSound(const std::vector<unsigned long long>& counts) {
    Reopen();
    EXPECT_EQ(Find(object), "0");
    EXPECT_EQ((std::vector{summary.tiles, summary.versions, summary.indexBytes, summary.liveBytes,
                           summary.deadBytes}),
              counts);
  }
  unsigned int Put(const PelmUnicodeString& name, std::string_view text) {
    return object.SetAt(name, Data(text), 0, 0, 1);
  }
  Support::Bytes ReadBytes() const { return Support::ReadFile(path); }

  /// A grid with two versions, a tile with room to spare, and one that is gone; or two names of one
  /// hash, and one for which the index has grown.
  void MakeSmall(bool named) {
    object.Close();
    std::filesystem::remove(path.ToUtf8());
    if (named) {
      MakeNaming(2, GetParam());
      ASSERT_EQ(Put(u"1yeg98dgy", "one"), 0U);  // at 132
      ASSERT_EQ(Put(u"sm38f3s71", "two"), 0U);  // at 205
      ASSERT_EQ(Put(u"a", "three"), 0U);        // at 378, behind the index at 278
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
    if (!named)
      return {ReadTile(file, 0, 0, 9), ReadTile(file, 0, 1, 9), ReadTile(file, 1, 0, 9),
              ReadTile(file, 1, 1, 9)};
    return {ReadTile(file, u"1yeg98dgy", 9), ReadTile(file, u"sm38f3s71", 9),
            ReadTile(file, u"a", 9), ReadTile(file, u"none", 9)};
  }

  ZrCompactFile::ZrVerifySummary summary;
};
INSTANTIATE_TEST_SUITE_P(Engine, Verify, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Foreign" : "Native"; });

TEST_P(Verify, CountsWhatIsAliveInAGrid) {
  MakeGrid(2, 2, GetParam());
  ExpectSound({0, 0, 108, 0, 0});
  ASSERT_EQ(Store(0, 0, "AAAA", 5), 0U);
  ASSERT_EQ(Store(0, 0, "BB", 3), 0U);
  ExpectSound({1, 2, 108, 46 + 64, 48});
  ASSERT_EQ(Store(0, 1, "piece", 1, 10, 5), 0U);
  ASSERT_EQ(Store(0, 0, "C", 5, 4, 2), 0U);
  ExpectSound({2, 3, 108, 46 + 64 + 54, 48});
  ASSERT_EQ(object.Remove(0, 0, 5), 0U);
  ASSERT_EQ(object.Remove(0, 1, 1), 0U);
  ExpectSound({1, 1, 108, 46, 48 + 64 + 54});
  ASSERT_EQ(object.Compact(), 0U);
  ExpectSound({1, 1, 108, 46, 0});
}

TEST_P(Verify, CountsWhatIsAliveAmongNames) {
  MakeNaming(1, GetParam());
  ASSERT_EQ(Put(u"1yeg98dgy", "one"), 0U);
  ASSERT_EQ(Put(u"sm38f3s71", "two"), 0U);
  ExpectSound({2, 2, 64 + 68, 2 * 73, 52});
  ASSERT_EQ(object.Remove(u"1yeg98dgy", 1), 0U);
  ExpectSound({1, 1, 64 + 68, 73, 52 + 73});
  ASSERT_EQ(Put(u"fqecng9yn", "another hash"), 0U);
  Support::Poke(path, ReadBytes().size(), Support::Bytes(5, 'x'));  // of a writer that was killed
  ExpectSound({2, 2, 64 + 100, 73 + 82, 52 + 73 + 68 + 5});
}

// A light writer leaves out the capacity that the data do not need, until something follows.
TEST_F(EngineTest, VerifyKnowsTheLastRecordOfALightWriter) {
  ZrCompactFileWriter writer;
  ASSERT_EQ(writer.Create(path, 1, 2, u"secret", 0), 0U);
  ASSERT_EQ(writer.Open(path, u"secret", 0), 0U);
  for (const unsigned int col : {0U, 1U}) {
    ASSERT_EQ(writer.SetAt(0, col, Data("data"), 10, 0, 1), 0U);
    ASSERT_EQ(object.Open(path, u"secret", kMode), 0U);
    ZrCompactFile::ZrVerifySummary summary;
    EXPECT_EQ(object.Verify(summary), 0U);
    EXPECT_EQ(summary.tiles, col + 1);
    EXPECT_EQ(summary.unwrittenBytes, 6U);
    EXPECT_EQ(summary.liveBytes, 54U * col + 48U);
    object.Close();
  }
}

// What one tile has reserved holds the next ones; some of it may not be in the file.
TEST_F(EngineTest, VerifyKnowsTilesInWhatOthersHaveReserved) {
  for (const bool endsInFile : {true, false}) {
    object.Close();
    std::filesystem::remove(path.ToUtf8());
    MakeCrowded(3, 300, endsInFile);  // records at 100, 150 and 200
    Reopen();
    ZrCompactFile::ZrVerifySummary summary;
    EXPECT_EQ(object.Verify(summary), 0U);
    EXPECT_EQ(summary.liveBytes, endsInFile ? 444U : 150U);
    EXPECT_EQ(summary.unwrittenBytes, endsInFile ? 0U : 294U);
  }
}

constexpr unsigned long long kStatus1 = 1ULL << 56;

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

// Each bit of the file is found, or it is in the list; then the other tiles read as before.
TEST_P(Verify, EachFlippedBitIsFoundOrHarmsNobodyElse) {
  for (const bool named : {false, true}) {
    MakeSmall(named);
    object.Close();
    auto hidden = BitsOf(named ? kOfSmallNames : kOfSmallGrid, IsBig());
    const Support::Bytes good = ReadBytes();
    const std::vector<Tile> tiles = ReadFour(named);
    for (std::size_t bit = 0; bit < 8 * good.size(); ++bit) {
      SCOPED_TRACE("byte " + std::to_string(bit / 8) + ", bit " + std::to_string(bit % 8));
      const auto flipped = static_cast<unsigned char>(good[bit / 8] ^ 1U << bit % 8);
      Support::Poke(path, bit / 8, {flipped});
      ZrCompactFile file;
      const bool found = file.Open(path, u"", ZrCompactFile::kReadOnly) != 0 || Find(file) != "0";
      // Words that a kill may leave, around the byte that scrambles them.
      const bool isOfBoard = bit / 8 >= 32 && bit / 8 < 64 && bit / 8 != 56;
      ASSERT_EQ(found, hidden.count(bit) == 0 && !isOfBoard);
      const std::vector<Tile> now = found ? tiles : ReadFour(named);
      for (unsigned int tile = 0; tile < 4; ++tile)
        EXPECT_TRUE(now[tile] == tiles[tile] || (hidden[bit] >> tile & 1) != 0) << tile;
      Support::Poke(path, bit / 8, {good[bit / 8]});
    }
  }
}

TEST_P(Verify, AFileThatWasCutShort) {
  for (const bool named : {false, true}) {
    MakeSmall(named);
    for (std::size_t length = ReadBytes().size(); length-- > 0;) {
      std::filesystem::resize_file(path.ToUtf8(), length);
      EXPECT_NE(Find(object), "0") << length;
    }
  }
}

// Done to the file while it is open.
TEST_P(Verify, HostileFiles) {
  MakeSmall(false);
  const Support::Bytes good = ReadBytes();
  struct Case {
    std::size_t offset;
    unsigned long long number;
    const char* found;
  };
  for (const Case& test : {Case{76, kStatus1 | 322, "5@322 9"},  // a record of two tiles
                           {76, kStatus1 | 110, "3@110 9"},      // within a record
                           {76, 2 * kStatus1 - 1, "2@76 9"},
                           {192, kStatus1 | 156, "4@156 5@156 9"},  // a version that is the newest
                           {192, kStatus1 | 222, "4@222 5@222 9"},  // of another tile
                           {192, kStatus1 | 90, "4@184 9"},
                           {184, 9, "3@156 4@108 9"},
                           {322, UINT64_MAX, "3@322 9"},
                           {200, 1ULL << 63, "3@156 9"}}) {
    Support::Poke(path, test.offset, Number(test.number));
    EXPECT_EQ(Find(object), test.found) << test.offset;
    Support::WriteFile(path, good);
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
  using Support::operator+;
  Support::Poke(path, 76 + 8, Number(kStatus1 | 1) + Number(kStatus1 | 1));
  EXPECT_EQ(Find(object), "2@84 2@92 9");
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
