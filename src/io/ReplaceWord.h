#pragma once

#include "ZrFileStream.h"

/// Changes that a process may be killed in the middle of: the kernel then stops a write between two
/// pages of the file, never within one.
namespace Zarn::Io {

/// Whether a write of these bytes may be cut in two. Pages may be larger, never smaller.
constexpr bool SpansPages(std::uint64_t position, std::uint64_t size) {
  constexpr std::uint64_t kPageSize = 4096;
  return position / kPageSize != (position + size - 1) / kPageSize;
}

/// Replaces eight bytes, which are `before`, by `after`, both as they lie in the file. Whoever is
/// killed meanwhile leaves the ones or the others. False, and the old ones are there as far as the
/// file can be written at all.
bool ReplaceWord(ZrFileStream& file, std::uint64_t position, std::uint64_t before,
                 std::uint64_t after);

}  // namespace Zarn::Io
