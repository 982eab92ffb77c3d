#include "WholeWords.h"

#include <cstring>

namespace Zarn::Io {
// A word on two pages is stored through a mapping, by one instruction. The write of the old bytes
// takes their room on the disk. Where a file cannot be mapped, a write has to do.
bool ReplaceWord(ZrFileStream& file, std::uint64_t position, std::uint64_t before,
                 std::uint64_t after) {
  if (SpansPages(position, sizeof after)) {
    if (!file.WriteAt(position, &before, sizeof before)) return false;
    if (file.StoreWord(position, after)) return true;
  }
  if (file.WriteAt(position, &after, sizeof after)) return true;
  file.WriteAt(position, &before, sizeof before);  // the other write may have stopped half-way
  return false;
}

std::optional<std::uint64_t> ReadEntries(const ZrFileStream& file, std::uint64_t position,
                                         unsigned char* entries, std::uint64_t size) {
  const std::uint64_t got = file.ReadUpTo(position, entries, size);
  std::uint64_t length;
  if (got < size && (!file.GetLength(length) || length > position + got)) return std::nullopt;
  std::memset(entries + got, 0, size - got);
  return got;
}

}  // namespace Zarn::Io
