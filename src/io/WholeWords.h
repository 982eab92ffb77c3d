#pragma once

#include <optional>

#include "ZrFileStream.h"

/// Words of eight bytes - index entries, locators, the count of names - of which no kill must leave
/// a part.
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

/// Reads `size` bytes of an index; behind the end of the file they are zero. Returns how many are
/// in the file; none if they cannot be read.
std::optional<std::uint64_t> ReadEntries(const ZrFileStream& file, std::uint64_t position,
                                         unsigned char* entries, std::uint64_t size);

}  // namespace Zarn::Io
