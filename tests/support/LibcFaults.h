#pragma once

#include <cstddef>

/// Makes chosen calls of libc fail that are not in the table of SyscallFaults, in the thread that
/// has made this object. A program that links this has functions of its own in their places. One
/// object at a time.
class LibcFaults {
 public:
  enum Kind {
    kMemory,  ///< operator new, malloc, realloc and mmap
    kCalls,   ///< taking locks, events, random numbers, the kind of file system
  };

  /// From now on the n-th call of this kind fails (1: the next one), and with `forGood` all that
  /// follow. EINTR fails only calls that a signal may interrupt; no memory is always ENOMEM.
  LibcFaults(Kind kind, std::size_t n, int error, bool forGood);
  ~LibcFaults();
  LibcFaults(const LibcFaults&) = delete;
  LibcFaults& operator=(const LibcFaults&) = delete;

  /// True once the n-th call has been made.
  bool HasFailed() const;
};
