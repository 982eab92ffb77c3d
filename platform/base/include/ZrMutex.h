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

  void Lock();
  void Unlock();
  bool TryLock();

  void lock() { Lock(); }
  void unlock() { Unlock(); }
  bool try_lock() { return TryLock(); }

 private:
  pthread_mutex_t m_mutex;
};

}  // namespace Zarn
