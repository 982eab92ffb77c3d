#include "WholeWords.h"

#include <algorithm>
#include <atomic>
#include <bit>

#include "IndexValue.h"
#include "ZrByteOrder.h"

namespace Zarn::Io {
namespace {

constexpr std::uint64_t kEntrySize = Format::kGridEntrySize;

// An entry whose first copy has no status stays as the first read has it: the position in the
// second copy may be incomplete.
template <typename Source>
std::uint64_t ReadTwice(Source& source, std::uint64_t position, unsigned char* entries,
                        std::uint64_t size, bool swap) {
  unsigned char again[4096];
  std::uint64_t done = 0;
  while (done < size) {
    const std::uint64_t now = std::min<std::uint64_t>(sizeof again, size - done);
    unsigned char* const first = entries + done;
    const std::uint64_t got = source.ReadUpTo(position + done, first, now);
    std::atomic_thread_fence(std::memory_order_acquire);
    // The file gets no shorter meanwhile.
    if (got != 0 && source.ReadUpTo(position + done, again, got) != got) return done;
    for (std::uint64_t i = 0; i + kEntrySize <= got; i += kEntrySize)
      if (Format::StatusOf(LoadScalar<std::uint64_t>(first + i, swap)) != Format::kStatusEmpty)
        std::memcpy(first + i, again + i, kEntrySize);
    done += got;
    if (got < now) break;
  }
  return done;
}

}  // namespace

// A word on two pages is stored through a mapping, by one instruction. The write of the old bytes
// takes their room on the disk, and shows other processes the change. Where a file cannot be
// mapped, a write has to do.
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

bool FillEmptyEntry(ZrFileStream& file, std::uint64_t position, std::uint64_t value, bool swap) {
  constexpr std::uint64_t kPositionSize = kEntrySize - 1;
  unsigned char bytes[kEntrySize];
  StoreScalar(bytes, value, swap);
  const bool isStatusLast = (std::endian::native == std::endian::little) != swap;
  const std::uint64_t statusAt = isStatusLast ? kPositionSize : 0;
  const std::uint64_t positionAt = isStatusLast ? 0 : 1;
  return file.WriteAt(position + positionAt, bytes + positionAt, kPositionSize) &&
         file.WriteAt(position + statusAt, bytes + statusAt, 1);
}

std::uint64_t ReadSharedEntries(FileMap& map, std::uint64_t position, unsigned char* entries,
                                std::uint64_t size, bool swap) {
  return ReadTwice(map, position, entries, size, swap);
}

std::optional<std::uint64_t> ReadEntries(const ZrFileStream& file, std::uint64_t position,
                                         unsigned char* entries, std::uint64_t size, bool isShared,
                                         bool swap) {
  const std::uint64_t got = isShared ? ReadTwice(file, position, entries, size, swap)
                                     : file.ReadUpTo(position, entries, size);
  std::uint64_t length;
  if (got < size && (!file.GetLength(length) || length > position + got)) return std::nullopt;
  std::memset(entries + got, 0, size - got);
  return got;
}

}  // namespace Zarn::Io
