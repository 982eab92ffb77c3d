#include <algorithm>
#include <optional>

#include "Cause.h"
#include "LookUp.h"

namespace Zarn::Engine {

// The calling thread's record buffer; null while nothing is open, or if memory is short.
ZrByteArray* Engine::GetSwapData() {
  return m_state.file != nullptr ? m_buffers.GetSwapData(m_state.file->GetShape().swap) : nullptr;
}

bool Engine::IsReadOnly() const {
  const ProcessLock& lock = m_locks.GetProcessLock();
  return File().GetStream()->IsReadOnly() || (!lock.IsDisabled() && lock.IsLockReadOnly());
}

// Whether stores may go on, or else notes why not.
bool Engine::MayStore(const WriteOperation& operation) const {
  return operation.IsUsable() && (!IsReadOnly() || Io::Fail(ZrCause::kReadOnly));
}

// The result of a store whose numbers Format::ResolveStore has refused.
unsigned int Engine::RefuseStore(std::uint64_t size) {
  return Io::Fail(size == 0 ? ZrCause::kEmptyArgument : ZrCause::kOutOfRange,
                  ZrResult::kWriteFailure);
}

unsigned int Engine::SetAt(const ZrCellStore& store) {
  const WriteOperation operation(m_locks, m_state);
  if (store.capacity > Format::kMaxCapacity)
    return Io::Fail(ZrCause::kOutOfRange, ZrResult::kWriteFailure);
  if (!operation.IsOpen()) return ZrResult::kNotOpen;
  if (!MayStore(operation)) return ZrResult::kWriteFailure;
  return StoreOne(store);
}

unsigned int Engine::StoreOne(const ZrCellStore& store) {
  CellIndex* const cells = File().Cells();
  if (cells == nullptr) return Io::Fail(ZrCause::kWrongKind, ZrResult::kWriteFailure);
  const BytesToStore data = BytesOf(store);
  const auto span = Format::ResolveStore(store.capacity, store.offset, data.size());
  TileEntry entry;
  if (!span) return RefuseStore(data.size());
  if (!cells->Read(store.row, store.col, entry)) return ZrResult::kWriteFailure;
  return StoreTile(entry, nullptr, {data, *span, store.version, {}});
}

// Stores into the tile of an entry and writes the entry; `slot`: of a name, to which it belongs.
unsigned int Engine::StoreTile(TileEntry& entry, NameSlot* slot, const StoreRequest& request) {
  ZrByteArray* const buffer = GetSwapData();
  if (buffer == nullptr) {
    // The operation unlocks once more at its end, and the lock takes no harm from it.
    File().GetBoard().EndWriting();
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

unsigned int Engine::Lookup(unsigned int row, unsigned int col, ZrByteArray& data, ZrVersion& given,
                            std::uint64_t version) {
  given = {};
  unsigned int result = ZrResult::kReadFailure;
  TileEntry entry;
  std::optional<Io::RecordReader> record;
  const auto read = [&](OpenFile& file, View& view, ZrByteArray* buffer) {
    result = ZrResult::kReadFailure;
    CellIndex* const cells = file.Cells();
    if (cells == nullptr) Io::Fail(ZrCause::kWrongKind);
    if (cells == nullptr || !cells->Read(row, col, entry, &view)) return true;
    if (entry.status == Format::kStatusEmpty)
      result = ZrResult::kNotFound;
    else if (!entry.HoldsRecord())
      Io::Fail(ZrCause::kDamagedEntry);
    if (!entry.HoldsRecord()) return true;
    cells->AddHint(entry, view);
    record.emplace(*file.GetStream(), file.GetShape(), file.Map());
    result = TileStore::LookUp_Inner(file.GetPlace(), entry, nullptr, version, *buffer, *record);
    return true;
  };
  const auto handOver = [&](OpenFile& file, ZrByteArray* buffer) {
    if (result == ZrResult::kNotFound) data.Resize(0);
    if (result == ZrResult::kOk) HandOver(file, entry, *record, *buffer, data, given);
  };
  return LookUp(read, handOver) ? result : ZrResult::kReadFailure;
}

// Gives a tile that was read to the caller.
void Engine::HandOver(OpenFile& file, const TileEntry& entry, const Io::RecordReader& record,
                      ZrByteArray& buffer, ZrByteArray& data, ZrVersion& given) {
  record.HandOver(buffer, data);
  const Format::RecordHead& head = record.Head();
  given = {entry.givenStamp, head.capacity, std::min(head.filledLength, head.capacity),
           entry.givenStatus};
  // From a mapping, a head is read as quickly without one.
  if (file.Map() == nullptr) file.Index().KeepHint(entry);
}

unsigned int Engine::Remove(unsigned int row, unsigned int col, std::uint64_t version) {
  const WriteOperation operation(m_locks, m_state);
  ZrByteArray* const buffer = operation.IsUsable() ? GetSwapData() : nullptr;
  CellIndex* const cells = buffer != nullptr ? File().Cells() : nullptr;
  if (buffer != nullptr && cells == nullptr) Io::Fail(ZrCause::kWrongKind);
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
