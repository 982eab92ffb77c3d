#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include <hx/key.h>
#include <hx/metadata.h>

namespace Formats {

/// The deepest zoom of formats that number tiles or turn rows over. Its tiles have 32-bit columns,
/// and positions on the curve of all zooms together have 63 bits.
constexpr std::uint32_t kDeepestZoom = 31;

/// Columns and rows of one zoom, with the last ones. Across the antimeridian the first column is
/// behind the last one.
struct TileRange {
  std::uint32_t firstX = 0, lastX = UINT32_MAX;
  std::uint32_t firstY = 0, lastY = UINT32_MAX;

  bool IsAcross() const { return firstX > lastX; }
  /// Whether one of the columns from the first to the last is in the range.
  bool MeetsColumns(std::uint32_t first, std::uint32_t last) const {
    const bool endsBehindFirst = last >= firstX, beginsBeforeLast = first <= lastX;
    return IsAcross() ? endsBehindFirst || beginsBeforeLast : endsBehindFirst && beginsBeforeLast;
  }
  /// Whether it has tiles that lie in a tile that is `levels` zooms above.
  bool Meets(const hx::Tile& tile, std::uint32_t levels) const {
    const std::uint32_t ones = (std::uint32_t{1} << levels) - 1;
    const std::uint32_t x = tile.x << levels, y = tile.y << levels;
    return (y | ones) >= firstY && y <= lastY && MeetsColumns(x, x | ones);
  }
  bool HasColumn(std::uint32_t x) const { return MeetsColumns(x, x); }
  bool Holds(const hx::Tile& tile) const {
    return tile.y >= firstY && tile.y <= lastY && HasColumn(tile.x);
  }
};

/// Which tiles a walk gives: those of some zooms that meet a bounding box. The box is that of a map
/// in the Mercator projection with 2^zoom columns and rows.
class TileFilter {
 public:
  /// All tiles.
  TileFilter() = default;
  TileFilter(std::uint32_t minZoom, std::uint32_t maxZoom,
             const std::optional<hx::Bounds>& bounds = {});

  std::uint32_t MinZoom() const { return m_minZoom; }
  std::uint32_t MaxZoom() const { return m_maxZoom; }
  bool HasBounds() const { return m_ranges.has_value(); }
  bool HasZoom(std::uint32_t zoom) const { return zoom >= m_minZoom && zoom <= m_maxZoom; }
  /// What the bounding box is in a zoom, which is at most kDeepestZoom if there is a box.
  TileRange RangeOf(std::uint32_t zoom) const { return m_ranges ? (*m_ranges)[zoom] : TileRange(); }
  bool Holds(const hx::Tile& tile) const { return HasZoom(tile.z) && RangeOf(tile.z).Holds(tile); }

 private:
  std::uint32_t m_minZoom = 0, m_maxZoom = UINT32_MAX;
  std::optional<std::array<TileRange, kDeepestZoom + 1>> m_ranges;
};

/// The box of a range of tiles.
hx::Bounds BoundsOf(std::uint32_t zoom, const TileRange& range);

/// Whether a zoom of 2^zoom rows has this row.
constexpr bool IsRowOf(std::uint32_t zoom, std::uint64_t row) {
  return zoom <= kDeepestZoom && row >> zoom == 0;
}
/// The row counted from the other end.
constexpr std::uint32_t FlipRow(std::uint32_t zoom, std::uint32_t row) {
  return ((std::uint32_t{1} << zoom) - 1) - row;
}

}  // namespace Formats
