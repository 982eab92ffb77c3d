#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "IndexValue.h"
#include "NameHash.h"
#include "RedoMarks.h"
#include "StoreArguments.h"

namespace Zarn::Format {
namespace {

TEST(NameHash, KnownValues) {
  EXPECT_EQ(HashUnits(u""), 0x002816FE2D2816FEU);
  EXPECT_EQ(HashBytes(""), 0x002816FE2D2816FEU);
  EXPECT_EQ(HashUnits(u"ab"), 0x00651DB882E8506FU);
  EXPECT_EQ(HashBytes("\xE9\x41\x7F"), 0x0095E70A65603A26U);
  EXPECT_EQ(HashBytes("\xE9"), 0x007B4C47627B4C47U);
  EXPECT_EQ(HashUnits(u"1yeg98dgy"), 0x000077B24DCCC90DU);
  EXPECT_EQ(HashUnits(u"sm38f3s71"), 0x000077B24DCCC90DU);
  EXPECT_EQ(GetNextHashCode(0x00ABCDEF01234567), 0x01ABCDEF01234567U);
  EXPECT_EQ(GetNextHashCode(0xFFABCDEF01234567), 0xFFABCDEF01234567U) << "saturates";
}

TEST(RedoChecksum, KnownValue) {
  std::vector<unsigned char> bytes(2 * RedoChecksum::kChunk + 5);
  for (std::size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<unsigned char>(i % 251);
  RedoChecksum sum;
  sum.Add(RedoChecksum::kChunk, &bytes[RedoChecksum::kChunk], RedoChecksum::kChunk + 5);
  sum.Add(0, bytes.data(), RedoChecksum::kChunk);
  EXPECT_EQ(sum.Get(), 0xD61E07809BA6840FU);
}

// The product wraps at 32 bits, and no two cells may share an entry because of it.
TEST(IndexValue, WrappedGridsHaveNoEntriesBeyondTheWrappedProduct) {
  EXPECT_EQ(GridCellNumber(2, 3, 0, 3), std::nullopt);
  EXPECT_EQ(GridCellNumber(65536, 65536, 0, 0), std::nullopt);
  EXPECT_EQ(GridCellNumber(65537, 65536, 0, 65535), 65535U);
  EXPECT_EQ(GridCellNumber(65537, 65536, 1, 0), std::nullopt);
  EXPECT_EQ(GridEntryCount(0x4000, 0x10001), 0x4000U) << "the byte count wraps as well";
}

TEST(StoreArguments, Limits) {
  constexpr std::uint64_t kLimit = 0x7FFFFF9C;
  const std::tuple<std::uint64_t, std::uint64_t, std::uint64_t, bool, std::uint8_t> cases[] = {
      {0, 0, 5, true, kStatusComplete},
      {10, 0, 5, true, kStatusPartial},
      {10, 5, 5, true, kStatusComplete},
      {10, 6, 5, false, 0},
      {0, 1, 5, false, 0},
      {0, 0, 0, false, 0},
      {kLimit, 0, 1, true, kStatusPartial},
      {kLimit + 1, 0, 1, false, 0},
      {10, UINT64_MAX - 4, 5, false, 0},
      {0, 0, kLimit + 1, true, kStatusComplete}};
  for (const auto& [capacity, offset, size, valid, status] : cases) {
    const auto span = ResolveStore(capacity, offset, size);
    ASSERT_EQ(span.has_value(), valid) << capacity << ' ' << offset;
    if (!span) continue;
    EXPECT_EQ(span->capacity, capacity == 0 ? size : capacity);
    EXPECT_TRUE(span->FilledLength() == offset + size && span->Status() == status) << offset;
  }
  EXPECT_TRUE(FitSpan(kPositionMask - kGridRecordHead, 0, 1));
  EXPECT_FALSE(FitSpan(kPositionMask - kGridRecordHead + 1, 0, 1)) << "nothing could follow it";
}

}  // namespace
}  // namespace Zarn::Format
