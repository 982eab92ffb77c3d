#pragma once

#include "PelmUnicodeString.h"
#include "ZrByteArray.h"

namespace Zarn {

/// One of the stores of a batch for a grid file; the arguments of SetAt.
struct ZrCellStore {
  unsigned int row = 0;               ///< of the cell
  unsigned int col = 0;               ///< of the cell
  const ZrByteArray* data = nullptr;  ///< must stay as it is until the batch is stored; or null
  unsigned long long capacity = 0;    ///< of the payload area; 0 for the size of the data
  unsigned long long offset = 0;      ///< where in it the data goes
  unsigned long long version = 0;     ///< stamp
  const void* bytes = nullptr;        ///< without `data`: what is stored, which must stay, too
  unsigned long long size = 0;        ///< of that
};

/// One of the stores of a batch for a naming file; the arguments of SetAt.
struct ZrNameStore {
  PelmUnicodeString name;             ///< of the tile
  const ZrByteArray* data = nullptr;  ///< must stay as it is until the batch is stored; or null
  unsigned long long capacity = 0;    ///< of the payload area; 0 for the size of the data
  unsigned long long offset = 0;      ///< where in it the data goes
  unsigned long long version = 0;     ///< stamp
  const void* bytes = nullptr;        ///< without `data`: what is stored, which must stay, too
  unsigned long long size = 0;        ///< of that
};

}  // namespace Zarn
