#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>

#include "NameHash.h"

namespace Zarn::Engine {

/// Finds the slots of a naming index by the hash codes of their names. Open addressing with linear
/// probing in one array of 32-bit places. A place has the number of a slot, and above it as many
/// bits of the hash as there is room for; the code itself is in the slot, where the caller compares
/// it. Each process draws a factor at random that spreads the codes, so no file can be made whose
/// codes meet in one place.
///
/// One thread at a time inserts; any number of threads may look meanwhile. A place is one word, so
/// a search sees a slot or does not see it; what was written before the slot was inserted, it sees
/// as well. The array never moves: a table that becomes too small is replaced by a larger one.
class NameTable {
 public:
  /// For so many names, whose slots have numbers below `slots`, and a few more. Throws
  /// std::bad_alloc.
  NameTable(std::uint64_t names, std::uint64_t slots);
  /// For a table that is filled at once: that takes a quarter less time in large pages. One that is
  /// filled step by step does without, for the first step would wait for most of them.
  void UseLargePages();

  /// Any thread may ask.
  std::uint64_t GetSize() const { return m_size.load(std::memory_order_relaxed); }
  /// Whether it may have so many names in all, of slots below `slots`.
  bool MayHold(std::uint64_t names, std::uint64_t slots) const {
    return names <= m_count / 4 * 3 && slots <= m_slotMask;
  }
  /// With so many names searches begin to take longer.
  std::uint64_t GetComfort() const { return m_count / 8 * 5; }

  /// The slot of a code. `hasCode(slot)` tells of a slot whose hash looks the same whether it has
  /// that code.
  template <typename HasCode>
  std::optional<std::uint32_t> Find(std::uint64_t code, HasCode hasCode) const {
    const std::uint32_t place = LoadPlace(PlaceOf(code, hasCode));
    if (place == 0) return std::nullopt;
    return SlotIn(place);
  }
  /// Inserts a slot; it takes the place of one that has its code. There must be room.
  template <typename HasCode>
  void Insert(std::uint64_t code, std::uint32_t slot, HasCode hasCode) {
    std::uint32_t& place = m_places[PlaceOf(code, hasCode)];
    if (place == 0) m_size.store(GetSize() + 1, std::memory_order_relaxed);
    std::atomic_ref(place).store(TagOf(code) | (slot + 1), std::memory_order_release);
  }
  /// Tells that the code is needed soon. Inline, for some compilers leave out calls of what does
  /// nothing but that.
  [[gnu::always_inline]] void Prefetch(std::uint64_t code) const {
    __builtin_prefetch(&m_places[Home(code)]);
  }

  /// How many places a search for the code looks at; for tests.
  std::uint64_t CountSteps(std::uint64_t code) const;

 private:
  struct Free {
    void operator()(std::uint32_t* places) const { std::free(places); }
  };

  static std::uint64_t GetSpread();
  // The same for all ordinals of a hash.
  std::uint64_t Spread(std::uint64_t code) const { return (code & Format::kHashMask) * m_spread; }
  std::uint64_t Home(std::uint64_t code) const { return (Spread(code) >> 32) * m_count >> 32; }
  std::uint64_t Next(std::uint64_t place) const { return place + 1 == m_count ? 0 : place + 1; }
  // Bits that Home does not use, and of the ordinal those that are always among them.
  std::uint32_t TagOf(std::uint64_t code) const {
    return static_cast<std::uint32_t>(Spread(code) ^ (code >> Format::kOrdinalShift << 28)) &
           ~m_slotMask;
  }
  std::uint32_t SlotIn(std::uint32_t place) const { return (place & m_slotMask) - 1; }
  std::uint32_t LoadPlace(std::uint64_t number) const {
    return std::atomic_ref(m_places[number]).load(std::memory_order_acquire);
  }
  // Where the code is, or where it would go.
  template <typename HasCode>
  std::uint64_t PlaceOf(std::uint64_t code, HasCode hasCode) const {
    const std::uint32_t tag = TagOf(code);
    std::uint64_t number = Home(code);
    for (;; number = Next(number)) {
      const std::uint32_t place = LoadPlace(number);
      if (place == 0 || ((place & ~m_slotMask) == tag && hasCode(SlotIn(place)))) return number;
    }
  }

  const std::uint64_t m_spread = GetSpread();
  const std::uint64_t m_count;     // of places, fewer than 2^32
  const std::uint32_t m_slotMask;  // of the bits that have slot + 1; a place that is 0 is free
  const std::unique_ptr<std::uint32_t[], Free> m_places;
  std::atomic<std::uint64_t> m_size{0};
};

}  // namespace Zarn::Engine
