// Walks over all tiles, beside everything that changes the file; lists of versions, removals of
// many versions at once, and counts, each against a model.

#include "ZrTileCursor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "engine/EngineFixture.h"
#include "support/Processes.h"
#include "support/RawFile.h"
#include "support/SyscallFaults.h"

namespace Zarn {
namespace {

using Mode = ZrCompactFile::ZrOpenMode;
using Stamp = unsigned long long;

constexpr Mode kLocked = ZrCompactFile::kCreateMissing | ZrCompactFile::kProcessLock;
constexpr unsigned int kCols = 64;

// Tiles by number, in cells or by names; the first six names are three pairs of one hash.
class WalkBase : public EngineTest {
 public:
  explicit WalkBase(bool named) : isNaming(named) {}

  static PelmUnicodeString NameOf(unsigned int tile) {
    const char16_t* const pairs[] = {u"1yeg98dgy", u"sm38f3s71", u"f1qe6747c",
                                     u"fqecng9yn", u"k9fzdqzdp", u"urp901231"};
    return tile < std::size(pairs) ? pairs[tile]
                                   : PelmUnicodeString::FromUtf8("t" + std::to_string(tile));
  }
  template <typename Call>
  auto At(unsigned int tile, Call call) const {
    return isNaming ? call(NameOf(tile)) : call(tile / kCols, tile % kCols);
  }
  unsigned int Put(ZrCompactFile& file, unsigned int tile, std::string_view text, Stamp stamp = 1) {
    return At(tile, [&](auto... at) { return file.SetAt(at..., Data(text), 0, 0, stamp); });
  }
  unsigned int Drop(ZrCompactFile& file, unsigned int tile) {
    return At(tile, [&](auto... at) { return file.RemoveAll(at...); });
  }
  unsigned int Which(const ZrTileCursor& cursor) const {
    if (!isNaming) return cursor.GetRow() * kCols + cursor.GetCol();
    const PelmUnicodeString name = cursor.GetName();
    for (unsigned int tile = 0; tile < 6; ++tile)
      if (name == NameOf(tile)) return tile;
    return static_cast<unsigned int>(std::stoul(name.ToUtf8().substr(1)));
  }

  const SyscallFaults restored;
  const bool isNaming;
};

// Names or cells; plain or mapped.
class Walk : public WalkBase, public ::testing::WithParamInterface<std::tuple<bool, bool>> {
 public:
  static constexpr unsigned int kTiles = 1200;

  Walk() : WalkBase(std::get<0>(GetParam())) {}

