#pragma once

#include <pthread.h>

#include "HxPlatformExport.h"
#include "HxThreadSafety.h"

namespace Zarn {

/// Mutual exclusion between the threads of one process. Meets the standard's Lockable
/// requirements, so std::lock_guard and std::unique_lock work on it.
class HX_PLATFORM_API HX_CAPABILITY("mutex") ZrMutex {
 public:
  /// 1: re-entrant, the owner may lock it again and must unlock it as often. 0: plain.
  explicit ZrMutex(int reentrant = 0);
  ~ZrMutex();
  ZrMutex(const ZrMutex&) = delete;
  ZrMutex& operator=(const ZrMutex&) = delete;

  /// Waits until the calling thread has the lock.
  void Lock() HX_ACQUIRE();
  /// For the thread that has it.
  void Unlock() HX_RELEASE();
  /// Takes the lock if no other thread has it; whether it did.
  bool TryLock() HX_TRY_ACQUIRE(true);

  /// Lock, by the standard's name.
  void lock() HX_ACQUIRE() { Lock(); }
  /// Unlock, by the standard's name.
  void unlock() HX_RELEASE() { Unlock(); }
  /// TryLock, by the standard's name.
  bool try_lock() HX_TRY_ACQUIRE(true) { return TryLock(); }

 private:
  pthread_mutex_t m_mutex;
};

}  // namespace Zarn
