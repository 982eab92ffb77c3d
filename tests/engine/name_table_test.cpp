#include "NameTable.h"

#include <gtest/gtest.h>

namespace Zarn::Engine {
namespace {

TEST(NameTable, CodesMadeToMeetDoNot) {
  constexpr std::uint64_t kGolden = 0x9E3779B97F4A7C15;  // what is usually multiplied by
  std::uint64_t inverse = kGolden;
  for (int i = 0; i < 5; ++i)
    inverse *= 2 - kGolden * inverse;
  NameTable table(4096, 4096);
  std::vector<std::uint64_t> codes;
  for (std::uint64_t product = 0; codes.size() < 4096; ++product)
    if (const std::uint64_t code = product * inverse; code >> 56 == 0) codes.push_back(code);
  std::size_t steps = 0;
  for (const std::uint64_t code : codes)
    table.Insert(code, 1, [](std::uint32_t) { return false; });
  for (const std::uint64_t code : codes)
    steps += table.CountSteps(code);
  EXPECT_LT(steps, 512 * codes.size());
}

}  // namespace
}  // namespace Zarn::Engine
