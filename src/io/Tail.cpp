#include "Tail.h"

#include <algorithm>
#include <new>
#include <utility>

#include "IndexWalker.h"
#include "Neighbours.h"
#include "RecordHead.h"
#include "StoreArguments.h"

namespace Zarn::Io {
namespace {

// A record that a caller may have asked for states a length in this range. A damaged one may state
// any; behind that nothing could be appended.
bool IsPlausibleLength(std::uint64_t length) {
  return length >= Format::kGridRecordHead &&
         length <= Format::kGridRecordHead + Format::kMaxCapacity;
}

}  // namespace

Tail Tail::OfNewFile(const Format::IndexShape& index, bool swap, bool remembersEnd) {
  Tail tail(index, swap, remembersEnd);
  tail.m_isFound = true;
  tail.m_ownStart = 0;
  return tail;
}

std::uint64_t Tail::Reserve(const ZrFileStream& file) {
  constexpr std::uint64_t kLast =
      Format::kPositionMask - Format::kGridRecordHead - Format::kMaxCapacity;
  std::uint64_t length = m_fileEnd;
  if (length == 0 && !file.GetLength(length)) return 0;
  const std::uint64_t position = Reserve(file, length);
  return position <= kLast ? position : 0;
}

std::uint64_t Tail::Reserve(const ZrFileStream& file, std::uint64_t fileLength) {
  m_fileEnd = 0;
  m_lengthBefore = fileLength;
  if (m_statedEnd <= fileLength) m_statedEnd = 0;
  if (!LookFor(file, fileLength)) return 0;
  m_statedBefore = m_statedEnd;
  const std::uint64_t position = SkipLost(std::max({fileLength, m_index.End(), m_statedEnd}));
  m_ownStart = std::min(m_ownStart, position);
  return position;
}

void Tail::EndsAt(std::uint64_t end) {
  if (m_remembersEnd) m_fileEnd = end;
}

void Tail::Claim(std::uint64_t statedEnd) { m_statedEnd = std::max(m_statedEnd, statedEnd); }

bool Tail::CutBack(ZrFileStream& file) {
  if (!file.SetLength(m_lengthBefore)) return false;
  m_statedEnd = m_statedBefore;
  return true;
}

void Tail::Invalidate() {
  m_isFound = false;
  m_fileEnd = 0;
  m_statedEnd = 0;
}

bool Tail::IsCrowded(const ZrFileStream& file, std::uint64_t position, std::uint64_t from,
                     std::uint64_t to) const {
  return from < to && !IsOwn(position) &&
         RunsOverRecord(file, m_swap, position + from, position + to);
}

bool Tail::LookFor(const ZrFileStream& file, std::uint64_t fileLength) {
  if (!m_isFound && m_index.IsGrid())
    m_isFound = FollowRecords(file, fileLength) || LookThroughIndex(file, fileLength);
  return m_isFound || !m_index.IsGrid();
}

// Goes on from the last record that was known to those that others have appended since, and tells
// whether the last of them ends where the file does. Where that takes many steps, the index is as
// quick.
bool Tail::FollowRecords(const ZrFileStream& file, std::uint64_t fileLength) {
  constexpr int kSteps = 64;
  std::uint64_t record = m_lastRecord;
  for (int i = 0; i < kSteps && record != 0 && record < fileLength; ++i) {
    std::uint64_t length;
    if (fileLength - record < sizeof length || !file.ReadAt(record, &length, sizeof length))
      return false;
    length = LoadScalar<std::uint64_t>(&length, m_swap);
    if (!IsPlausibleLength(length) || length > fileLength - record) return false;
    m_lastRecord = record;
    if (length == fileLength - record) return true;
    record += length;
  }
  return false;
}

// Holes of the index are skipped, so a large and mostly empty grid costs little.
bool Tail::LookThroughIndex(const ZrFileStream& file, std::uint64_t fileLength) try {
  m_lastRecord = 0;
  std::uint64_t last = 0;
  std::vector<std::uint64_t> lost;
  IndexWalker walker(file, m_index, m_swap, m_index.CountIn(fileLength));
  while (walker.Next()) {
    for (std::size_t i = 0; i < walker.Size(); ++i) {
      const std::uint64_t record = Format::PositionOf(walker.Value(i));
      if (!Format::HoldsRecord(Format::StatusOf(walker.Value(i))) || record < m_index.End())
        continue;
      if (record >= fileLength)
        lost.push_back(record);
      else
        last = std::max(last, record);
    }
  }
  if (walker.HasFailed()) return false;
  std::sort(lost.begin(), lost.end());
  m_lost.swap(lost);
  m_lastRecord = last;
  return ReadStatedEnd(file, fileLength);
} catch (const std::bad_alloc&) {
  return false;
}

// The stated end of the last record counts if a light writer can have left it so.
bool Tail::ReadStatedEnd(const ZrFileStream& file, std::uint64_t fileLength) {
  unsigned char bytes[Format::kGridRecordHead];
  Format::RecordHead head;
  if (m_lastRecord == 0 || fileLength - m_lastRecord < sizeof bytes) return true;
  if (!file.ReadAt(m_lastRecord, bytes, sizeof bytes)) return false;
  const auto parse = Format::ParseRecordHead(bytes, sizeof bytes, Format::kGridFile, m_swap, head);
  if (parse.outcome == Format::HeadParse::kComplete && head.versionCount == 1 &&
      head.length == head.size + head.capacity && IsPlausibleLength(head.length))
    Claim(m_lastRecord + head.length);
  return true;
}

std::uint64_t Tail::SkipLost(std::uint64_t position) const {
  while (std::binary_search(m_lost.begin(), m_lost.end(), position))
    ++position;
  return position;
}

}  // namespace Zarn::Io
