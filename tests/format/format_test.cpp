// The bytes below are written by hand, in both byte orders, and are what existing files hold.

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
#include "PathRules.h"
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
using ::testing::ElementsAreArray;

enum Order { kLittle, kBig };

bool Swap(Order order) { return (order == kBig) == (PELM::un_bigendina == 1); }

template <std::size_t N>
std::array<unsigned char, N> Image(const Bytes& bytes) {
  EXPECT_EQ(bytes.size(), N);
  std::array<unsigned char, N> image{};
  std::copy_n(bytes.begin(), std::min(N, bytes.size()), image.begin());
  return image;
}

// createTime 2.5 is 0x4004000000000000.
const char* const kHeaderBytes[] = {
    "43 46 00  96 02 33 01  01 00 00 00  00 00 00 00 00 00 04 40  40 00 00 00 00 00 00 00  00x37",
    "43 46 01  01 33 02 96  00 00 00 01  40 04 00 00 00 00 00 00  00 00 00 00 00 00 00 40  00x37"};
const char* const kGridBytes[] = {"03 00 00 00  05 00 00 00  01 00 00 00",
                                  "00 00 00 03  00 00 00 05  00 00 00 01"};
const char* const kNamingBytes[] = {
    "80 00 00 00 00 00 00 00  07 00 00 00 00 00 00 00  00 00 00 00 00 00 04 40"
    "00 00 00 00 00 00 F0 BF  01 00 00 00",
    "00 00 00 00 00 00 00 80  00 00 00 00 00 00 00 07  40 04 00 00 00 00 00 00"
    "BF F0 00 00 00 00 00 00  00 00 00 01"};
// Stamp 0x0102030405060708, partial, capacity 6, filled 4.
const char* const kGridHead[] = {
    "32 00 00 00 00 00 00 00  01 00 00 00  08 07 06 05 04 03 02 01  00 00 00 00 00 00 00 02"
    "06 00 00 00 00 00 00 00  04 00 00 00 00 00 00 00",
    "00 00 00 00 00 00 00 32  00 00 00 01  01 02 03 04 05 06 07 08  02 00 00 00 00 00 00 00"
    "00 00 00 00 00 00 00 06  00 00 00 00 00 00 00 04"};
// The same under the name "aB\x20AC", three 16-bit units.
const char* const kNamingHead[] = {
    "40 00 00 00 00 00 00 00  FB 00 00 00  06 00 00 00  61 00 42 00 AC 20  01 00 00 00"
    "08 07 06 05 04 03 02 01  00 00 00 00 00 00 00 02"
    "06 00 00 00 00 00 00 00  04 00 00 00 00 00 00 00",
    "00 00 00 00 00 00 00 40  00 00 00 FB  00 00 00 06  00 61 00 42 20 AC  00 00 00 01"
    "01 02 03 04 05 06 07 08  02 00 00 00 00 00 00 00"
    "00 00 00 00 00 00 00 06  00 00 00 00 00 00 00 04"};
const NewRecord kRecord = {0x0102030405060708, kStatusPartial, 6, 4};

class BothOrders : public ::testing::TestWithParam<Order> {};
INSTANTIATE_TEST_SUITE_P(Format, BothOrders, ::testing::Values(kLittle, kBig),
                         [](const auto& param) { return param.param == kBig ? "Big" : "Little"; });

TEST_P(BothOrders, FileHeader) {
  HeaderImage image = Image<kHeaderSize>(Hex(kHeaderBytes[GetParam()]));
  EXPECT_EQ(HeaderView(image).IsForeignOrder(), Swap(GetParam()));
  if (Swap(GetParam())) SwapHeaderFields(image);
  const HeaderView view(image);
  EXPECT_TRUE(view.HasMagic());
  EXPECT_EQ(view.FormatVersion(), 20120214U);
  EXPECT_EQ(view.FileKind(), kNamingFile);
  EXPECT_EQ(view.CreateTime(), 2.5);
  EXPECT_EQ(view.IndexOffset(), 64U);
  if (!Swap(GetParam())) {
    EXPECT_EQ(NewHeader(kNamingFile, 2.5), image);
  }
}

TEST_P(BothOrders, IndexHeaders) {
  const bool swap = Swap(GetParam());
  const auto grid = Image<kGridHeaderSize>(Hex(kGridBytes[GetParam()]));
  EXPECT_EQ(EncodeGridHeader({3, 5, 1}, swap), grid);
  EXPECT_EQ(EncodeGridHeader(DecodeGridHeader(grid, swap), swap), grid);

  const auto naming = Image<kNamingHeaderSize>(Hex(kNamingBytes[GetParam()]));
  EXPECT_EQ(EncodeNamingHeader({128, 7, 2.5, -1.0, 1}, swap), naming);
  EXPECT_EQ(EncodeNamingHeader(DecodeNamingHeader(naming, swap), swap), naming);
}

