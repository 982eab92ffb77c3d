#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <csignal>
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

// Each row of the table is one operation and the whole state after it.
TEST_P(Versions, EveryKindOfStoreAndRemoval) {
  struct Row {
    unsigned int (*operation)(Versions& test);
    unsigned long long fileSize;
    unsigned int status;
    unsigned long long position;
    const char* record;  // length, versions as stamp:status|position, capacity/filled
  };
  const Row rows[] = {
      {[](Versions& t) { return t.Store("AAAA", 5); }, 132, 1, 84, "48, 5:1|0, 4/4"},
      {[](Versions& t) { return t.Store("BBBBBB", 9); }, 198, 1, 132, "66, 9:1|0 5:1|84, 6/6"},
      {[](Versions& t) { return t.Store("CC", 7); }, 326, 1, 244,
       "82, 9:1|132 7:1|198 5:1|84, 6/6"},
      {[](Versions& t) { return t.Store("ZZ", 2); }, 470, 1, 372,
       "98, 9:1|132 7:1|198 5:1|84 2:1|326, 6/6"},
      {[](Versions& t) { return t.Store("DDDD", 9); }, 470, 1, 372,
       "96, 9:1|132 7:1|198 5:1|84 2:1|326, 4/4"},
      {[](Versions& t) { return t.Store("EE", 5, 4, 2); }, 470, 1, 372,
       "96, 9:1|132 7:1|198 5:1|84 2:1|326, 4/4"},
      {[](Versions& t) { return t.Store("FFFFFFFF", 5); }, 522, 1, 372,
       "96, 9:1|132 7:1|198 5:1|470 2:1|326, 4/4"},
      {[](Versions& t) { return t.Store("GG", 12); }, 632, 1, 522,
       "110, 12:1|0 9:1|372 7:1|198 5:1|470 2:1|326, 2/2"},
      {[](Versions& t) { return t.object.Remove(0, 0, 7); }, 632, 1, 522,
       "110, 12:1|0 9:1|372 5:1|470 2:1|326, 2/2"},
      {[](Versions& t) { return t.Store("HHHHHH", 12); }, 632, 1, 522,
       "98, 12:1|522 9:1|372 5:1|470 2:1|326, 6/6"},
      {[](Versions& t) { return t.object.Remove(0, 0, 12); }, 632, 1, 372,
       "80, 9:1|372 5:1|470 2:1|326, 4/4"},
      {[](Versions& t) { return t.object.Remove(0, 0, 2); }, 632, 1, 372,
       "80, 9:1|372 5:1|470, 4/4"},
      {[](Versions& t) { return t.Store("I", 11, 6, 3); }, 714, 2, 632,
       "82, 11:2|0 9:1|372 5:1|470, 6/4"},
  };
  int number = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(++number);
    ASSERT_EQ(row.operation(*this), 0U);
    Reopen();
    const Support::FileChecker file = Check();
    EXPECT_EQ(file.GetSize(), row.fileSize);
    EXPECT_EQ(file.GetEntry(), static_cast<unsigned long long>(row.status) << 56 | row.position);
    EXPECT_EQ(file.Describe(row.position), row.record);
    if (number == 6) {
      EXPECT_EQ(Read(5), (Tile{0, "AAEE", 4})) << "the piece went into the older version";
    }
  }
  EXPECT_EQ(Read(9), (Tile{0, "DDDD", 4}));
  EXPECT_EQ(Read(5), (Tile{0, "FFFFFFFF", 8}));
  // Entry 0 that says "this record" gets its position when the current record is written again.
  ASSERT_EQ(Store("longer than before", 5), 0U);
  EXPECT_EQ(Check().Describe(632), "82, 11:2|632 9:1|372 5:1|714, 6/4");
  EXPECT_EQ(Read(11).filled, 4U);
  EXPECT_EQ(Read(11).payload.substr(3, 1), "I");
}

TEST_P(Versions, PiecesCompleteATile) {
  const std::string first(60, '1'), second(40, '2');
  ASSERT_EQ(Store(first, 3, 100), 0U);
  EXPECT_EQ(object.GetStatus(0, 0), ZrCompactFile::kPartial);
  EXPECT_EQ(Read(3), (Tile{0, first + std::string(40, '\0'), 60}));
  ASSERT_EQ(Store(second, 3, 100, 60), 0U);
  EXPECT_EQ(object.GetStatus(0, 0), ZrCompactFile::kComplete);
  EXPECT_EQ(Read(3), (Tile{0, first + second, 100}));
  // A piece of a version that needs more room than it has takes along what was there.
  ASSERT_EQ(Store("tail", 3, 150, 146), 0U);
  EXPECT_EQ(Read(3), (Tile{0, first + second + std::string(46, '\0') + "tail", 150}));
  EXPECT_EQ(Store("zz", 3, 0, 1), 10U);
  Check();
}

TEST_P(Versions, WithoutVersionsATileIsNeverRewritten) {
  object.Close();
  Support::Poke(path, 72, Support::Number(0, 4, IsBig()));
  Reopen();
  EXPECT_FALSE(object.IsVersionEnabled());
  ASSERT_EQ(Store("first", 1, 8), 0U);
  EXPECT_EQ(object.GetStatus(0, 0), ZrCompactFile::kPartial);
  EXPECT_EQ(Store("changed!", 1), 0U);
  EXPECT_EQ(object.GetStatus(0, 0), ZrCompactFile::kComplete)
      << "it follows the store all the same";
  EXPECT_EQ(Read(1).payload, std::string("first\0\0\0", 8));
  EXPECT_EQ(object.Remove(0, 0, 1), 0U);
  EXPECT_EQ(Read(1).result, 0U);
}

