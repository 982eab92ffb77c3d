#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <vector>

namespace Zarn::Engine {

/// The slots of a naming index by their hash codes. Open addressing with linear probing in one
/// array: codes are hashes already, so a multiplication spreads them well enough. Each process
/// draws the factor at random, so no file can be made whose codes meet in one place.
///
/// One thread at a time inserts. Any number of threads may look meanwhile, unless the table needs
/// room: then it moves.
class NameTable {
 public:
  struct Entry {
    std::uint64_t code;
    std::uint32_t slot;
  };

  std::size_t GetSize() const { return m_size; }
  std::optional<std::uint32_t> Find(std::uint64_t code) const;
  /// Number of codes present without a gap from `code` on, through its ordinals. The last ordinal
  /// counts once, so there are at most 256.
  std::uint32_t GetSameHashCodeCount(std::uint64_t code) const;

  /// How many places a search for the code looks at; for tests.
  std::size_t CountSteps(std::uint64_t code) const;

  /// Whether so many more codes make the table move.
  bool NeedsRoom(std::size_t count) const { return m_places.size() < 2 * (m_size + count); }
  /// Makes room for `size` codes, so that as many insertions need no memory. False, and nothing
  /// changes, if memory is short.
  bool Reserve(std::size_t size);
  /// Of two slots with one code the later insertion counts. False if memory is short.
  bool Insert(std::uint64_t code, std::uint32_t slot);

  /// All entries in ascending order of their codes.
  std::vector<Entry> Sorted() const;

 private:
  // A place in the array; slot + 1, so that all zero is empty. A place is taken once and keeps its
  // code, which is there before the slot.
  struct Place {
    std::uint64_t code = 0;
    std::uint32_t slotPlusOne = 0;

    std::uint32_t Slot() const {
      return std::atomic_ref(const_cast<std::uint32_t&>(slotPlusOne))
          .load(std::memory_order_acquire);
    }
  };

  static std::uint64_t GetSpread();
  std::size_t Home(std::uint64_t code) const;
  std::size_t PlaceOf(std::uint64_t code) const;
  std::size_t Next(std::size_t place) const { return (place + 1) & (m_places.size() - 1); }

  std::vector<Place> m_places;  // a power of two, never more than half full
  const std::uint64_t m_spread = GetSpread();
  unsigned m_shift = 64;
  std::size_t m_size = 0;
};

}  // namespace Zarn::Engine
