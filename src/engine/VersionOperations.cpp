#include <new>

#include "Cause.h"
#include "LookUp.h"
#include "VersionList.h"

namespace Zarn::Engine {

// Of a tile whose entry was read by a view: kOk; kNotFound; kReadFailure.
unsigned int VersionList::Read(OpenFile& file, const TileEntry& entry) {
  versions.clear();
  recordBytes = 0;
  if (entry.status == Format::kStatusEmpty) return Io::Fail(ZrCause::kNoTile, ZrResult::kNotFound);
  const TileStore::Place place = file.GetPlace();
  Io::RecordReader reader(place.file, place.shape, place.map);
  ZrByteArray bytes;
  const auto readHead = [&](Io::RecordReader& by, std::uint64_t position, std::uint64_t hint) {
    return by.ReadHead(position, hint, bytes) && by.Head().MayLieAt(position, place.index);
  };
  if (!entry.HoldsRecord()) return Io::Fail(ZrCause::kDamagedEntry, ZrResult::kReadFailure);
  if (!readHead(reader, entry.position, entry.recordLength))
    return Io::FailUnlessBySystem(ZrCause::kDamagedRecord, ZrResult::kReadFailure);
  Add(reader.Versions().Stamp(0), entry.status, reader.Head());
  ZrByteArray current;
  current.SwapContents(bytes);  // with the table
  const Format::VersionTable table = reader.Versions();
  for (std::uint32_t i = 1; i < table.Count(); ++i) {
    const std::uint64_t locator = table.Locator(i);
    Io::RecordReader older(place.file, place.shape, place.map);
    if (readHead(older, Format::PositionOf(locator), 0))
      Add(table.Stamp(i), Format::StatusOf(locator), older.Head());
    else
      versions.push_back({table.Stamp(i), 0, 0, Format::kStatusUnknown});
  }
  return ZrResult::kOk;
}

void VersionList::Add(std::uint64_t stamp, std::uint8_t status, const Format::RecordHead& head) {
  versions.push_back({stamp, head.capacity, std::min(head.filledLength, head.capacity), status});
  if (versions.size() == 1 || !Format::IsGone(status)) recordBytes += head.length;
}

unsigned int Engine::ListVersions(unsigned int row, unsigned int col, VersionList& list) {
  unsigned int result = ZrResult::kReadFailure;
  const auto read = [&](OpenFile& file, View& view, ZrByteArray*) {
    TileEntry entry;
    const CellIndex* const cells = file.Cells();
    if (cells == nullptr) Io::Fail(ZrCause::kWrongKind);
    const bool isRead = cells != nullptr && cells->Read(row, col, entry, &view);
    result = isRead ? list.Read(file, entry) : static_cast<unsigned int>(ZrResult::kReadFailure);
    return true;
  };
  return LookUp(read, [](OpenFile&, ZrByteArray*) {}) ? result : ZrResult::kReadFailure;
}

unsigned int Engine::ListVersions(const PelmUnicodeString& name, VersionList& list) {
  unsigned int result = ZrResult::kReadFailure;
  const auto read = [&](OpenFile& file, const NameSlot* slot, bool isFound) {
    result = ZrResult::kReadFailure;
    if (isFound)
      result = list.Read(file, slot->entry);
    else if (slot != nullptr && slot->isNew)
      result = Io::Fail(ZrCause::kNoTile, ZrResult::kNotFound);
  };
  return LookUpSlot(name, read) ? result : ZrResult::kReadFailure;
}

unsigned int Engine::GetVersions(unsigned int row, unsigned int col,
                                 std::vector<ZrVersion>& versions) try {
  VersionList list;
  const unsigned int result = ListVersions(row, col, list);
  return list.HandOver(result, versions);
} catch (const std::bad_alloc&) {
  return Io::Fail(ZrCause::kNoMemory, ZrResult::kReadFailure);
}

unsigned int Engine::GetVersions(const PelmUnicodeString& name,
                                 std::vector<ZrVersion>& versions) try {
  if (m_bHasCacheFile) return ZrResult::kNotUsable;
  if (name.IsEmpty()) return Io::Fail(ZrCause::kEmptyArgument, ZrResult::kReadFailure);
  VersionList list;
  const unsigned int result = ListVersions(name, list);
  return list.HandOver(result, versions);
} catch (const std::bad_alloc&) {
  return Io::Fail(ZrCause::kNoMemory, ZrResult::kReadFailure);
}

unsigned int Engine::RemoveAll(unsigned int row, unsigned int col) {
  const WriteOperation operation(m_locks, m_state);
  const CellIndex* const cells = operation.IsUsable() ? File().Cells() : nullptr;
  TileEntry entry;
  if (operation.IsUsable() && cells == nullptr) Io::Fail(ZrCause::kWrongKind);
  if (cells == nullptr || !cells->Read(row, col, entry)) return ZrResult::kWriteFailure;
  return RemoveTile(entry);
}

unsigned int Engine::RemoveAll(const PelmUnicodeString& name) {
  if (m_bHasCacheFile)
    return AskCacheFile([&](ZrCacheFile& cache) { return cache.RemoveFile(name, 0, 0); });
  const WriteOperation operation(m_locks, m_state);
  TileEntry entry;
  if (!operation.IsUsable() || FindName(name, entry) == nullptr) return ZrResult::kWriteFailure;
  return RemoveTile(entry);
}

// The entry goes on naming the record, as after the removal of the only version.
unsigned int Engine::RemoveTile(TileEntry& entry) {
  if (!entry.HoldsRecord() || !File().HasVersions()) return ZrResult::kOk;
  if (IsReadOnly()) return Io::Fail(ZrCause::kReadOnly, ZrResult::kWriteFailure);
  entry.status = Format::kStatusEmpty;
  return File().Index().WriteIndexValue(entry) ? ZrResult::kOk : ZrResult::kWriteFailure;
}

}  // namespace Zarn::Engine
