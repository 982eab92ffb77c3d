// Random operations: a file and a model of it in memory must give the same answers; so must a file
// that is used in another way; and when the power is lost after a Flush, what was stored before and
// not touched since is there, whatever part of the rest has reached the disk.

#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/vfs.h>

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "ZrFile.h"
#include "engine/EngineFixture.h"
#include "support/RawFile.h"
#include "support/SyscallFaults.h"

namespace Zarn {
namespace {

using Stamp = unsigned long long;
using Mode = ZrCompactFile::ZrOpenMode;

struct Request {
  unsigned int tile;
  std::string text;
  Stamp capacity, offset, stamp;
};

// Files with tiles by number, be they cells or names.
class RandomTiles : public EngineTest,
                    public ::testing::WithParamInterface<std::tuple<bool, bool>> {
 public:
  static constexpr unsigned int kTiles = 8;

  RandomTiles() : EngineTest(TemporaryFolder::kMemory) {}

  Subject At(unsigned int tile) const {
    if (!isNaming) return {0, firstCol + tile};
    if (firstCol != 0) return PelmUnicodeString(u"names of tiles", 1 + tile);
    // Three pairs have one hash each.
    const char16_t* const names[] = {u"1yeg98dgy", u"sm38f3s71", u"f1qe6747c", u"fqecng9yn",
                                     u"k9fzdqzdp", u"urp901231", u"alone",     u"a"};
    return tile < kTiles ? names[tile] : u"";
  }
  unsigned int Below(unsigned int limit) { return static_cast<unsigned int>(random() % limit); }
  void Make(Stamp capacity, unsigned int cols) {
    ZrFile::Delete(path);
    isNaming ? MakeNaming(capacity, isForeign) : MakeGrid(1, cols, isForeign);
  }
  std::vector<unsigned int> StoreAll(ZrCompactFile& file, const std::vector<Request>& stores,
                                     bool isBatch) const {
    std::vector<unsigned int> results;
    std::vector<ZrByteArray> data;
    for (const Request& store : stores)
      data.push_back(Data(store.text));
    std::vector<ZrCompactFile::ZrCellStore> cells;
    std::vector<ZrCompactFile::ZrNameStore> names;
    for (std::size_t i = 0; i < stores.size(); ++i) {
      const auto& [tile, text, capacity, offset, stamp] = stores[i];
      const Subject at = At(tile);
      cells.push_back({at.row, at.col, &data[i], capacity, offset, stamp});
      names.push_back({at.name, &data[i], capacity, offset, stamp});
      if (!isBatch) results.push_back(StoreTile(file, at, data[i], stamp, capacity, offset));
    }
    if (isBatch) isNaming ? file.SetBatch(names, results) : file.SetBatch(cells, results);
    return results;
  }

  const bool isNaming = std::get<0>(GetParam()), isForeign = std::get<1>(GetParam());
  unsigned int firstCol = 0;  // if it is another one, no names have one hash
  std::mt19937 random;
};

std::string NameOfParam(const ::testing::TestParamInfo<std::tuple<bool, bool>>& param) {
  return std::string(std::get<0>(param.param) ? "Names" : "Cells") +
         (std::get<1>(param.param) ? "Foreign" : "Native");
}

constexpr int kUnknownByte = -1;  // was never written

struct Version {
  Stamp filled = 0;
  std::vector<int> area;
};

/// A tile as it should be: versions by stamp, and a status.
struct ModelTile {
  std::map<Stamp, Version, std::greater<>> versions;
  unsigned int status = 0;

