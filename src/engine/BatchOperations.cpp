#include <sys/uio.h>

#include <algorithm>
#include <new>
#include <unordered_set>
#include <utility>

#include "Cause.h"
#include "Engine.h"

namespace Zarn::Engine {
namespace {

/// New tiles that are stored together: first their records, in blocks that are written at once,
/// then their entries in the index. What needs memory throws std::bad_alloc, and has changed
/// nothing then.
class StoreBatch {
 public:
  /// `results` receives the failures.
  StoreBatch(OpenFile& file, std::vector<unsigned int>& results)
      : m_file(file), m_results(results), m_record(m_headBytes, file.GetShape()) {}

  /// Takes the store of this number, if it makes a new tile whose record holds nothing but its
  /// data.
  bool Add(const ZrCellStore& store, std::size_t number);
  bool Add(const ZrNameStore& store, std::size_t number);
  /// Writes all tiles: what is left of their records, then their entries, those that are near each
  /// other at once.
  void Write();
  std::size_t CountTiles() const { return m_tiles.size(); }

 private:
  struct Tile {
    NameSlot slot;                    // of a cell the code is its number
    std::size_t store;                // its number among the caller's stores
    BytesToStore data;                // fill the payload area of the record
    std::vector<unsigned char> head;  // of the record
  };

  template <typename Store>
  bool Add(const Store& store, std::size_t number, NameSlot slot, const Format::StoredName& name);
  void WriteBlock();
  std::vector<iovec> PlaceBlock(std::uint64_t position);
  bool WriteEntries(const NameSlot* slots, std::size_t count);

