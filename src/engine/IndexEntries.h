#pragma once

#include <memory>

#include "IndexPages.h"
#include "TileEntry.h"

namespace Zarn::Engine {

/// The entries of an index: what CellIndex and NameIndex have in common. An entry is written to the
/// file first and then to the pages in memory.
class IndexEntries : public EntryWriter, protected Io::Board::Keeper {
 public:
  bool WriteIndexValue(TileEntry& entry) override;

  /// Gives an entry that has no hint the one that the next entry suggests, for a lookup.
  void AddHint(TileEntry& entry, const View& view) const {
    if (entry.recordLength == 0)
      entry.recordLength = m_pIndex->GuessLength(entry.number, entry.position, view);
  }
  /// Keeps the record length that an operation has seen as the hint for the next ones.
  void KeepHint(const TileEntry& entry) { m_pIndex->SetHint(entry.number, entry.recordLength); }
  std::uint64_t GetHint(std::uint64_t number) const { return m_pIndex->GetHint(number); }
  /// Whether all that a lookup has read is valid.
  bool Check(View& view) const { return m_pIndex->Check(view); }
  /// The index value of an entry, for one who holds the writer lock. False if it cannot be read.
  bool ReadStable(std::uint64_t number, std::uint64_t& value) const {
    IndexPages::Entry stored;
    const bool isRead = m_pIndex->ReadStable(number, stored);
    value = stored.value;
    return isRead;
  }
  const Format::IndexShape& GetShape() const { return m_pIndex->GetArea().index; }

 protected:
  /// `board` outlives this object.
  IndexEntries(std::shared_ptr<ZrFile64> file, Io::Board& board, const IndexPages::Area& area)
      : m_file(std::move(file)),
        m_board(board),
        m_pIndex(std::make_unique<IndexPages>(*m_file, board, area)) {
    board.SetKeeper(this);
  }
  ~IndexEntries() { m_board.SetKeeper(nullptr); }

  void Forget(std::uint32_t number) override { m_pIndex->Forget(number); }
  /// Without a view, for one who holds the writer lock. `code`: of a slot.
  bool ReadEntry(std::uint32_t number, TileEntry& entry, View* view,
                 std::uint64_t* code = nullptr) const;
  bool IsUsable() const { return m_pIndex->IsUsable(); }
  bool IsSwapped() const { return m_pIndex->GetArea().swap; }

  const std::shared_ptr<ZrFile64> m_file;
  Io::Board& m_board;
  std::unique_ptr<IndexPages> m_pIndex;  // in the file's byte order
};

}  // namespace Zarn::Engine
