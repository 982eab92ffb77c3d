#include "ZrCompactFileReader.h"

#include <algorithm>

#include "Header.h"
#include "IndexValue.h"
#include "RecordHead.h"

namespace Zarn {
namespace {

// Tiles larger than this are read with their head first; guessing wrong would cost more than the
// additional system call.
constexpr unsigned long long kMaxSizeHint = 256 * 1024;

}  // namespace

unsigned int ZrCompactFileReader::Open(const PelmUnicodeString& path,
                                       const PelmUnicodeString& password,
                                       ZrCompactFile::ZrOpenMode mode) {
  return OpenExisting(path, password, mode, kRead);
}

bool ZrCompactFileReader::Close() {
  CloseStream();
  return true;
}

unsigned int ZrCompactFileReader::Lookup(unsigned int row, unsigned int col, ZrByteArray& data,
                                         unsigned long long& nFilled, unsigned long long nVersion) {
  if (!IsOpen()) return ZrResult::kNotOpen;
  unsigned long long entry;
  unsigned long long sizeHint;
  if (!FindRecord(row, col, entry, sizeHint)) return ZrResult::kReadFailure;
  nFilled = 0;
  if (!Format::HoldsRecord(Format::StatusOf(entry))) {
    data.Resize(0);
    return ZrResult::kOk;
  }

  Format::RecordHead head;
  if (!LoadRecord(Format::PositionOf(entry), sizeHint, head)) return ZrResult::kReadFailure;
  if (head.Table(m_head.GetData(), m_bSwap).SelectForLookup(nVersion) != 0)
    return ZrResult::kOk;  // an older version, which this class deliberately does not follow
  data.SwapContents(m_payload);
  nFilled = std::min(head.filledLength, head.capacity);
  return ZrResult::kOk;
}

// Tiles are mostly stored in the order of their cells, so the next cell's record mostly begins
// where this one ends. That gives the payload's size before the head is read.
bool ZrCompactFileReader::FindRecord(unsigned int row, unsigned int col, unsigned long long& entry,
                                     unsigned long long& sizeHint) const {
  unsigned long long entries[2];
  const unsigned int got = ReadEntries(row, col, entries, 2);
  if (got == 0 || Format::HeaderView(m_header).FileKind() != Format::kGridFile) return false;
  entry = entries[0];
  sizeHint = 0;
  if (got == 2 && Format::HoldsRecord(Format::StatusOf(entries[1]))) {
    // A next record that lies before this one makes this a huge number.
    const unsigned long long size =
        Format::PositionOf(entries[1]) - Format::PositionOf(entry) - Format::kGridRecordHead;
    if (size <= kMaxSizeHint) sizeHint = size;
  }
  return true;
}

// Reads the record's head into m_head and its payload area into m_payload. In the usual case, one
// version and a right hint, this is one system call: the full read proves that the record ends
// inside the file.
bool ZrCompactFileReader::LoadRecord(unsigned long long position, unsigned long long sizeHint,
                                     Format::RecordHead& head) {
  constexpr std::uint64_t kHead = Format::kGridRecordHead;
  if (position < GetDataStart()) return false;
  if (!m_head.ResizeForOverwrite(kHead) || !m_payload.ResizeForOverwrite(sizeHint)) return false;
  const std::uint64_t got =
      ReadParts(position, m_head.GetData(), kHead, m_payload.GetData(), sizeHint);
  if (got < kHead) return false;

  Format::HeadParse parse =
      Format::ParseRecordHead(m_head.GetData(), kHead, Format::kGridFile, m_bSwap, head);
  if (head.length < kHead) return false;
  if (parse.outcome == Format::HeadParse::kComplete && head.size == kHead &&
      head.length == kHead + head.capacity && head.capacity <= got - kHead)
    return m_payload.Resize(head.capacity);

  std::uint64_t fileLength;
  if (!GetLength(fileLength) || fileLength < position || head.length > fileLength - position)
    return false;
  while (parse.outcome == Format::HeadParse::kNeedsMore) {
    if (!m_head.ResizeForOverwrite(parse.needed) ||
        !ReadAt(position, m_head.GetData(), parse.needed))
      return false;
    parse =
        Format::ParseRecordHead(m_head.GetData(), parse.needed, Format::kGridFile, m_bSwap, head);
  }
  return parse.outcome == Format::HeadParse::kComplete &&
         m_payload.ResizeForOverwrite(head.capacity) &&
         ReadAt(position + head.size, m_payload.GetData(), head.capacity);
}

}  // namespace Zarn
