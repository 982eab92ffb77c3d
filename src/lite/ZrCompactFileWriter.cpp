#include "ZrCompactFileWriter.h"

#include <algorithm>
#include <functional>
#include <new>

#include "DataEnd.h"
#include "HeaderIo.h"
#include "IndexHeaders.h"
#include "IndexValue.h"
#include "Neighbours.h"
#include "PathRules.h"
#include "PelmTime.h"
#include "RecordHead.h"
#include "ReplaceWord.h"
#include "StoreArguments.h"
#include "ZrFile.h"
#include "ZrNewFile.h"

namespace Zarn {

static_assert(ZrCompactFile::kMaxCapacity == Format::kMaxCapacity);

// With the head, at least as much as lies in the page where the record begins and is to be written.
struct ZrCompactFileWriter::OldRecord {
  static constexpr std::uint64_t kMost = 4096;

  std::uint64_t size = 0;
  unsigned char bytes[kMost];
};

unsigned int ZrCompactFileWriter::Create(const PelmUnicodeString& path, unsigned int rows,
                                         unsigned int cols, const PelmUnicodeString& password,
                                         ZrCompactFile::ZrOpenMode mode) try {
  Close();
  if (Format::IsCachePath(path)) return ZrResult::kNotUsable;
  // The product wraps at 32 bits before it is compared.
  if (rows == 0 || cols == 0 || rows * cols > Format::kMaxGridCells) return ZrResult::kNotCreated;
  if (!Format::IsUsablePath(path)) return ZrResult::kNotCreated;
  const PelmUnicodeString completed = Format::CompletePath(path);
  if (ZrFile::IsExist(completed)) {
    if ((mode & ZrCompactFile::kReplace) != 0) ZrFile::Delete(completed);
    return ZrResult::kNotCreated;  // deleted or not: a replacing create takes two calls
  }

  SetIdentity(completed, password, mode);
  m_header = Format::PresetHeader();
  m_nRowCount = m_nColCount = m_nGridFlags = 0;
  const PelmUnicodeString directory = ZrFile::GetDir(completed);
  if (!directory.IsEmpty()) ZrFile::MkDirEx(directory);
  ZrNewFile file(*this);
  if (!file.Begin(completed)) return ZrResult::kNotUsable;
  m_bOpened = true;
  if (WriteHeader() != ZrResult::kOk || WriteHeaderGrid(rows, cols) != ZrResult::kOk ||
      file.Publish() != ZrNewFile::Outcome::kPublished) {
    Close();
    return ZrResult::kNotCreated;
  }
  file.Commit();
  m_bDataEndFound = true;
  m_nOwnStart = 0;
  return ZrResult::kOk;
} catch (const std::bad_alloc&) {
  Close();
  return ZrResult::kNotCreated;
}

unsigned int ZrCompactFileWriter::Open(const PelmUnicodeString& path,
                                       const PelmUnicodeString& password,
                                       ZrCompactFile::ZrOpenMode mode) {
  ForgetDataEnd();
  return OpenExisting(path, password, mode, kReadWrite);
}

bool ZrCompactFileWriter::Close() {
  Flush();
  CloseStream();
  ForgetDataEnd();
  return true;
}

void ZrCompactFileWriter::ForgetDataEnd() {
  m_nDataEnd = 0;
  m_lost.clear();
  m_bDataEndFound = false;
  m_nOwnStart = UINT64_MAX;
}

unsigned int ZrCompactFileWriter::WriteHeader() {
  if (!IsOpen()) return ZrResult::kNotUsable;
  if (m_bSwap || (HoldsRecords() && GetIndexOffset() != Format::kHeaderSize))
    return ZrResult::kWriteFailure;
  const Format::HeaderImage header =
      Format::NewHeader(Format::kGridFile, PelmTime().GetCurTime().GetTime());
  if (!Io::WriteFileHeader(*this, m_xorString, header, false)) return ZrResult::kWriteFailure;
  m_header = header;
  Flush();
  return ZrResult::kOk;
}

unsigned int ZrCompactFileWriter::WriteHeaderGrid(unsigned int rows, unsigned int cols) {
  if (m_bSwap || HoldsRecords()) return ZrResult::kWriteFailure;
  const Format::GridHeader header = {rows, cols, m_nGridFlags | Format::kVersionsEnabled};
  const auto image = Format::EncodeGridHeader(header, false);
  const std::uint64_t entries = Format::GridEntryOffset(GetIndexOffset(), 0);
  const std::uint64_t end = Format::GridDataStart(GetIndexOffset(), rows, cols);
  if (!WriteAt(GetIndexOffset(), image.data(), image.size()) || !ZeroFill(entries, end - entries) ||
      !SetLength(end))
    return ZrResult::kWriteFailure;
  m_nRowCount = header.rowCount;
  m_nColCount = header.colCount;
  m_nGridFlags = header.flags;
  Flush();
  return ZrResult::kOk;
}

bool ZrCompactFileWriter::HoldsRecords() const {
  std::uint64_t length;
  return !GetLength(length) || length > GetDataStart();
}

bool ZrCompactFileWriter::WriteIndexValue(unsigned int row, unsigned int col,
                                          unsigned long long value) {
  const auto cell = Format::GridCellNumber(m_nRowCount, m_nColCount, row, col);
  if (!IsOpen() || !cell) return false;
  unsigned long long before;
  if (ReadIndexValue(row, col, before)) return ReplaceIndexValue(row, col, before, value);
  std::uint64_t after;
  StoreScalar<std::uint64_t>(&after, value, m_bSwap);
  return WriteAt(Format::GridEntryOffset(GetIndexOffset(), *cell), &after, sizeof after);
}

// The same for an entry of this grid that was read before. If it fails, the old one is there.
bool ZrCompactFileWriter::ReplaceIndexValue(unsigned int row, unsigned int col,
                                            unsigned long long before, unsigned long long after) {
  const auto cell = Format::GridCellNumber(m_nRowCount, m_nColCount, row, col);
  std::uint64_t stored[2];
  StoreScalar<std::uint64_t>(&stored[0], before, m_bSwap);
  StoreScalar<std::uint64_t>(&stored[1], after, m_bSwap);
  return cell && Io::ReplaceWord(*this, Format::GridEntryOffset(GetIndexOffset(), *cell), stored[0],
                                 stored[1]);
}

unsigned int ZrCompactFileWriter::SetAt(unsigned int row, unsigned int col, const ZrByteArray& data,
                                        unsigned long long nCapacity, unsigned long long nOffset,
                                        unsigned long long nVersion) {
  if (!IsOpen()) return ZrResult::kNotOpen;
  const auto span = Format::ResolveStore(nCapacity, nOffset, data.GetSize());
  unsigned long long entry;
  std::uint64_t fileLength;
  if (!span || !ReadIndexValue(row, col, entry) || !GetLength(fileLength))
    return ZrResult::kWriteFailure;

  OldRecord old;
  const Place place = FindPlace(entry, span->size, span->capacity, fileLength, old);
  if (place == Place::kUnreadable) return ZrResult::kReadFailure;
  if (place == Place::kBeyondFile) return ZrResult::kOk;  // deliberately silent, nothing written

  ZrCompactFile::ZrStatus status;
  const auto write = [&](unsigned long long position) {
    return WriteDataToFile(status, data, span->capacity, nOffset, nVersion, position);
  };
  if (place == Place::kInPlace)
    return Rewrite({row, col, entry}, old, span->size, span->capacity, fileLength, std::ref(write));
  const unsigned long long position = write(GetAppendPosition(fileLength));
  if (position == 0 ||
      !ReplaceIndexValue(row, col, entry, Format::PackIndexValue(status, position)))
    return ZrResult::kWriteFailure;
  return ZrResult::kOk;
}

// Calls `write` to put a record in the place of the cell's. A write of a killed process stops
// between two pages; where it may, a copy at the end of the file is the cell's record meanwhile. A
// write that fails within a page is taken back.
unsigned int ZrCompactFileWriter::Rewrite(const CellEntry& cell, const OldRecord& old,
                                          unsigned long long size, unsigned long long capacity,
                                          unsigned long long fileLength, const RecordWrite& write) {
  const unsigned long long lengthBefore = fileLength;
  const unsigned long long dataEndBefore = m_nDataEnd;
  const std::uint64_t home = Format::PositionOf(cell.value);
  const std::uint64_t written = Format::kGridRecordHead + size;
  const std::uint64_t recordLength = Format::kGridRecordHead + capacity;
  // A last record that grows gets the room first: a full disk must not cost the tile.
  if (home + written > fileLength) {
    if (!ZeroFill(fileLength, home + written - fileLength)) return ZrResult::kWriteFailure;
    fileLength = home + written;
  }
  if (!Io::SpansPages(home, written)) {
    if (write(home) != 0) return ZrResult::kOk;
    WriteAt(home, old.bytes, std::min(old.size, written));
    if (fileLength > lengthBefore) SetLength(lengthBefore);
    return ZrResult::kWriteFailure;
  }

  const unsigned long long copy = GetAppendPosition(fileLength);
  if (copy == 0) return ZrResult::kWriteFailure;
  const unsigned long long dataEnd = std::max<unsigned long long>(m_nDataEnd, home + recordLength);
  if (write(copy) == 0 || !SetLength(copy + recordLength)) {
    if (SetLength(lengthBefore)) m_nDataEnd = dataEndBefore;
    return ZrResult::kWriteFailure;
  }
  const std::uint8_t status = Format::StatusOf(cell.value);  // deliberately stays
  const unsigned long long meanwhile = Format::PackIndexValue(status, copy);
  if (!ReplaceIndexValue(cell.row, cell.col, cell.value, meanwhile)) return ZrResult::kWriteFailure;
  if (write(home) != 0 && ReplaceIndexValue(cell.row, cell.col, meanwhile, cell.value) &&
      SetLength(fileLength))
    m_nDataEnd = dataEnd;
  return ZrResult::kOk;
}

// Where a tile of this size and capacity goes, given its cell's entry. In place needs more than a
// length that looks sufficient: the whole new record must fit into the old one, or the old one be
// the last in the file, and where the old one is not filled there must be no other, so that no
// neighbour is run over.
ZrCompactFileWriter::Place ZrCompactFileWriter::FindPlace(unsigned long long entry,
                                                          unsigned long long size,
                                                          unsigned long long capacity,
                                                          unsigned long long fileLength,
                                                          OldRecord& old) const {
  const std::uint64_t position = Format::PositionOf(entry);
  if (!Format::HoldsRecord(Format::StatusOf(entry)) || position < GetDataStart())
    return Place::kAppend;
  const std::uint64_t written = Format::kGridRecordHead + size;
  const std::uint64_t inPage = OldRecord::kMost - position % OldRecord::kMost;
  const std::uint64_t inFile = fileLength > position ? fileLength - position : 1;
  const std::uint64_t wanted =
      std::max<std::uint64_t>(std::min(inPage, written), Format::kGridRecordHead);
  old.size = ReadUpTo(position, old.bytes, std::min(wanted, inFile));
  if (old.size < Format::kRecordLengthSize) return Place::kUnreadable;
  Format::RecordHead head;
  const auto parse = Format::ParseRecordHead(old.bytes, old.size, Format::kGridFile, m_bSwap, head);
  const std::uint64_t length = head.length;
  if (length < Format::kGridRecordHead) return Place::kAppend;
  if (fileLength < position || length > fileLength - position) return Place::kBeyondFile;

  const bool allowed = !IsVersionEnabled() || length >= Format::kMinGridRecord + capacity;
  const bool harmless =
      length >= Format::kGridRecordHead + capacity || length == fileLength - position;
  if (!allowed || !harmless) return Place::kAppend;
  const std::uint64_t filled = parse.outcome == Format::HeadParse::kComplete
                                   ? head.size + std::min(head.filledLength, head.capacity)
                                   : Format::kGridRecordHead;
  const bool isCrowded = filled < written && position < m_nOwnStart &&
                         Io::RunsOverRecord(*this, m_bSwap, position + filled, position + written);
  return isCrowded ? Place::kAppend : Place::kInPlace;
}

unsigned long long ZrCompactFileWriter::WriteDataToFile(
    ZrCompactFile::ZrStatus& status, const ZrByteArray& data, unsigned long long capacity,
    unsigned long long nOffset, unsigned long long nVersion, unsigned long long position) {
  const auto span = Format::FitSpan(capacity, nOffset, data.GetSize());
  if (!IsOpen() || !span || position < GetDataStart()) return 0;
  const std::uint64_t recordLength = Format::kGridRecordHead + capacity;
  // Beyond what an index value can name, the position would run into the status.
  if (position > Format::kPositionMask || recordLength > Format::kPositionMask - position) return 0;
  status = static_cast<ZrCompactFile::ZrStatus>(span->Status());
  unsigned char head[Format::kGridRecordHead];
  // Host order even in a file of the other order, where only the index is swapped.
  Format::EncodeGridRecordHead(head, {nVersion, span->Status(), capacity, span->FilledLength()},
                               false);
  if (!WriteParts(position, head, sizeof head, data.GetData(), data.GetSize())) return 0;
  m_nDataEnd = std::max<unsigned long long>(m_nDataEnd, position + recordLength);
  Flush();
  return position;
}

// Behind everything: the file's end, the index area, and the stated end of the last record, of
// whose unused capacity nothing may be written yet. 0 if the file cannot be read.
unsigned long long ZrCompactFileWriter::GetAppendPosition(unsigned long long fileLength) {
  if (!m_bDataEndFound && !FindDataEnd(fileLength)) return 0;
  const unsigned long long position =
      Io::NextPlace(m_lost, std::max({m_nDataEnd, fileLength, GetDataStart()}));
  m_nOwnStart = std::min(m_nOwnStart, position);
  return position;
}

bool ZrCompactFileWriter::FindDataEnd(unsigned long long fileLength) {
  Io::DataEnd data;
  if (!Io::FindDataEnd(*this, {GetIndexOffset(), GetDataStart()}, m_bSwap, fileLength, data))
    return false;
  m_nDataEnd = std::max<unsigned long long>(m_nDataEnd, data.end);
  m_lost.swap(data.lost);
  m_bDataEndFound = true;
  return true;
}

}  // namespace Zarn
