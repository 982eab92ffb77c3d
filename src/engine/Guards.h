#pragma once

#include <mutex>

#include "HxThreadSafety.h"

/// The standard's mutexes and guards, declared so that the compiler checks who holds them.
namespace Zarn::Engine {

class HX_CAPABILITY("mutex") Mutex {
 public:
  void lock() HX_ACQUIRE() { m_mutex.lock(); }
  void unlock() HX_RELEASE() { m_mutex.unlock(); }

 private:
  std::mutex m_mutex;
};

/// Holds a mutex as long as it lives.
template <typename Lockable>
class HX_SCOPED_CAPABILITY Guard {
 public:
  explicit Guard(Lockable& mutex) HX_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
  ~Guard() HX_RELEASE() { m_mutex.unlock(); }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

 private:
  Lockable& m_mutex;
};

}  // namespace Zarn::Engine
