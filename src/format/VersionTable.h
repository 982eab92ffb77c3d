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

  /// The entry, 1 or above, that a lookup of `stamp` selects; 0 when it selects the newest version.
  ///
  /// Only an exact match selects an older version: a stamp between two versions, or below all of
  /// them, means the newest.
  std::uint32_t SelectForLookup(std::uint64_t stamp) const {
    if (m_count < 2 || stamp >= Stamp(0)) return 0;
    for (std::uint32_t entry = 1; entry < m_count && Stamp(entry) >= stamp; ++entry)
      if (Stamp(entry) == stamp) return entry;
    return 0;
  }

 private:
  std::uint64_t Word(std::uint32_t entry, std::size_t offset) const {
    return LoadScalar<std::uint64_t>(m_bytes + entry * kVersionEntrySize + offset, m_swap);
  }

  const unsigned char* m_bytes;
  std::uint32_t m_count;
  bool m_swap;
};

}  // namespace Zarn::Format
