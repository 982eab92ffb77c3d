#include <algorithm>
#include <new>

#include "Cause.h"
#include "IndexWalker.h"
#include "LookUp.h"

namespace Zarn::Engine {
namespace {

constexpr std::uint64_t kNewest = UINT64_MAX;  // a lookup of it gives the newest version

// Gives the walk what a lookup by itself has come to. kOk; kNotFound if there is no tile to give.
unsigned int TakeAlone(TileWalk& walk, unsigned int result,
                       const std::optional<Io::RecordReader>& record, const TileEntry& entry,
                       ZrByteArray& buffer) {
  if (result != ZrResult::kOk)
    walk.PassOver(result != ZrResult::kNotFound);
  else if (walk.TakeAlone(*record, entry, buffer))
    return ZrResult::kOk;
  return ZrResult::kNotFound;
}

}  // namespace

// Goes on to the next tile: kOk; kNotFound at the end; else what keeps the walk from going on. The
// next step tries again.
unsigned int Engine::Step(TileWalk& walk) try {
  if (m_bHasCacheFile) return ZrResult::kNotUsable;
  for (;;) {
    const TileWalk::Turn turn = walk.Take();
    if (turn == TileWalk::Turn::kTile) return ZrResult::kOk;
    unsigned int result = ZrResult::kOk;
    if (!TakeTurn(turn, walk, result)) return WhyUnusable();
    // What was read ahead has its turn now; one that is gone or passed over has had it.
    const bool isReadAhead = turn == TileWalk::Turn::kRead;
    if (result != unsigned{isReadAhead ? ZrResult::kOk : ZrResult::kNotFound}) return result;
  }
} catch (const std::bad_alloc&) {
  return Io::Fail(ZrCause::kNoMemory, ZrResult::kReadFailure);
}

// False if the file cannot be used.
bool Engine::TakeTurn(TileWalk::Turn turn, TileWalk& walk, unsigned int& result) {
  switch (turn) {
    case TileWalk::Turn::kEntry:
      return ReadEntryAlone(walk, result);
    case TileWalk::Turn::kHash:
      return ListHash(walk, result);
    case TileWalk::Turn::kName:
      return ReadNameAlone(walk, result);
    default:
      return Survey([&](OpenFile& file, View& view) { return walk.ReadAhead(file, view, result); });
  }
}

// As LookUp, in the file of the walk: `attempt(file, view, buffer)`; and `take(buffer)`, which
// gives the result.
template <typename Attempt, typename Take>
bool Engine::LookUpFor(TileWalk& walk, unsigned int& result, Attempt attempt, Take take) {
  bool isSame = false;
  const auto look = [&](OpenFile& file, View& view, ZrByteArray* buffer) {
    isSame = walk.IsSame(file);
    return !isSame || attempt(file, view, *buffer);
  };
  const auto finish = [&](OpenFile&, ZrByteArray* buffer) {
    result = isSame ? take(*buffer) : unsigned{ZrResult::kNotUsable};
  };
  return LookUp(look, finish);
}

// As a lookup, by the entry: kOk; kNotFound if there is no tile to give.
bool Engine::ReadEntryAlone(TileWalk& walk, unsigned int& result) {
  unsigned int found = ZrResult::kReadFailure;
  TileEntry entry;
  std::optional<Io::RecordReader> record;
  const auto read = [&](OpenFile& file, View& view, ZrByteArray& buffer) {
    found = ZrResult::kReadFailure;
    if (!walk.FindEntry(file, view, entry)) return true;
    if (entry.status == Format::kStatusEmpty) found = ZrResult::kNotFound;
    if (!entry.HoldsRecord()) return true;
    const TileStore::Place place = file.GetPlace();
    record.emplace(place.file, place.shape, place.map);
    if (walk.GetContent() == TileWalk::Content::kWhole)
      found = TileStore::LookUp_Inner(place, entry, nullptr, kNewest, buffer, *record);
    else if (record->ReadHead(entry.position, entry.recordLength, buffer) &&
             record->Head().MayLieAt(entry.position, place.index))
      found = ZrResult::kOk;
    return true;
  };
  return LookUpFor(walk, result, read, [&](ZrByteArray& buffer) {
    return TakeAlone(walk, found, record, entry, buffer);
  });
}

// Of several names that have one hash.
bool Engine::ListHash(TileWalk& walk, unsigned int& result) {
  TileWalk::Group group;
  const auto read = [&](OpenFile& file, View& view, ZrByteArray& buffer) {
    group = walk.ListHash(file, view, buffer);
    return true;
  };
  return LookUpFor(walk, result, read, [&](ZrByteArray&) -> unsigned int {
    walk.TakeNames(std::move(group));
    return ZrResult::kNotFound;
  });
}

bool Engine::ReadNameAlone(TileWalk& walk, unsigned int& result) {
  unsigned int found = ZrResult::kReadFailure;
  const PelmUnicodeString name = walk.GetListed();
  TileEntry entry;
  std::optional<Io::RecordReader> record;
  const auto read = [&](OpenFile& file, View& view, ZrByteArray& buffer) {
    record.emplace(*file.GetStream(), file.GetShape(), file.Map());
    found = ReadTile(file, view, NameKey(name, file.GetShape()), kNewest, buffer, entry, *record);
    view.UsesMore();
    return found == ZrResult::kOk || file.Names()->IsComplete(view);
  };
  return LookUpFor(walk, result, read, [&](ZrByteArray& buffer) {
    return TakeAlone(walk, found, record, entry, buffer);
  });
}

unsigned int Engine::WhyUnusable() const {
  return IsOpen() ? ZrResult::kReadFailure : ZrResult::kNotOpen;
}

// The heads are read ahead without a lock; under it some are read again and changed.
unsigned int Engine::RemoveOlderThan(std::uint64_t stamp, unsigned long long& removed) try {
  constexpr std::size_t kUnderOneLock = 32;
  removed = 0;
  if (m_bHasCacheFile) return ZrResult::kNotUsable;
  {
    const WriteOperation operation(m_locks, m_state);
    if (!operation.IsOpen()) return ZrResult::kNotOpen;
    if (!MayStore(operation)) return ZrResult::kWriteFailure;
    if (!File().HasVersions()) return ZrResult::kOk;
  }
  TileWalk walk(TileWalk::Content::kHeads, {});
  std::vector<Address> tiles;
  unsigned int result = ZrResult::kOk;
  for (unsigned int step = ZrResult::kOk; step == ZrResult::kOk;) {
    step = Step(walk);
    const TileWalk::Tile& tile = walk.GetTile();
    if (step == ZrResult::kOk &&
        std::any_of(tile.stamps.begin(), tile.stamps.end(), [&](auto own) { return own < stamp; }))
      tiles.push_back({PelmUnicodeString(tile.name), tile.row, tile.col});
    if (tiles.size() == kUnderOneLock || step != ZrResult::kOk) {
      if (RemoveOlderThan(stamp, tiles, removed) != ZrResult::kOk) result = ZrResult::kWriteFailure;
      tiles.clear();
    }
    if (step != ZrResult::kOk && step != ZrResult::kNotFound) return step;
  }
  return result == ZrResult::kOk && walk.GetDamaged() != 0 ? ZrResult::kReadFailure : result;
} catch (const std::bad_alloc&) {
  return Io::Fail(ZrCause::kNoMemory, ZrResult::kWriteFailure);
}

unsigned int Engine::RemoveOlderThan(std::uint64_t stamp, const std::vector<Address>& tiles,
                                     unsigned long long& removed) {
  if (tiles.empty()) return ZrResult::kOk;
  const WriteOperation operation(m_locks, m_state);
  ZrByteArray* const buffer = operation.IsUsable() ? GetSwapData() : nullptr;
  if (buffer == nullptr || !File().HasIndex()) return ZrResult::kWriteFailure;
  unsigned int result = ZrResult::kOk;
  for (const Address& address : tiles) {
    TileEntry entry;
    TileStore store = File().MakeStore(*buffer);
    std::uint32_t count = 0;
    const bool isFound = FindForRemoval(address, store, entry);
    if (isFound && !entry.HoldsRecord()) continue;  // it has gone since
    if (!isFound || !store.RemoveOlderThan(entry, stamp, IsReadOnly(), count)) {
      result = ZrResult::kWriteFailure;
      continue;
    }
    File().Index().KeepHint(entry);
    if (File().Index().WriteIndexValue(entry)) {
      removed += count;
    } else {
      store.PutBack();
      result = ZrResult::kWriteFailure;
    }
  }
  return result;
}

// The entry of a tile that was seen to have such versions; one that is empty if the tile has gone
// since. False if it cannot be told.
bool Engine::FindForRemoval(const Address& tile, TileStore& tiles, TileEntry& entry) {
  if (const CellIndex* const cells = File().Cells()) return cells->Read(tile.row, tile.col, entry);
  NameSlot slot;
  const NameKey key(tile.name, File().GetShape());
  const bool isFound = File().Names()->GetNamingIdxValue(key, tiles, slot);
  if (isFound && !slot.isNew) entry = slot.entry;
  return isFound || slot.isNew;
}

// By the index alone.
unsigned int Engine::GetStatistics(ZrStatistics& statistics) try {
  statistics = {};
  if (m_bHasCacheFile) return ZrResult::kNotUsable;
  std::uint64_t next = 0;
  std::uint64_t fileId = 0;
  std::uint64_t generation = 0;
  unsigned int result = ZrResult::kOk;
  do {
    const auto count = [&](OpenFile& file, View& view) {
      const std::uint64_t now = file.GetBoard().GetGeneration();
      if (file.GetId() != fileId || now != generation) next = 0;
      fileId = file.GetId();
      generation = now;
      const auto seen = CountEntries(file, view, next, statistics);
      result = next == UINT64_MAX ? ZrResult::kReadFailure : ZrResult::kOk;
      return seen;
    };
    if (!Survey(count)) return WhyUnusable();
  } while (result == ZrResult::kOk && next < statistics.entries);
  return result;
} catch (const std::bad_alloc&) {
  return Io::Fail(ZrCause::kNoMemory, ZrResult::kReadFailure);
}

// A part of them, from `next` on; UINT64_MAX: they cannot be read.
TileWalk::Seen Engine::CountEntries(OpenFile& file, View& view, std::uint64_t& next,
                                    ZrStatistics& statistics) {
  constexpr int kBlocksAtOnce = 16;
  const Format::IndexShape index = file.Index().GetShape();
  if (file.Names() != nullptr) {
    if (!view.LookNow()) return TileWalk::Seen::kAgain;
    if (!file.Names()->IsComplete(view)) return TileWalk::Seen::kLocked;
  }
  const std::uint64_t entries = index.IsGrid() ? index.count : file.Names()->GetCount();
  std::uint64_t length = 0;
  file.GetStream()->GetLength(length);
  std::uint64_t tiles = next == 0 ? 0 : statistics.tiles;
  Io::IndexWalker walker(*file.GetStream(), index, file.GetShape().swap, entries, {.first = next});
  bool isRead = true;
  for (int i = 0; i < kBlocksAtOnce && isRead; ++i) {
    isRead = walker.Next();
    for (std::size_t entry = 0; entry < walker.Size(); ++entry)
      tiles += Format::HoldsRecord(Format::StatusOf(walker.Value(entry))) ? 1 : 0;
  }
  if (!view.LookAgain()) return TileWalk::Seen::kAgain;
  statistics.tiles = tiles;
  statistics.entries = entries;
  statistics.fileBytes = length;
  statistics.indexBytes =
      Format::kHeaderSize + std::max(std::min(index.End(), length), index.begin) - index.begin;
  next = walker.HasFailed() ? UINT64_MAX : isRead ? walker.Position() : entries;
  return TileWalk::Seen::kDone;
}

unsigned int Engine::GetStatistics(ZrStatistics& statistics,
                                   const ZrCompactFile::StatisticsProgress& progress) try {
  constexpr std::uint64_t kTellEvery = 256;
  const unsigned int counted = GetStatistics(statistics);
  if (counted != ZrResult::kOk) return counted;
  statistics.tiles = 0;
  TileWalk walk(TileWalk::Content::kHeads, {});
  const auto tell = [&] {
    return !progress || progress(walk.GetDone(), std::max(walk.GetDone(), walk.GetTotal()));
  };
  unsigned int step = ZrResult::kOk;
  while ((step = Step(walk)) == ZrResult::kOk) {
    CountTile(walk, statistics);
    if (++statistics.tiles % kTellEvery == 0 && !tell())
      return Io::Fail(ZrCause::kCancelled, ZrResult::kNotUsable);
  }
  statistics.damaged = walk.GetDamaged();
  const std::uint64_t used = statistics.indexBytes + statistics.liveBytes;
  statistics.deadBytes = statistics.fileBytes - std::min<std::uint64_t>(used, statistics.fileBytes);
  if (step != ZrResult::kNotFound) return step;
  return tell() ? ZrResult::kOk : Io::Fail(ZrCause::kCancelled, +ZrResult::kNotUsable);
} catch (...) {
  return Io::Fail(ZrCause::kCancelled,
                  ZrResult::kNotUsable);  // of the progress, or memory is short
}

// Older versions have records of their own, which are read for it.
void Engine::CountTile(const TileWalk& walk, ZrStatistics& statistics) {
  const TileWalk::Tile& tile = walk.GetTile();
  statistics.versions += tile.stamps.size();
  if (tile.stamps.size() == 1) {
    statistics.payloadBytes += tile.capacity;
    statistics.liveBytes += tile.recordLength;
    return;
  }
  VersionList list;
  const unsigned int result = walk.IsGrid() ? ListVersions(tile.row, tile.col, list)
                                            : ListVersions(PelmUnicodeString(tile.name), list);
  if (result != ZrResult::kOk) return;
  statistics.liveBytes += list.recordBytes;
  for (const ZrVersion& version : list.versions)
    statistics.payloadBytes += version.capacity;
}

}  // namespace Zarn::Engine
