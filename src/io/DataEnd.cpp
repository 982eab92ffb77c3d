#include "DataEnd.h"

#include <algorithm>
#include <new>

#include "RecordHead.h"
#include "StoreArguments.h"

namespace Zarn::Io {
namespace {

// A record that a caller may have asked for states a length in this range.
bool IsPlausibleLength(std::uint64_t length) {
  return length >= Format::kGridRecordHead &&
         length <= Format::kGridRecordHead + Format::kMaxCapacity;
}

// Calls `found` for each position where an entry says that a record is.
template <typename Found>
bool ForEachRecord(const ZrFileStream& file, const Format::IndexArea& index, bool swap,
                   std::uint64_t fileLength, Found found) {
  constexpr std::uint64_t kEntrySize = Format::kGridEntrySize;
  const std::uint64_t end = std::min(index.end, fileLength);
  ZrByteArray piece;
  if (!piece.ResizeForOverwrite(64 * 1024)) return false;
  for (std::uint64_t position = Format::GridEntryOffset(index.begin, 0); position < end;) {
    position += (file.NextData(position) - position) / kEntrySize * kEntrySize;
    if (position >= end) break;
    const std::uint64_t size = std::min<std::uint64_t>(piece.GetSize(), end - position);
    if (!file.ReadAt(position, piece.GetData(), size)) return false;
    for (std::uint64_t i = 0; i + kEntrySize <= size; i += kEntrySize) {
      const auto entry = LoadScalar<std::uint64_t>(piece.GetData() + i, swap);
      const std::uint64_t record = Format::PositionOf(entry);
      if (Format::HoldsRecord(Format::StatusOf(entry)) && record >= index.end) found(record);
    }
    position += size;
  }
  return true;
}

// The length that a record states; 0 if not even that is in the file.
bool ReadLength(const ZrFileStream& file, bool swap, std::uint64_t fileLength, std::uint64_t record,
                std::uint64_t& length) {
  length = 0;
  if (fileLength < sizeof length || record > fileLength - sizeof length) return true;
  if (!file.ReadAt(record, &length, sizeof length)) return false;
  length = LoadScalar<std::uint64_t>(&length, swap);
  return true;
}

// The stated end of a record, if it is one that the light writer can have left; else 0.
bool ReadStatedEnd(const ZrFileStream& file, bool swap, std::uint64_t fileLength,
                   std::uint64_t record, std::uint64_t& end) {
  unsigned char bytes[Format::kGridRecordHead];
  Format::RecordHead head;
  end = 0;
  if (record == 0 || fileLength < sizeof bytes || record > fileLength - sizeof bytes) return true;
  if (!file.ReadAt(record, bytes, sizeof bytes)) return false;
  const auto parse = Format::ParseRecordHead(bytes, sizeof bytes, Format::kGridFile, swap, head);
  if (parse.outcome == Format::HeadParse::kComplete && head.versionCount == 1 &&
      head.length == head.size + head.capacity && IsPlausibleLength(head.length))
    end = record + head.length;
  return true;
}

// Goes on from `record` to the records behind it, and tells whether the last of them, which it then
// is, ends where the file does. Where that takes many steps, the index is as quick.
bool FollowRecords(const ZrFileStream& file, bool swap, std::uint64_t fileLength,
                   std::uint64_t& record) {
  constexpr int kSteps = 64;
  std::uint64_t length;
  for (int i = 0; i < kSteps && ReadLength(file, swap, fileLength, record, length); ++i) {
    if (!IsPlausibleLength(length) || length > fileLength - record) return false;
    if (length == fileLength - record) return true;
    record += length;
  }
  return false;
}

}  // namespace

bool FindDataEnd(const ZrFileStream& file, const Format::IndexArea& index, bool swap,
                 std::uint64_t fileLength, DataEnd& data) {
  data.end = fileLength;
  if (data.lastRecord != 0 && FollowRecords(file, swap, fileLength, data.lastRecord)) return true;
  const std::uint64_t ownStart = data.ownStart;
  data = {};
  data.ownStart = ownStart;
  try {
    const auto sort = [&](std::uint64_t record) {
      if (record >= fileLength)
        data.lost.push_back(record);
      else
        data.lastRecord = std::max(data.lastRecord, record);
    };
    if (!ForEachRecord(file, index, swap, fileLength, sort)) return false;
  } catch (const std::bad_alloc&) {
    return false;
  }
  std::sort(data.lost.begin(), data.lost.end());
  return ReadStatedEnd(file, swap, fileLength, data.lastRecord, data.end);
}

std::uint64_t NextPlace(const std::vector<std::uint64_t>& lost, std::uint64_t position) {
  while (std::binary_search(lost.begin(), lost.end(), position))
    ++position;
  return position;
}

}  // namespace Zarn::Io
