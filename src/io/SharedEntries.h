#pragma once

#include "FileMap.h"
#include "ZrFileStream.h"

/// Index entries of a grid that are read while somebody else stores new tiles. He takes only cells
/// that are empty, and gives an entry its position first and its status last, by a write of its
/// own. So whoever has seen a status finds the position complete when he looks again; and a writer
/// who is killed between the two leaves the cell empty.
namespace Zarn::Io {

/// Gives its value to the entry of a cell that is empty.
bool FillEmptyEntry(ZrFileStream& file, std::uint64_t position, std::uint64_t value, bool swap);

/// Reads `size` bytes of whole entries, as they lie in the file. Returns how many bytes are there,
/// or can be read.
std::uint64_t ReadSharedEntries(const ZrFileStream& file, std::uint64_t position,
                                unsigned char* entries, std::uint64_t size, bool swap);
std::uint64_t ReadSharedEntries(FileMap& map, std::uint64_t position, unsigned char* entries,
                                std::uint64_t size, bool swap);

}  // namespace Zarn::Io
