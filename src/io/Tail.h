#pragma once

#include <vector>

#include "Board.h"
#include "Gaps.h"
#include "IndexShape.h"
#include "ZrFileStream.h"

namespace Zarn::Io {

/// Where the data of a file end, and so where its next record goes.
///
/// A record goes behind everything: the end of the file; the index, of which a damaged file may
/// have lost the end; and what the last record of a grid states as its end, for a light writer
/// leaves unused capacity unwritten. It never goes to a position that an entry names although its
/// record is lost: that cell would get the record, too.
///
/// Once that is known, it is remembered, and told on the board. The file may be longer then: what
/// is behind the end is spare room for the next record, and is cut off before the file is closed.
///
/// Use: Reserve, write there, then call EndsAt before anything leads there. Only the first Reserve,
/// and the first after an Invalidate, looks through the index of a grid. A light writer, which
/// gives the length of the file, calls Claim instead of EndsAt; nothing is spare then.
///
/// One thread at a time uses it, and reservations do not add up: each Reserve counts from what is
/// in the file.
class Tail {
 public:
  /// How the object uses the file.
  enum Use {
    kLight,      ///< a light writer
    kOwn,        ///< nobody else changes it
    kOwnMapped,  ///< the same, and it must not become shorter while it is open
    kShared,     ///< by the process lock: Refresh tells of each change
  };

  Tail(const Format::IndexShape& index, bool swap, Use use, Board* board = nullptr)
      : m_index(index), m_swap(swap), m_use(use), m_board(board) {}

  /// Where the next record goes. 0 if the file cannot be read, if memory is short, or if an index
  /// value could not name the end of a largest record there.
  std::uint64_t Reserve(const ZrFileStream& file);
  /// The same for a caller that has the file's length and checks the size of the record itself.
  std::uint64_t Reserve(const ZrFileStream& file, std::uint64_t fileLength);
  /// The data end with what was just appended. False if that could not be told: then nothing may
  /// lead there.
  bool EndsAt(std::uint64_t end);
  /// The data end here, in a longer file.
  void HasSpareFrom(std::uint64_t end, std::uint64_t fileLength);
  /// A record was written that states this end; the file may end before it.
  void Claim(std::uint64_t statedEnd);
  /// Takes back what was appended since the last Reserve: its room is spare, or cut off. Claims
  /// count no more.
  void GiveBack(ZrFileStream& file);

  /// Whether the file seems to have spare room.
  bool HasSpare() const { return m_end != 0 && m_end < m_length; }
  /// Cuts it off, unless somebody maps the file.
  void CutSpare(ZrFileStream& file);

  /// The file has this length now: whether this object has left it so, as far as it knows.
  bool IsAsLeft(std::uint64_t fileLength);
  /// Others have changed the file, which has this length now, or an unknown one if it is 0. The
  /// board may tell where its data end.
  void Refresh(std::uint64_t fileLength);
  /// Others may have changed the file: the next Reserve looks again.
  void Invalidate();
  /// The file is new and holds no record.
  void SetEmpty() {
    m_isFound = true;
    m_ownStart = 0;
  }
  /// The index lies elsewhere now, or has grown.
  void SetIndex(const Format::IndexShape& index) { m_index = index; }
  /// The file is the same, the object for it another one.
  void SetBoard(Board& board) { m_board = &board; }

  /// Whether entries name records behind the end of the file. Then each place must be reserved by
  /// itself: Reserve leaves some positions out.
  bool HasLostRecords() const { return !m_lost.empty(); }
  /// Whether a write of the bytes `from` to `to` of the record at `position`, which it has not
  /// filled, runs over the beginning of another record.
  ///
  /// A light writer leaves the unused capacity of its last record unwritten, and some writers
  /// append where the file ends, which is inside that capacity. Bytes that only look like a record
  /// count as one, and so do bytes that cannot be read: the caller then appends, which costs no
  /// more than dead space.
  bool IsCrowded(const ZrFileStream& file, std::uint64_t position, std::uint64_t from,
                 std::uint64_t to) const;
  /// Of the records that were appended while nobody else has changed the file.
  Gaps& GetGaps() { return m_gaps; }

 private:
  bool FollowRecords(const ZrFileStream& file, std::uint64_t fileLength);
  bool LookThroughIndex(const ZrFileStream& file, std::uint64_t fileLength);
  bool ReadStatedEnd(const ZrFileStream& file, std::uint64_t fileLength);

  Format::IndexShape m_index;
  bool m_swap;
  Use m_use;
  Board* m_board;                         // of a shared file; null: there is none
  std::uint64_t m_end = 0;                // of the data; 0: unknown
  std::uint64_t m_length = 0;             // of the file; 0: unknown
  std::uint64_t m_reserved = 0;           // what the last Reserve has answered
  bool m_isWriting = false;               // there, until EndsAt; perhaps in vain
  bool m_isFound = false;                 // m_statedEnd and m_lost are those of the file
  std::uint64_t m_statedEnd = 0;          // highest end that a record states; 0: within the file
  std::uint64_t m_statedBefore = 0;       // the same at the last Reserve
  std::uint64_t m_lengthBefore = 0;       // of the file at the last Reserve
  std::uint64_t m_lastRecord = 0;         // the highest record that was found; 0: none
  std::uint64_t m_ownStart = UINT64_MAX;  // records from here on were appended since the opening
  std::vector<std::uint64_t> m_lost;  // where entries lead behind the end of the file, ascending
  Gaps m_gaps;
};

}  // namespace Zarn::Io
