#pragma once

#include "IndexValue.h"
#include "ZrFileStream.h"

namespace Zarn::Io {

/// Finds the stated end of the last record of a grid file, of which the light writer has written no
/// more than the data: the file may end before it, and nothing must be appended there. 0 if there
/// is no record, or if it states what no store can have asked for. Looks through the index once;
/// its holes are skipped, so a large and mostly empty grid costs little.
///
/// False if the file cannot be read.
bool FindDataEnd(const ZrFileStream& file, const Format::IndexArea& index, bool swap,
                 std::uint64_t fileLength, std::uint64_t& end);

}  // namespace Zarn::Io
