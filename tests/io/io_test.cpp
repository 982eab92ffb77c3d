#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "Gaps.h"
#include "IndexWalker.h"
#include "Tail.h"
#include "ZrFile64.h"
#include "support/RawFile.h"
#include "support/SyscallFaults.h"
#include "support/TemporaryFolder.h"

namespace Zarn::Io {
namespace {

// The rest of a gap stays one, and no byte of it is given away twice.
TEST(Gaps, GiveEachByteOnce) {
  const struct {
    std::uint64_t begin, end;
    bool isOneGap;
  } rows[] = {{90, 110, false}, {110, 120, true},  {115, 116, false}, {119, 121, false},
              {150, 160, true}, {155, 165, false}, {190, 200, true},  {180, 191, false},
              {165, 180, true}, {100, 110, false}, {121, 150, true},  {200, 201, false},
              {300, 310, true}, {250, 400, false}, {310, 320, false}, {20, 30, true},
              {0, 1000, false}, {30, 40, false}};
  Gaps gaps;
  gaps.Add(20, 50);
  gaps.Add(100, 200);
  gaps.Add(300, 400);
  gaps.Add(500, 500);
  for (const auto& row : rows)
    EXPECT_EQ(gaps.Take(row.begin, row.end), row.isOneGap) << row.begin << " " << row.end;
}

TEST(Gaps, AreForgottenWhenOthersMayHaveFilledThem) {
  Tail tail(Format::IndexShape::OfGrid(64, 1, 1), false, Tail::kShared);
  tail.GetGaps().Add(100, 200);
  EXPECT_TRUE(tail.GetGaps().Take(100, 150));
  tail.Refresh(1000);
  EXPECT_FALSE(tail.GetGaps().Take(150, 200));
}

constexpr auto kNames = Format::IndexShape::OfNames(64, 1 << 22);

/// What a walk finds: `?` for a hole, `!` for a block that cannot be read, each slot in use as
/// number:code.
std::string Walk(const ZrFile64& file, std::uint64_t end, const WalkOptions& options) {
  std::string found;
  IndexWalker walker(file, kNames, true, end, options);
  for (std::uint64_t next = walker.Position(); next < end; next = walker.Position()) {
    const bool isRead = walker.Next();
    if (walker.First() > next) found += "? ";
    if (walker.HasFailed()) found += isRead ? "read " : "! ";
    for (std::size_t i = 0; i < walker.Size(); ++i)
      if (walker.Value(i) == 7)
        found += std::to_string(walker.First() + i) + ":" + std::to_string(walker.Code(i)) + " ";
    if (!isRead && !walker.HasFailed()) break;
  }
  return found + "to " + std::to_string(walker.Position());
}

TEST(IndexWalker, PassesOverHolesAndEndsWithTheFile) {
  const TemporaryFolder folder;
  ZrFile64 file;
  Support::WriteFile(folder.GetPath("index"), {});
  ASSERT_TRUE(file.Open(folder.GetPath("index"), ZrFile64::kReadWrite));
  for (const std::uint64_t slot : {10, 1 << 20, 1 << 21}) {
    std::uint64_t words[2];
    StoreScalar(&words[0], std::uint64_t{7}, true);
    StoreScalar(&words[1], slot + 1, true);
    ASSERT_TRUE(file.WriteAt(kNames.EntryAt(slot), words, sizeof words));
  }
  ASSERT_TRUE(file.SetLength(kNames.EntryAt(1 << 21) + 8));  // without the code
  constexpr std::uint64_t kAll = 1 << 22, kFew = (1 << 20) + 9;
  const std::string first = "10:11 ", second = "1048576:1048577 ";
  SyscallFaults calls;
  EXPECT_EQ(Walk(file, kAll, {}), first + "? " + second + "? 2097152:0 to 2097153");
  EXPECT_LT(calls.GetCount(), 20U);
  EXPECT_EQ(Walk(file, kFew, {.first = 11}), "? " + second + "to 1048585");
  EXPECT_EQ(Walk(file, kFew, {.first = kFew - 1000, .readsLastBlock = true}),
            second + "to 1048585");
  EXPECT_EQ(Walk(file, 1 << 19, {}), first + "? to 524288");
  calls.FailCall(2, EIO);
  EXPECT_EQ(Walk(file, kFew, {}), "! ? " + second + "to 1048585");
}

}  // namespace
}  // namespace Zarn::Io
