#pragma once

#include "Board.h"
#include "Tail.h"
#include "ZrByteArray.h"

namespace Zarn::Io {

/// Replaces a record in its place so that a kill or a failure at any moment leaves the old one or
/// the new one, and lookups beside it see one of the two.
///
/// The kernel stops a write of a killed process between two pages, never within one. So a write
/// within one page needs no more than the old bytes, to put them back if it fails. Across pages a
/// copy at the end of the file counts while the place is overwritten.
///
/// `write` and `point` are callables that take a position and return whether they have succeeded:
/// `write` writes the new record there; `point` makes the tile's entry or locator lead there, or
/// leaves it as it was. `point` shows on the board that it changes an entry; the rest is shown
/// here.
///
/// One object serves one operation of one thread.
class SafeRewrite {
 public:
  SafeRewrite(ZrFileStream& file, Tail& tail, Board& board)
      : m_file(file), m_tail(tail), m_board(board) {}

  /// Reads the bytes that a write within a page is about to replace, of the tile whose entry has
  /// this number.
  bool KeepOld(std::uint32_t tile, std::uint64_t position, std::uint64_t size);
  /// The same for a caller that has the bytes, and keeps them as long as this object lives.
  void KeepOld(std::uint32_t tile, std::uint64_t position, const unsigned char* bytes,
               std::uint64_t size);
  /// Writes over the bytes that were kept. False: they are as they were.
  template <typename Write>
  bool WithinPage(Write write) {
    const BoardChange change(m_board, m_tile);
    if (!change.IsShown()) return false;
    if (write(m_oldPosition)) return true;
    PutOldBack();
    return false;
  }
  /// Writes the kept bytes again, if there are any, for an operation that fails later.
  void PutBack();

  /// Overwrites the record at `home`, which has a copy by now, in the place that the tail has
  /// reserved last; 0: it could not be written. Returns where the record is: `home`, and the tail
  /// has that place back; the copy, if `home` could not be written; 0 if the old one still counts.
  template <typename Write, typename Point>
  std::uint64_t AcrossPages(std::uint64_t copy, std::uint64_t home, Write write, Point point) {
    if (copy == 0 || !point(copy)) return 0;
    if (!write(home) || !point(home)) return copy;
    m_tail.GiveBack(m_file);
    return home;
  }

 private:
  void PutOldBack();

  ZrFileStream& m_file;
  Tail& m_tail;
  Board& m_board;
  std::uint32_t m_tile = 0;
  std::uint64_t m_oldPosition = 0;
  const unsigned char* m_old = nullptr;  // the old bytes
  std::uint64_t m_oldSize = 0;           // 0: none were kept
  ZrByteArray m_buffer;                  // holds them if KeepOld has read them
};

}  // namespace Zarn::Io
