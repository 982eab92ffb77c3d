#pragma once

#include <optional>

#include "Layout.h"

/// Index values, also the locators of version tables, and the numbers of cells.
namespace Zarn::Format {

inline constexpr unsigned kStatusShift = 56;
inline constexpr std::uint64_t kPositionMask = (std::uint64_t{1} << kStatusShift) - 1;

/// Status in the top byte, file position of a record in the 56 bits below.
constexpr std::uint64_t PackIndexValue(std::uint8_t status, std::uint64_t position) {
  return std::uint64_t{status} << kStatusShift | position;
}

constexpr std::uint8_t StatusOf(std::uint64_t value) {
  return static_cast<std::uint8_t>(value >> kStatusShift);
}

constexpr std::uint64_t PositionOf(std::uint64_t value) { return value & kPositionMask; }

/// Only these two statuses have a position to follow.
constexpr bool HoldsRecord(std::uint8_t status) {
  return status == kStatusComplete || status == kStatusPartial;
}

/// An older version of this status is dead space.
constexpr bool IsGone(std::uint8_t status) {
  return status == kStatusEmpty || status == kStatusUnknown;
}

/// A hint of how long the record of an index value is, by the value of the next entry: programs
/// mostly store tiles in the order of the index, so the next record mostly begins where this one
/// ends. 0 for no hint, or if a wrong one would cost more than a right one may save.
constexpr std::uint64_t DistanceToNext(std::uint64_t value, std::uint64_t next) {
  constexpr std::uint64_t kLargestHint = 256 * 1024;
  // Of a next record that lies before this one, a huge number.
  const std::uint64_t distance = PositionOf(next) - PositionOf(value);
  return HoldsRecord(StatusOf(next)) && distance <= kLargestHint ? distance : 0;
}

/// Entries that a grid has on disk. Rows times columns times the entry size is a 32-bit product:
/// a grid of 65536 x 65536 has none. A cell numbered beyond them does not exist.
constexpr std::uint32_t GridEntryCount(std::uint32_t rows, std::uint32_t cols) {
  const std::uint32_t bytes = rows * cols * std::uint32_t{kGridEntrySize};
  return bytes / std::uint32_t{kGridEntrySize};
}

/// Number of a cell, row by row; none for a cell outside the grid or without an entry.
constexpr std::optional<std::uint32_t> GridCellNumber(std::uint32_t rows, std::uint32_t cols,
                                                      std::uint32_t row, std::uint32_t col) {
  if (row >= rows || col >= cols) return std::nullopt;
  const std::uint64_t cell = std::uint64_t{row} * cols + col;
  if (cell >= GridEntryCount(rows, cols)) return std::nullopt;
  return static_cast<std::uint32_t>(cell);
}

}  // namespace Zarn::Format
