#include <new>
#include <utility>

#include "Engine.h"
#include "StoreBatch.h"

namespace Zarn::Engine {
namespace {

template <typename Store>
Format::NewRecord HeadOf(const Store& store) {
  const std::uint64_t size = store.data->GetSize();
  return {store.version, Format::kStatusComplete, size, size};
}

// A store whose data fill the payload area, so that a record of its own holds nothing else.
template <typename Store>
bool FillsItsRecord(const Store& store) {
  if (store.data == nullptr) return false;
  const auto span = Format::ResolveStore(store.capacity, store.offset, store.data->GetSize());
  return span && span->CoversAll();
}

}  // namespace

unsigned int Engine::SetBatch(const std::vector<ZrCellStore>& stores,
                              std::vector<unsigned int>& results) {
  return StoreAll(stores, results);
}

unsigned int Engine::SetBatch(const std::vector<ZrNameStore>& stores,
                              std::vector<unsigned int>& results) {
  return StoreAll(stores, results);
}

// Where the file as a whole takes no stores, each store by itself says why.
template <typename Store>
unsigned int Engine::StoreAll(const std::vector<Store>& stores,
                              std::vector<unsigned int>& results) {
  try {
    results.assign(stores.size(), ZrResult::kOk);
  } catch (const std::bad_alloc&) {
    return ZrResult::kWriteFailure;
  }
  if (!StoreTogether(stores, results))
    for (std::size_t i = 0; i < stores.size(); ++i)
      results[i] = StoreByItself(stores[i]);
  for (const unsigned int result : results)
    if (result != ZrResult::kOk) return result;
  return ZrResult::kOk;
}

unsigned int Engine::StoreByItself(const ZrCellStore& store) {
  static const ZrByteArray kNothing;
  ZrCellStore one = store;
  if (one.data == nullptr) one.data = &kNothing;
  return SetAt(one);
}

unsigned int Engine::StoreByItself(const ZrNameStore& store) {
  static const ZrByteArray kNothing;
  return SetAt(store.name, store.data != nullptr ? *store.data : kNothing, store.capacity,
               store.offset, store.version);
}

// New tiles are kept back, and written together with the next ones; whatever else is to be stored
// waits until they are in place. False if the file cannot be stored into at all.
template <typename Store>
bool Engine::StoreTogether(const std::vector<Store>& stores, std::vector<unsigned int>& results) {
  if (GetCacheFile() != nullptr) return false;
  WriteOperation operation(m_locks, m_buffers, Operation::kStore);
  if (!operation.IsUsable() || IsReadOnly() || GetSwapData() == nullptr) return false;
  if (File().Names() != nullptr && !operation.ExcludeLookups()) return false;
  File().GetTail().Reserve(*File().GetStream());  // finds where no record may begin
  StoreBatch batch;
  for (std::size_t i = 0; i < stores.size(); ++i) {
    try {
      if (AddToBatch(stores[i], i, batch)) {
        if (batch.IsBlockFull()) WriteBlock(batch, results);
        continue;
      }
      WriteBatch(batch, operation, results);
      results[i] = StoreAlone(stores[i], operation);
    } catch (const std::bad_alloc&) {
      results[i] = ZrResult::kWriteFailure;
    }
  }
  WriteBatch(batch, operation, results);
  return true;
}

bool Engine::AddToBatch(const ZrCellStore& store, std::size_t number, StoreBatch& batch) {
  // Each place counts where records have been lost.
  const CellIndex* const cells = File().Cells();
  if (!FillsItsRecord(store) || cells == nullptr || File().GetTail().HasLostRecords()) return false;
  StoreBatch::Tile tile;
  tile.store = number;
  tile.data = store.data;
  TileEntry& entry = tile.slot.entry;
  if (!cells->Read(store.row, store.col, entry) || entry.status != Format::kStatusEmpty ||
      batch.Holds(entry.number))
    return false;
  entry.status = Format::kStatusComplete;
  tile.head.resize(Format::kGridRecordHead);
  Format::EncodeRecordHead(tile.head.data(), File().GetShape(), {}, HeadOf(store));
  const std::uint64_t key = entry.number;
  batch.Add(key, std::move(tile));
  return true;
}

bool Engine::AddToBatch(const ZrNameStore& store, std::size_t number, StoreBatch& batch) {
  const NameIndex* const names = File().Names();
  if (!FillsItsRecord(store) || names == nullptr || !NameKey::IsUsable(store.name)) return false;
  const std::uint64_t slotNumber = names->GetCount() + batch.GetCount();
  const NameKey key = MakeKey(store.name);
  const std::uint64_t code = key.GetHashCode();
  if (slotNumber >= names->GetCapacity() || !key.IsStorable() || names->HasCode(code) ||
      batch.Holds(code))
    return false;
  StoreBatch::Tile tile;
  tile.store = number;
  tile.data = store.data;
  tile.slot = {{static_cast<std::uint32_t>(slotNumber), 0}, code, true};
  tile.slot.entry.status = Format::kStatusComplete;
  std::string scratch;
  const std::string_view stored = key.GetStoredBytes(scratch);
  tile.head.resize(Format::RecordHeadSize(File().GetShape(), stored.size()));
  Format::EncodeRecordHead(tile.head.data(), File().GetShape(), {key.GetCharset(), stored},
                           HeadOf(store));
  batch.Add(code, std::move(tile));
  return true;
}

// Writes the records of the block; those that could not be written are given up.
void Engine::WriteBlock(StoreBatch& batch, std::vector<unsigned int>& results) {
  if (!batch.HasBlock()) return;
  ZrFile64& file = *File().GetStream();
  bool written = false;
  try {
    const std::uint64_t position = File().GetTail().Reserve(file);
    std::vector<iovec> parts = batch.PlaceBlock(position);
    written = position != 0 && file.WriteGathered(position, parts.data(), parts.size());
  } catch (const std::bad_alloc&) {
  }
  if (written) return batch.KeepBlock();
  batch.DropBlock(
      [&results](const StoreBatch::Tile& tile) { results[tile.store] = ZrResult::kWriteFailure; });
}

// Writes the records that are left, and then all entries: those of neighbours at once.
void Engine::WriteBatch(StoreBatch& batch, WriteOperation& operation,
                        std::vector<unsigned int>& results) {
  WriteBlock(batch, results);
  const std::vector<StoreBatch::Tile> tiles = batch.TakeTiles();
  std::vector<NameSlot> slots;
  try {
    for (const StoreBatch::Tile& tile : tiles)
      slots.push_back(tile.slot);
  } catch (const std::bad_alloc&) {
    slots.clear();  // none is written
  }
  for (std::size_t first = 0, end = 0; first < tiles.size(); first = end) {
    do
      ++end;
    while (end < slots.size() && slots[end].entry.number == slots[end - 1].entry.number + 1);
    const bool written = end <= slots.size() && operation.ExcludeLookups() &&
                         WriteEntries(&slots[first], end - first);
    for (std::size_t i = first; i < end; ++i) {
      if (written) {
        slots[i].entry.recordLength = tiles[i].GetLength();
        File().Index().KeepHint(slots[i].entry);
      } else {
        results[tiles[i].store] = ZrResult::kWriteFailure;
      }
    }
  }
}

// The entries of new tiles, whose numbers have no gap.
bool Engine::WriteEntries(const NameSlot* slots, std::size_t count) {
  if (NameIndex* const names = File().Names()) return names->AddSlots(slots, count);
  return File().Cells()->WriteCells(slots, count);
}

}  // namespace Zarn::Engine
