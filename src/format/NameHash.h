#pragma once

#include <cstdint>
#include <string_view>

/// The hash by which a naming file finds its names. It is part of the format.
///
/// A hash code has the 56-bit hash of a name below, and in its top byte a probe ordinal: names of
/// one hash are told apart by ordinals 0, 1, 2 ... in the order in which they were stored.
namespace Zarn::Format {

/// Of the empty name, and of every name in a file of an unknown format version.
inline constexpr std::uint64_t kHashOfNothing = 0x002816FE2D2816FE;

/// Of a name in 16-bit units: hashed as little-endian bytes on every host.
std::uint64_t HashUnits(std::u16string_view name);
/// Of a name in bytes of some charset.
std::uint64_t HashBytes(std::string_view name);

inline constexpr unsigned kOrdinalShift = 56;
/// A code without its ordinal.
inline constexpr std::uint64_t kHashMask = (std::uint64_t{1} << kOrdinalShift) - 1;
inline constexpr std::uint64_t kLastOrdinal = 0xFF;

/// The next code to probe: one ordinal further, but never beyond the last.
constexpr std::uint64_t GetNextHashCode(std::uint64_t code) {
  return code >> kOrdinalShift == kLastOrdinal ? code : code + (std::uint64_t{1} << kOrdinalShift);
}

}  // namespace Zarn::Format
