#include "NameOrder.h"

#include <algorithm>

#include "IndexValue.h"
#include "NameHash.h"

namespace Zarn::Engine {

void NameOrder::Begin(std::uint64_t slots) {
  constexpr std::uint64_t kUsual = 1 << 19;
  constexpr std::uint64_t kMostPieces = 16;
  m_most = std::max(kUsual, slots / kMostPieces);
  for (std::size_t i = 0; i < m_at; ++i)
    m_given.push_back(Mix(m_items[i].hash));
  std::sort(m_given.begin(), m_given.end());
  m_items.clear();
  m_shared.clear();
  m_at = 0;
  m_last = UINT64_MAX;
}

void NameOrder::Add(std::uint64_t code, std::uint64_t value, std::uint32_t slot) {
  const std::uint64_t hash = code & Format::kHashMask;
  const std::uint64_t mixed = Mix(hash);
  if (mixed < m_first || mixed > m_last || Format::StatusOf(value) == Format::kStatusEmpty) return;
  if (code != hash) {
    m_shared.push_back(hash);
    return;
  }
  m_items.push_back({hash, Format::PositionOf(value), slot});
  if (m_items.size() >= 2 * m_most) Narrow();
}

// Of one code the last slot counts.
void NameOrder::DropDoubles() {
  std::sort(m_items.begin(), m_items.end(), [](const Item& a, const Item& b) {
    return a.hash != b.hash ? Mix(a.hash) < Mix(b.hash) : a.slot > b.slot;
  });
  const auto isSame = [](const Item& a, const Item& b) { return a.hash == b.hash; };
  m_items.erase(std::unique(m_items.begin(), m_items.end(), isSame), m_items.end());
}

// Leaves the rest to the next piece.
void NameOrder::Narrow() {
  DropDoubles();
  if (m_items.size() <= m_most) return;
  m_last = Mix(m_items[m_most].hash) - 1;
  m_items.resize(m_most);
}

void NameOrder::Finish(bool hasUniqueCodes) {
  if (!hasUniqueCodes) DropDoubles();
  const auto isGiven = [&](const Item& item) {
    return std::binary_search(m_given.begin(), m_given.end(), Mix(item.hash));
  };
  if (!m_given.empty()) std::erase_if(m_items, isGiven);
  const auto liesBefore = [](const Item& a, const Item& b) { return a.position < b.position; };
  if (!std::is_sorted(m_items.begin(), m_items.end(), liesBefore))
    std::sort(m_items.begin(), m_items.end(), liesBefore);
  std::sort(m_shared.begin(), m_shared.end());
}

bool NameOrder::IsShared(std::uint64_t hash) const {
  return std::binary_search(m_shared.begin(), m_shared.end(), hash);
}

bool NameOrder::Advance() {
  if (m_last == UINT64_MAX) return false;
  m_first = m_last + 1;
  m_items.clear();
  m_at = 0;
  m_given.erase(m_given.begin(), std::lower_bound(m_given.begin(), m_given.end(), m_first));
  return true;
}

}  // namespace Zarn::Engine
