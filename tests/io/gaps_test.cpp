#include "Gaps.h"

#include <gtest/gtest.h>

#include "Tail.h"

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

}  // namespace
}  // namespace Zarn::Io
