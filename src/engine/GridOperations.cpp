#include "Header.h"
#include "IndexPages.h"
#include "OperationLock.h"
#include "RecordReader.h"
#include "StoreArguments.h"
#include "Tile.h"
#include "ZrCompactFile.h"

namespace Zarn {

using Engine::OperationLock;
using Engine::TileEntry;

unsigned int ZrCompactFile::SetAt(unsigned int row, unsigned int col, const ZrByteArray& data,
                                  unsigned long long capacity, unsigned long long offset,
                                  unsigned long long version) {
  OperationLock lock(*this, OperationLock::kStore);
  if (capacity > kMaxCapacity) return ZrResult::kWriteFailure;
  if (!m_bOpened) return ZrResult::kNotOpen;
  if (!lock.IsUsable() || IsReadOnly()) return ZrResult::kWriteFailure;
  return StoreCell({row, col, &data, capacity, offset, version}, lock);
}

// A new tile disturbs nobody; whatever else there is, somebody may be reading.
unsigned int ZrCompactFile::StoreCell(const ZrCellStore& store, OperationLock& lock) {
  if (store.data == nullptr) return ZrResult::kWriteFailure;
  const auto span = Format::ResolveStore(store.capacity, store.offset, store.data->GetSize());
  TileEntry entry;
  Engine::RecordBackup backup;
  if (!span || !ReadGridSlot(store.row, store.col, entry) ||
      (entry.status != Format::kStatusEmpty && !lock.ExcludeLookups()) ||
      !StoreIntoTile(entry, {*store.data, *span, store.version, {}}, backup))
    return ZrResult::kWriteFailure;
  entry.FollowCompleteness(*span);
  if (WriteIndexValue(entry)) return ZrResult::kOk;
  PutBack(backup);
  return ZrResult::kWriteFailure;
}

unsigned int ZrCompactFile::Lookup(unsigned int row, unsigned int col, ZrByteArray& data,
                                   unsigned long long& filledLength, unsigned long long version) {
  filledLength = 0;
  OperationLock lock(*this, OperationLock::kReader);
  TileEntry entry;
  ZrByteArray* buffer = lock.IsUsable() ? GetSwapData() : nullptr;
  if (buffer == nullptr || !ReadSharedSlot(row, col, entry)) return ZrResult::kReadFailure;
  if (entry.status == Format::kStatusEmpty) {
    data.Resize(0);
    return ZrResult::kNotFound;
  }
  if (!entry.HoldsRecord()) return ZrResult::kReadFailure;
  lock.LeaveMutex();
  return LookUp_Inner(entry, nullptr, *buffer, data, filledLength, version);
}

unsigned int ZrCompactFile::Remove(unsigned int row, unsigned int col, unsigned long long version) {
  OperationLock lock(*this, OperationLock::kWriter);
  TileEntry entry;
  if (!lock.IsUsable() || GetSwapData() == nullptr || !ReadGridSlot(row, col, entry))
    return ZrResult::kWriteFailure;
  // Without versions there is nothing that could be removed.
  if (!entry.HoldsRecord() || !HasVersions()) return ZrResult::kOk;
  Engine::RecordBackup backup;
  if (!RemoveFromTile(entry, version, backup)) return ZrResult::kWriteFailure;
  if (WriteIndexValue(entry)) return ZrResult::kOk;
  PutBack(backup);
  return ZrResult::kWriteFailure;
}

}  // namespace Zarn
