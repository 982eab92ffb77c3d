#include <new>
#include <utility>

#include "DataEnd.h"
#include "Header.h"
#include "IndexPages.h"
#include "IndexValue.h"
#include "NameKey.h"
#include "NameTable.h"
#include "OperationLock.h"
#include "ReplaceWord.h"
#include "StoreBatch.h"
#include "ZrCompactFile.h"

namespace Zarn {

using Engine::NameKey;
using Engine::NameSlot;
using Engine::OperationLock;
using Engine::StoreBatch;

namespace {

const ZrByteArray& DataOf(const ZrByteArray* data) {
  static const ZrByteArray empty;
  return data != nullptr ? *data : empty;
}

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

// Of the entries that lie at `position`, those that span pages: a kill must not cut them in two.
bool ReplaceSplitEntries(ZrFile64& file, std::uint64_t position, const ZrByteArray& before,
                         const ZrByteArray& after) {
  for (std::uint64_t at = 0; at < after.GetSize(); at += Format::kGridEntrySize) {
    if (Io::SpansPages(position + at, Format::kGridEntrySize) &&
        !Io::ReplaceWord(file, position + at,
                         LoadScalar<std::uint64_t>(before.GetData() + at, false),
                         LoadScalar<std::uint64_t>(after.GetData() + at, false)))
      return false;
  }
  return true;
}

}  // namespace

unsigned int ZrCompactFile::SetBatch(const std::vector<ZrCellStore>& stores,
                                     std::vector<unsigned int>& results) {
  return StoreAll(
      {stores.size(),
       [&](std::size_t i, StoreBatch& batch) { return AddToBatch(stores[i], i, batch); },
       [&](std::size_t i, OperationLock& lock) { return StoreCell(stores[i], lock); },
       [&](std::size_t i) {
         const ZrCellStore& store = stores[i];
         return SetAt(store.row, store.col, DataOf(store.data), store.capacity, store.offset,
                      store.version);
       }},
      results);
}

unsigned int ZrCompactFile::SetBatch(const std::vector<ZrNameStore>& stores,
                                     std::vector<unsigned int>& results) {
  return StoreAll(
      {stores.size(),
       [&](std::size_t i, StoreBatch& batch) { return AddToBatch(stores[i], i, batch); },
       [&](std::size_t i, OperationLock&) { return StoreName(stores[i]); },
       [&](std::size_t i) {
         const ZrNameStore& store = stores[i];
         return SetAt(store.name, DataOf(store.data), store.capacity, store.offset, store.version);
       }},
      results);
}

unsigned int ZrCompactFile::StoreAll(const Engine::BatchSource& source,
                                     std::vector<unsigned int>& results) {
  try {
    results.assign(source.count, ZrResult::kOk);
  } catch (const std::bad_alloc&) {
    return ZrResult::kWriteFailure;
  }
  if (!StoreTogether(source, results))
    for (std::size_t i = 0; i < source.count; ++i)
      results[i] = source.storeUnlocked(i);
  for (const unsigned int result : results)
    if (result != ZrResult::kOk) return result;
  return ZrResult::kOk;
}

// New tiles are kept back, and written together with the next ones; whatever else is to be stored
// waits until they are in place. False if the file cannot be stored into at all.
bool ZrCompactFile::StoreTogether(const Engine::BatchSource& source,
                                  std::vector<unsigned int>& results) {
  if (GetCacheFile() != nullptr) return false;
  OperationLock lock(*this, OperationLock::kStore);
  if (!lock.IsUsable() || IsReadOnly() || GetSwapData() == nullptr) return false;
  if (IsNaming() && !lock.ExcludeLookups()) return false;
  GetAppendPosition();  // finds where no record may begin
  StoreBatch batch;
  for (std::size_t i = 0; i < source.count; ++i) {
    try {
      if (source.add(i, batch)) {
        if (batch.IsBlockFull()) WriteBlock(batch, results);
        continue;
      }
      WriteBatch(batch, lock, results);
      results[i] = source.store(i, lock);
    } catch (const std::bad_alloc&) {
      results[i] = ZrResult::kWriteFailure;
    }
  }
  WriteBatch(batch, lock, results);
  return true;
}

bool ZrCompactFile::AddToBatch(const ZrCellStore& store, std::size_t number, StoreBatch& batch) {
  // Each place counts where records have been lost.
  if (!FillsItsRecord(store) || !m_pDataEnd->lost.empty()) return false;
  StoreBatch::Tile tile;
  tile.store = number;
  tile.data = store.data;
  Engine::TileEntry& entry = tile.slot.entry;
  if (!ReadGridSlot(store.row, store.col, entry) || entry.status != Format::kStatusEmpty ||
      batch.Holds(entry.number))
    return false;
  entry.status = Format::kStatusComplete;
  tile.head.resize(Format::kGridRecordHead);
  Format::EncodeGridRecordHead(tile.head.data(), HeadOf(store), m_bSwap);
  const std::uint64_t key = entry.number;
  batch.Add(key, std::move(tile));
  return true;
}

bool ZrCompactFile::AddToBatch(const ZrNameStore& store, std::size_t number, StoreBatch& batch) {
  const std::uint64_t slotNumber = m_nNamingCount + batch.GetCount();
  if (!FillsItsRecord(store) || !IsNaming() || !NameKey::IsUsable(store.name) ||
      slotNumber >= m_nNamingCapacity)
    return false;
  const NameKey key(store.name, Format::HeaderView(m_header).FormatVersion(), m_bSwap);
  const std::uint64_t code = key.GetHashCode();
  if (!key.IsStorable() || m_mapHashCode->Find(code) || batch.Holds(code)) return false;
  StoreBatch::Tile tile;
  tile.store = number;
  tile.data = store.data;
  tile.slot = {{static_cast<std::uint32_t>(slotNumber), 0}, code, true};
  tile.slot.entry.status = Format::kStatusComplete;
  std::string scratch;
  const std::string_view stored = key.GetStoredBytes(scratch);
  tile.head.resize(Format::NamingRecordHeadSize(stored.size()));
  Format::EncodeNamingRecordHead(tile.head.data(), {key.GetCharset(), stored}, HeadOf(store),
                                 m_bSwap);
  batch.Add(code, std::move(tile));
  return true;
}

// Writes the records of the block; those that could not be written are given up.
void ZrCompactFile::WriteBlock(StoreBatch& batch, std::vector<unsigned int>& results) {
  if (!batch.HasBlock()) return;
  bool written = false;
  try {
    const std::uint64_t position = GetAppendPosition();
    std::vector<iovec> parts = batch.PlaceBlock(position);
    written = position != 0 && m_file->WriteGathered(position, parts.data(), parts.size());
  } catch (const std::bad_alloc&) {
  }
  if (written) return batch.KeepBlock();
  batch.DropBlock(
      [&results](const StoreBatch::Tile& tile) { results[tile.store] = ZrResult::kWriteFailure; });
}

// Writes the records that are left, and then all entries: those of neighbours at once.
void ZrCompactFile::WriteBatch(StoreBatch& batch, OperationLock& lock,
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
    const bool written =
        end <= slots.size() && lock.ExcludeLookups() && WriteEntries(&slots[first], end - first);
    for (std::size_t i = first; i < end; ++i) {
      if (written)
        Remember(slots[i].entry, tiles[i].GetLength());
      else
        results[tiles[i].store] = ZrResult::kWriteFailure;
    }
  }
}

