#pragma once

#include "IndexEntries.h"
#include "IndexHeaders.h"

namespace Zarn::Engine {

/// The index of a grid file: reads and replaces the entries of cells.
///
/// Threads: lookups read with a View at any time; the rest is for one who holds the writer lock.
class CellIndex final : public IndexEntries {
 public:
  /// Loads the index header at `indexOffset`. Null if it does not lie in the file, or if memory is
  /// short. `board` outlives the object.
  static std::unique_ptr<CellIndex> Load(const std::shared_ptr<ZrFile64>& file, Io::Board& board,
                                         std::uint64_t indexOffset, bool swap);
  CellIndex(std::shared_ptr<ZrFile64> file, Io::Board& board, const Format::GridHeader& header,
            const IndexPages::Area& area);

  std::uint32_t GetRowCount() const { return m_nRowCount; }
  std::uint32_t GetColCount() const { return m_nColCount; }
  bool HasVersions() const { return (m_nGridFlags & Format::kVersionsEnabled) != 0; }
  /// The entry of a cell; without a view for a store or removal. False outside the grid, and if it
  /// cannot be read.
  bool Read(std::uint32_t row, std::uint32_t col, TileEntry& entry, View* view = nullptr) const;
  /// The same for a batch of stores; without the length of the record.
  bool ReadAhead(std::uint32_t row, std::uint32_t col, TileEntry& entry, PagesAhead& ahead) const;
  /// How far apart the cells of one call of WriteCells may be.
  std::uint32_t GetReach() const;
  /// Writes the entries of cells that were empty, in ascending order; on failure they are empty
  /// again. What lies between them is written as it is.
  bool WriteCells(const NameSlot* cells, std::size_t count);

 private:
  const std::uint32_t m_nRowCount;
  const std::uint32_t m_nColCount;
  const std::uint32_t m_nGridFlags;
};

}  // namespace Zarn::Engine
