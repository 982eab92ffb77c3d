// The power is lost after a Flush, and any part of what was written since. What was stored before
// and not touched since is there.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "engine/EngineFixture.h"
#include "support/PowerLoss.h"

namespace Zarn {
namespace {

constexpr unsigned int kTiles = 14;

class PowerLossAfterFlush : public EngineTest, public ::testing::WithParamInterface<bool> {
 public:
  PowerLossAfterFlush() : EngineTest(TemporaryFolder::kMemory) {}

  static unsigned int Col(unsigned int tile) { return 495 + tile; }  // 502: on two pages
  static PelmUnicodeString Name(unsigned int tile) { return {u"names of tiles", 1 + tile}; }
  unsigned int Below(unsigned int limit) { return static_cast<unsigned int>(m_random() % limit); }

  // Stores a tile or some, or removes a version; `step` is the first that this takes.
  void Change(std::size_t step) {
    const unsigned int tile = Below(kTiles - 3), count = Below(8) == 0 ? 4 : 1;
    const unsigned int version = 1 + Below(3);
    const ZrByteArray data =
        Data(std::string(std::size_t{20} << 3 * Below(4), static_cast<char>(Below(128))));
    std::vector<ZrCompactFile::ZrCellStore> cells;
    std::vector<ZrCompactFile::ZrNameStore> names;
    std::vector<unsigned int> results;
    for (unsigned int i = tile; i < tile + count; ++i) {
      m_touched[i] = std::min(m_touched[i], step);
      cells.push_back({0, Col(i), &data, 0, 0, version});
      names.push_back({Name(i), &data, 0, 0, version});
    }
    if (Below(8) == 0)
      GetParam() ? object.Remove(Name(tile), version) : object.Remove(0, Col(tile), version);
    else
      ASSERT_EQ(GetParam() ? object.SetBatch(names, results) : object.SetBatch(cells, results), 0U);
  }
  static std::string ReadAll(ZrCompactFile& file, unsigned int tile) {
    std::ostringstream all;
    for (unsigned int i = 1; i <= 3; ++i)
      all << (GetParam() ? ReadTile(file, Name(tile), i) : ReadTile(file, 0, Col(tile), i));
    return all.str();
  }

  // A tile that is stored after the loss is not what a lost one's entry leads to.
  void KeepsNewTiles() {
    ZrCompactFile file;
    ASSERT_EQ(file.Open(path, u"", kMode), 0U);
    ASSERT_EQ(file.SetAt(0, 0, Data("new"), 0, 0, 9), 0U);
    for (unsigned int tile = 0; tile < kTiles; ++tile)
      for (unsigned int version = 9; version > 0; --version)
        file.SetAt(0, Col(tile), Data("x"), 0, 0, version);
    EXPECT_EQ(ReadTile(file, 0, 0, 9), (Tile{0, "new", 3}));
  }

  std::mt19937 m_random;
  std::array<std::size_t, kTiles> m_touched{};  // the first step since the Flush that did
};
INSTANTIATE_TEST_SUITE_P(Engine, PowerLossAfterFlush, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Names" : "Cells"; });

TEST_P(PowerLossAfterFlush, KeepsWhatWasNotTouchedSince) {
  for (int round = 0; round < 40 && !HasFailure(); ++round) {
    ASSERT_EQ(GetParam() ? object.Create(path, 2, u"", 1) : object.Create(path, 1, 600, u"", 1),
              0U);
    PowerLoss power(folder.GetFolder().string());
    for (int i = 0; i < 15; ++i)
      Change(0);
    ASSERT_TRUE(object.Flush());
    std::array<std::string, kTiles> flushed;
    for (unsigned int tile = 0; tile < kTiles; ++tile)
      flushed[tile] = ReadAll(object, tile);
    const std::size_t first = power.CountSteps() + 1;
    m_touched.fill(SIZE_MAX);
    for (int i = 0; i < 10; ++i)
      Change(power.CountSteps());
    object.Close();
    for (unsigned int loss = 0; loss < 12; ++loss) {
      const std::size_t step = first + m_random() % (power.CountSteps() - first + 1);
      power.Leave(step, [&] { return Below(4) < loss % 4; });
      ZrCompactFile file;
      ASSERT_EQ(file.Open(path, u"", ZrCompactFile::kReadOnly), 0U);
      for (unsigned int tile = 0; tile < kTiles; ++tile)
        EXPECT_TRUE(m_touched[tile] < step || ReadAll(file, tile) == flushed[tile]) << tile;
      if (!GetParam()) KeepsNewTiles();
    }
  }
}

}  // namespace
}  // namespace Zarn
