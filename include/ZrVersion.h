#pragma once

#include <cstdint>

namespace Zarn {

/// A version of a tile, as a list of versions and a lookup tell it.
struct ZrVersion {
  unsigned long long stamp = 0;         ///< the number that it was stored under
  unsigned long long capacity = 0;      ///< bytes of its payload area
  unsigned long long filledLength = 0;  ///< how far that is filled: where the last write ended
  /// A ZrCompactFile::ZrStatus: kComplete or kPartial; kUnknown if its record cannot be read. What
  /// the file states is told as it is, also the statuses of damaged files.
  std::uint8_t status = 0;
};

}  // namespace Zarn
