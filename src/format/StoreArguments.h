#pragma once

#include <optional>

#include "IndexValue.h"

/// The three numbers that every store names, and their rules.
namespace Zarn::Format {

/// Largest capacity that a caller may ask for.
inline constexpr std::uint64_t kMaxCapacity = 0x7FFFFF9C;

struct StoreSpan {
  std::uint64_t capacity;  // bytes of payload area
  std::uint64_t offset;    // where in it the bytes go
  std::uint64_t size;      // how many they are

  std::uint64_t FilledLength() const { return offset + size; }
  bool CoversAll() const { return size == capacity; }
  std::uint8_t Status() const {
    return FilledLength() == capacity ? kStatusComplete : kStatusPartial;
  }
};

/// The span of `size` bytes at `offset` in a payload area of `capacity` bytes; none if they do not
/// fit, or if no index value could point behind a record with that area.
constexpr std::optional<StoreSpan> FitSpan(std::uint64_t capacity, std::uint64_t offset,
                                           std::uint64_t size) {
  if (capacity > kPositionMask - kGridRecordHead) return std::nullopt;
  if (size > capacity || offset > capacity - size) return std::nullopt;
  return StoreSpan{capacity, offset, size};
}

/// The span that a caller's store asks for. A capacity of 0 means the size. None for an invalid
/// request: no bytes, a capacity above the limit (which is not asked of a size that stands in for
/// 0), or bytes that do not fit.
constexpr std::optional<StoreSpan> ResolveStore(std::uint64_t capacity, std::uint64_t offset,
                                                std::uint64_t size) {
  if (capacity > kMaxCapacity || size == 0) return std::nullopt;
  return FitSpan(capacity == 0 ? size : capacity, offset, size);
}

}  // namespace Zarn::Format