  void Put(const Request& store) {
    const auto& [tile, text, given, offset, stamp] = store;
    const Stamp end = offset + text.size(), capacity = std::max(given, end);
    const bool isNewest = versions.empty() || stamp > versions.begin()->first;
    const unsigned int written = end == capacity ? 1 : 2;
    Version& version = versions[stamp];
    version.filled = end;
    if (isNewest) version.area.clear();
    version.area.resize(capacity, kUnknownByte);
    std::copy(text.begin(), text.end(), version.area.begin() + static_cast<std::ptrdiff_t>(offset));
    if (isNewest || written == 2 || status == 2) status = written;
  }
  void ExpectSame(const Tile& tile, Stamp stamp) const {
    if (versions.empty()) {
      EXPECT_EQ(tile, (Tile{5, "", 0}));
      return;
    }
    const auto exact = versions.find(stamp);
    const Version& version = exact == versions.end() ? versions.begin()->second : exact->second;
    Tile expected = {0, tile.payload, version.filled};
    expected.payload.resize(version.area.size());
    for (std::size_t i = 0; i < version.area.size(); ++i)
      if (version.area[i] != kUnknownByte) expected.payload[i] = static_cast<char>(version.area[i]);
    EXPECT_EQ(tile, expected);
  }
};

/// Names of one hash share slots in the order in which they came; the first slot whose tile is gone
/// ends every walk and is taken by the next name.
struct ModelNames {
  struct Slot {
    unsigned int name;
    ModelTile tile;
  };
  bool isNaming;
  std::map<unsigned int, std::vector<Slot>> groups;

  std::vector<Slot>& GroupOf(unsigned int name) {
    return groups[isNaming && name < 6 ? name / 2 : name];
  }
  /// Gone slots go, and so do those behind another one of the same name.
  void Compact() {
    for (auto& [group, slots] : groups) {
      std::set<unsigned int> seen;
      std::erase_if(slots, [&](const Slot& slot) {
        return slot.tile.status == 0 || !seen.insert(slot.name).second;
      });
    }
  }
  Slot* Find(unsigned int name) {
    for (Slot& slot : GroupOf(name))
      if (slot.tile.status == 0 || slot.name == name) return &slot;
    return nullptr;
  }
  void Put(const Request& store) {
    Slot* slot = Find(store.tile);
    if (slot == nullptr) slot = &GroupOf(store.tile).emplace_back();
    slot->name = store.tile;
    slot->tile.Put(store);
  }
};

class Model : public RandomTiles {
 protected:
  // By one object, which is opened now and then, or by two that share the file, also where it is on
  // a network. In the end nothing is left of what users have told each other.
  void Run(unsigned int seed) {
    random.seed(seed);
    Make(1, kTiles);
    ZrCompactFile other;
    const bool isShared = seed % 2 != 0;
    GetFileSyscalls().fstatfs = ::fstatfs;
    if (seed % 4 == 1)
      GetFileSyscalls().fstatfs = [](int, struct statfs* status) {
        status->f_type = NFS_SUPER_MAGIC;
        return 0;
      };
    const Mode mode = kMode | (isShared ? ZrCompactFile::kProcessLock : 0);
    if (isShared) {
      ASSERT_EQ(other.Open(path, u"", mode | ZrCompactFile::kMapped), 0U);
    }
    Reopen(mode);
    ModelNames model = {isNaming, {}};
    for (int step = 0; step < 60 && !HasFailure(); ++step) {
      ZrCompactFile& file = isShared && Below(2) == 0 ? other : object;
      const unsigned int tile = Below(kTiles), kind = Below(24);
      const Stamp stamp = Below(7);
      ModelNames::Slot* const slot = model.Find(tile);
      if (kind == 0) {
        ASSERT_EQ(file.Compact(), 0U);
        model.Compact();
      } else if (kind < 3) {
        Reopen(mode | (Below(2) == 0 ? 0 : ZrCompactFile::kMapped));
      } else if (kind < 6) {
        ASSERT_EQ(RemoveTile(file, At(tile), stamp), isNaming && slot == nullptr ? 10U : 0U);
        if (slot != nullptr) ForgetVersion(file, *slot, tile, stamp);
      } else if (kind < 14) {
        std::vector<Request> stores;
        for (unsigned int i = 0; i < (kind < 12 ? 1 : 4); ++i)
          stores.push_back(AnyStore(i == 0 ? tile : Below(kTiles), 60));
        const auto results = StoreAll(file, stores, kind >= 11);
        ASSERT_EQ(results, std::vector<unsigned int>(stores.size()));
        for (const Request& store : stores)
          model.Put(store);
      } else {
        (slot != nullptr ? slot->tile : ModelTile())
            .ExpectSame(ReadTile(file, At(tile), stamp), stamp);
      }
      const ModelNames::Slot* after = model.Find(tile);
      EXPECT_EQ(StatusOf(file, At(tile)), after != nullptr ? after->tile.status : 0U);
    }
    Check();
    other.Close();
    object.Close();
    const Support::Bytes bytes = Support::ReadFile(path);
    EXPECT_EQ(std::count(bytes.begin() + 27, bytes.begin() + 64, 0), 37);
  }
  Request AnyStore(unsigned int tile, unsigned int mostBytes) {
    const Stamp offset = Below(3) == 0 ? Below(30) : 0;
    const std::string text(1 + Below(mostBytes), static_cast<char>('a' + Below(26)));
    const Stamp room = Below(2) == 0 ? Below(40) : 0;
    return {tile, text, offset + text.size() + room, offset, Below(7)};
  }

