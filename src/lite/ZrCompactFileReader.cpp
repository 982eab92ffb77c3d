#include "ZrCompactFileReader.h"

#include <algorithm>

#include "Header.h"
#include "IndexValue.h"
#include "RecordReader.h"

namespace Zarn {

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

// With the size of its payload, as far as that can be told before the head is read.
bool ZrCompactFileReader::FindRecord(unsigned int row, unsigned int col, unsigned long long& entry,
                                     unsigned long long& sizeHint) const {
  unsigned long long entries[2];
  const unsigned int got = ReadEntries(row, col, entries, 2);
  if (got == 0 || Format::HeaderView(m_header).FileKind() != Format::kGridFile) return false;
  entry = entries[0];
  const unsigned long long length = got == 2 ? Format::DistanceToNext(entry, entries[1]) : 0;
  sizeHint = length > Format::kGridRecordHead ? length - Format::kGridRecordHead : 0;
  return true;
}

}  // namespace Zarn
