#include "Tail.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Cause.h"
#include "IndexWalker.h"
#include "RecordHead.h"
#include "StoreArguments.h"
#include "ZrByteArray.h"

namespace Zarn::Io {
namespace {

// Every record that a caller may ask for states a length in this range. A damaged one may state
// any; behind that nothing could be appended.
bool IsStorableLength(std::uint64_t length) {
  return length >= Format::kGridRecordHead &&
         length <= Format::kGridRecordHead + Format::kMaxCapacity;
}

// Whether the bytes, eight or more, begin with what every writer puts in front of a record.
bool LooksLikeRecord(const unsigned char* bytes, std::uint64_t available, bool swap) {
  const auto length = LoadScalar<std::uint64_t>(bytes, swap);
  if (length <= Format::kGridRecordHead || length > UINT32_MAX) return false;
  Format::RecordHead head;
  const auto parse = Format::ParseRecordHead(bytes, available, {.swap = swap}, head);
  if (parse.outcome == Format::HeadParse::kDamaged || available < Format::kGridRecordHead ||
      head.versionCount == 0 ||
      !Format::HoldsRecord(Format::StatusOf(head.Table(bytes, swap).Locator(0))))
    return false;
  // The end of a longer table is not looked at.
  return parse.outcome == Format::HeadParse::kNeedsMore ||
         (head.filledLength != 0 && head.filledLength <= head.capacity);
}

bool RunsOverRecord(const ZrFileStream& file, bool swap, std::uint64_t begin, std::uint64_t end) {
  constexpr std::uint64_t kPiece = 64 * 1024;
  ZrByteArray piece;
  while (begin < end) {
    if (end - begin > kPiece) begin = file.NextData(begin);
    if (begin >= end) break;
    const std::uint64_t starts = std::min(kPiece, end - begin);
    const std::uint64_t wanted = starts + Format::kGridRecordHead;
    if (!piece.ResizeForOverwrite(wanted)) return true;
    const std::uint64_t got = file.ReadUpTo(begin, piece.GetData(), wanted);
    std::uint64_t length;
    if (got < wanted && (!file.GetLength(length) || length > begin + got)) return true;
    for (std::uint64_t i = 0; i < starts && i + Format::kRecordLengthSize <= got; ++i)
      if (LooksLikeRecord(piece.GetData() + i, got - i, swap)) return true;
    begin += starts;
  }
  return false;
}

}  // namespace

// An object that does not hear of changes by others asks for the length: another one than it has
// left shows that somebody has written behind its back.
std::uint64_t Tail::Reserve(const ZrFileStream& file) {
  constexpr std::uint64_t kLast =
      Format::kPositionMask - Format::kGridRecordHead - Format::kMaxCapacity;
  if (m_length == 0 || m_use == kOwn) {
    std::uint64_t length;
    if (!file.GetLength(length)) return 0;
    if (m_use == kOwn && length != m_length) m_end = 0;
    if (!IsAsLeft(length)) Invalidate();
    m_length = length;
  }
  const bool isKnown = m_end != 0 && m_end <= m_length;
  m_lengthBefore = m_length;
  m_reserved = isKnown ? std::max(m_end, m_index.End()) : Reserve(file, m_length);
  m_ownStart = std::min(m_ownStart, m_reserved);
  m_gaps.Take(m_reserved, UINT64_MAX);
  m_isWriting = true;
  return m_reserved <= kLast ? m_reserved : FailUnlessBySystem(ZrCause::kFull, std::uint64_t{0});
}

std::uint64_t Tail::Reserve(const ZrFileStream& file, std::uint64_t fileLength) {
  m_lengthBefore = fileLength;
  if (m_statedEnd <= fileLength) m_statedEnd = 0;
  if (!m_isFound && m_index.IsGrid() && !FollowRecords(file, fileLength) &&
      !LookThroughIndex(file, fileLength))
    return 0;
  m_isFound = true;
  m_statedBefore = m_statedEnd;
  std::uint64_t position = std::max({fileLength, m_index.End(), m_statedEnd});
  while (std::binary_search(m_lost.begin(), m_lost.end(), position))
    ++position;
  m_ownStart = std::min(m_ownStart, position);
  return position;
}

bool Tail::EndsAt(std::uint64_t end) {
  m_isWriting = false;
  m_length = std::max(m_length, end);
  m_end = m_lost.empty() ? end : 0;  // else each place is looked for by itself
  return m_board == nullptr || m_board->SetEnd(m_end);
}

void Tail::HasSpareFrom(std::uint64_t end, std::uint64_t fileLength) {
  m_length = fileLength;
  EndsAt(end);
}

void Tail::Claim(std::uint64_t statedEnd) { m_statedEnd = std::max(m_statedEnd, statedEnd); }

// A little is kept: to cut a file and to extend it again takes longer than the rest of a rewrite.
// Nothing is where others would not know it, nor where the last record states an end behind that of
// the file.
void Tail::GiveBack(ZrFileStream& file) {
  constexpr std::uint64_t kMostSpare = 1 << 20;
  m_statedEnd = m_statedBefore;
  const bool isTold = m_use != kShared || (m_board != nullptr && m_board->TellsEnd());
  const bool keepsSpare =
      m_use != kLight && isTold && m_lost.empty() && m_reserved <= m_lengthBefore;
  if (m_use != kLight) EndsAt(keepsSpare ? m_reserved : 0);
  if (m_use == kOwnMapped || (keepsSpare && m_length - m_end <= kMostSpare)) return;
  const std::uint64_t end = keepsSpare ? m_end : m_lengthBefore;
  if (file.Cut(end)) m_length = end;
}

// What somebody has appended behind this object's back stays.
void Tail::CutSpare(ZrFileStream& file) {
  std::uint64_t length;
  if (HasSpare() && file.GetLength(length) && length == m_length && file.Cut(m_end))
    m_length = m_end;
}

bool Tail::IsAsLeft(std::uint64_t fileLength) {
  if (m_length == 0 || m_length == fileLength) return true;
  m_length = fileLength;
  return m_isWriting;
}

void Tail::Refresh(std::uint64_t fileLength) {
  Invalidate();
  m_end = m_board != nullptr ? m_board->GetEnd() : 0;
  m_length = fileLength;
}

void Tail::Invalidate() {
  m_gaps.Take(0, UINT64_MAX);
  m_isFound = false;
  m_isWriting = false;
  m_end = 0;
  m_length = 0;
  m_statedEnd = 0;
}

// Nothing else lies in the room of a record that was appended since the file was opened, nor in
// that of a naming file's record: light writers do not write these.
bool Tail::IsCrowded(const ZrFileStream& file, std::uint64_t position, std::uint64_t from,
                     std::uint64_t to) const {
  return from < to && m_index.IsGrid() && position < m_ownStart &&
         RunsOverRecord(file, m_swap, position + from, position + to);
}

// Goes from the last record that was found on to those that others have appended since. True if
// the last of them ends where the file does. If that takes many steps, the index is as quick.
bool Tail::FollowRecords(const ZrFileStream& file, std::uint64_t fileLength) {
  constexpr int kSteps = 64;
  std::uint64_t record = m_lastRecord;
  for (int i = 0; i < kSteps && record != 0 && record < fileLength; ++i) {
    std::uint64_t length;
    if (fileLength - record < sizeof length || !file.ReadAt(record, &length, sizeof length))
      return false;
    length = LoadScalar<std::uint64_t>(&length, m_swap);
    if (!IsStorableLength(length) || length > fileLength - record) return false;
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
  const std::uint64_t indexEnd = m_index.End();
  std::vector<std::uint64_t> lost;
  IndexWalker walker(file, m_index, m_swap, m_index.CountIn(fileLength));
  while (walker.Next()) {
    for (std::size_t i = 0; i < walker.Size(); ++i) {
      const std::uint64_t value = walker.Value(i);
      if (value == 0) continue;  // most of a large grid
      const std::uint64_t record = Format::PositionOf(value);
      if (!Format::HoldsRecord(Format::StatusOf(value)) || record < indexEnd) continue;
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
  return Fail(ZrCause::kNoMemory);
}

// The last record may end behind the file: a light writer leaves unused capacity unwritten, and a
// loss of power may have torn it, perhaps within the length itself: then its head is left free.
bool Tail::ReadStatedEnd(const ZrFileStream& file, std::uint64_t fileLength) {
  if (m_lastRecord == 0) return true;
  std::uint64_t length;
  if (fileLength - m_lastRecord < sizeof length) {
    Claim(m_lastRecord + Format::kGridRecordHead);
    return true;
  }
  if (!file.ReadAt(m_lastRecord, &length, sizeof length)) return false;
  length = LoadScalar<std::uint64_t>(&length, m_swap);
  if (IsStorableLength(length)) Claim(m_lastRecord + length);
  return true;
}

}  // namespace Zarn::Io
