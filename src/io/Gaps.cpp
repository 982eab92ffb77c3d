#include "Gaps.h"

#include <algorithm>
#include <new>

namespace Zarn::Io {

// The oldest gaps are forgotten first: those of the last records are the ones that get pieces.
void Gaps::Add(std::uint64_t begin, std::uint64_t end) try {
  constexpr std::size_t kMost = 4096;
  if (begin >= end) return;
  if (m_ends.size() >= kMost) m_ends.erase(m_ends.begin());
  m_ends[begin] = end;
} catch (const std::bad_alloc&) {
}

bool Gaps::Take(std::uint64_t begin, std::uint64_t end) try {
  auto gap = m_ends.upper_bound(begin);
  if (gap != m_ends.begin()) --gap;
  bool isOneGap = false;
  while (gap != m_ends.end() && gap->first < end) {
    const auto [first, last] = *gap;
    if (first < begin)
      (gap++)->second = std::min(last, begin);
    else
      gap = m_ends.erase(gap);
    if (last > end) m_ends.emplace(end, last);
    isOneGap = isOneGap || (first <= begin && last >= end);
  }
  return isOneGap;
} catch (const std::bad_alloc&) {
  m_ends.clear();
  return false;
}

}  // namespace Zarn::Io
