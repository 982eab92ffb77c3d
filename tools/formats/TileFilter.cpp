#include "TileFilter.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace Formats {
namespace {

constexpr double kDegrees = 180 / std::numbers::pi;

// Places on the map, from 0 at the west and north edge to 1.
double ColumnPlace(double longitude) { return (longitude + 180) / 360; }
double RowPlace(double latitude) {
  constexpr double kNearPole = 89.9;  // outside of the map already, and its tangent is no infinity
  const double clamped = std::clamp(latitude, -kNearPole, kNearPole);
  return (1 - std::asinh(std::tan(clamped / kDegrees)) / std::numbers::pi) / 2;
}

// The first and last tile that meet a part of the map. Boxes are often those of tiles, and rounded;
// a tile that has no more than a centimetre of the part does not count.
struct Span {
  std::uint32_t first, last;
};
Span SpanOf(double from, double to, std::uint32_t zoom) {
  constexpr double kCentimetre = 0.01 / 40e6;
  const double count = std::ldexp(1, static_cast<int>(zoom));
  const auto clamp = [&](double tile) {
    return static_cast<std::uint32_t>(tile > 0 ? std::min(tile, count - 1)
                                               : 0);  // also of no number
  };
  const std::uint32_t first = clamp(std::floor((from + kCentimetre) * count));
  return {first, clamp(std::ceil((to - kCentimetre) * count) - 1)};
}

TileRange RangeOf(const hx::Bounds& bounds, std::uint32_t zoom) {
  const Span columns = SpanOf(ColumnPlace(bounds.west), ColumnPlace(bounds.east), zoom);
  const Span rows = SpanOf(RowPlace(bounds.north), RowPlace(bounds.south), zoom);
  TileRange range{columns.first, columns.last, rows.first, std::max(rows.first, rows.last)};
  if (bounds.west <= bounds.east)
    range.lastX = std::max(range.firstX, range.lastX);
  else if (range.firstX <= range.lastX)
    range.firstX = 0, range.lastX = UINT32_MAX;
  return range;
}

}  // namespace

TileFilter::TileFilter(std::uint32_t minZoom, std::uint32_t maxZoom,
                       const std::optional<hx::Bounds>& bounds)
    : m_minZoom(minZoom), m_maxZoom(bounds ? std::min(maxZoom, kDeepestZoom) : maxZoom) {
  if (!bounds) return;
  m_ranges.emplace();
  for (std::uint32_t zoom = 0; zoom <= kDeepestZoom; ++zoom)
    (*m_ranges)[zoom] = Formats::RangeOf(*bounds, zoom);
}

hx::Bounds BoundsOf(std::uint32_t zoom, const TileRange& range) {
  const double count = std::ldexp(1, static_cast<int>(zoom));
  const auto longitude = [&](double column) { return column / count * 360 - 180; };
  const auto latitude = [&](double row) {
    return std::atan(std::sinh(std::numbers::pi * (1 - 2 * row / count))) * kDegrees;
  };
  return {longitude(range.firstX), latitude(range.lastY + 1.0), longitude(range.lastX + 1.0),
          latitude(range.firstY)};
}

}  // namespace Formats
