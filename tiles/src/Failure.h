#pragma once

#include "hx/error.h"

namespace hx {

/// Throws what ZrLastError tells, in the thread of the call that has just failed.
[[noreturn]] void Throw();
/// The same for a call that has given this status.
[[noreturn]] void Throw(const Status& status);
/// Throws unless this is the result of a success.
void Expect(unsigned int result);

}  // namespace hx
