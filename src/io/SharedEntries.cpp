#include "SharedEntries.h"

#include <algorithm>
#include <atomic>
#include <bit>

#include "IndexValue.h"
#include "ZrByteOrder.h"

namespace Zarn::Io {
namespace {

constexpr std::uint64_t kEntrySize = Format::kGridEntrySize;
constexpr std::uint64_t kPositionSize = kEntrySize - 1;

// An entry without a status is the first one that was read: of the second one the position need not
// be complete.
void KeepComplete(unsigned char* first, const unsigned char* second, bool swap) {
  if (Format::StatusOf(LoadScalar<std::uint64_t>(first, swap)) != Format::kStatusEmpty)
    std::memcpy(first, second, kEntrySize);
}

template <typename Source>
std::uint64_t ReadTwice(Source& source, std::uint64_t position, unsigned char* entries,
                        std::uint64_t size, bool swap) {
  unsigned char again[4096];
  std::uint64_t done = 0;
  while (done < size) {
    const std::uint64_t now = std::min<std::uint64_t>(sizeof again, size - done);
    const std::uint64_t got = source.ReadUpTo(position + done, entries + done, now);
    std::atomic_thread_fence(std::memory_order_acquire);
    // The file gets no shorter meanwhile.
    if (got != 0 && source.ReadUpTo(position + done, again, got) != got) return done;
    for (std::uint64_t i = 0; i + kEntrySize <= got; i += kEntrySize)
      KeepComplete(entries + done + i, again + i, swap);
    done += got;
    if (got < now) break;
  }
  return done;
}

}  // namespace

bool FillEmptyEntry(ZrFileStream& file, std::uint64_t position, std::uint64_t value, bool swap) {
  unsigned char bytes[kEntrySize];
  StoreScalar(bytes, value, swap);
  const bool isStatusLast = (std::endian::native == std::endian::little) != swap;
  const std::uint64_t statusAt = isStatusLast ? kPositionSize : 0;
  const std::uint64_t positionAt = isStatusLast ? 0 : 1;
  return file.WriteAt(position + positionAt, bytes + positionAt, kPositionSize) &&
         file.WriteAt(position + statusAt, bytes + statusAt, 1);
}

std::uint64_t ReadSharedEntries(const ZrFileStream& file, std::uint64_t position,
                                unsigned char* entries, std::uint64_t size, bool swap) {
  return ReadTwice(file, position, entries, size, swap);
}

std::uint64_t ReadSharedEntries(FileMap& map, std::uint64_t position, unsigned char* entries,
                                std::uint64_t size, bool swap) {
  return ReadTwice(map, position, entries, size, swap);
}

}  // namespace Zarn::Io
