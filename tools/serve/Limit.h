#pragma once

#include <atomic>
#include <memory>

#include "Refusal.h"

namespace Serve {

/// How many threads may do at a time what takes long, or much memory.
class Limit {
 public:
  explicit Limit(unsigned int most) : m_most(most) {}

  /// One more, until the last copy of the result is destroyed. Throws Refusal if there are too
  /// many.
  std::shared_ptr<const void> Take(const char* sentence) {
    if (m_taken.fetch_add(1) >= m_most) {
      --m_taken;
      throw Refusal(503, sentence);
    }
    return {static_cast<const void*>(nullptr), [this](const void*) { --m_taken; }};
  }

 private:
  const unsigned int m_most;
  std::atomic<unsigned int> m_taken = 0;
};

}  // namespace Serve
