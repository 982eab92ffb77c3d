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

// As a damaged index may have it: of one code the last slot counts, even of so many that they are
// sorted out meanwhile; what is empty is left out.
TEST(NameOrder, OfOneCodeTheLastSlotCounts) {
  constexpr std::uint64_t kValue = Format::PackIndexValue(Format::kStatusPartial, 7);
  for (const std::uint32_t codes : {1U, 100U, 500'000U}) {
    const std::uint32_t slots = codes * 5 / 2;
    const std::uint64_t second = Format::GetNextHashCode(1);
    NameOrder order;
    order.Begin(slots + 2);
    for (std::uint32_t slot = 0; slot < slots; ++slot)
      order.Add(1 + slot % codes, kValue, slot);
    order.Add(codes + 1, Format::PackIndexValue(Format::kStatusEmpty, 7), slots);
    order.Add(second, kValue, slots + 1);
    order.Finish(false);
    ASSERT_EQ(order.GetRest().size(), codes);
    for (const NameOrder::Item& item : order.GetRest())
      ASSERT_EQ(item.slot, (item.hash - 1) + (slots - item.hash) / codes * codes);
    EXPECT_TRUE(order.IsShared(1) && !order.IsShared(2));
    order.Give(codes);
    EXPECT_FALSE(order.Advance());
  }
}

}  // namespace
}  // namespace Zarn::Engine
