#pragma once

#include <cstddef>
#include <string_view>

#include "FileSyscalls.h"

/// Counts the system calls of the file classes and makes chosen ones fail. One object at a time,
/// made, set up and destroyed while no other thread uses a file. While it lives, a test may also
/// put functions of its own into the table; the destructor restores all entries.
class SyscallFaults {
 public:
  enum Extent { kOnce, kFromThenOn };

  SyscallFaults();
  ~SyscallFaults();
  SyscallFaults(const SyscallFaults&) = delete;
  SyscallFaults& operator=(const SyscallFaults&) = delete;

  /// Makes the n-th call from now (1: the next one) fail with `error`, and no other any more; an
  /// error of 0 fails none. A failing close still gives the descriptor up. Interrupted calls are
  /// repeated, so EINTR from then on never ends.
  void FailCall(std::size_t n, int error, Extent extent = kOnce);
  /// Makes the n-th call from now the last thing that this process does: a write half-way, any
  /// other call, or with `before` a write as well, not at all.
  void KillAtCall(std::size_t n, bool before);
  /// True once the call that the last FailCall chose has been made.
  bool HasFailed() const;

  /// Calls during this object's life, failed ones too: all, or those of the named table entry
  /// (std::out_of_range if there is none).
  std::size_t GetCount() const;
  std::size_t GetCount(std::string_view name) const;
};
