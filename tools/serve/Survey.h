#pragma once

#include <hx/tiles.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <unordered_map>
#include <vector>

namespace Serve {

/// What lies in a part of a grid.
struct Field {
  std::uint64_t tiles = 0, versions = 0, bytes = 0;

  void Add(const Field& other);
};

/// A picture of a grid, made of fields of many cells each. It needs the same memory for any number
/// of tiles: when there are too many fields, four of them become one.
class HeatMap {
 public:
  static constexpr std::size_t kMostFields = 1 << 16;

  void Add(std::uint32_t row, std::uint32_t col, const Field& tile);

  /// The filled part of the grid, in square fields of `step` cells, at most so many in either
  /// direction.
  struct Picture {
    std::uint64_t step = 1;
    std::uint32_t rows = 0, cols = 0;          ///< in fields
    std::uint32_t firstRow = 0, firstCol = 0;  ///< the cell at which the first one begins
    std::vector<Field> fields;                 ///< row by row
  };
  Picture Draw(std::uint32_t size) const;

 private:
  static std::uint64_t KeyOf(std::uint32_t row, std::uint32_t col) {
    return std::uint64_t{row} << 32 | col;
  }

  int m_shift = 0;  // a field has 2^m_shift cells in either direction
  std::unordered_map<std::uint64_t, Field> m_fields;
};

/// The tiles of a zoom, or of a grid.
struct Level {
  Field sum;
  std::uint32_t firstRow = UINT32_MAX, lastRow = 0, firstCol = UINT32_MAX, lastCol = 0;
  std::uint64_t endRow = 0, endCol = 0;  ///< behind the last cells that there can be
  HeatMap heat;

  void Add(std::uint32_t row, std::uint32_t col, const Field& tile);
};

/// What a walk over all tiles of a file tells.
struct Survey {
  std::map<std::uint32_t, Level> zooms;
  std::optional<Level> grid;  ///< of a file that is one
  hx::Statistics statistics;
};

}  // namespace Serve
