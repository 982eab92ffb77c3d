#include "IndexEntries.h"

#include "WholeWords.h"

namespace Zarn::Engine {

bool IndexEntries::ReadEntry(std::uint32_t number, TileEntry& entry, View* view,
                             std::uint64_t* code) const {
  IndexPages::Entry stored;
  if (view != nullptr ? !m_pIndex->Read(number, stored, *view)
                      : !m_pIndex->ReadStable(number, stored))
    return false;
  entry = {number, stored.value};
  if (code != nullptr) *code = stored.code;
  entry.recordLength = m_pIndex->GetHint(number);
  return true;
}

// Memory follows when the file has the entry. A failed write, which may have stopped half-way, is
// taken back.
bool IndexEntries::WriteIndexValue(TileEntry& entry) {
  if (entry.Value() == entry.stored) return true;
  const std::uint64_t place = GetShape().EntryAt(entry.number);
  std::uint64_t before;
  std::uint64_t after;
  StoreScalar(&before, entry.stored, IsSwapped());
  StoreScalar(&after, entry.Value(), IsSwapped());
  const Io::BoardChange change(m_board, entry.number);
  if (!change.IsShown()) return false;
  if (!Io::ReplaceWord(*m_file, place, before, after)) {
    m_board.Forget();  // a part of it may be there
    return false;
  }
  m_pIndex->WriteValue(entry.number, entry.Value());
  entry.stored = entry.Value();
  return true;
}

}  // namespace Zarn::Engine
