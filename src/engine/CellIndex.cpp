#include "CellIndex.h"

#include <cstring>

#include "Cause.h"
#include "WholeWords.h"

namespace Zarn::Engine {
namespace {

// Writes those of the entries at `position` that span pages and change: a kill must not cut them in
// two.
bool ReplaceSplitEntries(ZrFile64& file, std::uint64_t position, const ZrByteArray& before,
                         const ZrByteArray& after) {
  for (std::uint64_t at = 0; at < after.GetSize(); at += Format::kGridEntrySize) {
    if (!Io::SpansPages(position + at, Format::kGridEntrySize)) continue;
    const auto oldWord = LoadScalar<std::uint64_t>(before.GetData() + at, false);
    const auto newWord = LoadScalar<std::uint64_t>(after.GetData() + at, false);
    if (oldWord != newWord && !Io::ReplaceWord(file, position + at, oldWord, newWord)) return false;
  }
  return true;
}

}  // namespace

std::unique_ptr<CellIndex> CellIndex::Load(const std::shared_ptr<ZrFile64>& file, Io::Board& board,
                                           std::uint64_t indexOffset, bool swap) {
  Format::GridHeaderImage bytes;
  if (!file->ReadAt(indexOffset, bytes.data(), bytes.size())) return nullptr;
  const Format::GridHeader header = Format::DecodeGridHeader(bytes, swap);
  const auto shape = Format::IndexShape::OfGrid(indexOffset, header.rowCount, header.colCount);
  auto index = std::make_unique<CellIndex>(file, board, header, IndexPages::Area{shape, swap});
  return index->IsUsable() ? std::move(index) : nullptr;
}

CellIndex::CellIndex(std::shared_ptr<ZrFile64> file, Io::Board& board,
                     const Format::GridHeader& header, const IndexPages::Area& area)
    : IndexEntries(std::move(file), board, area),
      m_nRowCount(header.rowCount),
      m_nColCount(header.colCount),
      m_nGridFlags(header.flags) {}

bool CellIndex::Read(std::uint32_t row, std::uint32_t col, TileEntry& entry, View* view) const {
  const auto cell = Format::GridCellNumber(m_nRowCount, m_nColCount, row, col);
  return cell ? ReadEntry(*cell, entry, view) : Io::Fail(ZrCause::kOutOfRange);
}

// Two entries this near lie in one page or in two that follow each other.
std::uint32_t CellIndex::GetReach() const {
  constexpr std::uint32_t kPageSize = 4096;
  return m_board.ExcludesOthers() ? kPageSize / Format::kGridEntrySize : 1;
}

bool CellIndex::ReadAhead(std::uint32_t row, std::uint32_t col, TileEntry& entry,
                          PagesAhead& ahead) const {
  const auto cell = Format::GridCellNumber(m_nRowCount, m_nColCount, row, col);
  IndexPages::Entry stored;
  if (!cell || !m_pIndex->ReadStable(*cell, stored, &ahead)) return false;
  entry = {*cell, stored.value};
  return true;
}

bool CellIndex::WriteCells(const NameSlot* cells, std::size_t count) {
  const std::uint32_t first = cells[0].entry.number;
  const std::uint64_t entries = std::uint64_t{cells[count - 1].entry.number} - first + 1;
  const std::uint64_t size = entries * Format::kGridEntrySize;
  const std::uint64_t place = GetShape().EntryAt(first);
  ZrByteArray bytes;
  ZrByteArray before;
  if (!bytes.ResizeForOverwrite(size) || !before.ResizeForOverwrite(size)) return false;
  if (entries > count) {
    if (!Io::ReadEntries(*m_file, place, before.GetData(), size)) return false;
    std::memcpy(bytes.GetData(), before.GetData(), size);
  }
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t at = (cells[i].entry.number - first) * Format::kGridEntrySize;
    StoreScalar(bytes.GetData() + at, cells[i].entry.Value(), IsSwapped());
    StoreScalar(before.GetData() + at, cells[i].entry.stored, IsSwapped());
  }
  const Io::BoardChange change(m_board, count == 1 ? first : Io::BoardChange::kMany);
  if (!change.IsShown()) return false;
  if (ReplaceSplitEntries(*m_file, place, before, bytes) &&
      m_file->WriteAt(place, bytes.GetData(), size)) {
    m_pIndex->Write(first, bytes.GetData(), entries);
    return true;
  }
  m_file->WriteAt(place, before.GetData(), size);
  m_board.Forget();
  return false;
}

}  // namespace Zarn::Engine
