#pragma once

#include <cstddef>
#include <vector>

#include "FileSyscalls.h"

/// Counts the system calls of the file classes and makes chosen ones fail. One object at a time,
/// made, set up and destroyed while no other thread uses a file. While it lives, a test may also
/// put functions of its own into the table; the destructor restores all entries.
class SyscallFaults {
 public:
  enum Extent { kOnce, kFromThenOn };

  /// Instead of an error number: a transfer moves half of its bytes, and other calls succeed.
  static constexpr int kShort = -1;
  /// The same: a write that crosses a page boundary moves what lies before the first one, and the
  /// call after it fails with EIO. Other calls succeed.
  static constexpr int kCutOff = -2;

  SyscallFaults();
  ~SyscallFaults();
  SyscallFaults(const SyscallFaults&) = delete;
  SyscallFaults& operator=(const SyscallFaults&) = delete;

  /// Makes the n-th call from now (1: the next one) fail with `error`, and no other any more; an
  /// error of 0 fails none. A failing close still gives the descriptor up. EINTR fails only calls
  /// that a signal may interrupt; they are repeated, so from then on it never ends. ENOSPC fails
  /// only calls that take room.
  void FailCall(std::size_t n, int error, Extent extent = kOnce);
  /// Makes the n-th call from now the last thing that this process does. It is not made at all, or
  /// for a `boundary` above 0 a write as far as the page boundary of this number in its range: a
  /// kill stops a write between two pages, and never within one.
  void KillAtCall(std::size_t n, std::size_t boundary = 0);
  /// True once the call that the last FailCall chose has been made.
  bool HasFailed() const;

  /// Calls during this object's life, failed ones too.
  std::size_t GetCount() const;
  /// The page boundaries within the range of each call, in order; none but writes have any.
  std::vector<std::size_t> GetBoundaries() const;
};
