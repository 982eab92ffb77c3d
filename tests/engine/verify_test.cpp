#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ZrCompactFileReader.h"
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

  const std::size_t older = ReadBytes().size();
  ASSERT_EQ(Store(kSecond, "older", 2) + Store(kSecond, "newer", 3), 0U);
  Support::Poke(path, older + 16, Number('x', 2));
  EXPECT_EQ(Find(object), "4@" + std::to_string(older) + " 9") << "has another name";
  Support::Poke(path, 2, {2});  // the byte order
  EXPECT_EQ(Find(object).substr(0, 4), "0@2 ");
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
  Support::Poke(path, 92, Number(0));
  EXPECT_EQ(Find(object), "3@150 9") << "what lies in its reserve is no record";
}

// What is there: two versions of a tile, or two names of one hash, or the first of these alone.
enum Kind { kCells, kNames, kAlone };

// One number that is put into the file, or where that is cut off.
struct Poke {
  std::size_t offset;
  unsigned long long number;
  std::size_t width = 8;
};
constexpr std::size_t kCut = 0;

// What operations answer on the damaged file, and what Verify finds in it, also if it was open
// before; of cells, also what the light classes answer, and whether the store appends (+), rewrites
// (~) or writes nothing (=).
struct Damage {
  Kind kind;
  const char* answers;
  std::vector<Poke> pokes;
  const char* light = "0 0~";
};
const Damage kDamages[] = {
    {kCells, "1 0 0 0 0 0 0 | 0", {{370, 0, kCut}}},
    // The header and that of the index.
    {kCells, "opened 3 | 0@0 9", {{63, 0, kCut}, {0, 'X', 1}}, "opened 9"},
    {kCells, "opened 1 | 0@19 9", {{19, 63}, {19, 370}, {19, UINT64_MAX - 5}}, "opened 9"},
    {kCells, "opened 1 | 1@64 9", {{75, 0, kCut}}, "opened 9"},
    {kCells, "1 0 0 0 0 0 0 | 0@3 9", {{3, 7, 4}}},
    {kCells, "4 9 9 10 10 10 8 | 0@7 9", {{7, 7, 4}}, "opened 9"},
    {kCells, "1 0 0 0 0 0 0 | 0@11 9", {{11, 0x7FF8000000000000}}},
    {kCells, "1 0 0 0 0 0 0 | 0@27 9", {{27, 1, 1}, {56, 1, 1}}},
    {kCells, "4 9 9 10 10 10 0 | 1@64 9", {{64, 0, 4}, {68, 0, 4}}, "9 10="},
    {kCells, "1 0 0 0 0 0 0 | 1@72 9", {{72, 3, 4}}},
    {kCells, "0 5 5 0 0 0 0 | 1@76 9", {{76, 0, kCut}}, "9 10="},
    // The entry: of no known status, in the index, in the header, at the end of the file; of
    // another tile, within a record.
    {kCells, "3 9 9 0 0 0 9 | 2@76 9", {{76, 3 * kStatus1 | 156}}, "0 0+"},
    {kCells, "1 9 9 10 10 10 9 | 2@76 9", {{76, kStatus1 | 90}, {76, kStatus1 | 8}}, "9 0+"},
    {kCells, "1 9 9 10 10 10 9 | 2@76 9", {{76, kStatus1 | 370}}, "9 9="},
    {kCells, "1 0 0 0 0 0 0 | 5@322 9", {{76, kStatus1 | 322}}},
    {kCells, "1 9 9 10 10 10 9 | 3@110 9", {{76, kStatus1 | 110}}, "9 0="},
    // The current record: its length, number of versions and capacity; then whether there are
    // versions, its own status and position, how much is filled; and that of another tile.
    {kCells, "1 9 9 10 10 10 9 | 3@156 9", {{156, 215}}, "9 0="},
    {kCells, "1 9 9 10 10 10 9 | 3@156 9", {{156, 43}}, "9 0+"},
    {kCells, "1 9 9 10 10 10 9 | 3@156 9", {{164, UINT32_MAX, 4}, {164, 0x10000002, 4}}, "9 0~"},
    {kCells, "1 9 9 10 10 10 9 | 3@156 9", {{200, UINT64_MAX}, {200, 7}}, "9 0~"},
    {kCells, "1 9 9 10 10 10 9 | 3@156 9", {{164, 0, 4}}},
    {kCells, "1 0 0 0 0 0 0 | 3@156 9", {{72, 0, 4}, {176, 3 * kStatus1}, {176, kStatus1 | 90}}},
    {kCells, "1 0 0 0 0 0 0 | 3@156 9", {{208, 0}, {208, 7}}},
    {kCells, "1 0 0 0 0 0 9 | 3@322 9", {{322, UINT64_MAX}, {369, 0, kCut}}},
    // The older version: its stamp, position and status, also of the newest and of another tile.
    {kCells, "1 0 0 0 0 10 0 | 3@156 4@108 9", {{184, 9}}},
    {kCells, "1 0 9 0 10 10 9 | 4@184 9", {{192, kStatus1 | 90}}},
    {kCells, "1 0 0 0 0 0 0 | 4@184 9", {{192, 3 * kStatus1 | 108}}},
    {kCells, "1 0 0 0 10 10 0 | 4@156 5@156 9", {{192, kStatus1 | 156}}},
    {kCells, "1 0 0 0 10 10 0 | 4@222 5@222 9", {{192, kStatus1 | 222}}},
    {kCells, "1 0 0 0 10 10 0 | 4@108 9", {{120, 7}}},
    {kCells, "1 0 9 0 10 10 9 | 4@108 9", {{108, 1}}},
    // The index of names: its header, a part of it, and a slot that was never used.
    {kNames, "1 0 0 0 0 0 0 | 0", {{437, 0, kCut}}},
    {kNames, "0 5 5 10 10 10 10 | 0@3 9", {{3, 7, 4}}},
    {kNames, "opened 1 | 0@19 9", {{19, 63}}},
    {kNames, "opened 1 | 1@278 9", {{313, 0, kCut}, {278, 0x8000001}}},
    {kNames, "opened 1 | 1@286 9", {{286, 5}, {286, UINT64_MAX}}},
    {kNames, "opened 1 | 1@437 9", {{19, 437}}},
    {kNames, "1 0 5 0 0 10 0 | 1@340 9", {{340, 0, kCut}}},
    {kNames, "1 0 0 0 0 0 0 | 1@310 9", {{310, 5, 4}}},
    {kNames, "1 0 0 0 0 0 0 | 2@362 9", {{286, 4}}},
    // The first slot: its status, its position and its code, whose ordinal the second continues.
    {kNames, "3 9 0 0 0 0 9 | 2@314 9", {{314, 3 * kStatus1 | 132}}},
    {kNames, "1 9 0 10 0 0 9 | 2@314 9", {{314, kStatus1 | 300}}},
    {kNames, "0 5 5 0 0 10 0 | 3@132 2@330 9", {{322, 0}}},
    // Its record: too long, into the index, too short for the name, and names over the end and over
    // the table, of half a unit; no version; another charset and another name; and the second
    // one's.
    {kNames, "1 9 0 10 0 0 9 | 3@132 9", {{132, 10000}, {132, 147}, {132, 35}, {166, 0, 4}}},
    {kNames, "1 9 0 10 0 0 9 | 3@132 9", {{144, UINT32_MAX, 4}, {144, 248, 4}}},
    {kNames, "1 9 0 10 0 0 9 | 3@132 9", {{144, 20, 4}, {144, 17, 4}}},
    {kNames, "1 0 0 0 0 0 0 | 3@132 9", {{140, 250, 4}}},
    {kNames, "0 5 0 0 0 0 0 | 3@132 9", {{148, 'x', 2}}},
    {kNames, "1 0 9 0 10 10 9 | 3@205 9", {{205, 10000}}},
    // A record that cannot be read may have any name of its hash; an unknown tile has none.
    {kAlone, "1 9 9 10 10 10 9 | 3@164 9", {{164, 10000}, {176, 20, 4}}},
    {kAlone, "1 9 9 10 10 10 9 | 2@100 9", {{100, kStatus1 | 99}}},
    {kAlone, "3 9 5 0 0 10 9 | 2@100 9", {{100, 3 * kStatus1 | 164}}},
};