  // The tiles of these numbers stay; the others come and go. Of the third pair, the first name
  // hides the second one when it goes.
  static bool Stays(unsigned int tile) { return tile < kTiles && tile % 4 != 3 && tile / 2 != 2; }
  // The number, the round, and bytes that follow from them.
  static std::string Text(unsigned int tile, unsigned int round) {
    const unsigned int size = 40 + (tile * 7919 + round * 3571) % 4000;
    return std::to_string(tile) + " " + std::to_string(round) + " " +
           std::string(size, static_cast<char>('a' + (tile + round) % 26));
  }
  static bool IsWhole(unsigned int tile, const std::string& text) {
    unsigned int itsTile = 0, round = 0;
    std::istringstream(text) >> itsTile >> round;
    return itsTile == tile && text == Text(tile, round);
  }
  void Make() {
    ASSERT_EQ(isNaming ? object.Create(path, 128ULL, u"", GetMode())
                       : object.Create(path, 2 * kTiles / kCols, kCols, u"", GetMode()),
              0U);
    for (unsigned int i = 0; i < kTiles; ++i) {
      const unsigned int tile = i < 6 ? i : 6 + i * 7 % (kTiles - 6);  // the pairs in their order
      ASSERT_EQ(Put(object, tile, Text(tile, 0)), 0U);
    }
  }
  static Mode GetMode() {
    return kLocked | (std::get<1>(GetParam()) ? ZrCompactFile::kMapped : Mode{0});
  }
  // One walk: what stays is given once and everything whole. `meanwhile` is called at each step.
  // Returns the number of faults.
  unsigned int WalkOnce(ZrCompactFile& file, const std::function<void(unsigned int)>& meanwhile) {
    ZrTileCursor cursor(file);
    std::map<unsigned int, unsigned int> given;
    unsigned int faults = 0, result = 0;
    unsigned long long last = 0;
    for (unsigned int step = 0; (result = cursor.Next()) == 0; ++step) {
      const unsigned int tile = Which(cursor);
      ZrByteArray data;
      const bool isRead = cursor.GetPayload(data) && cursor.GetVersion().stamp == 1 &&
                          cursor.GetStamps().size() == 1 &&
                          cursor.GetVersion().filledLength == cursor.GetSize();
      faults += !isRead || !IsWhole(tile, Content(data)) || ++given[tile] > 1;
      faults += !isNaming && step != 0 && tile <= last;
      last = tile;
      meanwhile(step);
    }
    for (unsigned int tile = 0; tile < kTiles; ++tile)
      faults += Stays(tile) && given[tile] != 1;
    return faults + (result != ZrResult::kNotFound) + (cursor.GetDamagedCount() != 0);
  }
  // Replaces what stays, and stores and removes the others; new names make the index grow.
  unsigned int Change(ZrCompactFile& file, std::mt19937& random, unsigned int round) {
    const auto tile = static_cast<unsigned int>(random() % (2 * kTiles / kCols * kCols));
    if (Stays(tile) || random() % 3 != 0) return Put(file, tile, Text(tile, round));
    const unsigned int result = Drop(file, tile);
    return isNaming && result == ZrResult::kWriteFailure ? 0 : result;  // never stored
  }
};
INSTANTIATE_TEST_SUITE_P(Engine, Walk, ::testing::Combine(::testing::Bool(), ::testing::Bool()),
                         [](const auto& param) {
                           return std::string(std::get<0>(param.param) ? "Names" : "Cells") +
                                  (std::get<1>(param.param) ? "Mapped" : "");
                         });

TEST_P(Walk, GivesEachTileThatStaysOnceBesideThreadsAndProcesses) {
  Make();
  object.Close();
  const auto work = [&](ZrCompactFile& file, unsigned int seed, unsigned int changes) {
    std::mt19937 random(seed);
    unsigned int faults = 0;
    for (unsigned int round = 1; round <= changes; ++round) {
      faults += Change(file, random, round) != 0;
      if (round % 500 == 0) faults += file.Compact() != 0;
    }
    return faults;
  };
  const Support::Child child([&] {
    ZrCompactFile file;
    return file.Open(path, u"", kLocked) == 0 && work(file, 1, 3000) == 0;
  });
  ASSERT_EQ(object.Open(path, u"", GetMode()), 0U);
  std::atomic<unsigned int> faults = 0;
  std::atomic<bool> works = true;
  std::thread storing([&] {
    faults += work(object, 2, 2000);
    works = false;
  });
  unsigned int walks = 0;
  for (; works || walks < 3; ++walks)
    faults += WalkOnce(object, [](unsigned int) {});
  storing.join();
  EXPECT_TRUE(child.Succeeds());
  EXPECT_EQ(faults, 0U) << "in " << walks << " walks";
  EXPECT_EQ(WalkOnce(object, [](unsigned int) {}), 0U);
  Check();
}

// At known steps, by this object and by another one.
TEST_P(Walk, GoesOnBehindEveryChange) {
  Make();
  ZrCompactFile other;
  ASSERT_EQ(other.Open(path, u"", kLocked), 0U);
  std::mt19937 random(3);
  unsigned int faults = 0, changes = 0;
  const auto change = [&](unsigned int step) {
    if (step % 40 != 7) return;
    ZrCompactFile& file = changes % 2 == 0 ? object : other;
    for (int i = 0; i < 30; ++i)
      faults += Change(file, random, step) != 0;
    if (changes++ % 5 > 2) faults += file.Compact() != 0;
  };
  faults += WalkOnce(object, change);
  faults += WalkOnce(object, change);
  EXPECT_EQ(faults, 0U);
  EXPECT_GT(changes, 40U);
}

TEST_P(Walk, Answers) {
  ZrTileCursor early(object);
  EXPECT_EQ(early.Next(), 6U);
  Make();
  EXPECT_EQ(early.Next(), 0U) << "a cursor may be made before the file is opened";
  ZrTileCursor some(object, u"t11", ZrTileCursor::kSizes);
  unsigned int result = 0, count = 0;
  while ((result = some.Next()) == 0)
    count += some.GetName().ToUtf8().substr(0, 3) == "t11" && some.GetData() == nullptr &&
             some.GetSize() == Text(Which(some), 0).size();
  EXPECT_EQ(result, isNaming ? 5U : 1U);
  EXPECT_EQ(count, isNaming ? 111U : 0U) << "t11, t110 to t119, t1100 to t1199";
  const std::string large(3 << 20, 'x');
  ASSERT_EQ(Put(object, 7, large), 0U);
  ZrTileCursor all(object);
  ZrByteArray data;
  while (all.Next() == 0 && Which(all) != 7) {
  }
  EXPECT_TRUE(all.GetPayload(data) && Content(data) == large);
  // Another kind of file in the object.
  isNaming ? MakeGrid(1, 1) : MakeNaming(1);
  while ((result = early.Next()) == 0) {  // what was read ahead
  }
  EXPECT_EQ(result, 1U);
  object.Close();
  unsigned long long removed = 0;
  ZrStatistics statistics;
  EXPECT_EQ((std::vector{ZrTileCursor(object).Next(), object.RemoveOlderThan(1, removed),
                         object.GetStatistics(statistics)}),
            std::vector(3, 6U));
}

// Also if the walking object has not looked at the file since.
TEST_P(Walk, BeginsWithAllThatOthersHaveStored) {
  Make();
  ZrCompactFile other;
  ASSERT_EQ(other.Open(path, u"", GetMode()), 0U);
  for (unsigned int tile = kTiles; tile < kTiles + 3; ++tile) {
    ASSERT_EQ(Put(other, tile, "new"), 0U);
    ZrTileCursor cursor(object);
    unsigned int count = 0;
    while (cursor.Next() == 0)
      ++count;
    EXPECT_EQ(count, tile + 1);
    ASSERT_EQ(Put(other, tile + 3, "new"), 0U);
    ZrStatistics statistics;
    EXPECT_EQ(object.GetStatistics(statistics), 0U);
    EXPECT_EQ(statistics.tiles, tile + 2);
    ASSERT_EQ(Drop(other, tile + 3), 0U);
  }
}

// The file goes, or another kind of file comes, when a tile is next that has to be read alone: a
// damaged one, names of one hash, the second of these; or when none was read ahead.
TEST_P(Walk, EndsAtAnyTurn) {
  for (const unsigned int given : {1U, 2U, 3U})
    for (const bool isClosed : {false, true}) {
      SCOPED_TRACE(given);
      isNaming ? MakeNaming(4) : MakeGrid(1, kCols);
      Reopen(GetMode());
      for (const unsigned int tile : {6U, 1U, 0U, 7U})
        ASSERT_EQ(Put(object, tile, "tile"), 0U);
      if (!isNaming) Support::Poke(path, 588 + 48, Number(1));  // the record of tile 1
      ZrTileCursor cursor(object);
      for (unsigned int i = 0; i < given; ++i)
        EXPECT_EQ(cursor.Next(), 0U);
      object.Close();
      if (!isClosed) isNaming ? MakeGrid(1, 1) : MakeNaming(1);
      unsigned int result = 0;
      while ((result = cursor.Next()) == 0) {  // what was read ahead
      }
      EXPECT_EQ(result, isClosed ? 6U : 1U);
    }
}

// Tiles are replaced in their places while a large read has read the first half of them.
class CutInTwo : public WalkBase, public ::testing::WithParamInterface<bool> {
 public:
  CutInTwo() : WalkBase(GetParam()) {}

