#pragma once

#include "support/SyscallFaults.h"

/// Makes a request for memory fail.
struct LibcFaults : SyscallFaults {
  enum Kind { kMemory };
  LibcFaults(Kind, std::size_t n, int, bool) { FailRequest(n); }
};
