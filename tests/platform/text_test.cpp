#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

#include "PelmCharsetCodec.h"
#include "PelmUnicodeString.h"
#include "ZrTextCodec.h"
#include "ZrToolkit.h"
#include "Zr_string.h"

namespace Zarn {
namespace {

using namespace std::string_view_literals;  // NOLINT: for the suffix

PELMCharset::Charset Charset(std::uint32_t n) { return static_cast<PELMCharset::Charset>(n); }

// Bytes that tell charsets from related ones. 163 and 177 end in a letter that awaits a mark.
TEST(CharsetTest, EveryNumberHasItsEncoding) {
  // clang-format off
  const std::tuple<std::uint32_t, std::string_view, std::u16string_view> kSamples[] = {
      {0, "\x80\xE9\x9F", u"\u20AC\u00E9\u0178"}, {1, "\xC3\xA9", u"\u00E9"},
      {77, "\x8E\xD5", u"\u00E9\u2019"}, {134, "\xC4\xE3\x81@\x80", u"\u4F60\u4E02\u20AC"},
      {128, "\x82\xA0\xB1\x87\x40\x81\x60\x5C", u"\u3042\uFF71\u2460\uFF5E\\"},
      {129, "\xB0\xA1\x81\x41", u"\uAC00\uAC02"}, {130, "\x88\x61\xD0\x65", u"\uAC00\uD55C"},
      {136, "\xA4\xA4\xA3\xE1\xF9\xD6", u"\u4E2D\u20AC\u7881"}, {161, "\xA2\xE1", u"\u0386\u03B1"},
      {162, "\xDE\xD0\xFD", u"\u015E\u011E\u0131"}, {163, "\xFE\xD0t\xEA", u"\u20AB\u0110t\u00EA"},
      {177, "\xA4\xE0\xF9", u"\u20AA\u05D0\u05E9"}, {178, "\xC7\x81\xFD", u"\u0627\u067E\u200E"},
      {186, "\xE0\xFE", u"\u0105\u017E"}, {204, "\xCF\xA8", u"\u041F\u0401"},
      {222, "\xA1\x80\x85", u"\u0E01\u20AC\u2026"}, {238, "\xB9\xF8\x9C", u"\u0105\u0159\u015B"},
      {250, "a\xF0\x9F\x98\x80\0"sv, u"a\xD83D\xDE00\0"sv},
      {251, "A\0\xFF\xFE\0\xD8"sv, u"A\xFEFF\xD800"}, {252, "\0A\xFF\xFE"sv, u"A\xFFFE"}};
  // clang-format on
  for (const auto& [number, bytes, units] : kSamples) {
    PelmCharsetCodec codec(Charset(number));
    std::string allBytes, encoded = "?";
    std::u16string allUnits, decoded = u"?";
    for (int times = 0; times < 300; ++times) {
      ASSERT_TRUE(codec.Decode(allBytes, decoded) && codec.Encode(allUnits, encoded)) << number;
      ASSERT_TRUE(decoded == allUnits && encoded == allBytes) << number << " " << times;
      allBytes += bytes;
      allUnits += units;
    }
  }
}

TEST(CodecTest, FailsAsAWholeAndLeavesTheTarget) {
  using Bad = std::pair<std::uint32_t, std::string_view>;  // undefined, cut short or malformed
  std::u16string units = u"kept";
  for (const auto& [number, text] :
       {Bad{0, "\x81 and more"}, Bad{128, "\x82"}, Bad{251, "ab"}, Bad{253, "a"}, Bad{250, "\x80"},
        Bad{250, "\xE2\x82"}, Bad{250, "\xC0\x80"}, Bad{250, "\xE0\x9F\xBF"},
        Bad{250, "\xF0\x8F\xBF\xBF"}, Bad{250, "\xF4\x90\x80\x80"}, Bad{250, "\xC3("}})
    EXPECT_FALSE(PelmCharsetCodec(Charset(number)).Decode("a" + std::string(text), units)) << text;
  std::string bytes = "kept";
  for (const std::uint32_t number : {0U, 77U, 128U, 130U, 163U, 222U, 253U})
    for (const std::u16string_view text : {u"a\u0920", u"\xD800", u"\xDC00z"})
      EXPECT_FALSE(PelmCharsetCodec(Charset(number)).Encode(text, bytes)) << number;
  ZrTextCodec codec;
  EXPECT_TRUE(!codec.Convert("a", bytes) && codec.Open(PELMCharset::kGreek, PELMCharset::kThai));
  EXPECT_FALSE(codec.Convert("a\xE1", bytes) || codec.Open(Charset(253), PELMCharset::kThai));
  EXPECT_TRUE(units == u"kept" && bytes == "kept");
  PelmCharsetCodec vietnamese(PELMCharset::kVietnamese);
  EXPECT_FALSE(vietnamese.Decode("a\x90", units));  // fails while the letter waits for a mark,
  EXPECT_TRUE(vietnamese.Decode("\xEC", units) && units == u"\u0301");  // not got here
}

TEST(CharsetTest, CurrentOneIsResolvedWhenTextIsMade) {
  EXPECT_TRUE(ZrToolkit::SetCurCharset(PELMCharset::kRussian));
  const PelmMBString russian("\xCF");
  EXPECT_TRUE(ZrToolkit::SetCurCharset(PELMCharset::kGreek));
  EXPECT_FALSE(ZrToolkit::SetCurCharset(Charset(1)) || ZrToolkit::SetCurCharset(Charset(253)));
  PelmUnicodeString text;
  EXPECT_TRUE(PelmUnicodeString::FromMBString(russian, text) && text == u"\u041F");
  char16_t units[] = u"__";
  EXPECT_EQ(PelmUnicodeString::AcharToWchar(units, 1, "\xE1\xE2", 2), -1);
  EXPECT_EQ(PelmUnicodeString::AcharToWchar(units + 1, 1, "\xE1", 1), 1);
  EXPECT_TRUE(units == PelmUnicodeString(u"_\u03B1"));
  EXPECT_TRUE(ZrToolkit::SetCurCharset(PELMCharset::kUtf8));
}

TEST(UnicodeStringTest, Utf8CarriesLoneSurrogates) {
  using Text = std::pair<std::u16string_view, std::string_view>;
  for (const auto& [units, bytes] :
       {Text{u"\x7F\x80\x7FF\x800\xFFFF\0"sv, "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\0"sv},
        Text{u"\xD800\xDC00\xDBFF\xDFFF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
        Text{u"\xDFFF\xDBFFz\xD800", "\xED\xBF\xBF\xED\xAF\xBFz\xED\xA0\x80"}}) {
    const PelmUnicodeString string(units.data(), units.size());
    EXPECT_TRUE(string.ToUtf8() == bytes && PelmUnicodeString::FromUtf8(bytes) == string);
  }
  EXPECT_TRUE(PelmUnicodeString::FromUtf8("a\xFF\xE2\x82z\xC0\x80\xC3") ==
              u"a\xDCFF\xDCE2\xDC82z\xDCC0\xDC80\xDCC3");
}

TEST(UnicodeStringTest, OrderIsByUnsignedUnitAndFoldsAsciiLettersOnly) {
  const char16_t* const kAscending[] = {u"", u"A", u"Ab", u"B", u"a", u"\xD83D\xDE00", u"\xFFFF"};
  for (std::size_t i = 1; i < std::size(kAscending); ++i) {
    const PelmUnicodeString a = kAscending[i - 1], b = kAscending[i];
    EXPECT_TRUE(a < b && b.Compare(a) > 0 && Zr_strcmp(a.GetBuffer(), b.GetBuffer()) < 0) << i;
    EXPECT_EQ(Zr_strcmp(b.GetBuffer(), PelmUnicodeString(b).GetBuffer()), 0) << i;
  }
  EXPECT_EQ(PelmUnicodeString(u"azAZ09").CompareNoCase(u"AZaz09"), 0);
  const char16_t *const kSmaller[] = {u"\u00C9", u"K", u"@", u"[", u"A", u"AZAZ0"},
                        *const kLarger[] = {u"\u00E9", u"\u212A", u"`", u"{", u"b", u"azAZ09"};
  for (std::size_t i = 0; i < std::size(kSmaller); ++i)
    EXPECT_LT(PelmUnicodeString(kSmaller[i]).CompareNoCase(kLarger[i]), 0) << i;
}

}  // namespace
}  // namespace Zarn
