#pragma once

#include <optional>

#include "FileMap.h"
#include "ZrFileStream.h"

/// Words of eight bytes - index entries, locators, the count of names - of which neither a kill nor
/// a reader beside the writer must leave or see a part.
namespace Zarn::Io {

/// Whether a kill may cut a write of these bytes in two: the kernel stops a write between two pages
/// of the file, never within one. Pages may be larger than this, never smaller.
constexpr bool SpansPages(std::uint64_t position, std::uint64_t size) {
  constexpr std::uint64_t kPageSize = 4096;
  return position / kPageSize != (position + size - 1) / kPageSize;
}

/// Replaces the word `before` by `after`, both as they lie in the file; a kill leaves one or the
/// other. False, and the old one is there as far as the file can be written at all.
bool ReplaceWord(ZrFileStream& file, std::uint64_t position, std::uint64_t before,
                 std::uint64_t after);

/// Gives its value to the entry of an empty cell while others read it: the position first and the
/// status last, by a write of its own. A kill between the two leaves the cell empty.
bool FillEmptyEntry(ZrFileStream& file, std::uint64_t position, std::uint64_t value, bool swap);

/// Reads `size` bytes of whole entries, as they lie in the file, beside a concurrent writer that
/// fills only empty cells. It reads them twice: where the first read shows a status, the second one
/// shows the complete position. Returns how many bytes are there, or can be read.
std::uint64_t ReadSharedEntries(FileMap& map, std::uint64_t position, unsigned char* entries,
                                std::uint64_t size, bool swap);

/// Reads `size` bytes of an index, `isShared` as ReadSharedEntries does; behind the end of the file
/// they are zero. Returns how many are in the file; none if they cannot be read.
std::optional<std::uint64_t> ReadEntries(const ZrFileStream& file, std::uint64_t position,
                                         unsigned char* entries, std::uint64_t size, bool isShared,
                                         bool swap);

}  // namespace Zarn::Io
