#pragma once

#include "IndexValue.h"
#include "ZrFileStream.h"

namespace Zarn::Io {

/// Finds the position of a grid file before which nothing may be appended, though the file may end
/// there already: the stated end of the last record, of which a light writer has written no more
/// than the data; or a head's length behind the last record that an entry names but a loss of power
/// has taken, lest that cell get another one's tile. 0 if there is no record, or if it states what
/// no store can have asked for. Looks through the index once; its holes are skipped, so a large and
/// mostly empty grid costs little.
///
/// False if the file cannot be read.
bool FindDataEnd(const ZrFileStream& file, const Format::IndexArea& index, bool swap,
                 std::uint64_t fileLength, std::uint64_t& end);

}  // namespace Zarn::Io
