#include "ZrCompactFileReader.h"

#include <algorithm>

#include "Header.h"
#include "IndexValue.h"
#include "RecordReader.h"

namespace Zarn {

unsigned int ZrCompactFileReader::Open(const PelmUnicodeString& path,
                                       const PelmUnicodeString& password,
                                       ZrCompactFile::ZrOpenMode mode) {
  m_nSettled = 0;
  return OpenExisting(path, password, mode, kRead);
}

bool ZrCompactFileReader::Close() {
  CloseStream();
  return true;
}

// What was read is the cell's unless its entry has changed meanwhile: it may have been half
// written, or have led to the copy of a tile that is being rewritten. That copy is at the end of
// the file and is cut off, and then another tile's record may be there. Below a record nothing is
// ever cut off.
unsigned int ZrCompactFileReader::Lookup(unsigned int row, unsigned int col, ZrByteArray& data,
                                         unsigned long long& nFilled, unsigned long long nVersion) {
  if (!IsOpen()) return ZrResult::kNotOpen;
  unsigned long long entry;
  unsigned long long sizeHint;
  if (!FindRecord(row, col, entry, sizeHint)) return ZrResult::kReadFailure;
  Io::RecordReader record(*this, Format::kGridFile, m_bSwap);
  for (;;) {
    nFilled = 0;
    if (!Format::HoldsRecord(Format::StatusOf(entry))) {
      data.Resize(0);
      return ZrResult::kOk;
    }
    const unsigned long long position = Format::PositionOf(entry);
    const bool isRead = position >= GetDataStart() &&
                        record.Read(position, {Format::kGridRecordHead, sizeHint}, m_payload) &&
                        record.Head().length >= Format::kGridRecordHead;
    if (isRead && position < m_nSettled) break;
    const unsigned long long before = entry;
    if (!FindRecord(row, col, entry, sizeHint)) return ZrResult::kReadFailure;
    if (entry != before) continue;
    if (!isRead) return ZrResult::kReadFailure;
    break;
  }
  if (record.Versions().SelectForLookup(nVersion) != 0)
    return ZrResult::kOk;  // an older version, which this class deliberately does not follow
  data.SwapContents(m_payload);
  nFilled = std::min(record.Head().filledLength, record.Head().capacity);
  return ZrResult::kOk;
}

// With the size of its payload, as far as that can be told before the head is read.
bool ZrCompactFileReader::FindRecord(unsigned int row, unsigned int col, unsigned long long& entry,
                                     unsigned long long& sizeHint) {
  unsigned long long entries[2];
  const unsigned int got = ReadEntries(row, col, entries, 2);
  if (got == 0 || Format::HeaderView(m_header).FileKind() != Format::kGridFile) return false;
  for (unsigned int i = 0; i < got; ++i)
    if (Format::HoldsRecord(Format::StatusOf(entries[i])))
      m_nSettled = std::max<unsigned long long>(m_nSettled, Format::PositionOf(entries[i]));
  entry = entries[0];
  const unsigned long long length = got == 2 ? Format::DistanceToNext(entry, entries[1]) : 0;
  sizeHint = length > Format::kGridRecordHead ? length - Format::kGridRecordHead : 0;
  return true;
}

}  // namespace Zarn
