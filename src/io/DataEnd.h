#pragma once

#include <vector>

#include "IndexValue.h"
#include "ZrFileStream.h"

namespace Zarn::Io {

/// Where the data of a grid file end, by what the index says of it.
struct DataEnd {
  /// The stated end of the last record, of which a light writer has written no more than the data:
  /// the file may end before it, but nothing may be appended there. 0 if there is no record, or if
  /// it states what no store can have asked for.
  std::uint64_t end = 0;
  /// Where that record begins; 0 if there is none.
  std::uint64_t lastRecord = 0;
  /// Where entries lead to behind the end of the file, ascending: a loss of power has taken those
  /// records. Another one that begins there would belong to two cells.
  std::vector<std::uint64_t> lost;
  /// From here on all records were appended by this library, since the file was opened: behind
  /// whatever lay before them, so nothing else lies in the room that they have.
  std::uint64_t ownStart = UINT64_MAX;
};

/// The first position at or behind this one that is not among the lost ones.
std::uint64_t NextPlace(const std::vector<std::uint64_t>& lost, std::uint64_t position);

/// Looks through the index; its holes are skipped, so a large and mostly empty grid costs little.
/// If the last record is known from the last time, a few that lie behind it without a gap are found
/// without the index. False if the file cannot be read, or if memory is short.
bool FindDataEnd(const ZrFileStream& file, const Format::IndexArea& index, bool swap,
                 std::uint64_t fileLength, DataEnd& data);

}  // namespace Zarn::Io
