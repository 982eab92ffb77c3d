#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "DataEnd.h"
#include "Header.h"
#include "IndexValue.h"
#include "Neighbours.h"
#include "RecordImage.h"
#include "RecordReader.h"
#include "ReplaceWord.h"
#include "Tile.h"
#include "ZrCompactFile.h"
#include "ZrThread.h"

namespace Zarn {

// The calling thread's buffer, made on first use; the map of them is also the list of the object's
// users. Null while nothing is open, or if memory is short.
ZrByteArray* ZrCompactFile::GetSwapData() {
  std::atomic<ZrByteArray*>* const known = FindBuffer();
  if (known != nullptr && *known != nullptr) return *known;
  if (!m_bOpened) return nullptr;
  try {
    std::unique_ptr<ZrByteArray>& buffer = m_mapSwapData[ZrThread::GetCurrentThreadId()];
    if (buffer == nullptr) buffer = std::make_unique<ZrByteArray>();
    buffer->SetSwap(m_bSwap);
    if (known != nullptr) *known = buffer.get();
    return buffer.get();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// Where the calling thread's buffer is kept for a quick look; null for threads of high numbers.
std::atomic<ZrByteArray*>* ZrCompactFile::FindBuffer() {
  const std::uint32_t thread = ZrThread::GetCurrentThreadId();
  return thread < m_buffers.size() ? &m_buffers[thread] : nullptr;
}

// With m_readers held exclusively. They are found again, and told the byte order, when asked for.
void ZrCompactFile::ForgetBuffers() {
  for (auto& buffer : m_buffers)
    buffer = nullptr;
}

bool ZrCompactFile::IsReadOnly() const {
  return m_file->IsReadOnly() || (!m_bLockDisabled && IsLockReadOnly());
}

bool ZrCompactFile::IsRecordPlace(unsigned long long position, unsigned long long length) const {
  const Format::IndexArea index = {Format::HeaderView(m_header).IndexOffset(), GetIndexEnd()};
  return index.LeavesRoom(position, length);
}

// Behind the last byte of the file; behind the index, of which a damaged file may have lost the
// end; behind what the last record claims, which a light writer may not have written; and where no
// entry leads that has lost its record. 0 if the file cannot be read, or an index value could not
// name the position.
unsigned long long ZrCompactFile::GetAppendPosition() {
  std::uint64_t length = std::exchange(m_nFileEnd, 0);
  if ((length == 0 && !m_file->GetLength(length)) || !FindDataEnd(length)) return 0;
  m_nLengthBefore = length;
  const unsigned long long end = Io::NextPlace(
      m_pDataEnd->lost, std::max<std::uint64_t>({length, GetIndexEnd(), m_pDataEnd->end}));
  m_pDataEnd->ownStart = std::min<std::uint64_t>(m_pDataEnd->ownStart, end);
  return end <= Format::kPositionMask - Format::kGridRecordHead - kMaxCapacity ? end : 0;
}

// Once for each file, and again when another process has changed it, which a stub may have done.
bool ZrCompactFile::FindDataEnd(unsigned long long fileLength) {
  if (m_pDataEnd->end <= fileLength) m_pDataEnd->end = 0;
  if (m_bDataEndFound || IsNaming()) return true;
  const Format::IndexArea index = {Format::HeaderView(m_header).IndexOffset(), GetIndexEnd()};
  m_bDataEndFound = Io::FindDataEnd(*m_file, index, m_bSwap, fileLength, *m_pDataEnd);
  return m_bDataEndFound;
}

Format::RecordImage ZrCompactFile::MakeImage(ZrByteArray& buffer) const {
  return Format::RecordImage(buffer, Format::HeaderView(m_header).Records(m_bSwap));
}

// Reads the head of a record into an image. `guessedLength` is the record's; 0: unknown.
bool ZrCompactFile::ReadHead(unsigned long long position, unsigned long long guessedLength,
                             Format::RecordImage& image) const {
  Io::RecordReader record(*m_file, Format::HeaderView(m_header).Records(m_bSwap), m_pMap.get());
  return record.ReadHead(position, guessedLength, image.Bytes()) &&
         record.Head().versionCount > 0 && IsRecordPlace(position, record.Head().length) &&
         image.Parse();
}

// Completes an image that holds only the head of the record at `position`.
bool ZrCompactFile::ReadDataFromDataFile(unsigned long long position,
                                         Format::RecordImage& image) const {
  const Format::RecordHead& head = image.Head();
  ZrByteArray& bytes = image.Bytes();
  return bytes.Resize(head.length) &&
         m_file->ReadAt(position + head.size, bytes.GetData() + head.size, head.length - head.size);
}

// Writes the head in the image and the data at its place behind it, and nothing else.
bool ZrCompactFile::WriteHeadAndData(unsigned long long position, const Format::RecordImage& image,
                                     const Engine::TileStore& store) {
  const unsigned char* head = image.Bytes().GetData();
  const std::uint64_t headSize = image.Head().size;
  const ZrByteArray& data = store.data;
  if (store.span.offset == 0)
    return m_file->WriteParts(position, head, headSize, data.GetData(), data.GetSize());
  return m_file->WriteAt(position + headSize + store.span.offset, data.GetData(), data.GetSize()) &&
         m_file->WriteAt(position, head, headSize);
}

// Writes the whole record in the image, at the end of the file or where it was. Returns where; 0 on
// failure, or if the buffer holds less than the record states.
unsigned long long ZrCompactFile::WriteDataToDataFile(unsigned long long position, bool append,
                                                      const Format::RecordImage& image) {
  const std::uint64_t length = image.Head().length;
  if (append) position = GetAppendPosition();
  const bool written = position != 0 && length <= image.Bytes().GetSize() &&
                       m_file->WriteAt(position, image.Bytes().GetData(), length);
  return written ? position : 0;
}

// Makes a record the one that counts.
bool ZrCompactFile::PointTo(Engine::RecordReference& reference, unsigned long long position) {
  if (reference.locatorPlace == 0) {
    reference.entry.position = position;
    return WriteIndexValue(reference.entry);
  }
  const auto locator = Format::PackIndexValue(Format::StatusOf(reference.locator), position);
  return ReplaceLocator(reference, locator);
}

bool ZrCompactFile::ReplaceLocator(Engine::RecordReference& reference, unsigned long long locator) {
  std::uint64_t before;
  std::uint64_t after;
  StoreScalar(&before, reference.locator, m_bSwap);
  StoreScalar<std::uint64_t>(&after, locator, m_bSwap);
  if (!Io::ReplaceWord(*m_file, reference.locatorPlace, before, after)) return false;
  reference.locator = locator;
  return true;
}

// Puts the record in the image, with the data if there is a store, where it does not grow. A write
// of a killed process stops between two pages. So the record is at the end of the file by now, as
// `copy`, and that is the one that counts while its place is overwritten. Then the place counts
// again, and the file gets the length that it had before the copy, which may lie behind room that
// a light writer has reserved. Returns where the record is; 0 if it is as it was.
unsigned long long ZrCompactFile::MoveHome(Engine::RecordReference& reference,
                                           unsigned long long copy, unsigned long long home,
                                           const Format::RecordImage& image,
                                           const Engine::TileStore* store) {
  const std::uint64_t length = image.Head().length;
  if (copy == 0 || !PointTo(reference, copy)) return 0;
  const bool written = store != nullptr ? WriteHeadAndData(home, image, *store)
                                        : WriteDataToDataFile(home, false, image) != 0;
  if (!written || !PointTo(reference, home)) return copy;
  std::uint64_t fileLength;
  if (m_file->GetLength(fileLength) && fileLength == copy + length)
    m_file->SetLength(m_nLengthBefore);
  return home;
}

// Keeps the bytes that a write within one page is about to replace. Such a write may stop half-way
// all the same, as at a limit on the size of files.
bool ZrCompactFile::BackUp(Engine::RecordBackup& backup, unsigned long long position,
                           unsigned long long size) {
  backup.position = position;
  if (backup.bytes.ResizeForOverwrite(size) &&
      m_file->ReadAt(position, backup.bytes.GetData(), size))
    return true;
  backup = {};
  return false;
}

// Whatever part of these bytes could be replaced can be written again.
void ZrCompactFile::PutBack(const Engine::RecordBackup& backup) {
  m_file->WriteAt(backup.position, backup.bytes.GetData(), backup.bytes.GetSize());
}

// Whether the record was appended since the file was opened.
bool ZrCompactFile::IsOwnRecord(unsigned long long position) const {
  return IsNaming() || position >= m_pDataEnd->ownStart;
}

// Whether a write of these bytes of the record at `position`, which it has not filled, runs over
// another tile's.
bool ZrCompactFile::RunsOverRecord(unsigned long long position, unsigned long long from,
                                   unsigned long long to) const {
  return from < to && !IsOwnRecord(position) &&
         Io::RunsOverRecord(*m_file, m_bSwap, position + from, position + to);
}

// Puts the record in the image over the one at `position`, which is no shorter, unless another
// tile's record lies in its room.
unsigned long long ZrCompactFile::RewriteRecord(Engine::RecordReference& reference,
                                                unsigned long long position,
                                                const Format::RecordImage& image,
                                                Engine::RecordBackup& backup) {
  const Format::RecordHead& head = image.Head();
  if (RunsOverRecord(position, head.size + std::min(head.filledLength, head.capacity), head.length))
    return WriteDataToDataFile(0, true, image);
  if (!Io::SpansPages(position, image.Head().length)) {
    if (!BackUp(backup, position, image.Head().length)) return 0;
    if (WriteDataToDataFile(position, false, image) != 0) return position;
    PutBack(backup);
    return 0;
  }
  return MoveHome(reference, WriteDataToDataFile(0, true, image), position, image, nullptr);
}

// Puts the data into the payload area of an image that holds the whole record. Where the area
// grows beyond the record, it is zero.
bool ZrCompactFile::UpdateSwapData(Format::RecordImage& image, const Engine::TileStore& store) {
  image.SetPayload(store.span.capacity, store.span.FilledLength());
  if (!image.Bytes().Resize(image.Head().length)) return false;
  std::memcpy(image.Bytes().GetData() + image.Head().size + store.span.offset, store.data.GetData(),
              store.data.GetSize());
  return true;
}

// Appends the record in the image with the data in its payload area. Data that covers the whole
// area is written from where it is, and only the head of the image counts.
unsigned long long ZrCompactFile::AppendSwapData(Format::RecordImage& image,
                                                 const Engine::TileStore& store) {
  if (!store.span.CoversAll())
    return UpdateSwapData(image, store) ? WriteDataToDataFile(0, true, image) : 0;
  image.SetPayload(store.span.capacity, store.span.FilledLength());
  const unsigned long long position = GetAppendPosition();
  return position != 0 && WriteHeadAndData(position, image, store) ? position : 0;
}

// Appends a record that is new altogether. What the data leaves of its payload area reads as zero,
// and has its room on the disk: a later piece must not fail for want of it.
unsigned long long ZrCompactFile::AppendNewRecord(Format::RecordImage& image,
                                                  const Engine::TileStore& store) {
  const unsigned long long position = GetAppendPosition();
  if (position == 0 || !WriteHeadAndData(position, image, store)) return 0;
  if (store.span.CoversAll()) {
    if (!m_bLockDisabled) m_nFileEnd = position + image.Head().length;
    return position;
  }
  const std::uint64_t payload = position + image.Head().size;
  const std::uint64_t filled = store.span.FilledLength();
  const bool hasRoom = m_file->ZeroFill(payload, store.span.offset) &&
                       m_file->ZeroFill(payload + filled, store.span.capacity - filled);
  return hasRoom ? position : 0;
}

}  // namespace Zarn
