#pragma once

#include <cstdint>

#include "HxPlatformExport.h"

namespace Zarn {

/// Why something has failed in a thread, for whoever tells a user of it. What fails notes it at the
/// place that knows; each note replaces the one before. Only whoever sees its own call fail may
/// believe the note: many calls are attempts, and a success leaves it as it is.
struct ZrFailureNote {
  int systemError = 0;       ///< errno of the system call that has failed; 0: it was none
  std::uint32_t reason = 0;  ///< a number that the user of these libraries has chosen; 0: none
};

/// The calling thread's note. Never a system call.
HX_PLATFORM_API ZrFailureNote& GetFailureNote() noexcept;

/// Notes an error number. Answers false, as the caller does.
HX_PLATFORM_API bool FailBySystem(int error) noexcept;
/// The same for errno, which stays.
HX_PLATFORM_API bool FailBySystem() noexcept;

}  // namespace Zarn