TEST_P(Verify, DamageIsReportedAndChangesNothing) {
  const auto look = [](const Tile& tile) {
    return tile.filled > tile.payload.size() ? 99U : tile.result;
  };
  const auto run = [&](Kind kind, int operation) {
    const bool areCells = kind == kCells;
    const Subject first = areCells ? Subject(0, 0) : kFirst,
                  second = areCells ? Subject(0, 0) : kSecond;
    const unsigned int newest = areCells ? 9 : 1, older = areCells ? 5 : 1;
    switch (operation) {
      case 0:
        return StatusOf(object, first);
      case 1:
        return look(Read(first, newest));
      case 2:
        return look(Read(second, older));
      case 3:
        return Store(first, "new", newest);
      case 4:
        return Store(second, "new", older);
      case 5:
        return RemoveTile(object, second, newest);
      default:
        return object.Compact();
    }
  };
  std::string findings;
  const auto answersOf = [&](Kind kind, const Support::Bytes& bytes, auto mode) {
    std::string answers;
    for (int operation = 0; operation < 7; ++operation) {
      Support::WriteFile(path, bytes);
      const unsigned int opened = object.Open(path, u"", mode);
      if (opened != 0) return "opened " + std::to_string(opened) + " | " + findings;
      const unsigned int result = run(kind, operation);
      object.Close();
      // A cell of an unknown status is left alone.
      const bool mayChange = result == 0 && (kind != kCells || answers[0] != '3');
      EXPECT_TRUE(mayChange || ReadBytes() == bytes);
      answers += std::to_string(result) + " ";
    }
    Support::WriteFile(path, bytes);
    Reopen(mode);
    return answers + "| " + Find(object);
  };
  const auto lightAnswersOf = [&](const Support::Bytes& bytes) {
    Support::WriteFile(path, bytes);
    ZrCompactFileReader reader;
    ZrCompactFileWriter writer;
    const unsigned int opened = reader.Open(path, u"", kMode);
    EXPECT_EQ(writer.Open(path, u"", kMode), opened);
    if (opened != 0) return "opened " + std::to_string(opened);
    ZrByteArray data;
    unsigned long long filled = 0;
    const unsigned int found = reader.Lookup(0, 0, data, filled, 9);
    EXPECT_LE(filled, data.GetSize());
    const unsigned int stored = writer.SetAt(0, 0, Data("new"), 0, 0, 9);
    writer.Close();
    const Support::Bytes now = ReadBytes();
    const bool isSame = std::equal(bytes.begin() + 64, bytes.end(), now.begin() + 64, now.end());
    if (!isSame && !GetParam()) {  // records are written in host order
      EXPECT_TRUE(reader.Lookup(0, 0, data, filled, 9) == 0 && Content(data) == "new");
    }
    return std::to_string(found) + " " + std::to_string(stored) +
           (isSame                      ? "="
            : now.size() > bytes.size() ? "+"
                                        : "~");
  };
  for (const auto& [kind, answers, pokes, light] : kDamages)
    for (const Poke& poke : pokes) {
      SCOPED_TRACE(poke.offset);
      kind == kAlone ? MakeNaming(4, GetParam()) : MakeSmall(kind == kNames);
      if (kind == kAlone) {
        ASSERT_EQ(Store(kFirst, "one"), 0U);
      }
      if (poke.width == kCut) std::filesystem::resize_file(path.ToUtf8(), poke.offset);
      Support::Poke(path, poke.offset, Number(poke.number, poke.width));
      findings = Find(object);
      EXPECT_EQ(findings, std::string(answers).substr(std::string(answers).find('|') + 2));
      object.Close();
      const Support::Bytes bytes = ReadBytes();
      if (kind == kCells) {
        EXPECT_EQ(lightAnswersOf(bytes), light) << poke.number;
      }
      for (const auto mode : {kMode, kMode | ZrCompactFile::kMapped}) {
        EXPECT_EQ(answersOf(kind, bytes, mode), answers) << poke.number;
        object.Close();
      }
    }
}