  OpenFile& m_file;
  std::vector<unsigned int>& m_results;
  ZrByteArray m_headBytes;
  Format::RecordImage m_record;  // the head of the tile that is being added
  PagesAhead m_ahead;
  std::unordered_set<std::uint64_t> m_codes;
  std::vector<Tile> m_tiles;
  std::size_t m_inFile = 0;       // tiles whose records are written; the others are the block
  std::uint64_t m_blockSize = 0;  // bytes of their records
};

// A store whose data fill the payload area.
template <typename Store>
bool FillsItsRecord(const Store& store) {
  const auto span = Format::ResolveStore(store.capacity, store.offset, BytesOf(store).size());
  return span && span->CoversAll();
}

bool StoreBatch::Add(const ZrCellStore& store, std::size_t number) {
  // Each place counts where records have been lost.
  const CellIndex* const cells = m_file.Cells();
  NameSlot slot;
  if (!FillsItsRecord(store) || cells == nullptr || m_file.GetTail().HasLostRecords() ||
      !cells->ReadAhead(store.row, store.col, slot.entry, m_ahead) ||
      slot.entry.status != Format::kStatusEmpty)
    return false;
  slot.code = slot.entry.number;
  return Add(store, number, slot, {});
}

bool StoreBatch::Add(const ZrNameStore& store, std::size_t number) {
  const NameIndex* const names = m_file.Names();
  if (!FillsItsRecord(store) || names == nullptr || !NameKey::IsUsable(store.name)) return false;
  const NameKey key(store.name, m_file.GetShape());
  const std::uint64_t code = key.GetHashCode();
  const std::uint64_t slot = names->GetCount() + m_tiles.size();
  NameSlot found;
  if (slot >= names->GetCapacity() || !key.IsStorable() ||
      names->FindSlot(code, found) != NameIndex::Found::kNone)
    return false;
  std::string scratch;
  return Add(store, number, {{static_cast<std::uint32_t>(slot), 0}, code, true},
             key.GetStoredName(scratch));
}

template <typename Store>
bool StoreBatch::Add(const Store& store, std::size_t number, NameSlot slot,
                     const Format::StoredName& name) {
  constexpr std::uint64_t kBlock = 1 << 20;
  constexpr std::size_t kTiles = 512;  // of two parts each: a system call takes 1024
  if (m_codes.count(slot.code) != 0) return false;
  const BytesToStore data = BytesOf(store);
  const std::uint64_t size = data.size();
  if (!m_record.Begin({store.version, Format::kStatusComplete, size, size}, name))
    throw std::bad_alloc();
  slot.entry.status = Format::kStatusComplete;
  slot.entry.recordLength = m_record.Head().length;
  const unsigned char* const head = m_headBytes.GetData();
  Tile tile = {slot, number, data, {head, head + m_headBytes.GetSize()}};
  m_codes.insert(slot.code);
  m_tiles.push_back(std::move(tile));
  m_blockSize += slot.entry.recordLength;
  if (m_blockSize >= kBlock || m_tiles.size() - m_inFile >= kTiles) WriteBlock();
  return true;
}

// Writes the records of the block; those that could not be written are given up.
void StoreBatch::WriteBlock() {
  if (m_inFile == m_tiles.size()) return;
  bool written = false;
  try {
    const std::uint64_t position = m_file.GetTail().Reserve(*m_file.GetStream());
    std::vector<iovec> parts = PlaceBlock(position);
    written = position != 0 &&
              m_file.GetStream()->WriteGathered(position, parts.data(), parts.size()) &&
              m_file.GetTail().EndsAt(position + m_blockSize);
  } catch (const std::bad_alloc&) {
    Io::Fail(ZrCause::kNoMemory);
  }
  while (!written && m_tiles.size() > m_inFile) {
    m_results[m_tiles.back().store] = ZrResult::kWriteFailure;
    m_tiles.pop_back();
  }
  m_inFile = m_tiles.size();
  m_blockSize = 0;
}

// Gives the records of the block their places, the first one `position`, and returns their bytes.
std::vector<iovec> StoreBatch::PlaceBlock(std::uint64_t position) {
  std::vector<iovec> parts;
  parts.reserve(2 * (m_tiles.size() - m_inFile));
  for (std::size_t i = m_inFile; i < m_tiles.size(); ++i) {
    Tile& tile = m_tiles[i];
    parts.push_back({tile.head.data(), tile.head.size()});
    parts.push_back({const_cast<unsigned char*>(tile.data.data()), tile.data.size()});
    tile.slot.entry.position = position;
    position += tile.slot.entry.recordLength;
  }
  return parts;
}

void StoreBatch::Write() {
  constexpr std::uint32_t kMostEntries = 8192;  // for so long at most lookups wait
  const std::uint32_t reach = m_file.Cells() != nullptr ? m_file.Cells()->GetReach() : 1;
  WriteBlock();
  std::vector<Tile> tiles = std::exchange(m_tiles, {});
  m_codes.clear();
  m_ahead = {};
  m_inFile = 0;
  std::sort(tiles.begin(), tiles.end(),
            [](const Tile& a, const Tile& b) { return a.slot.entry.number < b.slot.entry.number; });
  std::vector<NameSlot> slots;
  try {
    for (const Tile& tile : tiles)
      slots.push_back(tile.slot);
  } catch (const std::bad_alloc&) {
    Io::Fail(ZrCause::kNoMemory);
    slots.clear();  // none is written
  }
  for (std::size_t first = 0, end = 0; first < tiles.size(); first = end) {
    do
      ++end;
    while (end < slots.size() && slots[end].entry.number - slots[end - 1].entry.number <= reach &&
           slots[end].entry.number - slots[first].entry.number < kMostEntries);
    const bool written = end <= slots.size() && WriteEntries(&slots[first], end - first);
    for (std::size_t i = first; i < end; ++i) {
      if (written)
        m_file.Index().KeepHint(slots[i].entry);
      else
        m_results[tiles[i].store] = ZrResult::kWriteFailure;
    }
  }
}

// The entries of new tiles, whose numbers ascend; those of names have no gap.
bool StoreBatch::WriteEntries(const NameSlot* slots, std::size_t count) {
  if (NameIndex* const names = m_file.Names()) return names->AddSlots(slots, count);
  return m_file.Cells()->WriteCells(slots, count);
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
    return Io::Fail(ZrCause::kNoMemory, ZrResult::kWriteFailure);
  }
  if (!StoreTogether(stores, results))
    for (std::size_t i = 0; i < stores.size(); ++i)
      results[i] = SetAt(stores[i]);
  for (const unsigned int result : results)
    if (result != ZrResult::kOk) return result;
  return ZrResult::kOk;
}

// New tiles are kept back, and written together with the next ones; whatever else is to be stored
// waits until they are in place. False if the file cannot be stored into at all.
template <typename Store>
bool Engine::StoreTogether(const std::vector<Store>& stores, std::vector<unsigned int>& results) {
  if (m_bHasCacheFile) return false;
  const WriteOperation operation(m_locks, m_state);
  if (!operation.IsUsable() || IsReadOnly() || GetSwapData() == nullptr || !File().HasIndex())
    return false;
  File().GetTail().Reserve(*File().GetStream());  // finds where no record may begin
  StoreBatch batch(File(), results);
  for (std::size_t i = 0; i < stores.size(); ++i) {
    try {
      if (batch.Add(stores[i], i)) continue;
      ReserveNames(batch.CountTiles());
      batch.Write();
      results[i] = StoreOne(stores[i]);
    } catch (const std::bad_alloc&) {
      results[i] = Io::Fail(ZrCause::kNoMemory, ZrResult::kWriteFailure);
    }
  }
  ReserveNames(batch.CountTiles());
  batch.Write();
  return true;
}

}  // namespace Zarn::Engine
