#include <algorithm>

#include "Header.h"
#include "IndexPages.h"
#include "NameKey.h"
#include "RecordImage.h"
#include "RecordReader.h"
#include "ReplaceWord.h"
#include "Tile.h"
#include "ZrCompactFile.h"

namespace Zarn {

using Engine::TileEntry;
using Engine::TileStore;
using StorePlace = Format::VersionTable::StorePlace;

namespace {

std::uint64_t LocatorOf(const TileStore& store, std::uint64_t position) {
  return Format::PackIndexValue(store.span.Status(), position);
}

Format::NewRecord NewRecordOf(const TileStore& store) {
  return {store.version, store.span.Status(), store.span.capacity, store.span.FilledLength()};
}

// Whether a store may change a record, whose head this is, in its place: then it can be killed at
// any moment. All that it writes lies in one page, or its data lies where the head does not yet
// count it as filled, and the head in one page.
bool IsSafeInPlace(std::uint64_t position, const Format::RecordHead& head,
                   const Format::StoreSpan& span) {
  if (span.offset == 0) return !Io::SpansPages(position, head.size + span.size);
  return span.offset >= head.filledLength && !Io::SpansPages(position, head.size);
}

}  // namespace

// Stores a version into a tile, whatever versions it has. `entry` then says where the tile's
// current record is, and whether the index must be told; its status is changed only by a version
// that is new and newest.
bool ZrCompactFile::StoreIntoTile(TileEntry& entry, const TileStore& store,
                                  Engine::RecordBackup& backup) {
  ZrByteArray* buffer = GetSwapData();
  if (buffer == nullptr) {
    // The caller will unlock once more, and the lock takes no harm from it.
    WriterUnlock();
    return false;
  }
  Format::RecordImage image = MakeImage(*buffer);
  if (entry.status == Format::kStatusEmpty) {
    entry.status = store.span.Status();
    entry.position = AddNewData(image, store, store.name);
    Remember(entry, image.Head().length);
    return entry.position != 0;
  }
  if (!entry.HoldsRecord()) return true;  // occupied by something unknown: deliberately left alone

  if (!ReadCurrentHead(entry, image)) return false;
  if (!HasVersions()) return true;  // deliberately: a tile without versions is never rewritten

  unsigned int index = 0;
  const std::uint64_t newestLocator = image.Versions().Locator(0);
  Engine::RecordReference reference = {entry};
  switch (GetStatusAndVersionOrder(image, index, entry.position, store.version)) {
    case StorePlace::kNewest:
      entry.status = store.span.Status();
      entry.position = AddMaxNewVersionData(entry.position, image, store);
      break;
    case StorePlace::kReplaceNewest:
      entry.status = store.span.Status();
      entry.position = ReplaceVersion(reference, entry.position, image, store, backup);
      break;
    case StorePlace::kInsertOlder:
      entry.position = AddOldVersionData(entry.position, image, index, store);
      break;
    default:
      return UpdateOlderVersion(entry, image, index, store, newestLocator, backup);
  }
  Remember(entry, image.Head().length);
  return entry.position != 0;
}

// Tells where a store of `version` belongs among the versions in the image, and gives entry 0,
// which may say "this record" by position 0, the record's position: it is about to be copied. The
// newest version becomes an older one when a newer is stored, so there a stale position, left from
// before the record moved, is corrected too.
unsigned int ZrCompactFile::GetStatusAndVersionOrder(Format::RecordImage& image,
                                                     unsigned int& index,
                                                     unsigned long long recordPosition,
                                                     unsigned long long version) {
  const StorePlace place = image.Versions().PlaceForStore(version);
  const std::uint64_t locator = image.Versions().Locator(0);
  const std::uint8_t status = Format::StatusOf(locator);
  const std::uint64_t position = Format::PositionOf(locator);
  if (status != Format::kStatusEmpty && (position == 0 || place.order == StorePlace::kNewest))
    image.SetLocator(0, Format::PackIndexValue(status, recordPosition));
  index = place.index;
  return place.order;
}

// The first record of a tile.
unsigned long long ZrCompactFile::AddNewData(Format::RecordImage& image, const TileStore& store,
                                             const Format::StoredName& name) {
  return image.Begin(NewRecordOf(store), name) ? AppendNewRecord(image, store) : 0;
}

// A version newer than all: a new record with a longer table. What the data leaves of its payload
// area is what lay at the same distance from the record's start before.
unsigned long long ZrCompactFile::AddMaxNewVersionData(unsigned long long recordPosition,
                                                       Format::RecordImage& image,
                                                       const TileStore& store) {
  if (!store.span.CoversAll() && !ReadDataFromDataFile(recordPosition, image)) return 0;
  return image.PushVersion(store.version, LocatorOf(store, 0)) ? AppendSwapData(image, store) : 0;
}

// A version older than the newest: a record of its own, and a new current record that names it.
unsigned long long ZrCompactFile::AddOldVersionData(unsigned long long recordPosition,
                                                    Format::RecordImage& image, unsigned int index,
                                                    const TileStore& store) {
  ZrByteArray ownBuffer;
  Format::RecordImage own = MakeImage(ownBuffer);
  if (!ReadDataFromDataFile(recordPosition, image)) return 0;
  const std::uint64_t ownPosition = AddNewData(own, store, image.Name());
  if (ownPosition == 0 || !image.InsertVersion(index, store.version, LocatorOf(store, ownPosition)))
    return 0;
  return WriteDataToDataFile(0, true, image);
}

// New data for the version that the image's record holds. In place if the record does not grow, and
// no other tile's lies where the data go; then the rest of the payload area stays as it is.
unsigned long long ZrCompactFile::ReplaceVersion(Engine::RecordReference& reference,
                                                 unsigned long long position,
                                                 Format::RecordImage& image, const TileStore& store,
                                                 Engine::RecordBackup& backup) {
  const Format::RecordHead& head = image.Head();
  const bool fits =
      head.size + store.span.capacity <= head.length &&
      !RunsOverRecord(position, head.size + std::min(head.filledLength, head.capacity),
                      head.size + store.span.FilledLength());
  if (fits && IsSafeInPlace(position, image.Head(), store.span))
    return ReplaceInPage(position, image, store, backup) ? position : 0;
  if (!store.span.CoversAll() && !ReadDataFromDataFile(position, image)) return 0;
  const unsigned long long copy = AppendSwapData(image, store);
  return fits ? MoveHome(reference, copy, position, image, &store) : copy;
}

// Of a store with an offset only the head must be replaced in one page; its data lies where nothing
// counts yet.
bool ZrCompactFile::ReplaceInPage(unsigned long long position, Format::RecordImage& image,
                                  const TileStore& store, Engine::RecordBackup& backup) {
  image.SetPayload(store.span.capacity, store.span.FilledLength());
  const std::uint64_t data = store.span.offset == 0 ? store.span.size : 0;
  if (!BackUp(backup, position, image.Head().size + data)) return false;
  if (WriteHeadAndData(position, image, store)) return true;
  PutBack(backup);
  return false;
}

// New data for an older version. If its record moves, the current one, whose head is in the image,
// is written again with the new locator, and with the own position that entry 0 was given;
// `newestLocator` is entry 0's in the file. The current record's own position never changes.
bool ZrCompactFile::UpdateOlderVersion(TileEntry& entry, const Format::RecordImage& image,
                                       unsigned int index, const TileStore& store,
                                       unsigned long long newestLocator,
                                       Engine::RecordBackup& backup) {
  Engine::RecordReference reference = {entry, entry.position + image.LocatorOffset(index),
                                       image.Versions().Locator(index)};
  const std::uint64_t position = Format::PositionOf(reference.locator);
  ZrByteArray olderBuffer;
  Format::RecordImage older = MakeImage(olderBuffer);
  if (!ReadOlderHead(position, entry.position, store.version, older)) return false;
  const std::uint64_t newPosition = ReplaceVersion(reference, position, older, store, backup);
  if (newPosition == 0) return false;
  if (newPosition == position) return true;  // the locator's status deliberately stays, too
  Engine::RecordReference newest = {entry, entry.position + image.LocatorOffset(0), newestLocator};
  return (image.Versions().Locator(0) == newestLocator ||
          ReplaceLocator(newest, image.Versions().Locator(0))) &&
         ReplaceLocator(reference, LocatorOf(store, newPosition));
}

// The head of the record that the entry leads to.
bool ZrCompactFile::ReadCurrentHead(const TileEntry& entry, Format::RecordImage& image) const {
  return entry.isHeadRead ? image.Parse()
                          : ReadHead(entry.position, m_pIndex->GetHint(entry.number), image);
}

// Only a record whose own newest version has the stamp that it is named by, and which is not the
// current one, may be written to as an older one.
bool ZrCompactFile::ReadOlderHead(unsigned long long position, unsigned long long currentPosition,
                                  unsigned long long stamp, Format::RecordImage& image) const {
  return position != currentPosition && ReadHead(position, 0, image) &&
         image.Versions().Stamp(0) == stamp;
}

// Removes the version with exactly this stamp, if there is one. `entry` as in StoreIntoTile.
bool ZrCompactFile::RemoveFromTile(TileEntry& entry, unsigned long long version,
                                   Engine::RecordBackup& backup) {
  ZrByteArray* buffer = GetSwapData();
  if (buffer == nullptr) return false;
  Format::RecordImage image = MakeImage(*buffer);
  if (!ReadCurrentHead(entry, image)) return false;
  const std::uint32_t count = image.Versions().Count();
  const std::uint32_t index = image.Versions().Find(version, 0);
  if (index == count) return true;
  if (IsReadOnly()) return false;
  if (count == 1) {
    entry.status = Format::kStatusEmpty;
    return true;
  }
  if (index == 0) return RemoveNewest(entry, image, backup);
  if (!ReadDataFromDataFile(entry.position, image)) return false;
  image.RemoveVersion(index);
  Engine::RecordReference reference = {entry};
  entry.position = RewriteRecord(reference, entry.position, image, backup);
  return entry.position != 0;
}

// The next older version becomes the current one: its record gets the rest of the table.
bool ZrCompactFile::RemoveNewest(TileEntry& entry, const Format::RecordImage& current,
                                 Engine::RecordBackup& backup) {
  const Format::VersionTable versions = current.Versions();
  const std::uint64_t locator = versions.Locator(1);
  const std::uint64_t position = Format::PositionOf(locator);
  ZrByteArray olderBuffer;
  Format::RecordImage older = MakeImage(olderBuffer);
  if (!ReadOlderHead(position, entry.position, versions.Stamp(1), older) ||
      !ReadDataFromDataFile(position, older))
    return false;

  const std::uint64_t oldLength = older.Head().length;
  if (!older.ReplaceVersions(versions, 1)) return false;
  std::uint8_t status = Format::StatusOf(locator);
  if (!Format::HoldsRecord(status))  // marked as removed, yet it is the newest that there is
    status = older.Head().StatusByFilling();
  entry.status = status;
  Remember(entry, older.Head().length);
  Engine::RecordReference reference = {entry};
  entry.position = older.Head().length <= oldLength
                       ? RewriteRecord(reference, position, older, backup)
                       : WriteDataToDataFile(0, true, older);
  return entry.position != 0;
}

// How long a tile's record is, so that reading it takes one call.
void ZrCompactFile::Remember(const TileEntry& entry, unsigned long long recordLength) const {
  const auto hint = recordLength <= UINT32_MAX ? static_cast<std::uint32_t>(recordLength) : 0;
  if (m_pIndex->GetHint(entry.number) != hint) m_pIndex->SetHint(entry.number, hint);
}

// What was remembered, or what the next entry suggests.
Io::RecordGuess ZrCompactFile::GuessRecord(const TileEntry& entry,
                                           unsigned long long headSize) const {
  std::uint64_t length = m_pIndex->GetHint(entry.number);
  std::uint64_t next;
  if (length == 0 && m_pIndex->ReadStableValue(std::uint64_t{entry.number} + 1, m_bSwap, next))
    length = Format::DistanceToNext(entry.position, next);
  return {headSize, length > headSize ? length - headSize : 0};
}

// Reads the version that a lookup of `version` selects, of the name `key` if there is one: the
// stored name lies in what is read anyway. Runs without m_mutex when it can; then m_readers keeps
// file, index and records as they are.
//
// kOk; kNotFound for the record of another name; kReadFailure.
unsigned int ZrCompactFile::LookUp_Inner(const TileEntry& entry, const Engine::NameKey* key,
                                         ZrByteArray& buffer, ZrByteArray& data,
                                         unsigned long long& filledLength,
                                         unsigned long long version) const {
  const std::uint64_t headSize = key == nullptr
                                     ? Format::kGridRecordHead
                                     : Format::NamingRecordHeadSize(key->GetStoredLength());
  Io::RecordReader record(*m_file, Format::HeaderView(m_header).Records(m_bSwap), m_pMap.get());
  const auto read = [&](std::uint64_t position, Io::RecordGuess guess) {
    return record.Read(position, guess, buffer) && record.Head().versionCount > 0 &&
           IsRecordPlace(position, record.Head().length);
  };
  if (!read(entry.position, GuessRecord(entry, headSize))) return ZrResult::kReadFailure;
  Remember(entry, record.Head().length);
  if (key != nullptr && !key->Matches(record.NameBytes(), record.Head().nameLength))
    return ZrResult::kNotFound;
  const std::uint32_t older = record.Versions().SelectForLookup(version);
  if (older != 0 && !read(Format::PositionOf(record.Versions().Locator(older)), {headSize, 0}))
    return ZrResult::kReadFailure;
  record.HandOver(buffer, data);
  filledLength = std::min(record.Head().filledLength, record.Head().capacity);
  return ZrResult::kOk;
}

}  // namespace Zarn
