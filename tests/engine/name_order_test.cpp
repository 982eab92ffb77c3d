#include "NameOrder.h"

#include <gtest/gtest.h>

#include "IndexValue.h"
#include "Layout.h"
#include "NameHash.h"

namespace Zarn::Engine {
namespace {

// More names than a piece holds; the file is compacted in the middle of each piece, and names of
// every hash are stored meanwhile.
TEST(NameOrder, GivesEachHashOnceWhateverSlotsAndPlaces) {
  constexpr std::uint64_t kNames = 1'300'000;
  const auto hashOf = [](std::uint64_t name) { return name * 0x9E3779B97F4A7C15 >> 8; };
  std::vector<unsigned char> given(2 * kNames);
  NameOrder order;
  std::uint64_t names = kNames, factor = 1, pieces = 0, most = 0;
  const auto collect = [&] {
    order.Begin(names);
    for (std::uint64_t slot = 0; slot < names; ++slot) {
      const std::uint64_t name = slot * factor % names;
      order.Add(hashOf(name), Format::PackIndexValue(Format::kStatusComplete, slot ^ 0x55),
                static_cast<std::uint32_t>(name));
    }
    order.Finish(true);
    most = std::max<std::uint64_t>(most, order.GetRest().size());
  };
  const auto give = [&](std::size_t count) {
    std::uint64_t last = 0;
    for (const NameOrder::Item& item : order.GetRest().first(count)) {
      ++given[item.slot];
      EXPECT_GE(item.position, last);
      last = item.position;
    }
    order.Give(count);
  };
  do {
    collect();
    give(order.GetRest().size() / 3);
    names += 1009;
    factor = 999'983;
    collect();
    give(order.GetRest().size());
    ++pieces;
  } while (order.Advance());
  EXPECT_GE(pieces, 2U);
  EXPECT_LE(most, std::uint64_t{1} << 20);
  for (std::uint64_t name = 0; name < names; ++name)
    ASSERT_TRUE(given[name] == 1 || (name >= kNames && given[name] == 0)) << name;
}

// As a damaged index may have it: of one code the last slot counts; what is empty is left out.
TEST(NameOrder, OfOneCodeTheLastSlotCounts) {
  constexpr std::uint64_t kValue = Format::PackIndexValue(Format::kStatusPartial, 7);
  const std::uint64_t second = Format::GetNextHashCode(5);
  NameOrder order;
  order.Begin(6);
  order.Add(5, kValue, 0);
  order.Add(9, Format::PackIndexValue(Format::kStatusEmpty, 7), 1);
  order.Add(5, kValue, 2);
  order.Add(second, kValue, 3);
  order.Finish(false);
  ASSERT_EQ(order.GetRest().size(), 1U);
  EXPECT_EQ(order.GetRest()[0].slot, 2U);
  EXPECT_TRUE(order.IsShared(5) && !order.IsShared(9));
  order.Give(1);
  EXPECT_FALSE(order.Advance());
}

}  // namespace
}  // namespace Zarn::Engine
