#pragma once

#include <vector>

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
/// Use: Reserve, write there, then call EndsAt or Claim. Only the first Reserve, and the first
/// after an Invalidate, looks through the index of a grid.
///
/// One thread at a time uses it, and reservations do not add up: each Reserve counts from what is
/// in the file.
class Tail {
 public:
  /// How the file is used.
  struct Use {
    /// Every change of the file by others is followed by a call of Invalidate, so Reserve need not
    /// ask for the length of the file after EndsAt.
    bool keepsEnd = false;
    /// This object maps the file and has nobody told: it must not become shorter.
    bool keepsLength = false;
    /// Nobody else uses the file.
    bool isAlone = false;
  };

  Tail(const Format::IndexShape& index, bool swap, const Use& use)
      : m_index(index), m_swap(swap), m_use(use) {}

  /// Where the next record goes. 0 if the file cannot be read, if memory is short, or if an index
  /// value could not name the end of a largest record there.
  std::uint64_t Reserve(const ZrFileStream& file);
  /// The same for a caller that has the file's length and checks the size of the record itself.
  std::uint64_t Reserve(const ZrFileStream& file, std::uint64_t fileLength);
  /// The data end with the record that was just appended; and so does the file, unless it has a
  /// spare part.
  void EndsAt(std::uint64_t end) {
    if (m_use.keepsEnd) m_fileEnd = end;
  }
  /// A record was written that states this end; the file may end before it.
  void Claim(std::uint64_t statedEnd);
  /// Takes back what was written since the last Reserve: the file gets its length of before, and
  /// claims count no more. While somebody maps the file, that part is spare instead: the next
  /// record goes there, unless others change the file before. False, and nothing has changed, if
  /// neither can be.
  bool CutBack(ZrFileStream& file);
  /// The file is longer than its data, which end here: the rest is spare.
  void HasSpareFrom(std::uint64_t end) {
    EndsAt(end);
    m_hasSpare = m_use.keepsEnd;
  }
  /// Whether the file has a spare part that CutSpare would cut off.
  bool HasSpare() const { return m_hasSpare && m_fileEnd != 0; }
  /// Whether the file may be longer than what was appended last.
  bool MayHaveSpare() const { return m_hasSpare; }
  /// Before the file is closed, if nobody maps it any more.
  void CutSpare(ZrFileStream& file);

  /// Whether a file of this length is as it was left, as far as that is known.
  bool IsAsLeft(std::uint64_t fileLength) const {
    return m_fileEnd == 0 || m_fileEnd == fileLength || (m_hasSpare && m_fileEnd < fileLength);
  }
  /// Others may have changed the file: the next Reserve looks again.
  void Invalidate();
  /// The file is new and holds no record.
  void SetEmpty() {
    m_isFound = true;
    m_ownStart = 0;
  }
  /// The index lies elsewhere now, or has grown.
  void SetIndex(const Format::IndexShape& index) { m_index = index; }

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

 private:
  bool FollowRecords(const ZrFileStream& file, std::uint64_t fileLength);
  bool LookThroughIndex(const ZrFileStream& file, std::uint64_t fileLength);
  bool ReadStatedEnd(const ZrFileStream& file, std::uint64_t fileLength);

  Format::IndexShape m_index;
  bool m_swap;
  Use m_use;
  bool m_isFound = false;                 // m_statedEnd and m_lost are those of the file
  bool m_hasSpare = false;                // the file may be longer than m_fileEnd
  std::uint64_t m_fileEnd = 0;            // of the data in the file; 0: Reserve asks for its length
  std::uint64_t m_lengthBefore = 0;       // the same at the last Reserve
  std::uint64_t m_statedEnd = 0;          // highest end that a record states; 0: within the file
  std::uint64_t m_statedBefore = 0;       // the same at the last Reserve
  std::uint64_t m_lastRecord = 0;         // the highest record that was found; 0: none
  std::uint64_t m_ownStart = UINT64_MAX;  // records from here on were appended since the opening
  std::vector<std::uint64_t> m_lost;  // where entries lead behind the end of the file, ascending
};

}  // namespace Zarn::Io
