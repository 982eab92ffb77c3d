#pragma once

#include "Guards.h"
#include "IndexHeaders.h"

namespace Zarn::Engine {

/// The two numbers of the host's that a naming file carries; stored, never interpreted. Safe from
/// any thread.
class MaxSizes {
 public:
  struct Values {
    double first = 0;
    double second = 0;

    Format::NamingHeader MakeHeader(std::uint64_t capacity, std::uint64_t count,
                                    std::uint32_t flags = Format::kVersionsEnabled) const {
      return {capacity, count, first, second, flags};
    }
  };

  Values Get() const {
    const Guard guard(m_mutex);
    return {m_dMaxSize1, m_dMaxSize2};
  }
  void Set(const Values& values) {
    const Guard guard(m_mutex);
    m_dMaxSize1 = values.first;
    m_dMaxSize2 = values.second;
  }

 private:
  mutable Mutex m_mutex;
  double m_dMaxSize1 HX_GUARDED_BY(m_mutex) = 0;
  double m_dMaxSize2 HX_GUARDED_BY(m_mutex) = 0;
};

}  // namespace Zarn::Engine
