#pragma once

#include <pthread.h>

#include "HxPlatformExport.h"

namespace Zarn {

/// Mutual exclusion between the threads of one process. Meets the standard's Lockable
/// requirements, so std::lock_guard and std::unique_lock work on it.
class HX_PLATFORM_API ZrMutex {
 public:
  /// 1: re-entrant, the owner may lock it again and must unlock it as often. 0: plain.
  explicit ZrMutex(int reentrant = 0);
  ~ZrMutex();
  ZrMutex(const ZrMutex&) = delete;
  ZrMutex& operator=(const ZrMutex&) = delete;

  /// Waits until the calling thread has the lock.
  void Lock();
  /// For the thread that has it.
  void Unlock();
  /// Takes the lock if no other thread has it; whether it did.
  bool TryLock();

  /// Lock, by the standard's name.
  void lock() { Lock(); }
  /// Unlock, by the standard's name.
  void unlock() { Unlock(); }
  /// TryLock, by the standard's name.
  bool try_lock() { return TryLock(); }

 private:
  pthread_mutex_t m_mutex;
};

}  // namespace Zarn