// The entries of new tiles, whose numbers have no gap.
bool ZrCompactFile::WriteEntries(const NameSlot* slots, std::size_t count) {
  return IsNaming() ? AddSlots(slots, count) : WriteCells(slots, count);
}

// Writes the entries of neighbouring cells that were empty, or takes them back.
bool ZrCompactFile::WriteCells(const NameSlot* cells, std::size_t count) {
  const std::uint64_t size = count * Format::kGridEntrySize;
  const std::uint64_t offset = cells[0].entry.number * std::uint64_t{Format::kGridEntrySize};
  const std::uint64_t start =
      Format::GridEntryOffset(Format::HeaderView(m_header).IndexOffset(), 0);
  ZrByteArray bytes;
  ZrByteArray before;
  if (!bytes.ResizeForOverwrite(size) || !before.ResizeForOverwrite(size)) return false;
  for (std::size_t i = 0; i < count; ++i) {
    StoreScalar(bytes.GetData() + i * Format::kGridEntrySize, cells[i].entry.Value(), m_bSwap);
    StoreScalar(before.GetData() + i * Format::kGridEntrySize, cells[i].entry.stored, m_bSwap);
  }
  if (ReplaceSplitEntries(*m_file, start + offset, before, bytes) &&
      m_file->WriteAt(start + offset, bytes.GetData(), size) &&
      m_pIndex->Write(offset, bytes.GetData(), size))
    return true;
  m_file->WriteAt(start + offset, before.GetData(), size);
  m_pIndex->Forget();
  return false;
}

}  // namespace Zarn
