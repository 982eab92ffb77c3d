#include <gtest/gtest.h>

#include <string>

#include "engine/EngineFixture.h"

namespace Zarn {
namespace {

// The same file in both byte orders: made by this host, or by hand in the other order.
class Versions : public EngineTest, public ::testing::WithParamInterface<bool> {
 public:
  void SetUp() override { MakeGrid(1, 1, GetParam()); }
  unsigned int Store(std::string_view text, unsigned long long version,
                     unsigned long long capacity = 0, unsigned long long offset = 0) {
    return EngineTest::Store(0, 0, text, version, capacity, offset);
  }
  Tile Read(unsigned long long version) { return EngineTest::Read(0, 0, version); }
};
INSTANTIATE_TEST_SUITE_P(Engine, Versions, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Foreign" : "Native"; });

TEST_P(Versions, TheNewestThatIsLeftHasItsStatus) {
  for (const unsigned int gone : {5U, 0U}) {  // of two older ones the first, or none
    ASSERT_EQ(Store("whole", 5) + Store("part", 7, 9) + Store("older, moved", 5), 0U);
    ASSERT_EQ(Store("new", 9) + object.Remove(0, 0, gone) + Store("completed", 7), 0U);
    ASSERT_EQ(object.Remove(0, 0, 9), 0U);
    EXPECT_EQ(object.GetStatus(0, 0), ZrCompactFile::kPartial) << "as was said of it first";
    EXPECT_EQ(Read(9), (Tile{0, "completed", 9}));
    ASSERT_EQ(object.Remove(0, 0, 7), 0U);
    EXPECT_EQ(object.GetStatus(0, 0), gone == 5 ? 0U : 1U);
  }
}

TEST_P(Versions, ATableSaysWhereEachVersionIs) {
  ASSERT_EQ(Store("AAAA", 5) + Store("BBBBBB", 9) + Store("longer", 5), 0U);
  using Support::operator+;
  EXPECT_EQ(Last(116), Record({{9, 132}, {5, 198}}, "BBBBBB") + Record({{5, 0}}, "longer"));
  ASSERT_EQ(Store("CC", 7), 0U);
  EXPECT_EQ(Last(82), Record({{9, 132}, {7, 248}, {5, 198}}, "BBBBBB"));
}

TEST_P(Versions, PiecesKeepWhatWasThere) {
  ASSERT_EQ(Store("first", 3, 9), 0U);
  EXPECT_EQ(Read(3), (Tile{0, std::string("first\0\0\0\0", 9), 5}));
  ASSERT_EQ(Store("tail", 3, 20, 16), 0U);  // which needs more room than it has
  EXPECT_EQ(Read(3), (Tile{0, std::string("first\0\0\0\0\0\0\0\0\0\0\0tail", 20), 20}));
  ASSERT_EQ(Store("x", 5, 20, 19), 0U);  // of a new version, whose head is longer by 16 bytes
  EXPECT_EQ(Read(5), (Tile{0, "tail" + std::string(15, '\0') + "x", 20}));
}

TEST_P(Versions, WithoutVersionsATileIsNeverRewritten) {
  object.Close();
  Support::Poke(path, 72, Number(0, 4));
  Reopen();
  EXPECT_FALSE(object.IsVersionEnabled());
  ASSERT_EQ(Store("first", 1, 8), 0U);
  EXPECT_EQ(object.GetStatus(0, 0), ZrCompactFile::kPartial);
  EXPECT_EQ(Store("changed!", 1), 0U);
  EXPECT_EQ(object.GetStatus(0, 0), ZrCompactFile::kComplete) << "it follows the store";
  EXPECT_EQ(object.Remove(0, 0, 1), 0U);
  EXPECT_EQ(Read(1).payload, std::string("first\0\0\0", 8));
}

}  // namespace
}  // namespace Zarn
