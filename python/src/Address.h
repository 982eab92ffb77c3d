#pragma once

#include <hx/key.h>

#include <cstdint>
#include <string_view>

#include "Python.h"

namespace hxpy {

/// A key as Python gives it: (z, x, y), (row, col) or a name.
struct Address {
  enum class Kind : std::uint8_t { kTile, kCell, kName };

  /// Throws TypeError for anything else. It is a view: the object must live as long.
  explicit Address(PyObject* object);

  Kind kind = Kind::kName;
  bool isPossible = true;  // false: a number is negative or too large, and no tile can be there
  hx::Tile tile;
  hx::Cell cell;
  std::string_view name;
  py::object owner;  // of a name that had to be converted
};

}  // namespace hxpy
