#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "ZrFile.h"
#include "engine/EngineFixture.h"
#include "support/RawFile.h"
#include "support/SyscallFaults.h"

namespace Zarn {
namespace {

class Batch : public EngineTest {
 public:
  static constexpr unsigned int kStores = 300;

  // Stores of all kinds: of new and of known tiles, whole and in pieces, invalid ones, some of
  // names of one hash. The same for the same seed.
  void MakeStores(unsigned int seed) {
    const PelmUnicodeString names[] = {u"1yeg98dgy", u"sm38f3s71", u"fqecng9yn", u"f1qe6747c", u""};
    std::mt19937 random(seed);
    const auto below = [&random](unsigned int limit) {
      return static_cast<unsigned int>(random() % limit);
    };
    data.clear();
    for (unsigned int i = 0; i < kStores; ++i) {
      const std::size_t size = below(30) == 0 ? below(2) * 600000 : 1 + below(300);
      data.push_back(Data(std::string(size, static_cast<char>('a' + below(26)))));
    }
    cells.clear();
    named.clear();
    for (const ZrByteArray& tile : data) {
      const unsigned long long offset = below(6) == 0 ? below(9) : 0;
      const unsigned long long capacity = below(4) == 0 ? offset + tile.GetSize() + below(9) : 0;
      const ZrByteArray* const source = below(50) == 0 ? nullptr : &tile;
      const unsigned long long version = below(5);
      cells.push_back({below(4), below(110), source, capacity, offset, version});
      const unsigned int name = below(150);
      named.push_back({name < 5 ? names[name] : PelmUnicodeString::FromUtf8(std::to_string(name)),
                       source, capacity, offset, version});
    }
  }
  std::vector<unsigned int> StoreAll(bool byName, bool together) {
    std::vector<unsigned int> results;
    if (together) {
      const unsigned int result =
          byName ? object.SetBatch(named, results) : object.SetBatch(cells, results);
      const auto bad = std::find_if(results.begin(), results.end(), [](auto r) { return r != 0; });
      EXPECT_EQ(result, bad == results.end() ? 0U : *bad);
      return results;
    }
    for (unsigned int i = 0; i < kStores; ++i) {
      const auto& [row, col, source, capacity, offset, version] = cells[i];
      const ZrByteArray tile = source != nullptr ? *source : ZrByteArray();
      results.push_back(byName ? object.SetAt(named[i].name, tile, capacity, offset, version)
                               : object.SetAt(row, col, tile, capacity, offset, version));
    }
    return results;
  }

  std::vector<ZrByteArray> data;
  std::vector<ZrCompactFile::ZrCellStore> cells;
  std::vector<ZrCompactFile::ZrNameStore> named;
};

TEST_F(Batch, IsAsManyStoresOneAfterTheOther) {
  for (unsigned int seed = 0; seed < 20; ++seed)
    for (const bool byName : {false, true}) {
      SCOPED_TRACE(std::to_string(seed) + (byName ? " names" : " cells"));
      MakeStores(seed);
      std::vector<unsigned int> results[2];
      Support::Bytes files[2];
      for (const bool together : {false, true}) {
        if (byName)
          MakeNaming(8, seed % 2 != 0);
        else
          MakeGrid(4, 100, seed % 2 != 0);
        results[together] = StoreAll(byName, together);
        Check();
        object.Close();
        files[together] = Support::ReadFile(path);
        std::fill_n(files[together].begin() + 11, 8, static_cast<unsigned char>(0));
        ZrFile::Delete(path);
      }
      EXPECT_EQ(results[0], results[1]);
      EXPECT_TRUE(files[0] == files[1]);
    }
  std::vector<unsigned int> results;
  EXPECT_EQ(object.SetBatch(cells, results), StoreAll(false, false).front()) << "closed";
  EXPECT_EQ(results, StoreAll(false, false));
}

TEST_F(Batch, NewTilesTakeFewCalls) {
  const ZrByteArray tile = Data(std::string(1000, 't'));
  for (unsigned int cell = 0; cell < 2000; ++cell)
    cells.push_back({cell / 50, cell % 50, &tile, 0, 0, 1});
  for (unsigned int i = 0; i < 200; ++i)
    named.push_back({PelmUnicodeString::FromUtf8(std::to_string(i)), &tile, 0, 0, 1});
  std::vector<unsigned int> results;
  MakeGrid(40, 50);
  {
    const SyscallFaults calls;
    EXPECT_EQ(object.SetBatch(cells, results), 0U);
    // Blocks of 512, end of the data, pages of the index, entries on two pages, all entries.
    EXPECT_EQ(calls.GetCount(), 4 * 2 + 3 + 4 + 3 * 2 + 1U);
  }
  object.Close();
  ZrFile::Delete(path);
  MakeNaming(256);
  const SyscallFaults calls;
  EXPECT_EQ(object.SetBatch(named, results), 0U);
  EXPECT_EQ(calls.GetCount(), 5U) << "length of the file (2), records, slots, count";
}

}  // namespace
}  // namespace Zarn
