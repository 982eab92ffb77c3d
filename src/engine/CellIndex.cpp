#include "CellIndex.h"

#include "WholeWords.h"

namespace Zarn::Engine {
namespace {

// Writes those of the entries at `position` that span pages: a kill must not cut them in two.
bool ReplaceSplitEntries(ZrFile64& file, std::uint64_t position, const ZrByteArray& before,
                         const ZrByteArray& after) {
  for (std::uint64_t at = 0; at < after.GetSize(); at += Format::kGridEntrySize) {
    if (Io::SpansPages(position + at, Format::kGridEntrySize) &&
        !Io::ReplaceWord(file, position + at,
                         LoadScalar<std::uint64_t>(before.GetData() + at, false),
                         LoadScalar<std::uint64_t>(after.GetData() + at, false)))
      return false;
  }
  return true;
}

}  // namespace

std::unique_ptr<CellIndex> CellIndex::Load(const std::shared_ptr<ZrFile64>& file,
                                           std::uint64_t indexOffset, bool swap, bool isShared,
                                           const CellIndex* previous) {
  Format::GridHeaderImage bytes;
  if (!file->ReadAt(indexOffset, bytes.data(), bytes.size())) return nullptr;
  const Format::GridHeader header = Format::DecodeGridHeader(bytes, swap);
  const auto shape = Format::IndexShape::OfGrid(indexOffset, header.rowCount, header.colCount);
  auto index =
      std::make_unique<CellIndex>(file, header, IndexPages::Area{shape, isShared, swap}, previous);
  return index->IsUsable() ? std::move(index) : nullptr;
}

CellIndex::CellIndex(std::shared_ptr<ZrFile64> file, const Format::GridHeader& header,
                     const IndexPages::Area& area, const CellIndex* previous)
    : IndexEntries(std::move(file), area, previous != nullptr ? previous->GetPages() : nullptr),
      m_nRowCount(header.rowCount),
      m_nColCount(header.colCount),
      m_nGridFlags(header.flags) {}

Format::GridHeaderImage CellIndex::GetHeaderBytes() const {
  return Format::EncodeGridHeader({m_nRowCount, m_nColCount, m_nGridFlags}, IsSwapped());
}

bool CellIndex::Read(std::uint32_t row, std::uint32_t col, TileEntry& entry) const {
  const auto cell = Find(row, col);
  return cell && ReadEntry(*cell, entry);
}

// Only cells that were empty change while lookups go on.
bool CellIndex::ReadForLookup(std::uint32_t row, std::uint32_t col, Io::FileMap* map,
                              TileEntry& entry) const {
  const auto cell = Find(row, col);
  if (!cell) return false;
  if (!IsShared() || map == nullptr) {
    if (!ReadEntry(*cell, entry)) return false;
    if (!IsShared() || entry.status != Format::kStatusEmpty) return true;
  }
  std::uint64_t stored;
  if (!m_pIndex->ReadNewValue(*cell, map, stored)) return false;
  entry = {*cell, stored};
  entry.recordLength = m_pIndex->GetHint(*cell);
  return true;
}

bool CellIndex::ReadUnlocked(std::uint32_t row, std::uint32_t col,
                             const Format::HeaderImage& header, std::uint64_t& value) const {
  const auto cell = Find(row, col);
  return cell && m_pIndex->ReadValue(*cell, value, IsShared() ? &header : nullptr);
}

bool CellIndex::WriteCells(const NameSlot* cells, std::size_t count) {
  const std::uint64_t size = count * Format::kGridEntrySize;
  const std::uint64_t place = GetShape().EntryAt(cells[0].entry.number);
  ZrByteArray bytes;
  ZrByteArray before;
  if (!bytes.ResizeForOverwrite(size) || !before.ResizeForOverwrite(size)) return false;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t at = i * Format::kGridEntrySize;
    StoreScalar(bytes.GetData() + at, cells[i].entry.Value(), IsSwapped());
    StoreScalar(before.GetData() + at, cells[i].entry.stored, IsSwapped());
  }
  if (ReplaceSplitEntries(*m_file, place, before, bytes) &&
      m_file->WriteAt(place, bytes.GetData(), size) &&
      m_pIndex->Write(cells[0].entry.number, bytes.GetData(), size))
    return true;
  m_file->WriteAt(place, before.GetData(), size);
  m_pIndex->Invalidate();
  return false;
}

}  // namespace Zarn::Engine