  static inline std::function<void()> s_meanwhile;
};
INSTANTIATE_TEST_SUITE_P(Engine, CutInTwo, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Names" : "Cells"; });

TEST_P(CutInTwo, NothingThatIsGivenIsTorn) {
  constexpr unsigned int kFirst = 10, kTiles = 40, kSize = 9000;
  ZrCompactFile other;
  isNaming ? MakeNaming(64) : MakeGrid(1, kCols);
  Reopen(kLocked);
  ASSERT_EQ(other.Open(path, u"", kLocked), 0U);
  for (unsigned int tile = kFirst; tile < kFirst + kTiles; ++tile)
    ASSERT_EQ(Put(object, tile, std::string(kSize, 'a')), 0U);
  GetFileSyscalls().pread = [](int fd, void* bytes, std::size_t size, off_t position) {
    const std::size_t half = size > 2 * kSize ? size / 2 + kSize / 3 : size;
    if (half < size && s_meanwhile) ::pread(fd, bytes, half, position), s_meanwhile();
    if (half == size || !s_meanwhile) return ::pread(fd, bytes, size, position);
    const ssize_t rest = ::pread(fd, static_cast<char*>(bytes) + half, size - half,
                                 position + static_cast<off_t>(half));
    return rest < 0 ? rest : rest + static_cast<ssize_t>(half);
  };
  char last = 'a';
  // The cut lies in tile 20; or all tiles change.
  for (const auto& [changed, number] : {std::pair(19U, 1U), {20U, 1U}, {19U, 2U}, {0U, kTiles}}) {
    unsigned int calls = 0;
    s_meanwhile = [&, first = changed, count = number] {
      ++calls;
      ++last;
      for (unsigned int i = 0; i < count; ++i)
        EXPECT_EQ(Put(other, kFirst + first + i, std::string(kSize, last)), 0U);
    };
    ZrTileCursor cursor(object);
    unsigned int count = 0;
    for (; cursor.Next() == 0; ++count) {
      ZrByteArray data;
      ASSERT_TRUE(cursor.GetPayload(data));
      EXPECT_EQ(Content(data), std::string(kSize, Content(data)[0])) << Which(cursor);
    }
    EXPECT_EQ(count, kTiles);
    EXPECT_GT(calls, 0U);
  }
  s_meanwhile = nullptr;
}

// Names or cells, in both byte orders.
class ManyVersions : public WalkBase, public ::testing::WithParamInterface<std::tuple<bool, bool>> {
 public:
  static constexpr unsigned int kTiles = 8;
  using Model = std::map<unsigned int, std::map<Stamp, std::string>>;

  ManyVersions() : WalkBase(std::get<0>(GetParam())) {}

  void Make() {
    const bool foreign = std::get<1>(GetParam());
    isNaming ? MakeNaming(2, foreign) : MakeGrid(1, kTiles, foreign);
  }
  // The names of the first pair are 0 and 1: if 0 goes, nothing is found of 1.
  bool IsHidden(const Model& model, unsigned int tile) const {
    return isNaming && tile < 6 && tile % 2 == 1 && !model.count(tile - 1);
  }
  void Compare(const Model& model) {
    unsigned long long tiles = 0, versions = 0;
    for (unsigned int tile = 0; tile < kTiles; ++tile) {
      SCOPED_TRACE(tile);
      const auto found = model.find(tile);
      std::vector<ZrVersion> list = {{9, 9, 9, 9}};
      const auto result = At(tile, [&](auto... at) { return object.GetVersions(at..., list); });
      ASSERT_EQ(result, found == model.end() ? 5U : 0U);
      if (found == model.end()) {
        EXPECT_TRUE(list.empty());
        continue;
      }
      ++tiles;
      versions += list.size();
      ASSERT_EQ(list.size(), found->second.size());
      auto expected = found->second.rbegin();
      for (const ZrVersion& version : list) {
        const auto& [stamp, text] = *expected++;
        EXPECT_EQ(std::tuple(version.stamp, version.capacity, version.filledLength, version.status),
                  std::tuple(stamp, text.size(), text.size(), std::uint8_t{1}));
        ZrByteArray data;
        ZrVersion given;
        EXPECT_EQ(At(tile, [&](auto... at) { return object.Lookup(at..., data, given, stamp); }),
                  0U);
        EXPECT_EQ(Content(data), text);
        EXPECT_EQ(std::tuple(given.stamp, given.filledLength, given.status),
                  std::tuple(stamp, text.size(), std::uint8_t{1}));
      }
    }
    ZrCompactFile::ZrVerifySummary checked;
    ZrStatistics counted, quickly;
    EXPECT_EQ(
        object.Verify(checked) + object.GetStatistics(counted, {}) + object.GetStatistics(quickly),
        0U);
    EXPECT_EQ(
        std::tuple(counted.tiles, counted.versions, counted.indexBytes, counted.liveBytes,
                   counted.deadBytes),
        std::tuple(tiles, versions, checked.indexBytes, checked.liveBytes, checked.deadBytes));
    EXPECT_EQ(std::tuple(quickly.tiles, quickly.indexBytes, quickly.fileBytes),
              std::tuple(tiles, checked.indexBytes,
                         checked.indexBytes + checked.liveBytes + checked.deadBytes));
  }
};
INSTANTIATE_TEST_SUITE_P(Engine, ManyVersions,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool()),
                         [](const auto& param) {
                           return std::string(std::get<0>(param.param) ? "Names" : "Cells") +
                                  (std::get<1>(param.param) ? "Foreign" : "Native");
                         });

TEST_P(ManyVersions, AreAsTheModelHasThem) {
  Make();
  Model model;
  std::mt19937 random(4);
  for (unsigned int round = 0; round < 400; ++round) {
    SCOPED_TRACE(round);
    const auto tile = static_cast<unsigned int>(random() % kTiles);
    const Stamp stamp = 1 + random() % 9;
    if (random() % 4 != 0) {
      // A hidden name would get a second slot, in the place of the one that hides it.
      if (IsHidden(model, tile)) continue;
      const std::string text = std::to_string(round) + std::string(random() % 300, 'x');
      ASSERT_EQ(Put(object, tile, text, stamp), 0U);
      model[tile][stamp] = text;
    } else if (random() % 2 == 0) {
      if (model.count(tile) == 0 || (isNaming && model.count(tile + 1) && tile < 6)) continue;
      ASSERT_EQ(Drop(object, tile), 0U);
      model.erase(tile);
    } else {
      // Of a pair both stay or go, lest one hide the other.
      if (isNaming && stamp > 1)
        for (unsigned int other = 0; other < 6; ++other)
          if (model.count(other)) {
            ASSERT_EQ(Put(object, other, "kept", 9), 0U);
            model[other][9] = "kept";
          }
      unsigned long long removed = 0, expected = 0;
      ASSERT_EQ(object.RemoveOlderThan(stamp, removed), 0U);
      for (auto at = model.begin(); at != model.end();) {
        const auto end = at->second.lower_bound(stamp);
        expected += static_cast<unsigned long long>(std::distance(at->second.begin(), end));
        at->second.erase(at->second.begin(), end);
        at = at->second.empty() ? model.erase(at) : std::next(at);
      }
      EXPECT_EQ(removed, expected);
    }
    Compare(model);
    if (HasFailure()) return;
  }
}

TEST_P(ManyVersions, ProgressEndsACount) {
  Make();
  ASSERT_EQ(Put(object, 6, "tile"), 0U);
  ZrStatistics statistics;
  unsigned int calls = 0;
  EXPECT_EQ(object.GetStatistics(statistics,
                                 [&](auto done, auto total) { return ++calls, done > total; }),
            1U);
  EXPECT_EQ(object.GetStatistics(statistics, [](auto, auto) -> bool { throw 1; }), 1U);
  EXPECT_EQ(calls, 1U);
}

// Of each damaged byte: the cursor gives exactly the tiles that lookups give, and counts those that
// lookups cannot read.
TEST_P(ManyVersions, OfADamagedFileACursorGivesWhatLookupsGive) {
  Make();
  constexpr unsigned int kStored = 4;
  for (unsigned int tile = 0; tile < kStored; ++tile)
    ASSERT_EQ(Put(object, tile, "older", 1) + Put(object, tile, "tile", 2), 0U);
  object.Close();
  const Support::Bytes good = Support::ReadFile(path);
  unsigned int damaged = 0;
  for (std::size_t at = 64; at < good.size(); ++at)
    for (const unsigned int change : {0x01U, 0x80U, 0xFFU}) {
      SCOPED_TRACE(std::to_string(at) + " " + std::to_string(change));
      Support::Bytes bytes = good;
      bytes[at] = static_cast<unsigned char>(bytes[at] ^ change);
      Support::WriteFile(path, bytes);
      if (object.Open(path, u"", ZrCompactFile::kReadOnly) != 0) continue;
      unsigned int rows = 1, cols = 0;
      if (object.GetIndexInfo(rows, cols) == 0 && (rows != 1 || cols != kTiles)) {
        object.Close();  // cells have moved
        continue;
      }
      std::map<unsigned int, Tile> expected, given;
      unsigned int unreadable = 0, result = 0;
      for (unsigned int tile = 0; tile < kTiles; ++tile) {
        const Tile read =
            At(tile, [&](auto... where) { return ReadTile(object, {where...}, ~0ULL); });
        if (read.result == 0) expected[tile] = read;
        unreadable += read.result == 9;
      }
      ZrTileCursor cursor(object);
      while ((result = cursor.Next()) == 0) {
        ZrByteArray data;
        EXPECT_TRUE(cursor.GetPayload(data));
        EXPECT_TRUE(
            given.emplace(Which(cursor), Tile{0, Content(data), cursor.GetVersion().filledLength})
                .second);
      }
      EXPECT_EQ(result, 5U);
      EXPECT_EQ(given, expected);
      EXPECT_TRUE(isNaming || cursor.GetDamagedCount() == unreadable);
      damaged += cursor.GetDamagedCount() != 0;
      unsigned long long removed = 0;
      ZrStatistics statistics;
      std::vector<ZrVersion> list;
      object.GetVersions(0, 0, list);
      EXPECT_EQ(object.RemoveOlderThan(2, removed), 10U) << "for reading only";
      EXPECT_EQ(object.GetStatistics(statistics, {}), 0U);
      EXPECT_EQ(statistics.tiles, given.size());
      object.Close();
      if (HasFailure()) return;
    }
  EXPECT_GT(damaged, 100U);
}

}  // namespace
}  // namespace Zarn
