#pragma once

#include "Layout.h"
#include "ZrByteOrder.h"

namespace Zarn::Format {

/// Reads the version table of a record: entries of a stamp and a locator (an index value), newest
/// first. Owns nothing; the bytes are in the file's order.
class VersionTable {
 public:
  VersionTable(const unsigned char* bytes, std::uint32_t count, bool swap)
      : m_bytes(bytes), m_count(count), m_swap(swap) {}

  std::uint32_t Count() const { return m_count; }
  std::uint64_t Stamp(std::uint32_t entry) const { return Word(entry, 0); }
  std::uint64_t Locator(std::uint32_t entry) const { return Word(entry, kWidth8); }

  /// The first entry, from `first` on, with exactly this stamp; Count() if there is none.
  std::uint32_t Find(std::uint64_t stamp, std::uint32_t first) const {
    std::uint32_t entry = first;
    while (entry < m_count && Stamp(entry) != stamp)
      ++entry;
    return entry;
  }

  /// The entry, 1 or above, that a lookup of `stamp` selects; 0 when it selects the newest version.
  ///
  /// Only an exact match selects an older version: a stamp between two versions, or below all of
  /// them, means the newest.
  std::uint32_t SelectForLookup(std::uint64_t stamp) const {
    if (m_count < 2 || stamp >= Stamp(0)) return 0;
    const std::uint32_t entry = FirstNotAbove(stamp);
    return entry < m_count && Stamp(entry) == stamp ? entry : 0;
  }

  /// How a store of `stamp` relates to the versions of a table that has at least one.
  struct StorePlace {
    enum Order { kNewest = 1, kInsertOlder = 2, kReplaceNewest = 3, kReplaceOlder = 4 };
    Order order;
    std::uint32_t index;  // the entry that is replaced, or before which one is inserted
  };
  StorePlace PlaceForStore(std::uint64_t stamp) const {
    if (stamp > Stamp(0)) return {StorePlace::kNewest, 0};
    if (stamp == Stamp(0)) return {StorePlace::kReplaceNewest, 0};
    const std::uint32_t entry = FirstNotAbove(stamp);
    const bool isThere = entry < m_count && Stamp(entry) == stamp;
    return {isThere ? StorePlace::kReplaceOlder : StorePlace::kInsertOlder, entry};
  }

 private:
  // Of the older versions; Count() if all stamps are above.
  std::uint32_t FirstNotAbove(std::uint64_t stamp) const {
    std::uint32_t entry = 1;
    while (entry < m_count && Stamp(entry) > stamp)
      ++entry;
    return entry;
  }

  std::uint64_t Word(std::uint32_t entry, std::size_t offset) const {
    return LoadScalar<std::uint64_t>(m_bytes + entry * kVersionEntrySize + offset, m_swap);
  }

  const unsigned char* m_bytes;
  std::uint32_t m_count;
  bool m_swap;
};

}  // namespace Zarn::Format