 private:
  void ForgetVersion(ZrCompactFile& file, ModelNames::Slot& slot, unsigned int tile, Stamp stamp) {
    if (slot.tile.status == 0 || slot.tile.versions.erase(stamp) == 0) return;
    // The status is then what the file has noted for the version that is the newest now.
    slot.tile.status = slot.tile.versions.empty() ? 0 : StatusOf(file, At(tile));
    EXPECT_EQ(slot.tile.versions.empty(), slot.tile.status == 0);
  }
};
INSTANTIATE_TEST_SUITE_P(Engine, Model, ::testing::Combine(::testing::Bool(), ::testing::Bool()),
                         NameOfParam);

TEST_P(Model, RandomOperations) {
  for (unsigned int seed = 0; seed < 500 && !HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    Run(seed);
  }
}

// What an object remembers of the tiles that it has stored spares it reading, and changes no byte;
// nor does it to store them in batches.
TEST_P(Model, FilesAreTheSameHoweverTheyAreMade) {
  enum How { kOneByOne, kReopened, kInBatches };
  using Made = std::pair<Support::Bytes, std::vector<unsigned int>>;
  const auto make = [&](unsigned int seed, How how, bool isOften) {
    random.seed(seed);
    Make(8, kTiles);
    Made made;
    for (int step = 0; step < 12; ++step) {
      if (how == kReopened) Reopen();
      std::vector<Request> stores;
      for (unsigned int i = 0; i < (isOften ? 1 : 9); ++i) {
        stores.push_back(AnyStore(Below(isOften ? 2 : kTiles), 5000));
        stores.back().stamp %= 2;
        if (!isOften && Below(30) == 0) stores.back().tile = kTiles;  // none
        if (!isOften && Below(30) == 0) stores.back().text.clear();
        if (!isOften && Below(90) == 0) stores.back().capacity = ~0ULL;
      }
      const unsigned int kind = Below(6);
      const auto results =
          kind == 0 ? std::vector{RemoveTile(object, At(stores[0].tile), stores[0].stamp)}
                    : StoreAll(object, stores, how == kInBatches || kind == 1);
      made.second.insert(made.second.end(), results.begin(), results.end());
    }
    object.Close();
    Check();
    made.first = Support::ReadFile(path);
    std::fill_n(made.first.begin() + 11, sizeof(double), 0);  // the time of creation
    return made;
  };
  for (unsigned int seed = 0; seed < 100 && !HasFailure(); ++seed) {
    EXPECT_TRUE(make(seed, kOneByOne, false) == make(seed, kInBatches, false)) << seed;
    EXPECT_TRUE(make(seed, kOneByOne, true) == make(seed, kReopened, true)) << seed;
  }
}

class PowerLossAfterFlush : public RandomTiles {
 public:
  // Stores a tile or some, removes a version, or compacts; `step` is the first that this takes.
  void Change(std::size_t step) {
    const unsigned int tile = Below(kTiles - 3), count = Below(8) == 0 ? 4 : 1;
    const Stamp stamp = 1 + Below(3);
    const std::string text(std::size_t{20} << 3 * Below(4), static_cast<char>('a' + Below(26)));
    std::vector<Request> stores;
    for (unsigned int i = tile; i < tile + count; ++i) {
      stores.push_back({i, text, 0, 0, stamp});
      m_touched[i] = std::min(m_touched[i], step);
    }
    if (Below(8) == 0)
      RemoveTile(object, At(tile), stamp);
    else
      ASSERT_EQ(StoreAll(object, stores, true), std::vector<unsigned int>(count));
  }
  // To the end; or on a disk that fills, or cut short; one of a disk that fills ends it, too.
  void Compact(SyscallFaults& power) {
    const int faults[] = {0, EIO, ENOSPC}, fault = faults[Below(3)];
    const std::size_t before = power.GetCount();
    const unsigned int call = m_calls / 2 + Below(m_calls / 2);  // once the new file is complete
    power.FailCall(fault == ENOSPC ? 1 + Below(25) : call, fault, SyscallFaults::kFromThenOn);
    object.Compact();
    if (fault == 0) m_calls = static_cast<unsigned int>(power.GetCount() - before);
    object.Close();
    if (fault == ENOSPC) {
      EXPECT_EQ(Support::ReadFile(path).front(), 'C') << "a mark is left";
    }
    power.FailCall(1 + Below(8), ENOSPC, SyscallFaults::kFromThenOn);
    ASSERT_EQ(object.Open(path, u"", kMode), 0U);
    power.FailCall(0, 0);
  }
  std::string ReadAll(ZrCompactFile& file, unsigned int tile) const {
    std::ostringstream all;
    for (Stamp stamp = 1; stamp <= 3; ++stamp)
      all << ReadTile(file, At(tile), stamp);
    return all.str();
  }
  // A tile that is stored after the loss is not what a lost one's entry leads to.
  void KeepsNewTiles() const {
    ZrCompactFile file;
    ASSERT_EQ(file.Open(path, u"", kMode), 0U);
    ASSERT_EQ(file.SetAt(0, 0, Data("new"), 0, 0, 9), 0U);
    for (unsigned int tile = 0; tile < kTiles; ++tile)
      for (Stamp stamp = 9; stamp > 0; --stamp)
        StoreAll(file, {{tile, "x", 0, 0, stamp}}, false);
    EXPECT_EQ(ReadTile(file, {0, 0}, 9), (Tile{0, "new", 3}));
  }

