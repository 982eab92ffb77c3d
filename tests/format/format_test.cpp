// Images are compared with bytes that are put together here, in both byte orders.

#include <gmock/gmock.h>
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
#include "Scramble.h"
#include "StoreArguments.h"
#include "support/Hex.h"

namespace Zarn::Format {
namespace {

using Support::Bytes;
using Support::Hex;
using Support::operator+;
using ::testing::Each;

enum Order { kLittle, kBig };

bool Swap(Order order) { return (order == kBig) == (PELM::un_bigendina == 1); }

template <std::size_t N>
std::array<unsigned char, N> Image(const Bytes& bytes) {
  EXPECT_EQ(bytes.size(), N);
  std::array<unsigned char, N> image{};
  std::copy_n(bytes.begin(), std::min(N, bytes.size()), image.begin());
  return image;
}

// Its payload is six bytes long, the last two of which are not yet there.
const NewRecord kRecord = {0x0102030405060708, kStatusPartial, 6, 4};

class BothOrders : public ::testing::TestWithParam<Order> {
 protected:
  Bytes Field(std::uint64_t value, std::size_t width) const {
    return Support::Number(value, width, GetParam() == kBig);
  }
  // Of kRecord; a naming file's under the name "aB\x20AC", three 16-bit units.
  Bytes Head(std::uint32_t kind) const {
    const Bytes name = Field(64, 8) + Field(251, 4) + Field(6, 4) + Field(u'a', 2) +
                       Field(u'B', 2) + Field(0x20AC, 2);
    return (kind == kNamingFile ? name : Field(50, 8)) + Field(1, 4) + Field(kRecord.stamp, 8) +
           Field(0x0200000000000000, 8) + Field(6, 8) + Field(4, 8);
  }

