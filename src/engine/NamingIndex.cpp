#include <algorithm>
#include <new>

#include "FileState.h"
#include "IndexValue.h"
#include "NameHash.h"
#include "NameKey.h"
#include "OperationLock.h"
#include "RecordImage.h"
#include "RecordReader.h"
#include "ReplaceWord.h"
#include "Tile.h"
#include "ZrCompactFile.h"

namespace Zarn {

using Engine::NameKey;
using Engine::NameSlot;
using Engine::TileEntry;

namespace {

// Writes a header that lies on two pages, field by field; all that ever change have eight bytes.
// The count goes last of them: once it is there, nothing can fail any more.
bool WriteByFields(ZrFile64& file, std::uint64_t position, const Format::NamingHeaderImage& image) {
  constexpr std::size_t kFlags = Format::kNamingFlagsOffset;
  Format::NamingHeaderImage now;
  if (!file.ReadAt(position, now.data(), now.size())) return false;
  if (!file.WriteAt(position + kFlags, &image[kFlags], image.size() - kFlags)) return false;
  for (std::size_t field = kFlags; field > 0;) {
    field -= Format::kWidth8;
    const auto before = LoadScalar<std::uint64_t>(&now[field], false);
    const auto after = LoadScalar<std::uint64_t>(&image[field], false);
    if (before != after && !Io::ReplaceWord(file, position + field, before, after)) return false;
  }
  return true;
}

}  // namespace

bool ZrCompactFile::IsNaming() const {
  return Format::HeaderView(m_header).FileKind() == Format::kNamingFile;
}

// Finds the slot of a name, or the code under which it would get one. The walk through the names of
// one hash deliberately stops at the first slot whose tile is gone, even if the name follows
// further on: that slot is then taken for the name. The head of the record that has the name stays
// in the buffer.
//
// False, with `slot.isNew`, if all ordinals are taken by other names. False without, if it cannot
// be told: no record that could be read has the name, and that of `slot` could not; or not even the
// index could, and the slot's status is unknown.
bool ZrCompactFile::GetNamingIdxValue(const NameKey& key, ZrByteArray& buffer,
                                      NameSlot& slot) const {
  std::uint64_t probe = key.GetHashCode();
  const std::uint32_t run = m_mapHashCode->CountSame(probe);
  std::optional<NameSlot> unreadable;  // the first one
  std::uint32_t i = 0;
  for (; i < run; ++i) {
    if (!ReadSlot(probe, slot)) return false;
    if (slot.entry.status == Format::kStatusEmpty) break;
    const auto matches = HasName(slot.entry, key, buffer);
    if (matches == true) return true;
    if (!matches && !unreadable) unreadable = slot;
    probe = Format::NextHashCode(probe);
  }
  if (unreadable) {
    slot = *unreadable;
    return false;
  }
  if (i < run) return true;
  slot = {{static_cast<std::uint32_t>(m_nNamingCount), 0}, probe, true};
  return run <= Format::kLastOrdinal;
}

// The slot of a code that the table has.
bool ZrCompactFile::ReadSlot(std::uint64_t code, NameSlot& slot) const {
  const std::uint32_t number = *m_mapHashCode->Find(code);
  std::uint64_t value;
  const bool isRead = m_pIndex->ReadStableValue(number, m_bSwap, value);
  if (!isRead) value = Format::PackIndexValue(Format::kStatusUnknown, 0);
  slot = {{number, value}, code, false};
  return isRead;
}

// Whether the record of an entry has this name; nothing if the record cannot be read, and so may
// have any. Its head is left in the buffer.
std::optional<bool> ZrCompactFile::HasName(TileEntry& entry, const NameKey& key,
                                           ZrByteArray& buffer) const {
  Format::RecordImage image = MakeImage(buffer);
  entry.isHeadRead = ReadHead(entry.position, m_pIndex->GetHint(entry.number), image);
  if (!entry.isHeadRead) return std::nullopt;
  const std::string_view name = image.Name().bytes;
  return key.Matches(reinterpret_cast<const unsigned char*>(name.data()), name.size());
}

Io::NameRead ZrCompactFile::GetKeyString(unsigned long long recordPosition,
                                         ZrByteArray& key) const {
  if (!IsRecordPlace(recordPosition, Format::kNameOffset)) return Io::NameRead::kNone;
  return Io::RecordReader(*m_file, Format::HeaderView(m_header).Records(m_bSwap))
      .ReadName(recordPosition, key);
}

bool ZrCompactFile::UpdateNamingIndex(NameSlot& slot) {
  return slot.isNew ? AddSlots(&slot, 1) : WriteIndexValue(slot.entry);
}

// Writes slots of new names, behind those in use. They are written before they are counted in, so
// that an operation cut short leaves no trace.
bool ZrCompactFile::AddSlots(const NameSlot* slots, unsigned long long count) {
  const std::uint64_t newCount = m_nNamingCount + count;
  const std::uint64_t size = count * Format::kNamingSlotSize;
  unsigned char one[Format::kNamingSlotSize];
  ZrByteArray many;
  if (newCount > m_nNamingCapacity || !m_mapHashCode->Reserve(m_mapHashCode->GetSize() + count) ||
      (count > 1 && !many.ResizeForOverwrite(size)))
    return false;
  unsigned char* const bytes = count > 1 ? many.GetData() : one;
  for (std::uint64_t i = 0; i < count; ++i) {
    unsigned char* slot = bytes + i * Format::kNamingSlotSize;
    StoreScalar(slot, slots[i].entry.Value(), m_bSwap);
    StoreScalar(slot + Format::kWidth8, slots[i].code, m_bSwap);
  }
  const std::uint64_t indexOffset = Format::HeaderView(m_header).IndexOffset();
  const std::uint64_t position = Format::NamingSlotOffset(indexOffset, m_nNamingCount);
  if (!m_file->WriteAt(position, bytes, size) ||
      !WriteNamingHeader(indexOffset, m_nNamingCapacity, newCount)) {
    WriteNamingHeader(indexOffset, m_nNamingCapacity, m_nNamingCount);
    m_file->ZeroFill(position, size);
    m_pIndex->Forget();
    return false;
  }
  // The file has them now, also if what is in memory cannot follow.
  if (!m_pIndex->Write(m_nNamingCount * Format::kNamingSlotSize, bytes, size)) m_pIndex->Forget();
  for (std::uint64_t i = 0; i < count; ++i)
    m_mapHashCode->Insert(slots[i].code, slots[i].entry.number);
  const std::lock_guard state(m_stateMutex);
  m_nNamingCount = newCount;
  return true;
}

bool ZrCompactFile::WriteNamingHeader(unsigned long long indexOffset, unsigned long long capacity,
                                      unsigned long long count) {
  const auto [maxSize1, maxSize2] = GetMaxSizes();
  const auto image =
      Format::EncodeNamingHeader({capacity, count, maxSize1, maxSize2, m_nNamingFlags}, m_bSwap);
  return Io::SpansPages(indexOffset, image.size())
             ? WriteByFields(*m_file, indexOffset, image)
             : m_file->WriteAt(indexOffset, image.data(), image.size());
}

// Doubles a full index: a new area at the end of the file, to which the header then points. Until
// the header is written the file is as it was; the area counts only once it is on the disk.
bool ZrCompactFile::IncreaseNamingIndexCapacity() {
  if (m_nNamingCount < m_nNamingCapacity) return true;
  const std::uint64_t capacity = 2 * m_nNamingCapacity;
  if (m_nNamingCapacity == 0 || capacity > Format::kMaxNamingCapacity) return false;
  const std::uint64_t oldStart =
      Format::NamingSlotOffset(Format::HeaderView(m_header).IndexOffset(), 0);
  const std::uint64_t oldSize = m_nNamingCapacity * Format::kNamingSlotSize;
  const std::uint64_t newOffset = GetAppendPosition();
  const std::uint64_t newStart = Format::NamingSlotOffset(newOffset, 0);

  // An index of which the file has lost a part does not count as full, whatever it states.
  std::uint64_t length;
  if (!m_file->GetLength(length) || length < oldStart + oldSize) return false;
  std::shared_ptr<Engine::IndexPages> index;
  try {
    index = std::make_shared<Engine::IndexPages>(
        m_file, Engine::IndexPages::Area{Format::IndexShape::OfNames(newOffset, capacity)});
  } catch (const std::bad_alloc&) {
    return false;
  }
  // All the room first: a full disk shows before anything is copied.
  if (newOffset == 0 || !index->IsUsable() ||
      !m_file->ZeroFill(newOffset, Format::kNamingHeaderSize + 2 * oldSize) ||
      !WriteNamingHeader(newOffset, capacity, m_nNamingCount) ||
      !CopySlots(oldStart, newStart, oldSize) || !m_file->Sync()) {
    m_file->SetLength(length);  // lest every attempt take more of the disk
    return false;
  }
  Format::HeaderImage header = m_header;
  Format::SetIndexOffset(header, newOffset);
  if (!Io::WriteFileHeader(*m_file, m_xorString, header, m_bSwap)) {
    Io::WriteFileHeader(*m_file, m_xorString, m_header, m_bSwap);
    return false;
  }
  const std::lock_guard state(m_stateMutex);
  m_header = header;
  m_nNamingCapacity = capacity;
  m_pIndex.swap(index);
  return true;
}

bool ZrCompactFile::CopySlots(unsigned long long from, unsigned long long to,
                              unsigned long long size) {
  constexpr unsigned long long kPiece = 1 << 20;
  ZrByteArray piece;
  if (!piece.ResizeForOverwrite(std::min(kPiece, size))) return false;
  for (unsigned long long done = 0; done < size;) {
    const unsigned long long now = std::min(piece.GetSize(), size - done);
    if (!m_file->ReadAt(from + done, piece.GetData(), now) ||
        !m_file->WriteAt(to + done, piece.GetData(), now))
      return false;
    done += now;
  }
  return true;
}

// The writer's lock, deliberately, although nothing is written.
bool ZrCompactFile::GetValidNamingList(PelmArray<PelmUnicodeString>& names) {
  if (const auto cache = GetCacheFile()) return cache->ListFiles(names) == 0;
  const Engine::OperationLock lock(*this, Engine::OperationLock::kWriter);
  if (!lock.IsUsable() || !IsNaming()) return false;
  const std::uint32_t version = Format::HeaderView(m_header).FormatVersion();
  if (version != Format::kCurrentVersion && version != Format::kOlderVersion) return true;
  try {
    ZrByteArray key;
    std::uint64_t left;  // all names together are no longer than the file
    if (!m_file->GetLength(left)) return false;
    for (const Engine::NameTable::Entry& place : m_mapHashCode->Sorted()) {
      std::uint64_t value;
      if (!m_pIndex->ReadValue(place.slot, m_bSwap, value)) return false;
      const auto read = GetKeyString(Format::PositionOf(value), key);
      if (read == Io::NameRead::kFailed) return false;
      if (read == Io::NameRead::kNone) continue;
      if (key.GetSize() > left) return false;
      left -= key.GetSize();
      std::u16string units;  // stays empty in an older file
      for (std::uint64_t i = 0; version == Format::kCurrentVersion && i + 1 < key.GetSize(); i += 2)
        units.push_back(LoadScalar<std::uint16_t>(key.GetData() + i, m_bSwap));
      names.Add(PelmUnicodeString(std::move(units)));
    }
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

}  // namespace Zarn
