#pragma once

#include <optional>

#include "FileMap.h"
#include "IndexEntries.h"
#include "IndexHeaders.h"

namespace Zarn::Engine {

/// The index of a grid file: reads and replaces the entries of cells.
///
/// Threads: reading needs the right to read the open file, writing the right to change it; except
/// ReadUnlocked, for any thread at any time.
class CellIndex final : public IndexEntries {
 public:
  /// Loads the index header at `indexOffset`. Null if it does not lie in the file, or if memory is
  /// short. `previous`: of the same object before, or null.
  static std::unique_ptr<CellIndex> Load(const std::shared_ptr<ZrFile64>& file,
                                         std::uint64_t indexOffset, bool swap, bool isShared,
                                         const CellIndex* previous);
  CellIndex(std::shared_ptr<ZrFile64> file, const Format::GridHeader& header,
            const IndexPages::Area& area, const CellIndex* previous);

  std::uint32_t GetRowCount() const { return m_nRowCount; }
  std::uint32_t GetColCount() const { return m_nColCount; }
  bool HasVersions() const { return (m_nGridFlags & Format::kVersionsEnabled) != 0; }
  /// The bytes of the index header in the file.
  Format::GridHeaderImage GetHeaderBytes() const;

  bool Contains(std::uint32_t row, std::uint32_t col) const { return Find(row, col).has_value(); }
  /// The entry of a cell, for a store or removal. False outside the grid, and if it cannot be read.
  bool Read(std::uint32_t row, std::uint32_t col, TileEntry& entry) const;
  /// The same for a lookup: where others store new tiles meanwhile, the entry of an empty cell is
  /// read from the file. With a map every entry is.
  bool ReadForLookup(std::uint32_t row, std::uint32_t col, Io::FileMap* map,
                     TileEntry& entry) const;
  /// The index value, for a caller without locks. False as well if the file's header bytes are no
  /// longer `header` and the page of the entry had to be read: another process replaces the file.
  bool ReadUnlocked(std::uint32_t row, std::uint32_t col, const Format::HeaderImage& header,
                    std::uint64_t& value) const;
  /// Writes the entries of neighbouring cells that were empty; on failure they are empty again.
  bool WriteCells(const NameSlot* cells, std::size_t count);

 private:
  std::optional<std::uint32_t> Find(std::uint32_t row, std::uint32_t col) const {
    return Format::GridCellNumber(m_nRowCount, m_nColCount, row, col);
  }

  const std::uint32_t m_nRowCount;
  const std::uint32_t m_nColCount;
  const std::uint32_t m_nGridFlags;
};

}  // namespace Zarn::Engine
