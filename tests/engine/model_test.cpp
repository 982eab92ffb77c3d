// Random operations on a file and on a model of it in memory must give the same answers.

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "ZrFile.h"
#include "engine/EngineFixture.h"
#include "support/RawFile.h"

namespace Zarn {
namespace {

constexpr int kUnknownByte = -1;  // was never written

struct Version {
  unsigned long long filled = 0;
  std::vector<int> area;
};

/// A tile as it should be: versions by stamp, and a status.
struct ModelTile {
  std::map<unsigned long long, Version, std::greater<>> versions;
  unsigned int status = 0;

  void Store(const std::string& text, unsigned long long capacity, unsigned long long offset,
             unsigned long long stamp) {
    const bool isNewest = versions.empty() || stamp > versions.begin()->first;
    const unsigned int written = offset + text.size() == capacity ? 1 : 2;
    Version& version = versions[stamp];
    version.filled = offset + text.size();
    if (isNewest) version.area.clear();
    version.area.resize(capacity, kUnknownByte);
    for (std::size_t i = 0; i < text.size(); ++i)
      version.area[offset + i] = text[i];
    if (isNewest || written == 2 || status == 2) status = written;
  }
  void ExpectSame(const Tile& tile, unsigned long long stamp) const {
    if (versions.empty()) {
      EXPECT_EQ(tile, (Tile{5, "", 0}));
      return;
    }
    const auto exact = versions.find(stamp);
    const Version& version = exact == versions.end() ? versions.begin()->second : exact->second;
    ASSERT_EQ(tile.result, 0U);
    ASSERT_EQ(tile.payload.size(), version.area.size());
    EXPECT_EQ(tile.filled, version.filled);
    std::string expected = tile.payload;
    for (std::size_t i = 0; i < version.area.size(); ++i)
      if (version.area[i] != kUnknownByte) expected[i] = static_cast<char>(version.area[i]);
    EXPECT_EQ(tile.payload, expected);
  }
};

/// Names of one hash share slots in the order in which they came; the first slot whose tile is gone
/// ends every walk and is taken by the next name.
struct ModelNames {
  struct Slot {
    unsigned int name;
    ModelTile tile;
  };
  std::map<unsigned int, std::vector<Slot>> groups;

  /// Gone slots go, and so do those behind another one of the same name.
  void Compact() {
    for (auto& [group, slots] : groups) {
      std::set<unsigned int> seen;
      std::erase_if(slots, [&](const Slot& slot) {
        return slot.tile.status == 0 || !seen.insert(slot.name).second;
      });
    }
  }
  Slot* Find(unsigned int group, unsigned int name) {
    for (Slot& slot : groups[group])
      if (slot.tile.status == 0 || slot.name == name) return &slot;
    return nullptr;
  }
};

const PelmUnicodeString kNames[] = {u"1yeg98dgy", u"sm38f3s71", u"f1qe6747c", u"fqecng9yn",
                                    u"k9fzdqzdp", u"urp901231", u"alone",     u"a"};
unsigned int GroupOf(unsigned int name) { return name < 6 ? name / 2 : name; }

class Model : public EngineTest, public ::testing::WithParamInterface<std::tuple<bool, bool>> {
 protected:
  void Run(unsigned int seed) {
    const auto [named, foreign] = GetParam();
    std::mt19937 random(seed);
    const auto below = [&random](unsigned int limit) -> unsigned int {
      return static_cast<unsigned int>(random() % limit);
    };
    if (named)
      MakeNaming(1, foreign);
    else
      MakeGrid(2, 4, foreign);
    ModelNames model;
    for (int step = 0; step < 60 && !HasFailure(); ++step) {
      const unsigned int tile = below(8);
      const unsigned long long stamp = below(7);
      ModelNames::Slot* slot = model.Find(named ? GroupOf(tile) : tile, tile);
      switch (below(8)) {
        case 0:
          if (below(3) != 0) {
            Reopen(below(2) == 0 ? kMode : kMode | ZrCompactFile::kMapped);
            break;
          }
          ASSERT_EQ(object.Compact(), 0U);
          model.Compact();
          slot = nullptr;  // it may have moved
          break;
        case 1: {
          const unsigned int removed =
              named ? object.Remove(kNames[tile], stamp) : object.Remove(tile / 4, tile % 4, stamp);
          ASSERT_EQ(removed, named && slot == nullptr ? 10U : 0U);
          if (slot != nullptr) ForgetVersion(*slot, tile, stamp);
          break;
        }
        case 2:
        case 3:
        case 4: {
          const unsigned long long offset = below(3) == 0 ? below(30) : 0;
          const std::string text(1 + below(60), static_cast<char>('a' + below(26)));
          const unsigned long long capacity =
              offset + text.size() + (below(2) == 0 ? below(40) : 0);
          const unsigned int stored =
              named ? object.SetAt(kNames[tile], Data(text), capacity, offset, stamp)
                    : object.SetAt(tile / 4, tile % 4, Data(text), capacity, offset, stamp);
          ASSERT_EQ(stored, 0U);
          if (slot == nullptr) {
            auto& group = model.groups[named ? GroupOf(tile) : tile];
            slot = &group.emplace_back();
          }
          slot->name = tile;
          slot->tile.Store(text, capacity, offset, stamp);
          break;
        }
        default:
          (slot != nullptr ? slot->tile : ModelTile()).ExpectSame(Get(tile, stamp), stamp);
      }
      const ModelNames::Slot* after = model.Find(named ? GroupOf(tile) : tile, tile);
      EXPECT_EQ(Status(tile), after != nullptr ? after->tile.status : 0U);
    }
    Check();
    object.Close();
    ZrFile::Delete(path);
  }

