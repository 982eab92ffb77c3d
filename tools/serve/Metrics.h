#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace Serve {

/// Counts what is answered. Any thread may call anything.
class Metrics {
 public:
  void Count(int status, std::size_t bytes, std::chrono::steady_clock::duration time);
  void CountMiss() { m_misses.fetch_add(1, std::memory_order_relaxed); }
  /// In the text format of Prometheus.
  std::string Print() const;

 private:
  using Counter = std::atomic<std::uint64_t>;

  static constexpr std::array<double, 12> kBounds = {
      0.00005, 0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005, 0.01, 0.05, 0.25, 1, 5};
  static constexpr std::size_t kStatuses = 600;

  std::array<Counter, kStatuses> m_statuses = {};
  std::array<Counter, kBounds.size() + 1> m_times = {};
  Counter m_nanoseconds = 0, m_bytes = 0, m_misses = 0;
};

}  // namespace Serve
