#pragma once

#include "IndexValue.h"
#include "StoreArguments.h"
#include "ZrByteArray.h"

/// What the operations on tiles hand to each other, however a tile is addressed.
namespace Zarn::Engine {

/// A tile's index entry while an operation works on it.
struct TileEntry {
  std::uint32_t number = 0;  // cell of a grid
  std::uint8_t status = 0;
  std::uint64_t position = 0;
  bool changed = false;  // to be written

  std::uint64_t Value() const { return Format::PackIndexValue(status, position); }
  bool HoldsRecord() const { return Format::HoldsRecord(status); }
  void MoveTo(std::uint64_t newPosition) {
    position = newPosition;
    changed = true;
  }
  void SetStatus(std::uint8_t newStatus) {
    status = newStatus;
    changed = true;
  }
  /// The status follows the completeness of the write just made, deliberately also when that went
  /// to an older version, or nowhere.
  void FollowCompleteness(const Format::StoreSpan& span) {
    if (span.Status() == Format::kStatusPartial)
      SetStatus(Format::kStatusPartial);
    else if (status == Format::kStatusPartial)
      SetStatus(Format::kStatusComplete);
  }
};

/// What a caller stores.
struct TileStore {
  const ZrByteArray& data;
  Format::StoreSpan span;
  std::uint64_t version;
};

/// How large a tile's record was when it was last read or written, as 32 bits: versions in the
/// upper 6, capacity in the lower 26. 0 for one that was not, or that does not fit.
constexpr unsigned kHintCapacityBits = 26;

constexpr std::uint32_t PackHint(std::uint32_t versions, std::uint64_t capacity) {
  if (versions >= 1U << (32 - kHintCapacityBits) || capacity >= 1U << kHintCapacityBits) return 0;
  return versions << kHintCapacityBits | static_cast<std::uint32_t>(capacity);
}
constexpr std::uint32_t HintedVersions(std::uint32_t hint) { return hint >> kHintCapacityBits; }
constexpr std::uint32_t HintedCapacity(std::uint32_t hint) {
  return hint & ((1U << kHintCapacityBits) - 1);
}

}  // namespace Zarn::Engine
