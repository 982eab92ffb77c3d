#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "FileSyscalls.h"

/// Stands between the library and the kernel: counts the system calls of the file classes, and
/// makes chosen ones fail or be the last of the process; and requests for memory fail: operator
/// new, malloc, calloc, realloc and mmap.
///
/// One object at a time, made, set up and destroyed while no other thread uses a file. While it
/// lives, a test may also put functions of its own into the table; the destructor restores all
/// entries.
class SyscallFaults {
 public:
  enum Extent { kOnce, kFromThenOn };

  /// Instead of an error number: a transfer moves half of its bytes, and other calls succeed.
  static constexpr int kShort = -1;
  /// The same, and the next call fails, as at a limit on the size of files.
  static constexpr int kCutShort = -2;

  /// Records as well what is done to the files of a folder, if one is given, so that a test can put
  /// there what a loss of power may leave at any moment: what was synced, and any pages of what was
  /// not. Copies and room had within the kernel, and stores through mappings, are refused then, so
  /// that every byte is seen.
  explicit SyscallFaults(const std::string& recorded = "");
  ~SyscallFaults();
  SyscallFaults(const SyscallFaults&) = delete;
  SyscallFaults& operator=(const SyscallFaults&) = delete;

  /// Makes the n-th call from now (1: the next one) fail with `error`, and no other any more; an
  /// error of 0 fails none. What gives something up does so even when it fails. Of EINTR, only
  /// calls count that a signal may interrupt; they are repeated, so from then on it never ends. Of
  /// ENOSPC, only calls count that take room; of ENOMEM, only this thread's requests for memory.
  void FailCall(std::size_t n, int error, Extent extent = kOnce);
  /// Makes the n-th call from now the last thing that this process does. It is not made at all, or
  /// for a `boundary` above 0 a write as far as the page boundary of this number in its range: a
  /// kill stops a write between two pages, and never within one. Where there is no such boundary,
  /// the process exits with kNoBoundary.
  void KillAtCall(std::size_t n, std::size_t boundary = 0);
  static constexpr int kNoBoundary = 77;
  /// True once the call or request that was chosen last has been made.
  bool HasFailed() const;
  /// Calls during this object's life, failed ones too.
  std::size_t GetCount() const;

  /// What has changed recorded files or names so far; of a write, each page is a step.
  std::size_t CountSteps() const;
  /// Makes the folder what it may be if the power is lost before the n-th step (0: the first).
  /// `keep` says of each step that was not synced whether it reached the disk. Call it when nothing
  /// is open.
  void Leave(std::size_t step, const std::function<bool()>& keep);
};
