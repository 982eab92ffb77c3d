#include "Engine.h"

namespace Zarn::Engine {

// The calling thread's record buffer; null while nothing is open, or if memory is short.
ZrByteArray* Engine::GetSwapData() {
  if (ZrByteArray* const own = m_buffers.FindOwn()) return own;
  return m_file != nullptr ? m_buffers.GetSwapData(m_file->GetShape().swap) : nullptr;
}

bool Engine::IsReadOnly() const {
  const ProcessLock& lock = m_locks.GetProcessLock();
  return File().GetStream()->IsReadOnly() || (!lock.IsDisabled() && lock.IsLockReadOnly());
}

unsigned int Engine::SetAt(const ZrCellStore& store) {
  WriteOperation operation(m_locks, m_buffers, Operation::kStore);
  if (store.capacity > Format::kMaxCapacity) return ZrResult::kWriteFailure;
  if (!operation.IsOpen()) return ZrResult::kNotOpen;
  if (!operation.IsUsable() || IsReadOnly()) return ZrResult::kWriteFailure;
  return StoreOne(store, operation);
}

// A new tile disturbs no lookup; whatever else there is, a lookup may be reading.
unsigned int Engine::StoreOne(const ZrCellStore& store, WriteOperation& operation) {
  CellIndex* const cells = File().Cells();
  if (store.data == nullptr || cells == nullptr) return ZrResult::kWriteFailure;
  const auto span = Format::ResolveStore(store.capacity, store.offset, store.data->GetSize());
  TileEntry entry;
  if (!span || !cells->Read(store.row, store.col, entry) ||
      (entry.status != Format::kStatusEmpty && !operation.ExcludeLookups()))
    return ZrResult::kWriteFailure;
  return StoreTile(entry, nullptr, {*store.data, *span, store.version, {}});
}

// Stores into the tile of an entry and writes the entry; `slot`: of a name, to which it belongs.
unsigned int Engine::StoreTile(TileEntry& entry, NameSlot* slot, const StoreRequest& request) {
  ZrByteArray* const buffer = GetSwapData();
  if (buffer == nullptr) {
    // The operation unlocks once more at its end, and the lock takes no harm from it.
    m_locks.GetProcessLock().WriterUnlock();
    return ZrResult::kWriteFailure;
  }
  TileStore tiles = File().MakeStore(*buffer);
  if (!tiles.StoreIntoTile(entry, request)) return ZrResult::kWriteFailure;
  IndexEntries& index = File().Index();
  index.KeepHint(entry);
  entry.FollowCompleteness(request.span);
  if (slot != nullptr ? File().Names()->UpdateNamingIndex(*slot) : index.WriteIndexValue(entry))
    return ZrResult::kOk;
  tiles.PutBack();
  return ZrResult::kWriteFailure;
}

unsigned int Engine::Lookup(unsigned int row, unsigned int col, ZrByteArray& data,
                            unsigned long long& filledLength, std::uint64_t version) {
  filledLength = 0;
  ReadOperation operation(m_locks, m_buffers);
  ZrByteArray* const buffer = operation.IsUsable() ? GetSwapData() : nullptr;
  CellIndex* const cells = buffer != nullptr ? File().Cells() : nullptr;
  TileEntry entry;
  if (cells == nullptr || !cells->ReadForLookup(row, col, File().Map(), entry))
    return ZrResult::kReadFailure;
  if (entry.status == Format::kStatusEmpty) {
    data.Resize(0);
    return ZrResult::kNotFound;
  }
  if (!entry.HoldsRecord()) return ZrResult::kReadFailure;
  operation.LeaveMutex();
  cells->AddHint(entry);
  const unsigned int result = TileStore::LookUp_Inner(File().GetPlace(), *buffer, entry, nullptr,
                                                      data, filledLength, version);
  if (result == ZrResult::kOk) cells->KeepHint(entry);
  return result;
}

unsigned int Engine::Remove(unsigned int row, unsigned int col, std::uint64_t version) {
  WriteOperation operation(m_locks, m_buffers);
  ZrByteArray* const buffer = operation.IsUsable() ? GetSwapData() : nullptr;
  CellIndex* const cells = buffer != nullptr ? File().Cells() : nullptr;
  TileEntry entry;
  if (cells == nullptr || !cells->Read(row, col, entry)) return ZrResult::kWriteFailure;
  return RemoveVersion(entry, *buffer, version);
}

// Without versions there is nothing that could be removed.
unsigned int Engine::RemoveVersion(TileEntry& entry, ZrByteArray& buffer, std::uint64_t version) {
  if (!entry.HoldsRecord() || !File().HasVersions()) return ZrResult::kOk;
  TileStore tiles = File().MakeStore(buffer);
  if (!tiles.RemoveFromTile(entry, version, IsReadOnly())) return ZrResult::kWriteFailure;
  File().Index().KeepHint(entry);
  if (File().Index().WriteIndexValue(entry)) return ZrResult::kOk;
  tiles.PutBack();
  return ZrResult::kWriteFailure;
}

}  // namespace Zarn::Engine
