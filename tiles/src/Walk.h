#pragma once

#include "ZrTileCursor.h"
#include "hx/cursor.h"

namespace hx {

struct Entry::Walk {
  template <typename... Arguments>
  explicit Walk(Arguments&&... arguments) : cursor(arguments...) {}

  Zarn::ZrTileCursor cursor;
};

}  // namespace hx
