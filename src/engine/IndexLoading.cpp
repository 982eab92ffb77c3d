#include <algorithm>
#include <new>

#include "DataEnd.h"
#include "FileState.h"
#include "IndexValue.h"
#include "OperationLock.h"
#include "ReplaceWord.h"
#include "SharedEntries.h"
#include "Tile.h"
#include "ZrCompactFile.h"

namespace Zarn {

void RefeshIndexCallBack(void* owner) {
  auto* const file = static_cast<ZrCompactFile*>(owner);
  if (file == nullptr) return;
  const std::lock_guard lock(file->m_mutex);
  if (file->m_bOpened) file->RefreshIndex();
}

// Without the mode's bit the lock is never touched: it would cost system calls and do nothing.
bool ZrCompactFile::ProcessLockInit() {
  m_bLockDisabled = (m_nOpenMode & kProcessLock) == 0;
  if (m_bLockDisabled) return true;
  constexpr unsigned int kLastUsable = 1;
  if (ZrProcess::ProcessLockInit(m_strAbsolutePath) <= kLastUsable) return true;
  ProcessLockRelease();
  return false;
}

// Loads headers and index of the file that the members name, or of the file that has taken its
// place. What was known stays until everything is loaded; if that fails, the index counts as
// invalid, and every operation tries again before it does anything. A stream that can write, though
// the mode says read-only, is of a file just created: only the load that takes it into use, with
// `keepsWriting`, keeps it.
unsigned int ZrCompactFile::RefreshIndex(bool keepsWriting) {
  const std::lock_guard lock(m_mutex);
  const Engine::LookupBarrier barrier(*this);
  if (m_pMap != nullptr) m_pMap->Forget();
  const bool isReadOnly = (m_nOpenMode & kReadOnly) != 0 && !keepsWriting;
  const bool mustReopen = isReadOnly && m_file != nullptr && !m_file->IsReadOnly();
  if (!mustReopen && HasOnlyOtherTiles()) {
    ForgetTiles();
    SetStateLoaded(true);
    return ZrResult::kOk;
  }
  m_bSharedLookups = false;
  Engine::FileState state = GetState();
  unsigned int result = ZrResult::kNotUsable;
  // The lock is always on the file that the path leads to.
  if (mustReopen) state.file = nullptr;
  const bool isOpen = isLocked() && state.file != nullptr && IsLockOn(*state.file);
  try {
    result = LoadFileState({m_strAbsolutePath, isReadOnly, (m_nOpenMode & kMapped) != 0,
                            !m_bLockDisabled, m_xorString, isOpen},
                           state);
  } catch (const std::bad_alloc&) {
  }
  // The path may have come to name another file since the lock was taken, on which nobody waits; by
  // finishing a replacement, too.
  const bool isChecked = isOpen && state.file == m_file;
  if (result == ZrResult::kOk && isLocked() && !isChecked && !IsLockOn(*state.file))
    result = ZrResult::kNotUsable;
  if (result == ZrResult::kOk) {
    Publish(state);
    m_nLoadedFile = isLocked() ? GetLockedFile() : 0;
    m_bSharedLookups = m_bLockDisabled;
  } else {
    m_mapHashCode = nullptr;  // it may have been added to
    const std::lock_guard guard(m_stateMutex);
    m_bIndexValid = false;
  }
  SetStateLoaded(result == ZrResult::kOk);
  return result;
}

// Whether the lock is on a grid file whose headers are those that were loaded: then what another
// process has changed are tiles.
bool ZrCompactFile::HasOnlyOtherTiles() const {
  const Format::HeaderView header(m_header);
  if (!m_bIndexValid || !isLocked() || m_nLoadedFile != GetLockedFile() ||
      header.FileKind() != Format::kGridFile || header.IndexOffset() != Format::kHeaderSize)
    return false;
  const auto index = Format::EncodeGridHeader({m_nRowCount, m_nColCount, m_nGridFlags}, m_bSwap);
  unsigned char now[Format::kHeaderSize + Format::kGridHeaderSize];
  const std::uint64_t got = m_pMap != nullptr ? m_pMap->ReadUpTo(0, now, sizeof now)
                                              : m_file->ReadUpTo(0, now, sizeof now);
  return got == sizeof now && std::equal(m_headerOnDisk.begin(), m_headerOnDisk.end(), now) &&
         std::equal(index.begin(), index.end(), now + Format::kHeaderSize);
}

void ZrCompactFile::ForgetTiles() {
  m_bDataEndFound = false;
  m_nFileEnd = 0;
  m_pDataEnd->end = 0;
  m_pIndex->Forget();
}

Engine::FileState ZrCompactFile::GetState() const {
  const auto [maxSize1, maxSize2] = GetMaxSizes();
  return {m_file,
          m_header,
          m_bSwap,
          {m_nRowCount, m_nColCount, m_nGridFlags},
          {m_nNamingCapacity, m_nNamingCount, maxSize1, maxSize2, m_nNamingFlags},
          m_pIndex,
          m_mapHashCode,
          m_pMap};
}

void ZrCompactFile::Publish(Engine::FileState& state) {
  m_bDataEndFound = false;
  m_nFileEnd = 0;
  m_pDataEnd->end = 0;
  if (m_file != state.file || m_header != state.header) *m_pDataEnd = {};
  if (m_bSwap != state.swap) ForgetBuffers();
  const std::lock_guard guard(m_stateMutex);
  m_file.swap(state.file);  // the old ones go when the accessors can go on
  m_pIndex.swap(state.index);
  m_mapHashCode.swap(state.names);
  m_pMap.swap(state.map);
  m_header = state.header;
  m_headerOnDisk = Io::EncodeFileHeader(state.header, state.swap, m_xorString);
  m_bSwap = state.swap;
  m_nRowCount = state.grid.rowCount;
  m_nColCount = state.grid.colCount;
  m_nGridFlags = state.grid.flags;
  m_nNamingCapacity = state.naming.capacity;
  m_nNamingCount = state.naming.count;
  m_nNamingFlags = state.naming.flags;
  if (Format::HeaderView(m_header).FileKind() == Format::kNamingFile) {
    m_dMaxSize1 = state.naming.maxSize1;
    m_dMaxSize2 = state.naming.maxSize2;
  }
  m_bIndexValid = true;
}

bool ZrCompactFile::IsDeadLocked() const { return isLocked(); }

unsigned int ZrCompactFile::GetIndexInfo(unsigned int& first, unsigned int& second) const {
  std::unique_lock state(m_stateMutex);
  const std::shared_ptr<ZrCacheFile> cache = m_pCacheFile;
  if (cache != nullptr) {
    state.unlock();
    constexpr unsigned int kCacheFileKind = 3;
    ZrCacheFileStatus status;
    cache->GetStatus(status, 0);
    first = status.first;
    second = status.second;
    return kCacheFileKind;
  }
  const std::uint32_t kind = Format::HeaderView(m_header).FileKind();
  if (kind == Format::kGridFile) {
    first = m_nRowCount;
    second = m_nColCount;
  } else if (kind == Format::kNamingFile) {
    first = static_cast<unsigned int>(m_nNamingCapacity);
    second = static_cast<unsigned int>(m_nNamingCount);
  }
  return kind;
}

bool ZrCompactFile::IsVersionEnabled() const {
  const std::lock_guard state(m_stateMutex);
  return HasVersions();
}

bool ZrCompactFile::HasVersions() const {
  const std::uint32_t kind = Format::HeaderView(m_header).FileKind();
  const std::uint32_t flags = kind == Format::kGridFile     ? m_nGridFlags
                              : kind == Format::kNamingFile ? m_nNamingFlags
                                                            : 0;
  return (flags & Format::kVersionsEnabled) != 0;
}

// First byte behind the current index area.
unsigned long long ZrCompactFile::GetIndexEnd() const {
  const Format::HeaderView header(m_header);
  if (header.FileKind() == Format::kGridFile)
    return Format::GridDataStart(header.IndexOffset(), m_nRowCount, m_nColCount);
  return Format::NamingSlotOffset(header.IndexOffset(), m_nNamingCapacity);
}

bool ZrCompactFile::GetGridIdxValue(unsigned int row, unsigned int col,
                                    unsigned long long& value) const {
  std::unique_lock state(m_stateMutex);
  const auto cell = FindCell(row, col);
  if (!m_bIndexValid || !cell) return false;
  const std::shared_ptr<Engine::IndexPages> index = m_pIndex;
  const bool swap = m_bSwap;
  const Format::HeaderImage header = m_headerOnDisk;
  bool isThere = m_bLockDisabled;
  try {
    isThere = isThere || m_file->IsSameFile(m_strAbsolutePath);
  } catch (const std::bad_alloc&) {
    // The lock knows whether it is.
  }
  state.unlock();
  std::uint64_t stored;
  const bool read =
      isThere && (m_bLockDisabled ? index->ReadValue(*cell, swap, stored)
                                  : index->ReadValueUnlocked(*cell, swap, header, stored));
  if (read) value = stored;
  return read || (!m_bLockDisabled && ReadGridIdxValueLocked(row, col, value));
}

// Another process has compacted the file, or is doing so, or another file has the path, or none:
// the answer is that of the new file, once it is there.
bool ZrCompactFile::ReadGridIdxValueLocked(unsigned int row, unsigned int col,
                                           unsigned long long& value) const {
  const Engine::OperationLock lock(const_cast<ZrCompactFile&>(*this),
                                   Engine::OperationLock::kReader);
  Engine::TileEntry entry;
  if (!lock.IsUsable() || !ReadSharedSlot(row, col, entry)) return false;
  value = entry.stored;
  return true;
}

std::optional<std::uint32_t> ZrCompactFile::FindCell(unsigned int row, unsigned int col) const {
  if (Format::HeaderView(m_header).FileKind() != Format::kGridFile) return std::nullopt;
  return Format::GridCellNumber(m_nRowCount, m_nColCount, row, col);
}

ZrCompactFile::ZrStatus ZrCompactFile::GetStatus(unsigned int row, unsigned int col) const {
  unsigned long long value;
  if (!GetGridIdxValue(row, col, value)) return kUnknown;
  return static_cast<ZrStatus>(Format::StatusOf(value));
}

bool ZrCompactFile::ReadGridSlot(unsigned int row, unsigned int col,
                                 Engine::TileEntry& entry) const {
  const auto cell = FindCell(row, col);
  std::uint64_t stored;
  if (!cell || !m_pIndex->ReadStableValue(*cell, m_bSwap, stored)) return false;
  entry = {*cell, stored};
  return true;
}

// The same for a lookup. In a cell that was empty another process may have stored a tile meanwhile:
// for that it keeps no lookups out. All other entries are as they were when the lock was taken.
bool ZrCompactFile::ReadSharedSlot(unsigned int row, unsigned int col,
                                   Engine::TileEntry& entry) const {
  const bool isAlone = m_bLockDisabled || m_bLockHeld;
  if (isAlone || m_pMap == nullptr) {
    if (!ReadGridSlot(row, col, entry)) return false;
    if (isAlone || entry.status != Format::kStatusEmpty) return true;
  }
  const auto cell = FindCell(row, col);
  if (!cell) return false;
  std::uint64_t stored;
  if (!m_pIndex->ReadNewValue(*cell, m_pMap.get(), stored)) return false;
  entry = {*cell, stored};
  return true;
}

// Writes an index value that has changed, to the file first: what the kernel has not taken must not
// be believed in memory. A failed write, which may have stopped half-way, is taken back.
bool ZrCompactFile::WriteIndexValue(Engine::TileEntry& entry) {
  if (entry.Value() == entry.stored) return true;
  const Format::HeaderView header(m_header);
  const bool isGrid = header.FileKind() == Format::kGridFile;
  const std::uint64_t start = isGrid ? Format::GridEntryOffset(header.IndexOffset(), 0)
                                     : Format::NamingSlotOffset(header.IndexOffset(), 0);
  const std::uint64_t offset =
      entry.number * std::uint64_t{isGrid ? Format::kGridEntrySize : Format::kNamingSlotSize};
  const bool isNew = isGrid && Format::StatusOf(entry.stored) == Format::kStatusEmpty;
  const bool isSeen = !m_bLockDisabled || Io::SpansPages(start + offset, sizeof entry.stored);
  std::uint64_t before;
  std::uint64_t after;
  StoreScalar(&before, entry.stored, m_bSwap);
  StoreScalar(&after, entry.Value(), m_bSwap);
  if ((isNew && isSeen ? Io::FillEmptyEntry(*m_file, start + offset, entry.Value(), m_bSwap)
                       : Io::ReplaceWord(*m_file, start + offset, before, after)) &&
      m_pIndex->Write(offset, &after, sizeof after)) {
    entry.stored = entry.Value();
    return true;
  }
  m_file->WriteAt(start + offset, &before, sizeof before);
  if (!isNew) m_pIndex->Forget();  // lookups may be reading beside one that is new
  return false;
}

}  // namespace Zarn
