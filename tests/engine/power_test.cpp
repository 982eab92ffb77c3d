// The power is lost after a Flush, and any part of what was written since. What was stored before
// and not touched since is there.

#include <gtest/gtest.h>

#include <random>
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
  static PelmUnicodeString Name(unsigned int tile) {
    return PelmUnicodeString::FromUtf8("name " + std::to_string(tile));
  }
  unsigned int Below(unsigned int limit) { return static_cast<unsigned int>(m_random() % limit); }

  // Stores tiles alone, in pieces or in a batch, or removes a version.
  void Change(std::size_t step) {
    constexpr unsigned int kSizes[] = {20, 300, 3000, 9000};
    const unsigned int tile = Below(kTiles), kind = Below(8), count = kind == 0 ? 4 : 1;
    const ZrByteArray data =
        Data(std::string(kSizes[Below(4)], static_cast<char>('a' + Below(26))));
    const unsigned int offset = kind == 1 ? Below(5000) : 0, version = 1 + Below(3);
    const auto capacity = data.GetSize() + offset + (kind < 3 ? Below(200) : 0);
    std::vector<ZrCompactFile::ZrCellStore> cells;
    std::vector<ZrCompactFile::ZrNameStore> names;
    for (unsigned int i = tile; i < tile + count; ++i) {
      m_touched[i % kTiles] = std::min(m_touched[i % kTiles], step);
      cells.push_back({0, Col(i % kTiles), &data, capacity, offset, version});
      names.push_back({Name(i % kTiles), &data, capacity, offset, version});
    }
    std::vector<unsigned int> results;
    if (kind == 2)
      GetParam() ? object.Remove(Name(tile), version) : object.Remove(0, Col(tile), version);
    else if (count > 1)
      ASSERT_EQ(GetParam() ? object.SetBatch(names, results) : object.SetBatch(cells, results), 0U);
    else
      ASSERT_EQ(GetParam() ? object.SetAt(Name(tile), data, capacity, offset, version)
                           : object.SetAt(0, Col(tile), data, capacity, offset, version),
                0U);
  }
  static std::vector<Tile> ReadAll(ZrCompactFile& file, unsigned int tile) {
    std::vector<Tile> tiles;
    for (unsigned int version = 1; version <= 3; ++version)
      tiles.push_back(GetParam() ? ReadTile(file, Name(tile), version)
                                 : ReadTile(file, 0, Col(tile), version));
    return tiles;
  }

  std::mt19937 m_random;
  std::vector<std::size_t> m_touched;  // by tile: the first step since the Flush that did
};
INSTANTIATE_TEST_SUITE_P(Engine, PowerLossAfterFlush, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Names" : "Cells"; });

TEST_P(PowerLossAfterFlush, KeepsWhatWasNotTouchedSince) {
  constexpr auto kReplace = ZrCompactFile::kReplace;
  for (int round = 0; round < 40 && !HasFailure(); ++round) {
    ASSERT_EQ(GetParam() ? object.Create(path, 2ULL, u"", kReplace)
                         : object.Create(path, 1U, 600U, u"", kReplace),
              0U);
    PowerLoss power(folder.GetFolder().string());
    m_touched.assign(kTiles, 0);
    for (int i = 0; i < 15; ++i)
      Change(0);
    ASSERT_TRUE(object.Flush());
    std::vector<std::vector<Tile>> flushed;
    for (unsigned int tile = 0; tile < kTiles; ++tile)
      flushed.push_back(ReadAll(object, tile));
    const std::size_t first = power.CountSteps();
    m_touched.assign(kTiles, SIZE_MAX);
    for (int i = 0; i < 10; ++i)
      Change(power.CountSteps());
    object.Close();
    for (unsigned int loss = 0; loss < 12; ++loss) {
      const std::size_t step =
          first + 1 + Below(static_cast<unsigned int>(power.CountSteps() - first));
      power.Leave(step, [&] { return Below(4) < loss % 4; });
      ZrCompactFile file;
      ASSERT_EQ(file.Open(path, u"", ZrCompactFile::kReadOnly), 0U);
      for (unsigned int tile = 0; tile < kTiles; ++tile)
        EXPECT_TRUE(m_touched[tile] < step || ReadAll(file, tile) == flushed[tile])
            << round << ' ' << loss << ' ' << tile;
    }
  }
}

}  // namespace
}  // namespace Zarn
