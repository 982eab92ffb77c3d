#pragma once

#include <memory>

#include "IndexPages.h"
#include "TileEntry.h"

namespace Zarn::Engine {

/// The entries of an index: what CellIndex and NameIndex have in common. An entry is written to the
/// file first and then to the pages in memory.
class IndexEntries : public EntryWriter {
 public:
  /// A state of an index that may be taken over by the next OpenFile.
  using Pages = std::shared_ptr<IndexPages>;

  bool WriteIndexValue(TileEntry& entry) override;

  /// Gives an entry that has no hint the one that the next entry suggests, for a lookup.
  void AddHint(TileEntry& entry) const;
  /// Keeps the record length that an operation has seen as the hint for the next ones.
  void KeepHint(const TileEntry& entry) {
    const auto hint = entry.recordLength <= UINT32_MAX ? entry.recordLength : 0;
    if (m_pIndex->GetHint(entry.number) != hint)
      m_pIndex->SetHint(entry.number, static_cast<std::uint32_t>(hint));
  }
  const Pages& GetPages() const { return m_pIndex; }
  const Format::IndexShape& GetShape() const { return m_pIndex->GetArea().index; }

 protected:
  /// Takes the pages of `previous` over if they are of the same index of the same file; they are
  /// invalidated then.
  IndexEntries(std::shared_ptr<ZrFile64> file, const IndexPages::Area& area, const Pages& previous);
  ~IndexEntries() = default;

  bool ReadEntry(std::uint32_t number, TileEntry& entry) const;
  bool IsUsable() const { return m_pIndex->IsUsable(); }
  bool IsSwapped() const { return m_pIndex->GetArea().swap; }
  bool IsShared() const { return m_pIndex->GetArea().isShared; }

  const std::shared_ptr<ZrFile64> m_file;
  Pages m_pIndex;  // in the file's byte order
};

}  // namespace Zarn::Engine
