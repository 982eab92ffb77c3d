#include "NameTable.h"

#include <sys/random.h>

#include <algorithm>
#include <bit>
#include <new>

#include "NameHash.h"

namespace Zarn::Engine {

// Odd, so that no bit of a code gets lost.
std::uint64_t NameTable::GetSpread() {
  static const std::uint64_t spread = [] {
    constexpr std::uint64_t kGolden = 0x9E3779B97F4A7C15;
    std::uint64_t number;
    if (::getrandom(&number, sizeof number, GRND_NONBLOCK) < 0) number = kGolden;
    return number | 1;
  }();
  return spread;
}

// The same for all ordinals of a hash: a search for one mostly goes on with the next, which then
// lies in the same cache line.
std::size_t NameTable::Home(std::uint64_t code) const {
  return static_cast<std::size_t>((code & Format::kHashMask) * m_spread >> m_shift);
}

// Where the code is, or where it would go.
std::size_t NameTable::PlaceOf(std::uint64_t code) const {
  std::size_t place = Home(code);
  while (m_places[place].Slot() != 0 && m_places[place].code != code)
    place = Next(place);
  return place;
}

std::optional<std::uint32_t> NameTable::Find(std::uint64_t code) const {
  if (m_places.empty()) return std::nullopt;
  const std::uint32_t slot = m_places[PlaceOf(code)].Slot();
  if (slot == 0) return std::nullopt;
  return slot - 1;
}

std::uint32_t NameTable::GetSameHashCodeCount(std::uint64_t code) const {
  std::uint32_t count = 0;
  while (Find(code)) {
    ++count;
    const std::uint64_t next = Format::GetNextHashCode(code);
    if (next == code) break;
    code = next;
  }
  return count;
}

std::size_t NameTable::CountSteps(std::uint64_t code) const {
  return ((PlaceOf(code) - Home(code)) & (m_places.size() - 1)) + 1;
}

bool NameTable::Reserve(std::size_t size) {
  const std::size_t needed = std::bit_ceil(std::max<std::size_t>(2 * size, 16));
  if (needed <= m_places.size()) return true;
  std::vector<Place> old;
  try {
    std::vector<Place> larger(needed);
    old.swap(m_places);
    m_places.swap(larger);
  } catch (const std::bad_alloc&) {
    return false;
  }
  m_shift = 64 - static_cast<unsigned>(std::countr_zero(needed));
  for (const Place& place : old)
    if (place.slotPlusOne != 0) m_places[PlaceOf(place.code)] = place;
  return true;
}

bool NameTable::Insert(std::uint64_t code, std::uint32_t slot) {
  if (NeedsRoom(1) && !Find(code) && !Reserve(m_size + 1)) return false;
  Place& place = m_places[PlaceOf(code)];
  if (place.slotPlusOne == 0) {
    ++m_size;
    place.code = code;
  }
  std::atomic_ref(place.slotPlusOne).store(slot + 1, std::memory_order_release);
  return true;
}

std::vector<NameTable::Entry> NameTable::Sorted() const {
  std::vector<Entry> entries;
  entries.reserve(m_size);
  for (const Place& place : m_places)
    if (place.slotPlusOne != 0) entries.push_back({place.code, place.slotPlusOne - 1});
  std::sort(entries.begin(), entries.end(),
            [](const Entry& a, const Entry& b) { return a.code < b.code; });
  return entries;
}

}  // namespace Zarn::Engine
