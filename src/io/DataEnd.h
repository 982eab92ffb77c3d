#pragma once

#include "IndexValue.h"
#include "ZrFileStream.h"

namespace Zarn::Io {

/// Finds the stated end of the last record of a grid file, of which the light writer has written no
/// more than the data: the file may end before it, and nothing must be appended there. 0 if there
/// is no record, or if it states what no store can have asked for. Looks through the index; its
/// holes are skipped, so a large and mostly empty grid costs little.
///
/// `lastRecord` is where that record begins, or 0. If it is known from the last time, a few records
/// that lie behind it without a gap are found without the index.
///
/// False if the file cannot be read.
bool FindDataEnd(const ZrFileStream& file, const Format::IndexArea& index, bool swap,
                 std::uint64_t fileLength, std::uint64_t& lastRecord, std::uint64_t& end);

}  // namespace Zarn::Io
