// Images are compared with bytes that are put together here, in both byte orders.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>

#include "Header.h"
#include "IndexHeaders.h"
#include "IndexValue.h"
#include "NameHash.h"
#include "PELM.h"
#include "RecordHead.h"
#include "RedoMarks.h"
#include "StoreArguments.h"
#include "support/Hex.h"

namespace Zarn::Format {
namespace {

using Support::Bytes;
using Support::Number;
using Support::operator+;
using Support::Text;

bool Swap(bool big) { return big == (PELM::un_bigendina == 1); }

template <typename Image>
Bytes Whole(const Image& image) {
  return Bytes(image.begin(), image.end());
}

// A double of 2.5 is 0x4004000000000000.
TEST(Format, HeadersOfANamingFile) {
  HeaderImage header = NewHeader(kNamingFile, 2.5);
  for (const bool big : {PELM::un_bigendina != 1, PELM::un_bigendina == 1}) {
    header[2] = big ? 1 : 0;
    EXPECT_EQ(Whole(header), Text("CF") + Number(big, 1, big) + Number(20120214, 4, big) +
                                 Number(1, 4, big) + Number(0x4004000000000000, 8, big) +
                                 Number(64, 8, big) + Bytes(37));
    SwapHeaderFields(header);
    const NamingHeaderImage index = EncodeNamingHeader({128, 7, 2.5, -1.0, 1}, Swap(big));
    EXPECT_EQ(Whole(index), Number(128, 8, big) + Number(7, 8, big) +
                                Number(0x4004000000000000, 8, big) +
                                Number(0xBFF0000000000000, 8, big) + Number(1, 4, big));
    EXPECT_EQ(EncodeNamingHeader(DecodeNamingHeader(index, Swap(big)), Swap(big)), index);
  }
}

TEST(Format, RecordHeadsAreParsedAsFarAsTheyAreThereAndDamageIsRecognised) {
  // A field, and whether a head with it is sound.
  const std::tuple<std::uint32_t, std::ptrdiff_t, std::size_t, std::uint64_t, bool> cases[] = {
      {kGridFile, 0, 8, 50, true},
      {kNamingFile, 0, 8, 64, true},
      {kGridFile, 0, 8, 49, false},
      {kGridFile, 0, 8, 27, false},
      {kNamingFile, 0, 8, 63, false},
      {kNamingFile, 0, 8, 35, false},
      {kGridFile, 8, 4, 2, false},
      {kGridFile, 8, 4, 0x10000001, false},
      {kGridFile, 28, 8, 7, false},
      {kGridFile, 28, 8, UINT64_MAX, false},
      {kNamingFile, 12, 4, 28, false},
      {kNamingFile, 12, 4, 29, false},
      {kNamingFile, 12, 4, UINT32_MAX, false}};
  for (const bool big : {false, true})
    for (const auto& [kind, offset, width, value, isSound] : cases) {
      SCOPED_TRACE(std::to_string(kind) + " " + std::to_string(offset) + " " +
                   std::to_string(value));
      const RecordShape shape = {.kind = kind, .swap = Swap(big)};
      const std::size_t nameLength = shape.IsNaming() ? 6 : 0;
      const Bytes name = Number(251, 4, big) + Number(nameLength, 4, big) + Text("a.B.c.");
      Bytes bytes = Number(50 + (shape.IsNaming() ? 14 : 0), 8, big) +
                    (shape.IsNaming() ? name : Bytes()) + Number(1, 4, big) + Number(9, 8, big) +
                    Number(0x0200000000000000, 8, big) + Number(6, 8, big) + Number(4, 8, big) +
                    Bytes(6);
      const Bytes field = Number(value, width, big);
      std::copy(field.begin(), field.end(), bytes.begin() + offset);
      RecordHead head;
      // Fed byte by byte as the parser asks for more, it never asks for too much.
      HeadParse parse = ParseRecordHead(bytes.data(), 0, shape, head);
      while (parse.outcome == HeadParse::kNeedsMore && parse.needed <= bytes.size())
        parse = ParseRecordHead(bytes.data(), parse.needed, shape, head);
      ASSERT_EQ(parse.outcome, isSound ? HeadParse::kComplete : HeadParse::kDamaged);
      if (!isSound) continue;
      EXPECT_TRUE(head.length == bytes.size() && head.size == bytes.size() - 6);
      EXPECT_TRUE(head.nameLength == nameLength && head.charset == (nameLength == 0 ? 0 : 251));
      EXPECT_TRUE(head.capacity == 6 && head.filledLength == 4);
      const VersionTable table = head.Table(bytes.data(), shape.swap);
      EXPECT_TRUE(table.Stamp(0) == 9 && table.Locator(0) == PackIndexValue(kStatusPartial, 0));
    }
}

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
  Bytes bytes(2 * RedoChecksum::kChunk + 5);
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
