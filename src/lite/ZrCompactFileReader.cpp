#include "ZrCompactFileReader.h"

#include <algorithm>

#include "Header.h"
#include "IndexValue.h"
#include "RecordReader.h"

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

  const unsigned long long position = Format::PositionOf(entry);
  Io::RecordReader record(*this, Format::kGridFile, m_bSwap);
  if (position < GetDataStart() ||
      !record.Read(position, {Format::kGridRecordHead, sizeHint}, m_payload) ||
      record.Head().length < Format::kGridRecordHead) {
    // An entry that was being written at that moment may have been read half old, half new.
    unsigned long long now;
    const bool hasChanged = ReadIndexValue(row, col, now) && now != entry;
    return hasChanged ? Lookup(row, col, data, nFilled, nVersion) : ZrResult::kReadFailure;
  }
  if (record.Versions().SelectForLookup(nVersion) != 0)
    return ZrResult::kOk;  // an older version, which this class deliberately does not follow
  data.SwapContents(m_payload);
  nFilled = std::min(record.Head().filledLength, record.Head().capacity);
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

}  // namespace Zarn
