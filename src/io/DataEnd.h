#pragma once

#include "IndexValue.h"
#include "ZrFileStream.h"

namespace Zarn::Io {

/// Finds the position of a grid file before which nothing may be appended, though the file may end
/// there already: the stated end of the last record, of which a light writer has written no more
/// than the data; or a head's length behind the last record that an entry names but a loss of power
/// has taken, lest that cell get another one's tile. 0 if there is no record, or if it states what
/// no store can have asked for. Looks through the index; its holes are skipped, so a large and
/// mostly empty grid costs little.
///
/// `lastRecord` is where the last record in the file begins, or 0. If it is known from the last
/// time, a few records that lie behind it without a gap are found without the index.
///
/// False if the file cannot be read.
bool FindDataEnd(const ZrFileStream& file, const Format::IndexArea& index, bool swap,
                 std::uint64_t fileLength, std::uint64_t& lastRecord, std::uint64_t& end);

}  // namespace Zarn::Io
