#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "engine/EngineFixture.h"
#include "support/RawFile.h"
#include "support/SyscallFaults.h"

namespace Zarn {
namespace {

class Batch : public EngineTest, public ::testing::WithParamInterface<bool> {
 public:
  // Stores of all kinds: of new and of known tiles, whole and in pieces, invalid ones, some of
  // names of one hash. The same for the same seed.
  void MakeStores(unsigned int seed) {
    const PelmUnicodeString few[] = {u"1yeg98dgy", u"sm38f3s71", u"fqecng9yn", u"f1qe6747c", u""};
    std::mt19937 random(seed);
    spread = seed % 3 == 0 ? 1 : 60;  // else they lie in many pages of the index
    const auto below = [&random](unsigned int limit) {
      return static_cast<unsigned int>(random() % limit);
    };
    cells.clear();
    names.clear();
    for (ZrByteArray& tile : data) {
      const std::size_t size = below(30) == 0 ? below(2) * 600000 : 1 + below(300);
      tile = Data(std::string(size, static_cast<char>('a' + below(26))));
      const unsigned long long offset = below(6) == 0 ? below(9) : 0, version = below(5);
      const unsigned long long capacity = below(4) == 0 ? offset + size + below(9) : 0;
      const ZrByteArray* const source = below(50) == 0 ? nullptr : &tile;
      const unsigned int name = below(150);
      cells.push_back({below(4), below(110) * spread, source, capacity, offset, version});
      names.push_back({name < 5 ? few[name] : PelmUnicodeString::FromUtf8(std::to_string(name)),
                       source, capacity, offset, version});
    }
    if (!GetParam() && seed % 4 < 2)
      std::ranges::sort(cells, {}, [](const auto& cell) { return std::pair(cell.row, cell.col); });
  }
  std::vector<unsigned int> StoreAll(bool together) {
    std::vector<unsigned int> results;
    if (together) {
      const unsigned int first =
          GetParam() ? object.SetBatch(names, results) : object.SetBatch(cells, results);
      const auto bad = std::find_if(results.begin(), results.end(), [](auto r) { return r != 0; });
      EXPECT_EQ(first, bad == results.end() ? 0U : *bad);
      return results;
    }
    for (std::size_t i = 0; i < data.size(); ++i) {
      const auto& [row, col, source, capacity, offset, version] = cells[i];
      const ZrByteArray tile = source != nullptr ? *source : ZrByteArray();
      results.push_back(GetParam() ? object.SetAt(names[i].name, tile, capacity, offset, version)
                                   : object.SetAt(row, col, tile, capacity, offset, version));
    }
    return results;
  }

  unsigned int spread = 1;
  std::vector<ZrByteArray> data = std::vector<ZrByteArray>(300);
  std::vector<ZrCompactFile::ZrCellStore> cells;
  std::vector<ZrCompactFile::ZrNameStore> names;
};
INSTANTIATE_TEST_SUITE_P(Engine, Batch, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Names" : "Cells"; });

TEST_P(Batch, IsAsManyStoresOneAfterTheOther) {
  for (unsigned int seed = 0; seed < 20; ++seed) {
    SCOPED_TRACE(seed);
    MakeStores(seed);
    std::vector<unsigned int> results[2];
    Support::Bytes files[2];
    for (const bool together : {false, true}) {
      GetParam() ? MakeNaming(8, seed % 2 != 0) : MakeGrid(4, 100 * spread, seed % 2 != 0);
      results[together] = StoreAll(together);
      object.Close();
      files[together] = Support::ReadFile(path);
      std::fill_n(files[together].begin() + 11, 8, static_cast<unsigned char>(0));
    }
    EXPECT_EQ(results[0], results[1]);
    EXPECT_TRUE(files[0] == files[1]);
  }
  EXPECT_EQ(StoreAll(true), StoreAll(false)) << "closed";
}

// What a light writer stores takes no lock, so it may come at any moment of the batch.
TEST_F(EngineTest, ABatchLeavesAloneTheCellsBetweenItsOwn) {
  static ZrCompactFileWriter* s_writer;
  static off_t s_entry;
  ASSERT_EQ(object.Create(path, 1, 100, u"", kMode | ZrCompactFile::kProcessLock), 0U);
  ZrCompactFileWriter writer;
  ASSERT_EQ(writer.Open(path, u"", kMode), 0U);
  s_writer = &writer;
  s_entry = 76 + 3 * 8;
  const ZrByteArray data = Data("batch");
  std::vector<unsigned int> results;
  {
    const SyscallFaults restore;
    GetFileSyscalls().pwrite = [](int fd, const void* bytes, std::size_t size, off_t position) {
      if (position == s_entry) {
        s_entry = 0;
        EXPECT_EQ(s_writer->SetAt(0, 5, Data("light"), 0, 0, 1), 0U);
      }
      return ::pwrite(fd, bytes, size, position);
    };
    EXPECT_EQ(object.SetBatch({{0, 3, &data}, {0, 9, &data}}, results), 0U);
  }
  EXPECT_EQ(s_entry, 0);
  for (const unsigned int cell : {3, 5, 9})
    EXPECT_EQ(Read(0, cell, 1).payload, cell == 5 ? "light" : "batch");
}

}  // namespace
}  // namespace Zarn
