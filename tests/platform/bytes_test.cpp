#include <gtest/gtest.h>

#include <new>
#include <string>

#include "PELM.h"
#include "ZrByteArray.h"

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
  const std::string expected("\x01\x02\x03\x04\xFE\x7F\xF0\0\0\0\0\0\x01hey", 16);
  ZrByteArray array;
  array.SetSwap(PELM::un_bigendina == 1);                          // big-endian bytes on any host
  double real = LoadScalar<double>(&expected[5], array.IsSwap());  // signals if it is touched
  std::int32_t number = 0;
  EXPECT_TRUE(array.Write(std::int32_t{0x01020304}) == 4 && array.Write(std::int8_t{-2}) == 5);
  EXPECT_TRUE(array.Write(real) == 13 && array.WriteBytes("hey", 3) == 16);
  EXPECT_EQ(Bytes(array), expected);
  array.SetPosition(5);
  EXPECT_EQ(array.Read(real) == 13 ? LoadScalar<std::uint64_t>(&real, false) : 0,
            0x7FF0000000000001U);
  array.SetPosition(0);
  array.SetSwap(!array.IsSwap());
  EXPECT_TRUE(array.Read(number) == 4 && number == 0x04030201);
}

TEST(ByteArrayTest, ReadsPastTheEndFail) {
  ZrByteArray array("\1\2\3", 3);
  EXPECT_TRUE(array.SetPosition(~0ULL) == 3 && array.SetPosition(2) == 2);
  char text[] = "___";
  for (const auto size : {2ULL, ~0ULL, ~0ULL - 1})
    EXPECT_TRUE(array.ReadBytes(text, size) == 0 && text == std::string("___"));
  std::uint16_t number = 7;
  EXPECT_TRUE(array.Read(number) == 0 && number == 0);
  EXPECT_TRUE(array.GetPosition() == 2 && array.Resize(1) && array.GetPosition() == 1);
  EXPECT_TRUE(array.Resize(9000) && Bytes(array) == "\1" + std::string(8999, '\0'));
}

TEST(ByteArrayTest, FailedAllocationsChangeNothing) {
  ZrByteArray array("abc", 3);
  array.SetPosition(2);
  const auto reserve = array.GetReserve();
  for (const auto size : {1ULL << 62, (1ULL << 63) - 1, 1ULL << 63, ~0ULL}) {
    EXPECT_FALSE(array.Resize(size) || array.ResizeForOverwrite(size) || array.Reserve(size));
    EXPECT_FALSE(array.Assign("xyz", size) || array.WriteBytes("xyz", size));
    EXPECT_THROW(ZrByteArray("xyz", size), std::bad_alloc);
    EXPECT_EQ(Bytes(array), "abc");
    EXPECT_TRUE(array.GetPosition() == 2 && array.GetReserve() == reserve);
  }
}

TEST(ByteArrayTest, DroppedBytesLeaveTheirRoomAndReserveGrowsBySteps) {
  ZrByteArray array("0123456789", 10);
  array.SetPosition(5);
  array.DropFront(4);
  EXPECT_TRUE(Bytes(array) == "456789" && array.GetPosition() == 0 && array.GetReserve() == 4092);
  EXPECT_TRUE(array.Reserve(4097) && array.GetReserve() == 8192 && Bytes(array) == "456789");
  array.DropFront(1);
  EXPECT_TRUE(array.Reserve(8192) && array.GetReserve() == 8192 && Bytes(array) == "56789");
  EXPECT_TRUE(array.Resize(7) && Bytes(array) == std::string("56789\0\0", 7));
  const unsigned char* const room = array.GetData();
  array.DropFront(99);
  EXPECT_TRUE(array.IsEmpty() && array.ResizeForOverwrite(8192) && array.GetData() == room);
  array.SetGrowthStep((1ULL << 63) - 1);  // not even one step is possible
  EXPECT_TRUE(array.Reserve(9000) && array.GetReserve() == 9000);
}

}  // namespace
}  // namespace Zarn
