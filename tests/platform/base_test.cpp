#include <gtest/gtest.h>

#include <barrier>
#include <list>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include "PELM.h"
#include "PelmCharsetCodec.h"
#include "PelmUnicodeString.h"
#include "ZrByteArray.h"
#include "ZrMutex.h"
#include "ZrTextCodec.h"
#include "ZrThread.h"
#include "ZrToolkit.h"
#include "Zr_string.h"

// A sanitizer ends the process at an allocation that can only fail; here null is what is wanted.
#define SANITIZER_OPTIONS extern "C" __attribute__((visibility("default"))) const char*
SANITIZER_OPTIONS __asan_default_options() { return "allocator_may_return_null=1"; }
SANITIZER_OPTIONS __tsan_default_options() { return "allocator_may_return_null=1"; }

namespace Zarn {
namespace {

std::string Bytes(const ZrByteArray& array) {
  return {reinterpret_cast<const char*>(array.GetData()), array.GetSize()};
}

TEST(ByteArrayTest, SwapReversesScalarsOnly) {
  const std::string expected("\x01\x02\x03\x04\x7F\xF0\0\0\0\0\0\x01hey", 15);
  ZrByteArray array;
  array.SetSwap(PELM::un_bigendina == 1);                          // big-endian bytes on any host
  double real = LoadScalar<double>(&expected[4], array.IsSwap());  // signals if it is touched
  EXPECT_TRUE(array.Write(std::int32_t{0x01020304}) == 4 && array.Write(real) == 12);
  EXPECT_TRUE(array.WriteBytes("hey", 3) == 15 && Bytes(array) == expected);
  array.SetPosition(4);
  EXPECT_EQ(array.Read(real) == 12 ? LoadScalar<std::uint64_t>(&real, false) : 0,
            0x7FF0000000000001U);
}

TEST(ByteArrayTest, ReadsPastTheEndAndFailedAllocationsChangeNothing) {
  ZrByteArray array("\1\2\3", 3);
  EXPECT_TRUE(array.SetPosition(~0ULL) == 3 && array.SetPosition(2) == 2);
  char text[] = "___";
  std::uint16_t number = 7;
  EXPECT_TRUE(array.Read(number) == 0 && number == 0);
  for (const auto size : {2ULL, 1ULL << 62, (1ULL << 63) - 1, 1ULL << 63, ~0ULL - 1, ~0ULL}) {
    EXPECT_TRUE(array.ReadBytes(text, size) == 0 && text == std::string("___"));
    if (size == 2) continue;
    EXPECT_FALSE(array.Resize(size) || array.ResizeForOverwrite(size) || array.Reserve(size));
    EXPECT_FALSE(array.Assign("xyz", size) || array.WriteBytes("xyz", size));
    EXPECT_THROW(ZrByteArray("xyz", size), std::bad_alloc);
    EXPECT_TRUE(Bytes(array) == "\1\2\3" && array.GetPosition() == 2);
  }
  EXPECT_TRUE(array.Resize(1) && array.GetPosition() == 1);
  EXPECT_TRUE(array.Resize(9000) && Bytes(array) == "\1" + std::string(8999, '\0'));
}

TEST(ByteArrayTest, DroppedBytesLeaveTheirRoomAndReserveGrowsBySteps) {
  ZrByteArray array("0123456789", 10);
  array.SetPosition(5);
  array.DropFront(4);
  EXPECT_TRUE(Bytes(array) == "456789" && array.GetPosition() == 0 && array.GetReserve() == 4092);
  EXPECT_TRUE(array.Reserve(4097) && array.GetReserve() == 8192 && Bytes(array) == "456789");
  const unsigned char* const room = array.GetData();
  array.DropFront(99);
  EXPECT_TRUE(array.IsEmpty() && array.ResizeForOverwrite(8192) && array.GetData() == room);
  array.SetGrowthStep((1ULL << 63) - 1);  // not even one step is possible
  EXPECT_TRUE(array.Reserve(9000) && array.GetReserve() == 9000);
}

TEST(MutexTest, OnlyReentrantOnesLockTwice) {
  for (const int reentrant : {0, 1}) {
    ZrMutex mutex(reentrant);
    mutex.Lock();
    EXPECT_EQ(mutex.TryLock(), reentrant == 1);
    for (int depth = reentrant; depth >= 0; --depth) {
      std::jthread([&] { EXPECT_FALSE(mutex.TryLock()); }).join();
      mutex.Unlock();
    }
    std::jthread([&] { EXPECT_TRUE(mutex.TryLock() && (mutex.Unlock(), true)); }).join();
  }
}

// Spoils the number of a thread that has another one when its objects are destroyed.
struct AsksAtTheEnd {
  std::uint32_t& number;
  ~AsksAtTheEnd() { number *= number == ZrThread::GetCurrentThreadId(); }
};

TEST(ThreadTest, NumbersAreUniqueAmongLiveThreadsAndUsedAgain) {
  for (int round = 0; round < 625; ++round) {
    std::uint32_t numbers[] = {ZrThread::GetCurrentThreadId(), 0, 0, 0, 0, 0, 0, 0, 0};
    std::barrier allHaveOne(8);
    std::list<std::jthread> threads;
    for (int i = 1; i <= 8; ++i)
      threads.emplace_back([&number = numbers[i], &allHaveOne] {
        thread_local const AsksAtTheEnd asks{number = ZrThread::GetCurrentThreadId()};
        allHaveOne.arrive_and_wait();
      });
    threads.clear();
    ASSERT_EQ(std::set(numbers, numbers + 9), (std::set{1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U}));
  }
}

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
