#pragma once

#include <cstdint>

#include "HxPlatformExport.h"

namespace Zarn {

/// The threads of this process, by number.
class HX_PLATFORM_API ZrThread {
 public:
  /// Number of the calling thread, from 1 up, unique among the live threads of this process. The
  /// smallest free number is taken, and an ended thread's number is free again: a table keyed by
  /// it never holds more entries than threads were alive at once.
  static std::uint32_t GetCurrentThreadId();
};

}  // namespace Zarn