TEST_P(BothOrders, RecordHeads) {
  const bool swap = Swap(GetParam());
  Bytes grid(kGridRecordHead);
  EncodeGridRecordHead(grid.data(), kRecord, swap);
  EXPECT_EQ(grid, Hex(kGridHead[GetParam()]));

  const Bytes expected = Hex(kNamingHead[GetParam()]);
  const std::string name(expected.begin() + kNameOffset, expected.begin() + kNameOffset + 6);
  Bytes naming(NamingRecordHeadSize(name.size()));
  EncodeNamingRecordHead(naming.data(), {kNameCharsetUtf16, name}, kRecord, swap);
  EXPECT_EQ(naming, expected);

  for (const auto& [bytes, kind] : {std::pair{grid, kGridFile}, std::pair{naming, kNamingFile}}) {
    RecordHead head;
    // Fed byte by byte as the parser asks for more, it ends complete and never asks for too much.
    HeadParse parse = ParseRecordHead(bytes.data(), 0, kind, swap, head);
    while (parse.outcome == HeadParse::kNeedsMore && parse.needed <= bytes.size())
      parse = ParseRecordHead(bytes.data(), parse.needed, kind, swap, head);
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
    Bytes bytes = Hex((kind == kGridFile ? kGridHead : kNamingHead)[GetParam()]) + Bytes(6);
    const Bytes field = Support::Number(value, width, GetParam() == kBig);
    std::copy(field.begin(), field.end(), bytes.begin() + offset);
    RecordHead head;
    EXPECT_EQ(ParseRecordHead(bytes.data(), bytes.size(), kind, Swap(GetParam()), head).outcome,
              HeadParse::kDamaged)
        << what;
  }
}

TEST(VersionTable, SelectsOlderVersionsOnlyByTheirExactStamp) {
  Bytes bytes(3 * kVersionEntrySize);
  for (std::size_t i = 0; i < 3; ++i)
    StoreScalar<std::uint64_t>(&bytes[i * kVersionEntrySize], 9 - 2 * i, false);
  const VersionTable table(bytes.data(), 3, false);  // stamps 9, 7, 5
  for (const auto& [stamp, entry] : std::initializer_list<std::pair<std::uint64_t, unsigned>>{
           {100, 0}, {9, 0}, {8, 0}, {7, 1}, {6, 0}, {5, 2}, {1, 0}, {0, 0}})
    EXPECT_EQ(table.SelectForLookup(stamp), entry) << stamp;
  for (std::uint32_t count : {0U, 1U})
    EXPECT_EQ(VersionTable(bytes.data(), count, false).SelectForLookup(5), 0U);
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

TEST(Scramble, OneByteOfTheStreamMasksAll) {
  XorString stream{};
  unsigned char state[256];
  stream[255] = 0xA5;
  GenerateStream(state, GenerateKey(u"secret"));
  GenerateXorString(stream.data(), state);
  EXPECT_EQ(stream[255], 0xA5) << "the last byte is not written";
  EXPECT_LT(std::count(stream.begin(), stream.end(), stream[64]), 200) << "a real stream";

  unsigned char buffer[4] = {1, 2, 3, 4};
  ReMakeStream(buffer, 4, stream.data());
  const unsigned char mask = stream[4];
  EXPECT_THAT(buffer, ElementsAreArray({1 ^ mask, 2 ^ mask, 3 ^ mask, 4 ^ mask}));
  ReMakeStream(buffer, 0, stream.data());
  ReMakeStream(buffer, -1, stream.data());
  ReMakeStream(buffer, 4, nullptr);
  ReMakeStream(buffer, 4, stream.data());
  EXPECT_THAT(buffer, ElementsAreArray({1, 2, 3, 4}));
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
  EXPECT_EQ(NextHashCode(0x00ABCDEF01234567), 0x01ABCDEF01234567U);
  EXPECT_EQ(NextHashCode(0xFFABCDEF01234567), 0xFFABCDEF01234567U) << "saturates";
}

TEST(IndexValue, StatusAboveA56BitPosition) {
  EXPECT_EQ(PackIndexValue(2, 0x123), 0x0200000000000123U);
  EXPECT_EQ(StatusOf(0xFF00000000000001), 0xFF);
  EXPECT_EQ(PositionOf(0xFFFFFFFFFFFFFFFF), 0x00FFFFFFFFFFFFFFU);
}

TEST(IndexValue, CellsOfAGrid) {
  EXPECT_EQ(GridCellNumber(3, 5, 2, 4), 14U);
  EXPECT_EQ(GridCellNumber(3, 5, 3, 0), std::nullopt);
  EXPECT_EQ(GridCellNumber(3, 5, 0, 5), std::nullopt);
  EXPECT_EQ(GridEntryOffset(64, 0), 76U);
  EXPECT_EQ(GridDataStart(64, 1, 1), 84U);
  EXPECT_EQ(NamingSlotOffset(64, 4), 164U);
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

TEST(PathRules, Extensions) {
  EXPECT_EQ(CompletePath(u"d.x/tiles"), PelmUnicodeString(u"d.x/tiles.cf"));
  EXPECT_EQ(CompletePath(u"d/tiles.bin"), PelmUnicodeString(u"d/tiles.bin"));
  EXPECT_TRUE(IsCachePath(u"a/b.Sc"));
  EXPECT_FALSE(IsCachePath(u"a.sc/b"));
  EXPECT_FALSE(IsUsablePath(u""));
  EXPECT_FALSE(IsUsablePath(PelmUnicodeString(u"a\0b", 3)));
}

}  // namespace
}  // namespace Zarn::Format
