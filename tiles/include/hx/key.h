#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "hx/export.h"

namespace hx {

/// A cell of a grid.
struct Cell {
  std::uint32_t row = 0;
  std::uint32_t col = 0;

  friend bool operator==(const Cell& a, const Cell& b) { return a.row == b.row && a.col == b.col; }
  friend bool operator!=(const Cell& a, const Cell& b) { return !(a == b); }
};

/// A tile of a pyramid: zoom, column from west to east, row from north to south.
struct HX_TILES_API Tile {
  std::uint32_t z = 0;
  std::uint32_t x = 0;
  std::uint32_t y = 0;

  /// "z/x/y", the name under which a container of names has it.
  std::string name() const;
  /// The tile of such a name; nothing for any other text.
  static std::optional<Tile> parse(std::string_view name) noexcept;

  friend bool operator==(const Tile& a, const Tile& b) {
    return a.z == b.z && a.x == b.x && a.y == b.y;
  }
  friend bool operator!=(const Tile& a, const Tile& b) { return !(a == b); }
};

/// By what a container finds a tile: the cell of a grid, or a name, 1 to 128 UTF-16 units long and
/// given in UTF-8. A Tile stands for its name. It is a view: a name stays the caller's, and must
/// live as long.
class HX_TILES_API Key {
 public:
  constexpr Key(Cell cell) noexcept : m_cell(cell), m_isCell(true) {}  // NOLINT: converts
  constexpr Key(std::string_view name) noexcept : m_name(name) {}      // NOLINT: converts
  constexpr Key(const char* name) noexcept : m_name(name) {}           // NOLINT: converts
  Key(const std::string& name) noexcept : m_name(name) {}              // NOLINT: converts
  Key(Tile tile) noexcept;                                             // NOLINT: converts

  constexpr bool is_cell() const noexcept { return m_isCell; }
  constexpr Cell cell() const noexcept { return m_cell; }
  std::string_view name() const noexcept {
    return m_textLength != 0 ? std::string_view(m_text, m_textLength) : m_name;
  }

 private:
  static constexpr int kLongest = 3 * 11;  // of a tile's name, and a slash more

  Cell m_cell;
  std::string_view m_name;
  char m_text[kLongest] = {};  // the name of a tile
  std::uint8_t m_textLength = 0;
  bool m_isCell = false;
};

}  // namespace hx
