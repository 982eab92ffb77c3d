#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "Varint.h"

namespace Formats {

/// An entry of a PMTiles directory: a tile that is at one place for several ids, or a directory.
struct PmEntry {
  std::uint64_t id = 0;         ///< of the first tile
  std::uint64_t offset = 0;     ///< in the section of tiles or in that of directories
  std::uint32_t length = 0;     ///< never 0
  std::uint32_t runLength = 0;  ///< number of tiles; 0: it leads to a directory

  bool IsDirectory() const { return runLength == 0; }
};

/// The directory as bytes, before they are compressed: the number of entries, and then all ids, run
/// lengths, lengths and offsets. There must be an entry.
std::string EncodeDirectory(std::span<const PmEntry> entries);

/// Walks over a directory in the bytes that it was read from, which must stay where they are. So it
/// takes no memory of its own, whatever number of entries the directory claims. Ids go up, and a
/// run ends before the next entry; all ids are less than kEndOfIds.
class PmDirectoryReader {
 public:
  explicit PmDirectoryReader(std::string_view bytes);

  /// Goes on to the next entry. False behind the last one, and if the directory is damaged.
  bool Next();
  bool IsDamaged() const { return m_isDamaged; }
  const PmEntry& Entry() const { return m_entry; }
  /// The id of the entry behind; of the last one kEndOfIds.
  std::uint64_t NextId() const { return m_nextId; }

 private:
  bool ReadNextId();
  bool ReadOffset(std::uint64_t endOfLast);
  bool Fail() { return !(m_isDamaged = true); }

  VarintReader m_ids, m_runLengths, m_lengths, m_offsets;
  std::uint64_t m_idsLeft = 0, m_entriesLeft = 0;
  std::uint64_t m_nextId = 0;
  PmEntry m_entry;
  bool m_isDamaged = false;
};

}  // namespace Formats
