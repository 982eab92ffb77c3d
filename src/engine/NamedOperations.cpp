#include <new>
#include <optional>

#include "Cause.h"
#include "LookUp.h"

namespace Zarn::Engine {
namespace {

bool LoadDiskFile(const PelmUnicodeString& path, ZrByteArray& data) try {
  ZrFile64 file;
  return (file.Open(path, ZrFile64::kRead) && file.Load(data)) ||
         Io::FailTogether(ZrCause::kBadSource);
} catch (const std::bad_alloc&) {
  return Io::Fail(ZrCause::kNoMemory);
}

// A class of the host's takes nothing but arrays.
unsigned int AddToCacheFile(ZrCacheFile& cache, const NamedStore& store) {
  if (store.array != nullptr) return cache.AddFile(*store.array, store.name);
  return cache.AddFile(ZrByteArray(store.data.data(), store.data.size()), store.name);
}

}  // namespace

unsigned int Engine::SetAt(const NamedStore& store) try {
  if (m_bHasCacheFile)
    return AskCacheFile([&](ZrCacheFile& cache) { return AddToCacheFile(cache, store); });
  const std::uint64_t size = store.data.size();
  if (!Format::ResolveStore(store.capacity, store.offset, size)) return RefuseStore(size);
  if (!NameKey::IsUsable(store.name)) return RefuseName(store.name);
  const WriteOperation operation(m_locks, m_state);
  if (!operation.IsOpen()) return ZrResult::kNotOpen;
  return MayStore(operation) ? StoreOne(store) : unsigned{ZrResult::kWriteFailure};
} catch (const std::bad_alloc&) {
  return Io::Fail(ZrCause::kNoMemory, ZrResult::kWriteFailure);
}

// The result of a store under a name that is not usable.
unsigned int Engine::RefuseName(const PelmUnicodeString& name) {
  return Io::Fail(name.IsEmpty() ? ZrCause::kEmptyArgument : ZrCause::kTooLong,
                  ZrResult::kWriteFailure);
}

unsigned int Engine::SetAt(const PelmUnicodeString& name, const PelmUnicodeString& filePath,
                           std::uint64_t version) {
  if (m_bHasCacheFile)
    return AskCacheFile([&](ZrCacheFile& cache) { return cache.AddFile(filePath, name); });
  ZrByteArray data;
  if (!LoadDiskFile(filePath, data)) return ZrResult::kWriteFailure;
  return SetAt(NamedStore(name, data, 0, 0, version));
}

unsigned int Engine::SetAt(unsigned int row, unsigned int col, const PelmUnicodeString& filePath,
                           std::uint64_t version) {
  ZrByteArray data;
  if (!LoadDiskFile(filePath, data)) return ZrResult::kWriteFailure;
  return SetAt({row, col, &data, 0, 0, version});
}

unsigned int Engine::StoreOne(const NamedStore& store) {
  ZrByteArray* const buffer = GetSwapData();
  NameIndex* const names = File().Names();
  if (buffer == nullptr) return ZrResult::kWriteFailure;
  if (names == nullptr) return Io::Fail(ZrCause::kWrongKind, ZrResult::kWriteFailure);
  if (!NameKey::IsUsable(store.name)) return RefuseName(store.name);
  const auto span = Format::ResolveStore(store.capacity, store.offset, store.data.size());
  if (!span) return RefuseStore(store.data.size());
  const NameKey key(store.name, File().GetShape());
  if (!key.IsStorable()) return Io::Fail(ZrCause::kBadName, ZrResult::kWriteFailure);
  if (!MakeRoomForName()) return ZrResult::kWriteFailure;
  NameSlot slot;
  TileStore tiles = File().MakeStore(*buffer);
  if (!names->GetNamingIdxValue(key, tiles, slot)) return ZrResult::kWriteFailure;
  std::string scratch;
  StoreRequest request = {store.data, *span, store.version, {}};
  if (!slot.entry.HoldsRecord()) {
    slot.entry.status = Format::kStatusEmpty;
    request.name = key.GetStoredName(scratch);
  }
  return StoreTile(slot.entry, &slot, request);
}

// The index grows before the name is looked up, deliberately also for one that is there.
bool Engine::MakeRoomForName() {
  if (File().Names()->IsFull()) {
    m_locks.AssertMutexHeld();
    m_locks.GetLookups().Stop();
    const bool hasGrown = GrowIndex();
    AdmitLookups();
    if (!hasGrown) return false;
  }
  return ReserveNames(1);
}

// Makes room in memory for new names. Lookups wait only while the table is exchanged.
bool Engine::ReserveNames(std::size_t count) {
  NameIndex* const names = File().Names();
  if (names == nullptr) return true;
  if (!names->Reserve(count)) return false;
  if (!names->HasLargerTable()) return true;
  m_locks.AssertMutexHeld();
  m_locks.GetLookups().Stop();
  names->TakeLargerTable();
  AdmitLookups();
  return true;
}

// The new index goes to the end of the data, which is unknown until the header leads there.
bool Engine::GrowIndex() {
  OpenFile& file = File();
  Io::Tail& tail = file.GetTail();
  const std::uint64_t position = tail.Reserve(*file.GetStream());
  if (!file.GetBoard().SetEnd(0) || !file.Names()->IncreaseNamingIndexCapacity(position))
    return false;
  tail.SetIndex(file.Names()->GetShape());
  tail.EndsAt(file.Names()->GetShape().End());
  return true;
}

unsigned int Engine::Lookup(const PelmUnicodeString& name, ZrByteArray& data, ZrVersion& given,
                            std::uint64_t version) {
  given = {};
  if (m_bHasCacheFile)
    return AskCacheFile([&](ZrCacheFile& cache) { return cache.ReadFile(name, data); });
  if (name.IsEmpty()) return Io::Fail(ZrCause::kEmptyArgument, ZrResult::kReadFailure);
  unsigned int result = ZrResult::kReadFailure;
  TileEntry entry;
  std::optional<NameKey> key;
  std::optional<Io::RecordReader> record;
  const auto read = [&](OpenFile& file, View& view, ZrByteArray* buffer) {
    result = ZrResult::kReadFailure;
    if (file.Names() == nullptr) return !Io::Fail(ZrCause::kWrongKind);
    key.emplace(name, file.GetShape());  // which may be another one than in the last attempt
    record.emplace(*file.GetStream(), file.GetShape(), file.Map());
    result = ReadTile(file, view, *key, version, *buffer, entry, *record);
    if (result == ZrResult::kOk) return true;
    view.UsesMore();
    return file.Names()->IsComplete(view);
  };
  const auto handOver = [&](OpenFile& file, ZrByteArray* buffer) {
    if (result == ZrResult::kNotFound) {
      Io::Fail(ZrCause::kNoTile);  // whatever was noted of other names
      data.Resize(0);
    }
    if (result == ZrResult::kOk) HandOver(file, entry, *record, *buffer, data, given);
  };
  try {
    return LookUp(read, handOver) ? result : ZrResult::kReadFailure;
  } catch (const std::bad_alloc&) {
    return Io::Fail(ZrCause::kNoMemory, ZrResult::kReadFailure);
  }
}

// A hash that only one name has needs no look at that name beforehand: it is compared in the record
// that is read anyway.
unsigned int Engine::ReadTile(OpenFile& file, View& view, const NameKey& key, std::uint64_t version,
                              ZrByteArray& buffer, TileEntry& entry, Io::RecordReader& record) {
  NameIndex& names = *file.Names();
  const TileStore::Place place = file.GetPlace();
  NameSlot slot;
  const std::uint64_t code = key.GetHashCode();
  if (names.GetSameHashCodeCount(code) <= 1) {
    const auto found = names.FindSlot(code, slot, &view);
    if (found == NameIndex::Found::kNone) return ZrResult::kNotFound;
    if (found == NameIndex::Found::kUnreadable) return ZrResult::kReadFailure;
  } else {
    TileStore tiles(place, buffer);
    const bool isFound = names.GetNamingIdxValue(key, tiles, slot, &view);
    view.UsesMore();
    if (!isFound) return slot.isNew ? ZrResult::kNotFound : ZrResult::kReadFailure;
  }
  entry = slot.entry;
  if (entry.status == Format::kStatusEmpty) return ZrResult::kNotFound;
  if (entry.HoldsRecord()) {
    names.AddHint(entry, view);
    const unsigned int result =
        TileStore::LookUp_Inner(place, entry, &key, version, buffer, record);
    if (result != ZrResult::kReadFailure) return result;
    entry.recordLength = 0;
  }
  // A record that cannot be read may have the name; one that can, and has another, is not meant.
  entry.isHeadRead = false;
  TileStore tiles(place, buffer);
  return NameIndex::HasName(entry, key, tiles) == false ? ZrResult::kNotFound
                                                        : ZrResult::kReadFailure;
}

unsigned int Engine::Remove(const PelmUnicodeString& name, std::uint64_t version) {
  if (m_bHasCacheFile)
    return AskCacheFile([&](ZrCacheFile& cache) { return cache.RemoveFile(name, 0, 0); });
  const WriteOperation operation(m_locks, m_state);
  TileEntry entry;
  ZrByteArray* const buffer = operation.IsUsable() ? FindName(name, entry) : nullptr;
  return buffer != nullptr ? RemoveVersion(entry, *buffer, version)
                           : unsigned{ZrResult::kWriteFailure};
}

// The entry of a name that has a slot, and the thread's record buffer, which holds the head of its
// record; null if there is none, or if it cannot be told.
ZrByteArray* Engine::FindName(const PelmUnicodeString& name, TileEntry& entry) try {
  ZrByteArray* const buffer = GetSwapData();
  const NameIndex* const names = File().Names();
  if (names == nullptr) Io::Fail(ZrCause::kWrongKind);
  if (names == nullptr || buffer == nullptr) return nullptr;
  NameSlot slot;
  TileStore tiles = File().MakeStore(*buffer);
  const bool isFound = names->GetNamingIdxValue(NameKey(name, File().GetShape()), tiles, slot);
  if (slot.isNew) Io::Fail(ZrCause::kNoTile);
  entry = slot.entry;
  return isFound && !slot.isNew ? buffer : nullptr;
} catch (const std::bad_alloc&) {
  Io::Fail(ZrCause::kNoMemory);
  return nullptr;
}

ZrCompactFile::ZrStatus Engine::GetStatus(const PelmUnicodeString& name) {
  if (name.IsEmpty()) return Io::Fail(ZrCause::kEmptyArgument, ZrCompactFile::kUnknown);
  ZrCompactFile::ZrStatus status = ZrCompactFile::kUnknown;
  // Of a record that cannot be read, too, the slot tells.
  const auto tell = [&](OpenFile&, const NameSlot* slot, bool isFound) {
    status = slot == nullptr           ? ZrCompactFile::kUnknown
             : !isFound && slot->isNew ? ZrCompactFile::kEmpty
                                       : static_cast<ZrCompactFile::ZrStatus>(slot->entry.status);
  };
  try {
    return LookUpSlot(name, tell) ? status : ZrCompactFile::kUnknown;
  } catch (const std::bad_alloc&) {
    return Io::Fail(ZrCause::kNoMemory, ZrCompactFile::kUnknown);
  }
}

// The writer's lock, deliberately, although nothing is written.
bool Engine::GetValidNamingList(PelmArray<PelmUnicodeString>& names) {
  if (m_bHasCacheFile)
    return AskCacheFile([&](ZrCacheFile& cache) { return cache.ListFiles(names); }) == 0;
  const WriteOperation operation(m_locks, m_state);
  if (!operation.IsUsable()) return false;
  if (File().Names() == nullptr) return Io::Fail(ZrCause::kWrongKind);
  try {
    return File().Names()->List(File().GetShape(), names);
  } catch (const std::bad_alloc&) {
    return Io::Fail(ZrCause::kNoMemory);
  }
}

}  // namespace Zarn::Engine
