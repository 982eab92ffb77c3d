#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>

namespace Serve {

/// A value that takes time to make, and is kept for some seconds. One thread at a time makes it;
/// meanwhile the others get the one before, and wait only if there is none.
template <typename Value>
class Kept {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Kept(Clock::duration least) : m_least(least) {}

  /// What `make` throws is thrown; then nothing is kept.
  template <typename Make>
  std::shared_ptr<const Value> Get(Make make) {
    std::unique_lock lock(m_mutex);
    if (m_isBeingMade && m_value == nullptr) m_isMade.wait(lock, [&] { return !m_isBeingMade; });
    if (m_isBeingMade || (m_value != nullptr && Clock::now() < m_end)) return m_value;
    m_isBeingMade = true;
    lock.unlock();
    const auto begin = Clock::now();
    std::shared_ptr<const Value> made;
    try {
      made = std::make_shared<const Value>(make());
    } catch (...) {
      lock.lock();
      m_isBeingMade = false;
      m_value = nullptr;
      m_isMade.notify_all();
      throw;
    }
    const auto now = Clock::now();
    lock.lock();
    m_isBeingMade = false;
    m_value = std::move(made);
    // Making it takes a small part of the time at most.
    m_end = now + std::max<Clock::duration>(m_least, 10 * (now - begin));
    m_isMade.notify_all();
    return m_value;
  }

 private:
  const Clock::duration m_least;
  std::mutex m_mutex;
  std::condition_variable m_isMade;
  bool m_isBeingMade = false;
  std::shared_ptr<const Value> m_value;
  Clock::time_point m_end;
};

}  // namespace Serve
