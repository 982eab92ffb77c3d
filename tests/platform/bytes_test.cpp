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

}  // namespace
}  // namespace Zarn
