#include "IndexEntries.h"

#include "WholeWords.h"

namespace Zarn::Engine {

IndexEntries::IndexEntries(std::shared_ptr<ZrFile64> file, const IndexPages::Area& area,
                           const Pages& previous)
    : m_file(std::move(file)), m_pIndex(previous) {
  if (previous != nullptr && previous->Covers(m_file.get(), area))
    previous->Invalidate();
  else
    m_pIndex = std::make_shared<IndexPages>(m_file, area);
}

bool IndexEntries::ReadEntry(std::uint32_t number, TileEntry& entry) const {
  std::uint64_t stored;
  if (!m_pIndex->ReadStableValue(number, stored)) return false;
  entry = {number, stored};
  entry.recordLength = m_pIndex->GetHint(number);
  return true;
}

// Memory follows only when the file has the entry. A failed write, which may have stopped half-way,
// is taken back.
bool IndexEntries::WriteIndexValue(TileEntry& entry) {
  if (entry.Value() == entry.stored) return true;
  const Format::IndexShape& shape = GetShape();
  const std::uint64_t place = shape.EntryAt(entry.number);
  const bool isNew = shape.IsGrid() && Format::StatusOf(entry.stored) == Format::kStatusEmpty;
  const bool isSeen = IsShared() || Io::SpansPages(place, sizeof entry.stored);
  std::uint64_t before;
  std::uint64_t after;
  StoreScalar(&before, entry.stored, IsSwapped());
  StoreScalar(&after, entry.Value(), IsSwapped());
  if ((isNew && isSeen ? Io::FillEmptyEntry(*m_file, place, entry.Value(), IsSwapped())
                       : Io::ReplaceWord(*m_file, place, before, after)) &&
      m_pIndex->Write(entry.number, &after, sizeof after)) {
    entry.stored = entry.Value();
    return true;
  }
  m_file->WriteAt(place, &before, sizeof before);
  if (!isNew) m_pIndex->Invalidate();  // lookups may be reading beside one that is new
  return false;
}

void IndexEntries::AddHint(TileEntry& entry) const {
  std::uint64_t next;
  if (entry.recordLength == 0 && m_pIndex->ReadStableValue(std::uint64_t{entry.number} + 1, next))
    entry.recordLength = Format::DistanceToNext(entry.position, next);
}

}  // namespace Zarn::Engine
