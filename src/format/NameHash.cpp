#include "NameHash.h"

#include <bit>
#include <cstddef>
#include <string>

namespace Zarn::Format {
namespace {

constexpr std::uint32_t kMultiplier = 0x5D588B65;
constexpr std::uint32_t kSeed = 0x15051505;
constexpr std::uint32_t kFirstMask = 0xB5A7B5A7;

// Bytes count as signed numbers.
std::uint32_t NumberOf(char byte) {
  return static_cast<std::uint32_t>(std::int32_t{static_cast<std::int8_t>(byte)});
}

// The shift copies the sign.
constexpr std::uint32_t Mix(std::uint32_t x) {
  return x * 33 + static_cast<std::uint32_t>(static_cast<std::int32_t>(x) >> 27);
}

}  // namespace

// Two sums over alternate bytes from the front, and two from the back. From the front all bytes are
// used once. From the back the second sum begins with a terminating zero, not with the byte before
// the last, so the last byte that it would reach in front is left out.
std::uint64_t HashBytes(std::string_view name) {
  const std::size_t size = name.size();
  if (size == 0) return kHashOfNothing;
  std::uint32_t even = NumberOf(name[0]) ^ kFirstMask;
  std::uint32_t odd = kSeed;
  std::uint32_t evenBack = NumberOf(name[size - 1]) ^ kFirstMask;
  std::uint32_t oddBack = kSeed;
  if (size > 1) {
    odd = Mix(odd) ^ NumberOf(name[1]);
    oddBack = Mix(oddBack);
  }
  std::size_t i = 2;
  for (; i + 1 < size; i += 2) {
    even = Mix(even) ^ NumberOf(name[i]);
    odd = Mix(odd) ^ NumberOf(name[i + 1]);
    evenBack = Mix(evenBack) ^ NumberOf(name[size - 1 - i]);
    oddBack = Mix(oddBack) ^ NumberOf(name[size - i]);
  }
  if (i < size) {
    even = Mix(even) ^ NumberOf(name[i]);
    evenBack = Mix(evenBack) ^ NumberOf(name[0]);
  }
  const std::uint64_t low = even + odd * kMultiplier;
  const std::uint64_t high = evenBack + oddBack * kMultiplier;
  return (high << 32 | low) & kHashMask;
}

// By the bytes of the units, the low one first.
std::uint64_t HashUnits(std::u16string_view name) {
  if constexpr (std::endian::native == std::endian::little)
    return HashBytes({reinterpret_cast<const char*>(name.data()), 2 * name.size()});
  std::string bytes;
  for (const char16_t unit : name) {
    bytes += static_cast<char>(unit & 0xFF);
    bytes += static_cast<char>(unit >> 8);
  }
  return HashBytes(bytes);
}

}  // namespace Zarn::Format