// Wherever a limit on the size of files lies, and whichever call fails: what answers 10 has changed
// nothing. All records lie in one page.
TEST_P(Versions, AChangeWithinAPageThatFailsIsTakenBack) {
  using Operation = unsigned int (*)(Versions & test);
  const Operation operations[] = {
      [](Versions& t) { return t.Store("NEWEST", 3); },  // completes it
      [](Versions& t) { return t.Store("NE", 3, 6); },
      [](Versions& t) { return t.Store("123", 2); },
      [](Versions& t) { return t.object.Remove(0, 0, 2); },
      [](Versions& t) { return t.object.Remove(0, 0, 3); },
  };
  ASSERT_EQ(Store("one", 1) + Store("two", 2) + Store("new", 3, 6), 0U);
  object.Close();
  const Support::Bytes good = Support::ReadFile(path);
  const auto state = [&] { return std::tuple(Read(1), Read(2), Read(3), object.GetStatus(0, 0)); };
  for (const Operation& operation : operations) {
    SCOPED_TRACE(&operation - operations);
    // Runs the operation under the n-th fault of a kind; true while there is one.
    const auto runs = [&](auto fault, std::size_t n) {
      object.Close();
      Support::WriteFile(path, good);
      Reopen();
      const auto before = state();
      const auto [result, strikes] = fault(n);
      EXPECT_TRUE(result == 0 || (result == 10 && strikes)) << n << ": " << result;
      EXPECT_EQ(state() == before, result == 10) << n;
      return strikes;
    };
    const auto failingCall = [&](std::size_t n) {
      SyscallFaults faults;
      faults.FailCall(n, EIO);
      const unsigned int result = operation(*this);
      return std::pair(result, faults.HasFailed());
    };
    const auto limit = [&](std::size_t n) {
      rlimit old;
      ::getrlimit(RLIMIT_FSIZE, &old);
      const rlimit now = {84 + n, old.rlim_max};
      const auto handler = std::signal(SIGXFSZ, SIG_IGN);
      ::setrlimit(RLIMIT_FSIZE, &now);
      const unsigned int result = operation(*this);
      ::setrlimit(RLIMIT_FSIZE, &old);
      std::signal(SIGXFSZ, handler);
      return std::pair(result, result != 0);
    };
    for (std::size_t n = 1; runs(failingCall, n); ++n) {
    }
    std::size_t room = 0;
    while (room < good.size() && runs(limit, room))
      ++room;
    EXPECT_GT(room, 40U);
    EXPECT_LT(room, good.size());
  }
}

TEST_P(Versions, DamageIsReportedAndChangesNothing) {
  ASSERT_EQ(Store("one", 1), 0U);
  ASSERT_EQ(Store("two", 2), 0U);    // record at 131, two versions
  ASSERT_EQ(Store("three", 3), 0U);  // at 194
  object.Close();
  const Support::Bytes good = Support::ReadFile(path);
  struct Case {
    const char* what;
    std::size_t offset;
    Support::Bytes bytes;
    unsigned int newest, older, stored, removed;  // Lookup 3, Lookup 2, SetAt 2, Remove 3
  };
  const Case cases[] = {
      {"nothing", 0, {}, 0, 0, 0, 0},
      {"status 3", 76, Number(3ULL << 56 | 194), 9, 9, 0, 0},
      {"position in the index", 76, Number(1ULL << 56 | 80), 9, 9, 10, 10},
      {"position in the header", 76, Number(1ULL << 56 | 8), 9, 9, 10, 10},
      {"position at the end", 76, Number(1ULL << 56 | good.size()), 9, 9, 10, 10},
      {"length over the end", 194, Number(good.size() - 194 + 1), 9, 9, 10, 10},
      {"no version", 202, Number(0, 4), 9, 9, 10, 10},
      {"largest count", 202, Number(UINT32_MAX, 4), 9, 9, 10, 10},
      {"largest capacity", 254, Number(UINT64_MAX), 9, 9, 10, 10},
      {"older position in the index", 230, Number(1ULL << 56 | 80), 0, 9, 10, 10},
      {"older position is this record", 230, Number(1ULL << 56 | 194), 0, 0, 10, 10},
      {"older record has another stamp", 143, Number(7), 0, 0, 10, 10},
      {"older record damaged", 131, Number(1), 0, 9, 10, 10},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.what);
    Support::WriteFile(path, good);
    Support::Poke(path, test.offset, test.bytes);
    const Support::Bytes damaged = Support::ReadFile(path);
    for (const auto mode : {kMode | ZrCompactFile::kMapped, kMode}) {
      Reopen(mode);
      EXPECT_EQ(Read(3).result, test.newest);
      EXPECT_EQ(Read(2).result, test.older);
    }
    EXPECT_EQ(Store("2", 2), test.stored);
    EXPECT_EQ(object.Remove(0, 0, 3), test.removed);
    object.Close();
    if (test.stored == 10) {
      EXPECT_EQ(Support::ReadFile(path), damaged);
    }
  }
}

}  // namespace
}  // namespace Zarn
