#include "Hilbert.h"

#include <bit>
#include <utility>

namespace Formats {
namespace {

// In two of its quarters the curve lies along the other diagonal: in the first one columns and rows
// change places, and in the last one they are counted from the other end as well. `ones` are the
// bits of a position within the quarter.
void Turn(std::uint32_t& x, std::uint32_t& y, unsigned int right, unsigned int down,
          std::uint32_t ones) {
  if (down != 0) return;
  if (right != 0) x ^= ones, y ^= ones;
  std::swap(x, y);
}

}  // namespace

std::uint64_t IdOf(const hx::Tile& tile) {
  std::uint64_t position = 0;
  std::uint32_t x = tile.x, y = tile.y;
  for (std::uint32_t bit = tile.z; bit-- > 0;) {
    const unsigned int right = x >> bit & 1, down = y >> bit & 1;
    position = position << 2 | ((3 * right) ^ down);
    Turn(x, y, right, down, (std::uint32_t{1} << bit) - 1);
  }
  return FirstIdOf(tile.z) + position;
}

hx::Tile TileOf(std::uint64_t id) {
  // 4^z <= 3 * id + 1 < 4^(z + 1), which does not overflow: 3 * id < 2^64 - 1.
  const auto zoom = static_cast<std::uint32_t>(std::bit_width(3 * id + 1) - 1) / 2;
  std::uint64_t position = id - FirstIdOf(zoom);
  hx::Tile tile{zoom, 0, 0};
  for (std::uint32_t bit = 0; bit < zoom; ++bit, position >>= 2) {
    const unsigned int right = position >> 1 & 1, down = (position ^ right) & 1;
    Turn(tile.x, tile.y, right, down, (std::uint32_t{1} << bit) - 1);
    tile.x |= right << bit;
    tile.y |= down << bit;
  }
  return tile;
}

}  // namespace Formats