 private:
  Tile Get(unsigned int tile, unsigned long long stamp) {
    return std::get<0>(GetParam()) ? ReadTile(object, kNames[tile], stamp)
                                   : Read(tile / 4, tile % 4, stamp);
  }
  unsigned int Status(unsigned int tile) {
    return std::get<0>(GetParam()) ? object.GetStatus(kNames[tile])
                                   : object.GetStatus(tile / 4, tile % 4);
  }
  void ForgetVersion(ModelNames::Slot& slot, unsigned int tile, unsigned long long stamp) {
    if (slot.tile.status == 0 || slot.tile.versions.erase(stamp) == 0) return;
    if (slot.tile.versions.empty()) {
      slot.tile.status = 0;
      return;
    }
    // The status is then what the file has noted for the version that is the newest now.
    const unsigned int status = Status(tile);
    EXPECT_TRUE(status == 1 || status == 2);
    slot.tile.status = status;
  }
};
INSTANTIATE_TEST_SUITE_P(Engine, Model, ::testing::Combine(::testing::Bool(), ::testing::Bool()),
                         [](const auto& param) {
                           return std::string(std::get<0>(param.param) ? "Names" : "Cells") +
                                  (std::get<1>(param.param) ? "Foreign" : "Native");
                         });

TEST_P(Model, RandomOperations) {
  const PretendToSync quick;
  for (unsigned int seed = 0; seed < 500 && !HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    Run(seed);
  }
}

// What an object remembers of the tiles that it has stored spares it reading, and changes no byte.
TEST_P(Model, FilesAreTheSameHoweverOftenTheyAreOpened) {
  const PretendToSync quick;
  const auto [named, foreign] = GetParam();
  const auto run = [&, named = named, foreign = foreign](unsigned int seed, bool reopens) {
    if (named)
      MakeNaming(8, foreign);
    else
      MakeGrid(2, 4, foreign);
    std::mt19937 random(seed);
    const auto below = [&random](unsigned int limit) -> unsigned int {
      return static_cast<unsigned int>(random() % limit);
    };
    for (int step = 0; step < 40; ++step) {
      if (reopens) Reopen();
      const unsigned int tile = below(2), stamp = below(2), size = 1 + below(5000);
      const unsigned int kind = below(6), room = kind == 1 ? size + 9 : 0, offset = kind == 2;
      const ZrByteArray data = Data(std::string(size, static_cast<char>('a' + step % 26)));
      const unsigned int capacity = room + offset * (size + 1);
      unsigned int result = 0;
      std::vector<unsigned int> results;
      if (kind == 0)
        result = named ? object.Remove(kNames[tile], stamp) : object.Remove(0, tile, stamp);
      else if (kind == 3)
        result = named ? object.SetBatch({{kNames[tile], &data, 0, 0, stamp}}, results)
                       : object.SetBatch({{0, tile, &data, 0, 0, stamp}}, results);
      else
        result = named ? object.SetAt(kNames[tile], data, capacity, offset, stamp)
                       : object.SetAt(0, tile, data, capacity, offset, stamp);
      EXPECT_TRUE(result == 0 || kind == 0);
    }
    object.Close();
    Support::Bytes bytes = Support::ReadFile(path);
    std::fill_n(bytes.begin() + 11, sizeof(double), 0);  // the time of creation
    ZrFile::Delete(path);
    return bytes;
  };
  for (unsigned int seed = 0; seed < 100 && !HasFailure(); ++seed)
    EXPECT_TRUE(run(seed, false) == run(seed, true)) << seed;
}

}  // namespace
}  // namespace Zarn
