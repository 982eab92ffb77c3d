#include "ReplaceWord.h"

namespace Zarn::Io {

// A word on two pages is stored through a mapping, by one instruction. A mapping has its rooms on
// the disk from the write of the old bytes before, by which other processes also notice the change.
// Where a file cannot be mapped, a write has to do.
bool ReplaceWord(ZrFileStream& file, std::uint64_t position, std::uint64_t before,
                 std::uint64_t after) {
  if (SpansPages(position, sizeof after)) {
    if (!file.WriteAt(position, &before, sizeof before)) return false;
    if (file.StoreWord(position, after)) return true;
  }
  if (file.WriteAt(position, &after, sizeof after)) return true;
  file.WriteAt(position, &before, sizeof before);  // it may have stopped half-way
  return false;
}

}  // namespace Zarn::Io