  unsigned int m_calls = 60;                    // that a compaction takes
  std::array<std::size_t, kTiles> m_touched{};  // the first step since the Flush that did
};
INSTANTIATE_TEST_SUITE_P(Engine, PowerLossAfterFlush,
                         ::testing::Combine(::testing::Bool(), ::testing::Values(false)),
                         NameOfParam);

TEST_P(PowerLossAfterFlush, KeepsWhatWasNotTouchedSince) {
  random.seed(10);  // tears the last record in its head, too
  firstCol = 498;   // the entry of 502 lies on two pages
  for (int round = 0; round < 200 && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    Make(2, 600);
    SyscallFaults power(folder.GetFolder().string());
    for (int i = 0; i < 15; ++i)
      round % 8 == 7 && i == 12 ? Compact(power) : Change(0);
    ASSERT_TRUE(object.Flush());
    std::array<std::string, kTiles> flushed;
    for (unsigned int tile = 0; tile < kTiles; ++tile)
      flushed[tile] = ReadAll(object, tile);
    const std::size_t first = power.CountSteps();
    m_touched.fill(SIZE_MAX);
    for (int i = 0; i < 10; ++i)
      round % 2 != 0 && i % 4 == 1 ? Compact(power) : Change(power.CountSteps());
    object.Close();
    const auto steps = static_cast<unsigned int>(power.CountSteps() - first);
    for (unsigned int loss = 0; loss < 16; ++loss) {
      const std::size_t step = first + 1 + Below(steps);
      power.Leave(step, [&] { return Below(4) < loss % 5; });
      ZrCompactFile file;
      ASSERT_EQ(file.Open(path, u"", ZrCompactFile::kReadOnly), 0U);
      for (unsigned int tile = 0; tile < kTiles; ++tile)
        EXPECT_TRUE(m_touched[tile] < step || ReadAll(file, tile) == flushed[tile]) << tile;
      file.Close();
      if (!isNaming) KeepsNewTiles();
    }
  }
}

}  // namespace
}  // namespace Zarn
