#include <new>

#include "Engine.h"

namespace Zarn::Engine {
namespace {

bool LoadDiskFile(const PelmUnicodeString& path, ZrByteArray& data) try {
  ZrFile64 file;
  return file.Open(path, ZrFile64::kRead) && file.Load(data);
} catch (const std::bad_alloc&) {
  return false;
}

}  // namespace

unsigned int Engine::SetAt(const PelmUnicodeString& name, const ZrByteArray& data,
                           std::uint64_t capacity, std::uint64_t offset, std::uint64_t version) {
  if (const auto cache = GetCacheFile()) return cache->AddFile(data, name);
  if (!Format::ResolveStore(capacity, offset, data.GetSize()) || !NameKey::IsUsable(name))
    return ZrResult::kWriteFailure;
  WriteOperation operation(m_locks, m_buffers);
  if (!operation.IsOpen()) return ZrResult::kNotOpen;
  if (!operation.IsUsable() || IsReadOnly()) return ZrResult::kWriteFailure;
  try {
    return StoreOne({name, &data, capacity, offset, version}, operation);
  } catch (const std::bad_alloc&) {
    return ZrResult::kWriteFailure;
  }
}

unsigned int Engine::SetAt(const PelmUnicodeString& name, const PelmUnicodeString& filePath,
                           std::uint64_t version) {
  if (const auto cache = GetCacheFile()) return cache->AddFile(filePath, name);
  ZrByteArray data;
  if (!LoadDiskFile(filePath, data)) return ZrResult::kWriteFailure;
  return SetAt(name, data, 0, 0, version);
}

unsigned int Engine::SetAt(unsigned int row, unsigned int col, const PelmUnicodeString& filePath,
                           std::uint64_t version) {
  ZrByteArray data;
  if (!LoadDiskFile(filePath, data)) return ZrResult::kWriteFailure;
  return SetAt({row, col, &data, 0, 0, version});
}

unsigned int Engine::StoreOne(const ZrNameStore& store, WriteOperation&) {
  ZrByteArray* const buffer = GetSwapData();
  NameIndex* const names = File().Names();
  if (buffer == nullptr || names == nullptr || store.data == nullptr ||
      !NameKey::IsUsable(store.name))
    return ZrResult::kWriteFailure;
  const auto span = Format::ResolveStore(store.capacity, store.offset, store.data->GetSize());
  const NameKey key(store.name, File().GetShape());
  if (!span || !key.IsStorable()) return ZrResult::kWriteFailure;
  // The index grows before the name is looked up, deliberately also for one that is there.
  if (names->IsFull() && !GrowIndex()) return ZrResult::kWriteFailure;
  NameSlot slot;
  TileStore tiles = File().MakeStore(*buffer);
  if (!names->GetNamingIdxValue(key, tiles, slot)) return ZrResult::kWriteFailure;
  std::string scratch;
  StoreRequest request = {*store.data, *span, store.version, {}};
  if (!slot.entry.HoldsRecord()) {
    slot.entry.status = Format::kStatusEmpty;
    request.name = key.GetStoredName(scratch);
  }
  return StoreTile(slot.entry, &slot, request);
}

// The new index goes to the end of the data.
bool Engine::GrowIndex() {
  OpenFile& file = File();
  Io::Tail& tail = file.GetTail();
  if (!file.Names()->IncreaseNamingIndexCapacity(tail.Reserve(*file.GetStream()))) return false;
  tail.SetIndex(file.Names()->GetShape());
  return true;
}

unsigned int Engine::Lookup(const PelmUnicodeString& name, ZrByteArray& data,
                            unsigned long long& filledLength, std::uint64_t version) {
  filledLength = 0;
  if (const auto cache = GetCacheFile()) return cache->ReadFile(name, data);
  if (name.IsEmpty()) return ZrResult::kReadFailure;
  ReadOperation operation(m_locks, m_buffers);
  if (!operation.IsUsable() || File().Names() == nullptr) return ZrResult::kReadFailure;
  unsigned int result = ZrResult::kReadFailure;
  try {
    result = LookupName(NameKey(name, File().GetShape()), operation, data, filledLength, version);
  } catch (const std::bad_alloc&) {
  }
  if (result == ZrResult::kNotFound) data.Resize(0);
  return result;
}

// A hash that only one name has needs no look at that name beforehand: it is compared in the record
// that is read anyway.
unsigned int Engine::LookupName(const NameKey& key, ReadOperation& operation, ZrByteArray& data,
                                unsigned long long& filledLength, std::uint64_t version) {
  ZrByteArray* const buffer = GetSwapData();
  if (buffer == nullptr) return ZrResult::kReadFailure;
  NameIndex& names = *File().Names();
  const TileStore::Place place = File().GetPlace();
  NameSlot slot;
  const std::uint32_t candidates = names.GetSameHashCodeCount(key.GetHashCode());
  if (candidates == 0) return ZrResult::kNotFound;
  if (candidates == 1) {
    if (!names.ReadSlot(key.GetHashCode(), slot)) return ZrResult::kReadFailure;
  } else {
    TileStore tiles(place, *buffer);
    if (!names.GetNamingIdxValue(key, tiles, slot))
      return slot.isNew ? ZrResult::kNotFound : ZrResult::kReadFailure;
  }
  TileEntry& entry = slot.entry;
  if (entry.status == Format::kStatusEmpty) return ZrResult::kNotFound;

  operation.LeaveMutex();
  if (entry.HoldsRecord()) {
    names.AddHint(entry);
    const unsigned int result =
        TileStore::LookUp_Inner(place, *buffer, entry, &key, data, filledLength, version);
    if (result != ZrResult::kReadFailure) {
      names.KeepHint(entry);
      return result;
    }
    entry.recordLength = 0;
  }
  // A record that cannot be read may have the name; one that can, and has another, is not meant.
  entry.isHeadRead = false;
  TileStore tiles(place, *buffer);
  return NameIndex::HasName(entry, key, tiles) == false ? ZrResult::kNotFound
                                                        : ZrResult::kReadFailure;
}

unsigned int Engine::Remove(const PelmUnicodeString& name, std::uint64_t version) {
  if (const auto cache = GetCacheFile()) return cache->RemoveFile(name, 0, 0);
  const WriteOperation operation(m_locks, m_buffers);
  ZrByteArray* const buffer = operation.IsUsable() ? GetSwapData() : nullptr;
  NameIndex* const names = buffer != nullptr ? File().Names() : nullptr;
  if (names == nullptr) return ZrResult::kWriteFailure;
  try {
    NameSlot slot;
    TileStore tiles = File().MakeStore(*buffer);
    if (!names->GetNamingIdxValue(NameKey(name, File().GetShape()), tiles, slot) || slot.isNew)
      return ZrResult::kWriteFailure;
    return RemoveVersion(slot.entry, *buffer, version);
  } catch (const std::bad_alloc&) {
    return ZrResult::kWriteFailure;
  }
}

ZrCompactFile::ZrStatus Engine::GetStatus(const PelmUnicodeString& name) {
  if (name.IsEmpty()) return ZrCompactFile::kUnknown;
  const ReadOperation operation(m_locks, m_buffers);
  ZrByteArray* const buffer = operation.IsUsable() ? GetSwapData() : nullptr;
  if (buffer == nullptr || File().Names() == nullptr) return ZrCompactFile::kUnknown;
  try {
    NameSlot slot;
    TileStore tiles = File().MakeStore(*buffer);
    // Of a record that cannot be read, too, the slot tells.
    const NameKey key(name, File().GetShape());
    if (!File().Names()->GetNamingIdxValue(key, tiles, slot) && slot.isNew)
      return ZrCompactFile::kEmpty;
    return static_cast<ZrCompactFile::ZrStatus>(slot.entry.status);
  } catch (const std::bad_alloc&) {
    return ZrCompactFile::kUnknown;
  }
}

// The writer's lock, deliberately, although nothing is written.
bool Engine::GetValidNamingList(PelmArray<PelmUnicodeString>& names) {
  if (const auto cache = GetCacheFile()) return cache->ListFiles(names) == 0;
  const WriteOperation operation(m_locks, m_buffers);
  if (!operation.IsUsable() || File().Names() == nullptr) return false;
  try {
    return File().Names()->List(File().GetShape(), names);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace Zarn::Engine
