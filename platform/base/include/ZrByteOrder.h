#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Zarn {

inline std::uint8_t ReverseBytes(std::uint8_t value) { return value; }
inline std::uint16_t ReverseBytes(std::uint16_t value) { return __builtin_bswap16(value); }
inline std::uint32_t ReverseBytes(std::uint32_t value) { return __builtin_bswap32(value); }
inline std::uint64_t ReverseBytes(std::uint64_t value) { return __builtin_bswap64(value); }

/// The unsigned integer as wide as the scalar T; swapping goes through it, so that a double is
/// never handled as a number while its bytes are in the wrong order.
template <typename T>
using BitsOf = std::conditional_t<
    sizeof(T) == 1, std::uint8_t,
    std::conditional_t<sizeof(T) == 2, std::uint16_t,
                       std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>>;

/// Reads a number from `source`, which need not be aligned; `swap` reverses its bytes.
template <typename T>
T LoadScalar(const void* source, bool swap) {
  static_assert(std::is_arithmetic_v<T> && !std::is_same_v<T, bool>);
  BitsOf<T> bits;
  std::memcpy(&bits, source, sizeof bits);
  if (swap) bits = ReverseBytes(bits);
  T value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

/// Writes a number to `target`, which need not be aligned; `swap` reverses its bytes.
template <typename T>
void StoreScalar(void* target, T value, bool swap) {
  static_assert(std::is_arithmetic_v<T> && !std::is_same_v<T, bool>);
  BitsOf<T> bits;
  std::memcpy(&bits, &value, sizeof bits);
  if (swap) bits = ReverseBytes(bits);
  std::memcpy(target, &bits, sizeof bits);
}

}  // namespace Zarn
