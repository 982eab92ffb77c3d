#pragma once

#include <array>

#include "Board.h"
#include "FileMap.h"

namespace Zarn::Io {

/// A lookup without a lock: what it reads is the file at one moment, or IsValid tells that it is
/// not, and the lookup begins anew. Between Begin and IsValid nothing that was read is believed:
/// positions, lengths and bytes may be halves of two states.
///
///   for (Snapshot snapshot(...); snapshot.Begin();) {
///     ...read the entry, and the record where it leads...
///     if (snapshot.IsValid(again)) return ...what was read...;
///   }
///   ...take the lock and do the same: the words are settled then.
///
/// One object serves one lookup of one thread.
class Snapshot {
 public:
  /// `map`: of the file, to read from; null: none.
  Snapshot(Board& board, const ZrFileStream& file, FileMap* map)
      : m_board(board), m_file(file), m_map(map) {}

  /// Begins, or begins anew. False after a number of attempts, if a change goes on for long, or if
  /// the file must be loaded again: then only the lock helps.
  bool Begin();
  /// Takes the words as they are now, before anything is read: for one who must see all that was
  /// stored before, and believes more than IsValid tells of. False: begin anew.
  bool LookNow();
  /// Whether what has this tag (Board::Tag) is right, and may be used.
  bool IsCurrent(std::uint64_t tag) const { return m_board.IsCurrent(tag, m_words.entries); }
  /// The value of `entries` for what is read now.
  std::uint64_t GetEntries() const { return m_words.entries; }

  /// Reads bytes of the index from the file; they are zero behind its end. False if that fails.
  bool ReadIndex(std::uint64_t position, void* target, std::uint64_t size) const;
  /// What the lookup uses belongs to one tile, that of the entry of this number.
  void UsesTile(std::uint32_t tile) {
    m_tile = tile;
    m_usesOne = true;
  }
  /// The lookup uses several entries, or what belongs to none.
  void UsesMore() { m_usesOne = false; }

  /// Whether everything that was read is of one moment since Begin.
  bool IsValid();
  /// The same for one who tells tiles apart: first, whether the header, the index area and the file
  /// itself have stayed since Begin; then HoldsFor tells of each tile.
  bool LookAgain();
  /// Whether what was read of this tile is of one moment.
  bool HoldsFor(std::uint32_t tile) const;
  /// Whether what was used belongs to one tile, of which IsValid has found that the entry is right
  /// for the value of `entries` then.
  bool HasOneTile() const { return m_usesOne && (m_isUnchanged || Board::IsTold(m_next)); }
  /// The value of `entries` then.
  std::uint64_t GetEntriesNow() const { return m_next.entries; }
  /// Whether all that has changed until then is known: these two tiles, if anything.
  bool HasFollowed() const {
    return m_isUnchanged || (Board::IsNext(m_words, m_next) && Board::IsTold(m_next));
  }
  std::array<std::uint32_t, 2> GetChanged() const {
    return {Board::TileOf(m_words), Board::TileOf(m_next)};
  }
  /// Whether nothing has changed in the file until the last IsValid.
  bool IsUnchanged() const { return m_isUnchanged; }

 private:
  Board& m_board;
  const ZrFileStream& m_file;
  FileMap* const m_map;
  Board::Words m_words;  // before anything was read
  Board::Words m_next;   // as the last attempt has left them
  int m_attempts = 0;
  bool m_isUnchanged = false;
  bool m_usesOne = false;
  std::uint32_t m_tile = 0;
};

}  // namespace Zarn::Io
