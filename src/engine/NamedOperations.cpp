#include <new>

#include "Header.h"
#include "IndexPages.h"
#include "NameKey.h"
#include "NameTable.h"
#include "OperationLock.h"
#include "RecordReader.h"
#include "StoreArguments.h"
#include "Tile.h"
#include "ZrCompactFile.h"

namespace Zarn {

using Engine::NameKey;
using Engine::NameSlot;
using Engine::OperationLock;

namespace {

bool LoadDiskFile(const PelmUnicodeString& path, ZrByteArray& data) {
  try {
    ZrFile64 file;
    return file.Open(path, ZrFile64::kRead) && file.Load(data);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace

std::shared_ptr<ZrCacheFile> ZrCompactFile::GetCacheFile() const {
  if (!m_bHasCacheFile) return nullptr;
  const std::lock_guard state(m_stateMutex);
  return m_pCacheFile;
}

unsigned int ZrCompactFile::SetAt(const PelmUnicodeString& name, const ZrByteArray& data,
                                  unsigned long long capacity, unsigned long long offset,
                                  unsigned long long version) {
  if (const auto cache = GetCacheFile()) return cache->AddFile(data, name);
  if (!Format::ResolveStore(capacity, offset, data.GetSize()) || !NameKey::IsUsable(name))
    return ZrResult::kWriteFailure;
  const OperationLock lock(*this, OperationLock::kWriter);
  if (!m_bOpened) return ZrResult::kNotOpen;
  if (!lock.IsUsable() || IsReadOnly()) return ZrResult::kWriteFailure;
  try {
    return StoreName({name, &data, capacity, offset, version});
  } catch (const std::bad_alloc&) {
    return ZrResult::kWriteFailure;
  }
}

unsigned int ZrCompactFile::StoreName(const ZrNameStore& store) {
  if (store.data == nullptr || !NameKey::IsUsable(store.name)) return ZrResult::kWriteFailure;
  const auto span = Format::ResolveStore(store.capacity, store.offset, store.data->GetSize());
  ZrByteArray* buffer = GetSwapData();
  if (!span || buffer == nullptr || !IsNaming()) return ZrResult::kWriteFailure;
  const NameKey key(store.name, Format::HeaderView(m_header).FormatVersion(), m_bSwap);
  NameSlot slot;
  // The index grows before the name is looked up, deliberately also for one that is there.
  if (!key.IsStorable() || !IncreaseNamingIndexCapacity() || !GetNamingIdxValue(key, *buffer, slot))
    return ZrResult::kWriteFailure;
  std::string scratch;
  std::string_view stored;
  if (!slot.entry.HoldsRecord()) {
    slot.entry.status = Format::kStatusEmpty;
    stored = key.GetStoredBytes(scratch);
  }
  Engine::RecordBackup backup;
  if (!StoreIntoTile(slot.entry, {*store.data, *span, store.version, {key.GetCharset(), stored}},
                     backup))
    return ZrResult::kWriteFailure;
  slot.entry.FollowCompleteness(*span);
  if (UpdateNamingIndex(slot)) return ZrResult::kOk;
  PutBack(backup);
  return ZrResult::kWriteFailure;
}

unsigned int ZrCompactFile::SetAt(const PelmUnicodeString& name, const PelmUnicodeString& filePath,
                                  unsigned long long version) {
  if (const auto cache = GetCacheFile()) return cache->AddFile(filePath, name);
  ZrByteArray data;
  if (!LoadDiskFile(filePath, data)) return ZrResult::kWriteFailure;
  return SetAt(name, data, 0, 0, version);
}

unsigned int ZrCompactFile::SetAt(unsigned int row, unsigned int col,
                                  const PelmUnicodeString& filePath, unsigned long long version) {
  ZrByteArray data;
  if (!LoadDiskFile(filePath, data)) return ZrResult::kWriteFailure;
  return SetAt(row, col, data, 0, 0, version);
}

unsigned int ZrCompactFile::Lookup(const PelmUnicodeString& name, ZrByteArray& data,
                                   unsigned long long& filledLength, unsigned long long version) {
  filledLength = 0;
  if (const auto cache = GetCacheFile()) return cache->ReadFile(name, data);
  if (name.IsEmpty()) return ZrResult::kReadFailure;
  OperationLock lock(*this, OperationLock::kReader);
  if (!lock.IsUsable() || !IsNaming()) return ZrResult::kReadFailure;
  unsigned int result = ZrResult::kReadFailure;
  try {
    const NameKey key(name, Format::HeaderView(m_header).FormatVersion(), m_bSwap);
    result = LookupName(key, lock, data, filledLength, version);
  } catch (const std::bad_alloc&) {
  }
  if (result == ZrResult::kNotFound) data.Resize(0);
  return result;
}

// A hash that only one name has needs no look at that name beforehand: it is compared in the record
// that is read anyway.
unsigned int ZrCompactFile::LookupName(const NameKey& key, OperationLock& lock, ZrByteArray& data,
                                       unsigned long long& filledLength,
                                       unsigned long long version) {
  ZrByteArray* buffer = GetSwapData();
  if (buffer == nullptr) return ZrResult::kReadFailure;
  NameSlot slot;
  const std::uint32_t candidates = m_mapHashCode->CountSame(key.GetHashCode());
  if (candidates == 0) return ZrResult::kNotFound;
  if (candidates == 1) {
    if (!ReadSlot(key.GetHashCode(), slot)) return ZrResult::kReadFailure;
  } else if (!GetNamingIdxValue(key, *buffer, slot)) {
    return slot.isNew ? ZrResult::kNotFound : ZrResult::kReadFailure;
  }
  if (slot.entry.status == Format::kStatusEmpty) return ZrResult::kNotFound;

  lock.LeaveMutex();
  if (slot.entry.HoldsRecord()) {
    const unsigned int result =
        LookUp_Inner(slot.entry, &key, *buffer, data, filledLength, version);
    if (result != ZrResult::kReadFailure) return result;
  }
  // A record that cannot be read may have the name; one that can, and has another, is not meant.
  return HasName(slot.entry, key, *buffer) == false ? ZrResult::kNotFound : ZrResult::kReadFailure;
}

unsigned int ZrCompactFile::Remove(const PelmUnicodeString& name, unsigned long long version) {
  if (const auto cache = GetCacheFile()) return cache->RemoveFile(name, 0, 0);
  const OperationLock lock(*this, OperationLock::kWriter);
  ZrByteArray* buffer = lock.IsUsable() ? GetSwapData() : nullptr;
  if (buffer == nullptr || !IsNaming()) return ZrResult::kWriteFailure;
  try {
    const NameKey key(name, Format::HeaderView(m_header).FormatVersion(), m_bSwap);
    NameSlot slot;
    if (!GetNamingIdxValue(key, *buffer, slot) || slot.isNew) return ZrResult::kWriteFailure;
    if (!slot.entry.HoldsRecord() || !HasVersions()) return ZrResult::kOk;
    Engine::RecordBackup backup;
    if (!RemoveFromTile(slot.entry, version, backup)) return ZrResult::kWriteFailure;
    if (UpdateNamingIndex(slot)) return ZrResult::kOk;
    PutBack(backup);
    return ZrResult::kWriteFailure;
  } catch (const std::bad_alloc&) {
    return ZrResult::kWriteFailure;
  }
}

ZrCompactFile::ZrStatus ZrCompactFile::GetStatus(const PelmUnicodeString& name) {
  if (name.IsEmpty()) return kUnknown;
  const OperationLock lock(*this, OperationLock::kReader);
  ZrByteArray* buffer = lock.IsUsable() ? GetSwapData() : nullptr;
  if (buffer == nullptr || !IsNaming()) return kUnknown;
  try {
    const NameKey key(name, Format::HeaderView(m_header).FormatVersion(), m_bSwap);
    NameSlot slot;
    // Of a record that cannot be read, too, the slot tells.
    if (!GetNamingIdxValue(key, *buffer, slot) && slot.isNew) return kEmpty;
    return static_cast<ZrStatus>(slot.entry.status);
  } catch (const std::bad_alloc&) {
    return kUnknown;
  }
}

}  // namespace Zarn