  const bool swap = Swap(GetParam());
};
INSTANTIATE_TEST_SUITE_P(Format, BothOrders, ::testing::Values(kLittle, kBig),
                         [](const auto& param) { return param.param == kBig ? "Big" : "Little"; });

// A double of 2.5 is 0x4004000000000000.
TEST_P(BothOrders, FileHeader) {
  HeaderImage image =
      Image<kHeaderSize>(Hex(GetParam() == kBig ? "43 46 01" : "43 46 00") + Field(20120214, 4) +
                         Field(1, 4) + Field(0x4004000000000000, 8) + Field(64, 8) + Bytes(37));
  EXPECT_EQ(HeaderView(image).IsForeignOrder(), swap);
  const HeaderImage made = NewHeader(kNamingFile, 2.5);
  if (!swap) {
    EXPECT_EQ(made, image);
    return;
  }
  SwapHeaderFields(image);
  image[2] = made[2];  // the order itself
  EXPECT_EQ(made, image);
}

TEST_P(BothOrders, IndexHeaders) {
  const auto grid = Image<kGridHeaderSize>(Field(3, 4) + Field(5, 4) + Field(1, 4));
  EXPECT_EQ(EncodeGridHeader({3, 5, 1}, swap), grid);
  EXPECT_EQ(EncodeGridHeader(DecodeGridHeader(grid, swap), swap), grid);

  const auto naming =
      Image<kNamingHeaderSize>(Field(128, 8) + Field(7, 8) + Field(0x4004000000000000, 8) +
                               Field(0xBFF0000000000000, 8) + Field(1, 4));
  EXPECT_EQ(EncodeNamingHeader({128, 7, 2.5, -1.0, 1}, swap), naming);
  EXPECT_EQ(EncodeNamingHeader(DecodeNamingHeader(naming, swap), swap), naming);
}

TEST_P(BothOrders, RecordHeads) {
  Bytes grid(kGridRecordHead);
  EncodeRecordHead(grid.data(), {.swap = swap}, {}, kRecord);
  EXPECT_EQ(grid, Head(kGridFile));

  const Bytes expected = Head(kNamingFile);
  const std::string name(expected.begin() + kNameOffset, expected.begin() + kNameOffset + 6);
  const RecordShape names = {.kind = kNamingFile, .swap = swap};
  Bytes naming(RecordHeadSize(names, name.size()));
  EncodeRecordHead(naming.data(), names, {kNameCharsetUtf16, name}, kRecord);
  EXPECT_EQ(naming, expected);

  for (const auto& [bytes, kind] : {std::pair{grid, kGridFile}, std::pair{naming, kNamingFile}}) {
    const RecordShape shape = {.kind = kind, .swap = swap};
    RecordHead head;
    // Fed byte by byte as the parser asks for more, it ends complete and never asks for too much.
    HeadParse parse = ParseRecordHead(bytes.data(), 0, shape, head);
    while (parse.outcome == HeadParse::kNeedsMore && parse.needed <= bytes.size())
      parse = ParseRecordHead(bytes.data(), parse.needed, shape, head);
    ASSERT_EQ(parse.outcome, HeadParse::kComplete);
    EXPECT_EQ(head.size, bytes.size());
    EXPECT_EQ(head.length, bytes.size() + 6);
    EXPECT_EQ(head.nameLength, kind == kNamingFile ? 6U : 0U);
    EXPECT_EQ(head.charset, kind == kNamingFile ? 251U : 0U);
    EXPECT_TRUE(head.capacity == 6 && head.filledLength == 4);
    const VersionTable table = head.Table(bytes.data(), swap);
    EXPECT_EQ(table.Count(), 1U);
    EXPECT_EQ(table.Stamp(0), kRecord.stamp);
    EXPECT_EQ(table.Locator(0), PackIndexValue(kStatusPartial, 0));
  }
}

TEST_P(BothOrders, DamagedRecordHeadsAreRecognised) {
  const std::tuple<const char*, std::uint32_t, std::ptrdiff_t, std::size_t, std::uint64_t> cases[] =
      {{"length below the smallest grid head", kGridFile, 0, 8, 27},
       {"length below the smallest naming head", kNamingFile, 0, 8, 35},
       {"table over the end", kGridFile, 8, 4, 2},
       {"largest table", kGridFile, 8, 4, UINT32_MAX},
       {"capacity one too large", kGridFile, 28, 8, 7},
       {"largest capacity", kGridFile, 28, 8, UINT64_MAX},
       {"name over the end", kNamingFile, 12, 4, 29},
       {"name over the sizes", kNamingFile, 12, 4, 28},
       {"largest name", kNamingFile, 12, 4, UINT32_MAX}};
  for (const auto& [what, kind, offset, width, value] : cases) {
    Bytes bytes = Head(kind) + Bytes(6);
    const Bytes field = Field(value, width);
    std::copy(field.begin(), field.end(), bytes.begin() + offset);
    const RecordShape shape = {.kind = kind, .swap = swap};
    RecordHead head;
    EXPECT_EQ(ParseRecordHead(bytes.data(), bytes.size(), shape, head).outcome, HeadParse::kDamaged)
        << what;
  }
}

TEST(Scramble, KnownKeyAndMasks) {
  EXPECT_EQ(GenerateKey(u"secret"), 0x2DA4971FU);
  EXPECT_EQ(GenerateKey(nullptr), 0U);
  const auto mask = [](const char16_t* password) { return MakeXorString(password)[64]; };
  EXPECT_EQ(mask(u"secret"), 0x3B);
  EXPECT_EQ(mask(u"9"), 0x3B);
  EXPECT_EQ(mask(u"wrong"), 0x20);
  EXPECT_THAT(MakeXorString(u""), Each(0));
}

TEST(NameHash, KnownValues) {
  EXPECT_EQ(HashUnits(u""), 0x002816FE2D2816FEU);
  EXPECT_EQ(HashBytes(""), 0x002816FE2D2816FEU);
  EXPECT_EQ(HashUnits(u"A"), 0x00DC0D8A8CDC0DC9U);
  EXPECT_EQ(HashUnits(u"ab"), 0x00651DB882E8506FU);
  EXPECT_EQ(HashBytes("\xE9\x41\x7F"), 0x0095E70A65603A26U);
  EXPECT_EQ(HashBytes("\xE9"), 0x007B4C47627B4C47U);
  EXPECT_EQ(HashUnits(u"1yeg98dgy"), 0x000077B24DCCC90DU);
  EXPECT_EQ(HashUnits(u"sm38f3s71"), 0x000077B24DCCC90DU);
  EXPECT_EQ(GetNextHashCode(0x00ABCDEF01234567), 0x01ABCDEF01234567U);
  EXPECT_EQ(GetNextHashCode(0xFFABCDEF01234567), 0xFFABCDEF01234567U) << "saturates";
}

// The product wraps at 32 bits, and no two cells may share an entry because of it.
TEST(IndexValue, WrappedGridsHaveNoEntriesBeyondTheWrappedProduct) {
  EXPECT_EQ(GridEntryCount(65536, 65536), 0U);
  EXPECT_EQ(GridCellNumber(65536, 65536, 0, 0), std::nullopt);
  EXPECT_EQ(GridEntryCount(65537, 65536), 65536U);
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
      {10, UINT64_MAX, 5, false, 0},
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
