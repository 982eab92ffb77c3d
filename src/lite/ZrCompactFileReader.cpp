#include "ZrCompactFileReader.h"

#include <algorithm>

#include "Header.h"
#include "IndexValue.h"
#include "RecordReader.h"

namespace Zarn {

namespace {

// A writer changes the entry of a cell at most four times per store, for moments.
constexpr int kMostAttempts = 16;

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

// Nothing keeps a writer out. An entry may be read half old, half new; and it may lead to the copy
// of a record that is being rewritten. The writer cuts the copy off again, and the record of
// another cell may take its place. So the entry must be the same after the record was read.
unsigned int ZrCompactFileReader::Lookup(unsigned int row, unsigned int col, ZrByteArray& data,
                                         unsigned long long& nFilled, unsigned long long nVersion) {
  if (!IsOpen()) return ZrResult::kNotOpen;
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    unsigned long long entry;
    unsigned long long sizeHint;
    if (!FindRecord(row, col, entry, sizeHint)) return ZrResult::kReadFailure;
    nFilled = 0;
    if (!Format::HoldsRecord(Format::StatusOf(entry))) {
      data.Resize(0);
      return ZrResult::kOk;
    }
    Io::RecordReader record(*this, {.swap = m_bSwap});
    const bool isRead = ReadRecord(Format::PositionOf(entry), sizeHint, record);
    unsigned long long now;
    if (!ReadIndexValue(row, col, now)) return ZrResult::kReadFailure;
    if (now != entry) continue;
    if (!isRead) return ZrResult::kReadFailure;
    if (record.Versions().SelectForLookup(nVersion) != 0)
      return ZrResult::kOk;  // an older version, which this class deliberately does not follow
    record.HandOver(m_payload, data);
    nFilled = std::min(record.Head().filledLength, record.Head().capacity);
    return ZrResult::kOk;
  }
  return ZrResult::kReadFailure;
}

bool ZrCompactFileReader::ReadRecord(unsigned long long position, unsigned long long sizeHint,
                                     Io::RecordReader& record) {
  return position >= GetDataStart() &&
         record.Read(position, {Format::kGridRecordHead, sizeHint}, m_payload) &&
         record.Head().length >= Format::kGridRecordHead;
}

// Reads the cell's entry, and hints at the size of the payload.
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
