#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>
#include <tuple>

#include "engine/EngineFixture.h"
#include "support/SyscallFaults.h"

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
  EXPECT_EQ(Check().Describe(132), "66, 9:1|132 5:1|198, 6/6");
  ASSERT_EQ(Store("CC", 7), 0U);
  EXPECT_EQ(Check().Describe(294), "82, 9:1|132 7:1|248 5:1|198, 6/6");
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

// A write is cut short, as by a limit on the size of files, and then fails: what answers 10 has
// changed nothing. All records lie in one page.
TEST_P(Versions, AChangeWithinAPageThatFailsIsTakenBack) {
  static std::size_t s_room;  // bytes that can be written before one write fails
  ASSERT_EQ(Store("one", 1) + Store("two", 2) + Store("new", 3, 6), 0U);
  object.Close();
  const Support::Bytes good = Support::ReadFile(path);
  const auto state = [&] { return std::tuple(Read(1), Read(2), Read(3), object.GetStatus(0, 0)); };
  const std::function<unsigned int()> operations[] = {
      [&] { return Store("NEWEST", 3); }, [&] { return Store("123", 2); },
      [&] { return object.Remove(0, 0, 2); }, [&] { return object.Remove(0, 0, 3); }};
  for (const auto& operation : operations) {
    std::size_t room = 0;
    do {
      SCOPED_TRACE(std::to_string(&operation - operations) + " " + std::to_string(room));
      object.Close();
      Support::WriteFile(path, good);
      Reopen();
      const auto before = state();
      s_room = room++;
      const SyscallFaults restore;
      GetFileSyscalls().pwrite = [](int fd, const void* bytes, std::size_t size, off_t position) {
        const std::size_t now = std::min(size, s_room);
        s_room = now == 0 ? SIZE_MAX : s_room - now;
        return now == 0 ? errno = EFBIG, -1 : ::pwrite(fd, bytes, now, position);
      };
      GetFileSyscalls().pwritev = [](int fd, const iovec* parts, int, off_t position) {
        return GetFileSyscalls().pwrite(fd, parts->iov_base, parts->iov_len, position);
      };
      const unsigned int result = operation();
      EXPECT_TRUE(result == 0 || result == 10);
      EXPECT_EQ(state() == before, result == 10);
    } while (s_room > good.size());
    EXPECT_GT(room, 8U);
  }
}

}  // namespace
}  // namespace Zarn
