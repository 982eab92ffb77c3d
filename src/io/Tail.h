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
/// Use: Reserve, write there, then tell what was written. The grid's index is looked through by the
/// first Reserve only, and after an Invalidate.
///
/// One thread at a time uses it, and reservations do not add up: each Reserve counts from what is
/// in the file.
class Tail {
 public:
  /// `remembersEnd`: nobody changes the file between two operations without a call of Invalidate,
  /// so its length need not be asked again after EndsAt.
  Tail(const Format::IndexShape& index, bool swap, bool remembersEnd)
      : m_index(index), m_swap(swap), m_remembersEnd(remembersEnd) {}
  /// Of a new file, which holds no record.
  static Tail OfNewFile(const Format::IndexShape& index, bool swap, bool remembersEnd);

  /// Where the next record goes. 0 if the file cannot be read, if memory is short, or if an index
  /// value could not name the end of a largest record there.
  std::uint64_t Reserve(const ZrFileStream& file);
  /// The same for a caller who knows the file's length and checks the size of the record itself.
  std::uint64_t Reserve(const ZrFileStream& file, std::uint64_t fileLength);
  /// The file ends with the record that was just appended.
  void EndsAt(std::uint64_t end);
  /// A record was written that states this end; the file may end before it.
  void Claim(std::uint64_t statedEnd);
  /// Takes back what was written since the last Reserve: the file gets its length of before, and
  /// claims count no more. False, and nothing has changed, if that cannot be done.
  bool CutBack(ZrFileStream& file);

  /// Others may have changed the file: what is known is checked again by the next Reserve.
  void Invalidate();
  /// The index lies elsewhere now, or has grown.
  void SetIndex(const Format::IndexShape& index) { m_index = index; }

  /// Length of the file at the last Reserve.
  std::uint64_t LengthBefore() const { return m_lengthBefore; }
  /// Whether entries are known to name records behind the end of the file. Then each place must be
  /// reserved by itself: some positions are left out.
  bool HasLostRecords() const { return !m_lost.empty(); }
  /// Whether the record there was appended since the file was opened, so that nothing else lies in
  /// its room. True for every record of a naming file, which light writers do not write.
  bool IsOwn(std::uint64_t position) const { return !m_index.IsGrid() || position >= m_ownStart; }
  /// Whether a write of the bytes `from` to `to` of the record at `position`, which it has not
  /// filled, runs over another record.
  bool IsCrowded(const ZrFileStream& file, std::uint64_t position, std::uint64_t from,
                 std::uint64_t to) const;

 private:
  bool LookFor(const ZrFileStream& file, std::uint64_t fileLength);
  bool FollowRecords(const ZrFileStream& file, std::uint64_t fileLength);
  bool LookThroughIndex(const ZrFileStream& file, std::uint64_t fileLength);
  bool ReadStatedEnd(const ZrFileStream& file, std::uint64_t fileLength);
  std::uint64_t SkipLost(std::uint64_t position) const;

  Format::IndexShape m_index;
  bool m_swap;
  bool m_remembersEnd;
  bool m_isFound = false;            // m_statedEnd and m_lost are those of the file
  std::uint64_t m_fileEnd = 0;       // length of the file; 0: to be asked
  std::uint64_t m_lengthBefore = 0;  // length of the file at the last Reserve
  std::uint64_t m_statedEnd = 0;     // highest end that a record states; 0: within the file
  std::uint64_t m_statedBefore = 0;  // the same at the last Reserve
  std::uint64_t m_lastRecord = 0;    // the highest record that was found; 0: none
  std::uint64_t m_ownStart =
      UINT64_MAX;                     // all records from here on were appended since the opening
  std::vector<std::uint64_t> m_lost;  // where entries lead behind the end of the file, ascending
};

}  // namespace Zarn::Io
