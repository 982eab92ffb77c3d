#include "NameHash.h"

#include <bit>
#include <cstddef>

namespace Zarn::Format {
namespace {

constexpr std::uint32_t kMultiplier = 0x5D588B65;
constexpr std::uint32_t kSeed = 0x15051505;
constexpr std::uint32_t kFirstMask = 0xB5A7B5A7;

// Bytes count as signed numbers.
std::uint32_t SignExtended(std::uint8_t byte) {
  return static_cast<std::uint32_t>(std::int32_t{static_cast<std::int8_t>(byte)});
}

// The shift copies the sign.
std::uint32_t Mix(std::uint32_t x) {
  return x * 33 + static_cast<std::uint32_t>(static_cast<std::int32_t>(x) >> 27);
}

// `at(i)` is byte i of the name, sign-extended; at(size) is asked for as well, and is 0.
template <typename At>
std::uint64_t Hash(std::size_t size, At at) {
  if (size == 0) return kHashOfNothing;
  if (size == 1) {
    const std::uint64_t half = (at(0) ^ kFirstMask) + kSeed * kMultiplier;
    return (half << 32 | half) & kHashMask;
  }
  // Two sums over alternate bytes from the front, and two from the back. From the front all bytes
  // are used once. From the back the second sum begins with the terminating zero, not with the byte
  // before the last, so the last byte that it would reach in front is left out.
  std::uint32_t even = at(0) ^ kFirstMask;
  std::uint32_t odd = kSeed;
  std::uint32_t evenBack = at(size - 1) ^ kFirstMask;
  std::uint32_t oddBack = kSeed;
  for (std::size_t i = 1;; i += 2) {
    odd = Mix(odd) ^ at(i);
    oddBack = Mix(oddBack) ^ at(size + 1 - i);
    if (i + 1 >= size) break;
    even = Mix(even) ^ at(i + 1);
    evenBack = Mix(evenBack) ^ at(size - 2 - i);
    if (i + 2 >= size) break;
  }
  const std::uint64_t low = even + odd * kMultiplier;
  const std::uint64_t high = evenBack + oddBack * kMultiplier;
  return (high << 32 | low) & kHashMask;
}

}  // namespace

std::uint64_t HashBytes(std::string_view name) {
  return Hash(name.size(), [name](std::size_t i) {
    return SignExtended(i < name.size() ? static_cast<std::uint8_t>(name[i]) : std::uint8_t{0});
  });
}

// By the bytes of the units, the low one first.
std::uint64_t HashUnits(std::u16string_view name) {
  if constexpr (std::endian::native == std::endian::little)
    return HashBytes({reinterpret_cast<const char*>(name.data()), 2 * name.size()});
  return Hash(2 * name.size(), [name](std::size_t i) {
    const unsigned unit = i / 2 < name.size() ? name[i / 2] : 0U;
    return SignExtended(static_cast<std::uint8_t>(i % 2 == 0 ? unit & 0xFF : unit >> 8));
  });
}

}  // namespace Zarn::Format
