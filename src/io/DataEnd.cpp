#include "DataEnd.h"

#include <algorithm>

#include "StoreArguments.h"

namespace Zarn::Io {
namespace {

// A record that a caller may have asked for states a length in this range.
bool IsPlausibleLength(std::uint64_t length) {
  return length >= Format::kGridRecordHead &&
         length <= Format::kGridRecordHead + Format::kMaxCapacity;
}

// The highest position below `limit` that an entry points at; 0 if there is none.
bool FindHighestRecord(const ZrFileStream& file, const Format::IndexArea& index, bool swap,
                       std::uint64_t fileLength, std::uint64_t limit, std::uint64_t& highest) {
  constexpr std::uint64_t kEntrySize = Format::kGridEntrySize;
  const std::uint64_t end = std::min(index.end, fileLength);
  ZrByteArray piece;
  if (!piece.ResizeForOverwrite(64 * 1024)) return false;
  highest = 0;
  for (std::uint64_t position = Format::GridEntryOffset(index.begin, 0); position < end;) {
    position += (file.NextData(position) - position) / kEntrySize * kEntrySize;
    if (position >= end) break;
    const std::uint64_t size = std::min<std::uint64_t>(piece.GetSize(), end - position);
    if (!file.ReadAt(position, piece.GetData(), size)) return false;
    for (std::uint64_t i = 0; i + kEntrySize <= size; i += kEntrySize) {
      const auto entry = LoadScalar<std::uint64_t>(piece.GetData() + i, swap);
      const std::uint64_t record = Format::PositionOf(entry);
      if (Format::HoldsRecord(Format::StatusOf(entry)) && record >= index.end && record < limit &&
          record > highest)
        highest = record;
    }
    position += size;
  }
  return true;
}

}  // namespace

bool FindDataEnd(const ZrFileStream& file, const Format::IndexArea& index, bool swap,
                 std::uint64_t fileLength, std::uint64_t& end) {
  // Farther away lies nothing but damage to a single entry.
  constexpr std::uint64_t kMostLost = std::uint64_t{1} << 34;
  std::uint64_t highest;
  if (!FindHighestRecord(file, index, swap, fileLength, fileLength + kMostLost, highest))
    return false;
  if (highest >= fileLength) {
    end = highest + Format::kGridRecordHead;
    return true;
  }
  std::uint64_t length = 0;
  if (highest != 0 && fileLength - highest >= sizeof length) {
    if (!file.ReadAt(highest, &length, sizeof length)) return false;
    length = LoadScalar<std::uint64_t>(&length, swap);
  }
  end = IsPlausibleLength(length) ? highest + length : 0;
  return true;
}

}  // namespace Zarn::Io
