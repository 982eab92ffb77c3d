#include "TileStore.h"

#include <algorithm>
#include <cstring>

#include "Cause.h"
#include "NameKey.h"
#include "RecordReader.h"
#include "WholeWords.h"
#include "ZrResult.h"

namespace Zarn::Engine {

using StorePlace = Format::VersionTable::StorePlace;

namespace {

// To read so much in vain takes about as long as to read the head by itself before.
constexpr std::uint64_t kMostGuessed = 32 * 1024;

std::uint64_t LocatorOf(const StoreRequest& request, std::uint64_t position) {
  return Format::PackIndexValue(request.span.Status(), position);
}

// Whether a store changes nothing of the record but bytes of the payload and how far it is filled.
bool KeepsSizes(const Format::RecordHead& head, const Format::StoreSpan& span) {
  return span.capacity == head.capacity && head.size + head.capacity == head.length;
}

// The operation has put this record, the tile's current one, there; 0: it has failed.
bool MoveTo(TileEntry& entry, std::uint64_t position, const Format::RecordImage& record) {
  entry.position = position;
  entry.recordLength = record.Head().length;
  return position != 0;
}

}  // namespace

TileStore::TileStore(const Place& place, ZrByteArray& buffer)
    : m_place(place),
      m_current(MakeRecord(buffer)),
      m_rewrite(place.file, place.tail, place.board) {}

bool TileStore::ReadCurrentHead(TileEntry& entry) {
  entry.isHeadRead = entry.isHeadRead ? m_current.Parse()
                                      : ReadHead(entry.position, entry.recordLength, m_current);
  if (entry.isHeadRead) entry.recordLength = m_current.Head().length;
  return entry.isHeadRead;
}

bool TileStore::StoreIntoTile(TileEntry& entry, const StoreRequest& request) {
  if (entry.status == Format::kStatusEmpty) {
    entry.status = request.span.Status();
    return MoveTo(entry, AddNewData(m_current, request, request.name), m_current);
  }
  if (!entry.HoldsRecord()) return true;  // occupied by something unknown: deliberately left alone
  if (!ReadCurrentHead(entry)) return false;
  // Deliberately: a tile without versions is never rewritten.
  return !m_place.hasVersions || StoreVersion(entry, request);
}

bool TileStore::StoreVersion(TileEntry& entry, const StoreRequest& request) {
  unsigned int index = 0;
  const std::uint64_t newestLocator = m_current.Versions().Locator(0);
  Reference reference = {entry};
  switch (GetStatusAndVersionOrder(index, entry.position, request.version)) {
    case StorePlace::kNewest:
      entry.status = request.span.Status();
      return MoveTo(entry, AddMaxNewVersionData(entry.position, request), m_current);
    case StorePlace::kReplaceNewest:
      entry.status = request.span.Status();
      return MoveTo(entry, ReplaceVersion(reference, entry.position, m_current, request),
                    m_current);
    case StorePlace::kInsertOlder:
      return MoveTo(entry, AddOldVersionData(entry.position, index, request), m_current);
    default:
      return UpdateOlderVersion(entry, index, request, newestLocator);
  }
}

// Tells where a store of `version` belongs among the tile's versions, and gives entry 0, which may
// say "this record" by position 0, the record's position: it is about to be copied. The newest
// version becomes an older one when a newer is stored, so there a stale position, left from before
// the record moved, is corrected too.
unsigned int TileStore::GetStatusAndVersionOrder(unsigned int& index, std::uint64_t recordPosition,
                                                 std::uint64_t version) {
  const StorePlace place = m_current.Versions().PlaceForStore(version);
  const std::uint64_t locator = m_current.Versions().Locator(0);
  const std::uint8_t status = Format::StatusOf(locator);
  const std::uint64_t position = Format::PositionOf(locator);
  if (status != Format::kStatusEmpty && (position == 0 || place.order == StorePlace::kNewest))
    m_current.SetLocator(0, Format::PackIndexValue(status, recordPosition));
  index = place.index;
  return place.order;
}

// The first record of a tile.
std::uint64_t TileStore::AddNewData(Record& record, const StoreRequest& request,
                                    const Format::StoredName& name) {
  const Format::StoreSpan& span = request.span;
  return record.Begin({request.version, span.Status(), span.capacity, span.FilledLength()}, name)
             ? AppendNewRecord(record, request)
             : 0;
}

// A version newer than all: a new record with a longer table. What the data leaves of its payload
// area is what lay at the same distance from the record's start before.
std::uint64_t TileStore::AddMaxNewVersionData(std::uint64_t recordPosition,
                                              const StoreRequest& request) {
  if (!request.span.CoversAll() && !ReadDataFromDataFile(recordPosition, m_current)) return 0;
  return m_current.PushVersion(request.version, LocatorOf(request, 0))
             ? AppendSwapData(m_current, request)
             : 0;
}

// A version older than the newest: a record of its own, and a new current record that names it.
std::uint64_t TileStore::AddOldVersionData(std::uint64_t recordPosition, unsigned int index,
                                           const StoreRequest& request) {
  ZrByteArray ownBuffer;
  Record own = MakeRecord(ownBuffer);
  if (!ReadDataFromDataFile(recordPosition, m_current)) return 0;
  const std::uint64_t ownPosition = AddNewData(own, request, m_current.Name());
  if (ownPosition == 0 ||
      !m_current.InsertVersion(index, request.version, LocatorOf(request, ownPosition)))
    return 0;
  return WriteDataToDataFile(0, m_current);
}

// New data for the version of the record. In place if the record does not grow, and no other tile's
// lies where the data go; then the rest of the payload area stays as it is. That needs no copy if
// all lies in one page, or if the data go where nothing was stored, or where the head does not
// count it.
std::uint64_t TileStore::ReplaceVersion(Reference& reference, std::uint64_t position,
                                        Record& record, const StoreRequest& request) {
  const Format::RecordHead& head = record.Head();
  const Format::StoreSpan& span = request.span;
  const std::uint32_t number = reference.entry.number;
  const std::uint64_t payload = position + head.size;
  const bool isInGap =
      m_place.tail.GetGaps().Take(payload + span.offset, payload + span.FilledLength());
  const bool fits = head.size + span.capacity <= head.length &&
                    !IsCrowded(position, head, head.size + span.FilledLength());
  if (fits && span.offset == 0 && !Io::SpansPages(position, head.size + span.size))
    return ReplaceInPage(number, position, record, request) ? position : 0;
  if (fits && KeepsSizes(head, span) && (isInGap || span.offset >= head.filledLength))
    return AddPiece(number, position, record, request) ? position : 0;
  if (!span.CoversAll() && !ReadDataFromDataFile(position, record)) return 0;
  const std::uint64_t copy = AppendSwapData(record, request);
  return fits ? MoveHome(reference, copy, position, record, &request) : copy;
}

bool TileStore::ReplaceInPage(std::uint32_t number, std::uint64_t position, Record& record,
                              const StoreRequest& request) {
  record.SetPayload(request.span.capacity, request.span.FilledLength());
  const std::uint64_t headSize = record.Head().size;
  return m_rewrite.KeepOld(number, position, headSize + request.span.size) &&
         m_rewrite.WithinPage([&](std::uint64_t home) {
           return m_place.file.WriteParts(home, record.Bytes().GetData(), headSize,
                                          request.data.data(), request.span.size);
         });
}

// The data come first: nobody can miss what they overwrite. Lookups must not see a part of them but
// where the head does not count it yet.
bool TileStore::AddPiece(std::uint32_t number, std::uint64_t position, const Record& record,
                         const StoreRequest& request) {
  const Format::StoreSpan& span = request.span;
  const std::uint64_t payload = position + record.Head().size;
  const auto writeData = [&] {
    return m_place.file.WriteAt(payload + span.offset, request.data.data(), span.size);
  };
  const bool isUnfilled = span.offset >= record.Head().filledLength;
  std::uint64_t before;
  std::uint64_t after;
  StoreScalar(&before, record.Head().filledLength, m_place.shape.swap);
  StoreScalar(&after, span.FilledLength(), m_place.shape.swap);
  return (!isUnfilled || writeData()) &&
         m_rewrite.KeepOld(number, payload - sizeof after, sizeof after) &&
         m_rewrite.WithinPage([&](std::uint64_t home) {
           return (isUnfilled || writeData()) && Io::ReplaceWord(m_place.file, home, before, after);
         });
}

// New data for an older version. If its record moves, the current one gets the new locator, and the
// own position that entry 0 was given in the buffer; `newestLocator` is entry 0's in the file. The
// current record's own position never changes.
bool TileStore::UpdateOlderVersion(TileEntry& entry, unsigned int index,
                                   const StoreRequest& request, std::uint64_t newestLocator) {
  Reference reference = {entry, entry.position + m_current.LocatorOffset(index),
                         m_current.Versions().Locator(index)};
  const std::uint64_t position = Format::PositionOf(reference.locator);
  ZrByteArray olderBuffer;
  Record older = MakeRecord(olderBuffer);
  if (!ReadOlderHead(position, entry.position, request.version, older)) return false;
  const std::uint64_t newPosition = ReplaceVersion(reference, position, older, request);
  if (newPosition == 0) return false;
  if (newPosition == position) return true;  // the locator's status deliberately stays, too
  Reference newest = {entry, entry.position + m_current.LocatorOffset(0), newestLocator};
  return (m_current.Versions().Locator(0) == newestLocator ||
          ReplaceLocator(newest, m_current.Versions().Locator(0))) &&
         ReplaceLocator(reference, LocatorOf(request, newPosition));
}

bool TileStore::RemoveFromTile(TileEntry& entry, std::uint64_t version, bool isReadOnly) {
  if (!ReadCurrentHead(entry)) return false;
  const std::uint32_t count = m_current.Versions().Count();
  const std::uint32_t index = m_current.Versions().Find(version, 0);
  if (index == count) return true;
  if (isReadOnly) return false;
  if (count > 1) return index == 0 ? RemoveNewest(entry) : RemoveOlder(entry, index, 1);
  entry.status = Format::kStatusEmpty;
  return true;
}

// Where the stamps do not descend, nothing tells which version would be the newest then.
bool TileStore::RemoveOlderThan(TileEntry& entry, std::uint64_t stamp, bool isReadOnly,
                                std::uint32_t& removed) {
  removed = 0;
  if (!ReadCurrentHead(entry)) return false;
  const Format::VersionTable versions = m_current.Versions();
  std::uint32_t kept = 0;
  while (kept < versions.Count() && versions.Stamp(kept) >= stamp)
    ++kept;
  for (std::uint32_t older = kept; older < versions.Count(); ++older)
    if (versions.Stamp(older) >= stamp) return false;
  const std::uint32_t count = versions.Count() - kept;
  if (count == 0) return true;
  if (isReadOnly || (kept > 0 && !RemoveOlder(entry, kept, count))) return false;
  if (kept == 0) entry.status = Format::kStatusEmpty;
  removed = count;
  return true;
}

// The current record without these entries of its table; the versions' own records are dead then.
bool TileStore::RemoveOlder(TileEntry& entry, unsigned int index, unsigned int count) {
  if (!ReadDataFromDataFile(entry.position, m_current)) return false;
  m_current.RemoveVersions(index, count);
  Reference reference = {entry};
  return MoveTo(entry, RewriteRecord(reference, entry.position, m_current), m_current);
}

// The next older version becomes the current one: its record gets the rest of the table.
bool TileStore::RemoveNewest(TileEntry& entry) {
  const Format::VersionTable versions = m_current.Versions();
  const std::uint64_t locator = versions.Locator(1);
  const std::uint64_t position = Format::PositionOf(locator);
  ZrByteArray olderBuffer;
  Record older = MakeRecord(olderBuffer);
  if (!ReadOlderHead(position, entry.position, versions.Stamp(1), older) ||
      !ReadDataFromDataFile(position, older))
    return false;

  const std::uint64_t oldLength = older.Head().length;
  if (!older.ReplaceVersions(versions, 1)) return false;
  entry.status = Format::StatusOf(locator);
  if (!entry.HoldsRecord())  // marked as removed, yet it is the newest that there is
    entry.status = older.Head().StatusByFilling();
  Reference reference = {entry};
  return MoveTo(entry,
                older.Head().length <= oldLength ? RewriteRecord(reference, position, older)
                                                 : WriteDataToDataFile(0, older),
                older);
}

// Reads the head of a record. `seenLength` is the record's, if it was seen before.
bool TileStore::ReadHead(std::uint64_t position, std::uint64_t seenLength, Record& record) const {
  Io::RecordReader reader(m_place.file, m_place.shape, m_place.map);
  return (reader.ReadHead(position, seenLength, record.Bytes()) && record.Parse() &&
          record.Head().MayLieAt(position, m_place.index)) ||
         Io::FailUnlessBySystem(ZrCause::kDamagedRecord);
}

// Only a record whose own newest version has the stamp that it is named by, and which is not the
// current one, may be written to as an older one.
bool TileStore::ReadOlderHead(std::uint64_t position, std::uint64_t currentPosition,
                              std::uint64_t stamp, Record& record) const {
  return (position != currentPosition && ReadHead(position, 0, record) &&
          record.Versions().Stamp(0) == stamp) ||
         Io::FailUnlessBySystem(ZrCause::kDamagedRecord);
}

// Reads the payload area of the record at `position`, of which the buffer holds the head.
bool TileStore::ReadDataFromDataFile(std::uint64_t position, Record& record) const {
  const Format::RecordHead& head = record.Head();
  ZrByteArray& bytes = record.Bytes();
  return (bytes.Resize(head.length) &&
          m_place.file.ReadAt(position + head.size, bytes.GetData() + head.size,
                              head.length - head.size)) ||
         Io::FailUnlessBySystem(ZrCause::kDamagedRecord);
}

// Puts the data into the payload area of a whole record in its buffer. Where the area grows beyond
// the record, it is zero.
bool TileStore::UpdateSwapData(Record& record, const StoreRequest& request) {
  record.SetPayload(request.span.capacity, request.span.FilledLength());
  if (!record.Bytes().Resize(record.Head().length)) return false;
  std::memcpy(record.Bytes().GetData() + record.Head().size + request.span.offset,
              request.data.data(), request.data.size());
  return true;
}

// Appends the record with the data in its payload area. Data that covers the whole area is written
// from where it is; then only the head in the buffer counts.
std::uint64_t TileStore::AppendSwapData(Record& record, const StoreRequest& request) {
  if (!request.span.CoversAll())
    return UpdateSwapData(record, request) ? WriteDataToDataFile(0, record) : 0;
  record.SetPayload(request.span.capacity, request.span.FilledLength());
  const std::uint64_t position = m_place.tail.Reserve(m_place.file);
  return position != 0 && WriteHeadAndData(position, record, request) &&
                 m_place.tail.EndsAt(position + record.Head().length)
             ? position
             : 0;
}

// Appends a record that is new altogether. What the data leaves of its payload area reads as zero,
// and has its room on the disk: a later piece must not fail for want of it.
std::uint64_t TileStore::AppendNewRecord(const Record& record, const StoreRequest& request) {
  const Format::StoreSpan& span = request.span;
  const std::uint64_t position = m_place.tail.Reserve(m_place.file);
  const std::uint64_t payload = position + record.Head().size;
  const std::uint64_t filledEnd = payload + span.FilledLength();
  const std::uint64_t end = position + record.Head().length;
  // In ascending order: what lies behind the end of the file need not be written.
  if (position == 0 || !m_place.file.ZeroFill(payload, span.offset) ||
      !WriteHeadAndData(position, record, request) ||
      !m_place.file.ZeroFill(filledEnd, end - filledEnd) || !m_place.tail.EndsAt(end))
    return 0;
  m_place.tail.GetGaps().Add(payload, payload + span.offset);
  m_place.tail.GetGaps().Add(filledEnd, end);
  return position;
}

// Writes the head, and the data at its place behind it, and nothing else.
bool TileStore::WriteHeadAndData(std::uint64_t position, const Record& record,
                                 const StoreRequest& request) {
  const unsigned char* head = record.Bytes().GetData();
  const std::uint64_t headSize = record.Head().size;
  const BytesToStore data = request.data;
  if (request.span.offset == 0)
    return m_place.file.WriteParts(position, head, headSize, data.data(), data.size());
  return m_place.file.WriteAt(position + headSize + request.span.offset, data.data(),
                              data.size()) &&
         m_place.file.WriteAt(position, head, headSize);
}

// Writes the whole record, where it was or, with a position of 0, at the end of the file. Returns
// where; 0 on failure, or if the buffer holds less than the record states.
std::uint64_t TileStore::WriteDataToDataFile(std::uint64_t position, const Record& record) {
  const std::uint64_t length = record.Head().length;
  const bool isNew = position == 0;
  if (isNew) position = m_place.tail.Reserve(m_place.file);
  if (position == 0 || length > record.Bytes().GetSize() ||
      !m_place.file.WriteAt(position, record.Bytes().GetData(), length))
    return 0;
  return !isNew || m_place.tail.EndsAt(position + length) ? position : 0;
}

// Writes the record over the one at `position`, which is no shorter, unless another
// tile's record lies in its room.
std::uint64_t TileStore::RewriteRecord(Reference& reference, std::uint64_t position,
                                       const Record& record) {
  const Format::RecordHead& head = record.Head();
  m_place.tail.GetGaps().Take(position, position + head.length);
  if (IsCrowded(position, head, head.length)) return WriteDataToDataFile(0, record);
  if (Io::SpansPages(position, head.length))
    return MoveHome(reference, WriteDataToDataFile(0, record), position, record, nullptr);
  const bool isReplaced = m_rewrite.KeepOld(reference.entry.number, position, head.length) &&
                          m_rewrite.WithinPage([&](std::uint64_t home) {
                            return WriteDataToDataFile(home, record) != 0;
                          });
  return isReplaced ? position : 0;
}

// Writes the record, with the data if there is a request, over the one at `home`, which is no
// shorter; it was written to `copy` before. Returns where the record is; 0 if the old one counts.
std::uint64_t TileStore::MoveHome(Reference& reference, std::uint64_t copy, std::uint64_t home,
                                  const Record& record, const StoreRequest* request) {
  const auto write = [&](std::uint64_t position) {
    return request != nullptr ? WriteHeadAndData(position, record, *request)
                              : WriteDataToDataFile(position, record) != 0;
  };
  const auto point = [&](std::uint64_t position) { return PointTo(reference, position); };
  return m_rewrite.AcrossPages(copy, home, write, point);
}

// Whether other records lie in the room of the one at `position`, behind what it has filled and
// before `end`, which counts from its start.
bool TileStore::IsCrowded(std::uint64_t position, const Format::RecordHead& head,
                          std::uint64_t end) const {
  return m_place.tail.IsCrowded(m_place.file, position,
                                head.size + std::min(head.filledLength, head.capacity), end);
}

// Makes a record the one that counts.
bool TileStore::PointTo(Reference& reference, std::uint64_t position) {
  if (reference.locatorPlace == 0) {
    reference.entry.position = position;
    return m_place.entries.WriteIndexValue(reference.entry);
  }
  const std::uint8_t status = Format::StatusOf(reference.locator);
  return ReplaceLocator(reference, Format::PackIndexValue(status, position));
}

bool TileStore::ReplaceLocator(Reference& reference, std::uint64_t locator) {
  std::uint64_t before;
  std::uint64_t after;
  StoreScalar(&before, reference.locator, m_place.shape.swap);
  StoreScalar(&after, locator, m_place.shape.swap);
  const Io::BoardChange change(m_place.board, reference.entry.number);
  if (!change.IsShown() || !Io::ReplaceWord(m_place.file, reference.locatorPlace, before, after))
    return false;
  reference.locator = locator;
  return true;
}

// Whoever has asked for an older version will ask for more of them, of other tiles: then of the
// current record only the head is read first. The older one is probably no larger.
unsigned int TileStore::LookUp_Inner(const Place& place, TileEntry& entry, const NameKey* key,
                                     std::uint64_t version, ZrByteArray& buffer,
                                     Io::RecordReader& record) {
  const std::uint64_t headSize =
      Format::RecordHeadSize(place.shape, key != nullptr ? key->GetStoredLength() : 0);
  const auto read = [&](std::uint64_t position, std::uint64_t length) {
    const std::uint64_t payload = length > headSize ? length - headSize : 0;
    return record.Read(position, {headSize, payload}, buffer) &&
           record.Head().MayLieAt(position, place.index);
  };
  const bool mayBeOlder = version < place.olderEnd.load(std::memory_order_relaxed);
  if (mayBeOlder ? !record.ReadHead(entry.position, entry.recordLength, buffer) ||
                       !record.Head().MayLieAt(entry.position, place.index)
                 : !read(entry.position, entry.recordLength))
    return Io::FailUnlessBySystem(ZrCause::kDamagedRecord, ZrResult::kReadFailure);
  const Format::RecordHead& head = record.Head();
  entry.recordLength = head.length;
  if (key != nullptr && !key->Matches(record.NameBytes(), head.nameLength))
    return ZrResult::kNotFound;
  const std::uint32_t older = record.Versions().SelectForLookup(version);
  entry.givenStamp = record.Versions().Stamp(older);
  entry.givenStatus =
      older == 0 ? entry.status : Format::StatusOf(record.Versions().Locator(older));
  if ((older != 0) != mayBeOlder)
    place.olderEnd.store(older != 0 ? version + 1 : 0, std::memory_order_relaxed);
  if (older == 0 && !mayBeOlder) return ZrResult::kOk;
  const std::uint64_t position =
      older == 0 ? entry.position : Format::PositionOf(record.Versions().Locator(older));
  const std::uint64_t guess = head.length <= kMostGuessed || older == 0 ? head.length : 0;
  if (read(position, guess)) return ZrResult::kOk;
  return Io::FailUnlessBySystem(ZrCause::kDamagedRecord, ZrResult::kReadFailure);
}

}  // namespace Zarn::Engine