// Every cell names one record, and each version in its long table that record again.
TEST_P(Verify, HostileTablesTakeNoTime) {
  constexpr unsigned long long kVersions = 4000, kRecord = 76 + 64 * 64 * 8;
  MakeGrid(64, 64, GetParam());
  using Support::operator+;
  Support::Bytes cells;
  for (int i = 0; i < 64 * 64; ++i)
    cells = cells + Number(kStatus1 | kRecord);
  std::vector<std::pair<unsigned long long, std::uint64_t>> versions;
  for (unsigned long long i = kVersions; i > 0; --i)
    versions.emplace_back(i, kRecord);
  Support::Poke(path, 76, cells + Record(versions, "at"));
  EXPECT_EQ(Find(object).substr(0, 8), "4@32844 ");
  EXPECT_LT(summary.versions, 10U);
  EXPECT_EQ(object.Compact(), 9U);
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
  const auto end = [](const Finding& finding) {
    EXPECT_EQ(finding.number * 100 + finding.row * 10 + finding.col, 101U);
    return false;
  };
  EXPECT_EQ(object.Verify(summary, end), 9U);
  EXPECT_EQ(summary.findings, 1U);
  const auto cut = [&](auto, auto) {
    std::filesystem::resize_file(path.ToUtf8(), 76 + 2000 * 8);
    return true;
  };
  const auto last = [](const Finding& finding) {
    EXPECT_TRUE(finding.kind != Finding::kUnreadable || finding.number == 2000);
    return true;
  };
  EXPECT_EQ(object.Verify(summary, last, cut), 9U);
  EXPECT_EQ(summary.findings, 3U);
  object.Close();
  EXPECT_EQ(object.Verify(summary), 6U);
}

}  // namespace
}  // namespace Zarn
