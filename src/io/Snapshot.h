#pragma once

#include <optional>

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
  /// Whether what has this tag (Board::Tag) is right, and may be used.
  bool IsCurrent(std::uint64_t tag) const { return m_board.IsCurrent(tag, m_words.entries); }
  /// The value of `entries` for what is read now.
  std::uint64_t GetEntries() const { return m_words.entries; }
  /// The first attempt, while nobody else seems to change anything: what is read may be worth
  /// keeping.
  bool IsQuiet() const { return m_attempts == 1 && !m_board.IsBusy(); }

  /// Reads eight bytes of the index from the file; they are zero behind its end.
  std::optional<std::uint64_t> ReadWord(std::uint64_t position) const;
  /// The one entry that the lookup uses was read from the file in this attempt: these eight bytes.
  void UsesEntry(std::uint64_t word) {
    m_entry = word;
    m_comparesEntry = true;
  }
  /// The lookup follows a locator, or uses several entries, or one that was read before.
  void UsesMore() { m_comparesEntry = false; }

  /// Whether everything that was read is of one moment since Begin. `again` reads the entry once
  /// more, as an optional word; it is called only after UsesEntry.
  template <typename Again>
  bool IsValid(Again again) {
    if (m_board.GetPlace() == Board::kNowhere) return !m_comparesEntry || again() == m_entry;
    Board::Words now;
    if (IsUnchanged(now)) return true;
    if (!m_comparesEntry || !IsHarmless(now)) return false;
    const std::uint64_t entries = now.entries;
    return again() == m_entry && m_board.Look(now) && m_board.IsOurs(now) &&
           now.entries == entries && IsHarmless(now);
  }

 private:
  bool IsUnchanged(Board::Words& now);
  bool IsHarmless(const Board::Words& now) const;

  Board& m_board;
  const ZrFileStream& m_file;
  FileMap* const m_map;
  Board::Words m_words;  // before anything was read
  Board::Words m_next;   // as the last attempt has left them
  bool m_hasNext = false;
  int m_attempts = 0;
  bool m_comparesEntry = false;
  std::uint64_t m_entry = 0;
};

}  // namespace Zarn::Io
