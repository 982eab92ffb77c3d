#pragma once

#include <cstdint>

#include <hx/key.h>

namespace Formats {

/// Tiles by one number, as PMTiles have them: zoom after zoom, and each along a Hilbert curve, so
/// that neighbours on the map often have numbers that follow each other. Zooms go to kDeepestZoom.

/// How many tiles all zooms before this one have together: the number of its first tile.
constexpr std::uint64_t FirstIdOf(std::uint32_t zoom) {
  return ((std::uint64_t{1} << zoom << zoom) - 1) / 3;
}
/// The number behind that of the last tile. (4^32 - 1) / 3, where 4^32 itself has no place.
constexpr std::uint64_t kEndOfIds = UINT64_MAX / 3;
static_assert(kEndOfIds == FirstIdOf(31) + (std::uint64_t{1} << 62));

/// The tile must have a zoom of at most kDeepestZoom, and lie in it.
std::uint64_t IdOf(const hx::Tile& tile);
/// The id must be less than kEndOfIds.
hx::Tile TileOf(std::uint64_t id);

}  // namespace Formats
