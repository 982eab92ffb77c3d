#include "TileCopier.h"

#include <algorithm>

#include "IndexValue.h"
#include "NameHash.h"
#include "NameKey.h"
#include "StoreArguments.h"

namespace Zarn::Engine {
namespace {

// Read where the size of a record is unknown: holds most tiles whole, and costs little where not.
constexpr std::uint64_t kUsualPayload = 16 * 1024;
constexpr std::uint64_t kTellEvery = 1 << 20;  // bytes written
// Of a tile, that older versions may have for tables: so much, or this part of the payloads.
constexpr std::uint64_t kUsualTables = 4096;
constexpr std::uint64_t kTablesPart = 16;

// An index of the same kind and size in a new container.
Format::IndexShape NewIndexOf(const OpenFile& source) {
  Format::IndexShape shape = source.Index().GetShape();
  shape.begin = Format::kHeaderSize;
  return shape;
}

}  // namespace

TileCopier::TileCopier(const OpenFile& source, const MaxSizes::Values& sizes, ZrFile64& target,
                       Layout layout, NameDecoder decode, Progress progress)
    : m_source(source),
      m_sizes(sizes),
      m_file(*source.GetStream()),
      m_target(target),
      m_layout(layout),
      m_decode(std::move(decode)),
      m_progress(std::move(progress)),
      m_records(source.GetShape()),
      m_index(source.Index().GetShape()),
      m_reader(m_file, m_records),
      m_head(m_headBytes, {m_records.kind}),
      m_writer(target, NewIndexOf(source)) {}

unsigned int TileCopier::Copy() {
  if (!m_file.GetLength(m_sourceLength)) return ZrResult::kReadFailure;
  m_limit = std::max(m_sourceLength, m_index.End());
  const bool isCopied = m_index.IsGrid() ? (m_layout != kTight || PlaceCrowdedRecords()) &&
                                               ForAllCells(&TileCopier::CopyCells) && Extend()
                                         : CopyNames() && Extend() && WriteCount();
  return isCopied ? ZrResult::kOk : m_failure;
}

// Writes what was kept back, and gives the target the room that the placed records state.
bool TileCopier::Extend() {
  const std::uint64_t position = m_writer.GetPosition();
  if (m_statedEnd <= position) return m_writer.Flush();
  const std::uint64_t chunk = std::min(m_statedEnd, Format::RedoChecksum::ChunkEnd(position));
  return m_writer.AppendZeros(chunk - position) && m_writer.Flush() &&
         m_target.SetLength(m_statedEnd);
}

// A light writer that appends where the file ends puts records into the room that the last one has
// stated and not filled. If each had its room, the target might be many times as long. So those
// whose room holds others come first, in the order in which they lie in the source: then none has
// less room before the end of the file than there.
bool TileCopier::PlaceCrowdedRecords() {
  if (!ForAllCells(&TileCopier::CollectExtents)) return false;
  std::sort(m_extents.begin(), m_extents.end(),
            [](const auto& a, const auto& b) { return a.begin < b.begin; });
  for (std::size_t i = 0; i + 1 < m_extents.size(); ++i) {
    const std::uint64_t next = m_extents[i + 1].begin;
    const bool isCrowded = next >= m_extents[i].filledEnd && next < m_extents[i].end;
    if (isCrowded && !PlaceRecord(m_extents[i].begin)) return false;
  }
  m_read = 0;
  return true;
}

bool TileCopier::CollectExtents(const Io::IndexWalker& cells) {
  for (std::size_t cell = 0; cell < cells.Size(); ++cell) {
    const std::uint64_t entry = cells.Value(cell);
    if (Format::StatusOf(entry) == Format::kStatusEmpty) continue;
    if (!AddExtent(Format::PositionOf(entry))) return CannotRead();
    CollectVersions();
    for (std::size_t i = 1; i < m_versions.size(); ++i)
      if (!AddExtent(Format::PositionOf(m_versions[i].locator))) return CannotRead();
  }
  return true;
}

// Heads of records that do not overlap are together no longer than the file.
bool TileCopier::AddExtent(std::uint64_t position) {
  if (!m_reader.ReadHead(position, 0, m_payload)) return false;
  const Format::RecordHead& head = m_reader.Head();
  m_read += head.size;
  m_extents.push_back(head.ExtentAt(position));
  return head.MayLieAt(position, m_index) && m_read <= m_sourceLength;
}

// As far as the record is filled. It has one version.
bool TileCopier::PlaceRecord(std::uint64_t position) {
  if (!m_reader.ReadHead(position, 0, m_payload)) return CannotRead();
  const Format::RecordHead& head = m_reader.Head();
  Version version = {m_reader.Versions().Stamp(0), m_reader.Versions().Locator(0)};
  const std::uint64_t target = m_writer.GetPosition();
  if (!HasRoomFor(head.length) || !BeginHead(version, {})) return false;
  if (!m_payload.ResizeForOverwrite(head.filledLength) ||
      !m_file.ReadAt(position + head.size, m_payload.GetData(), head.filledLength))
    return CannotRead();
  m_statedEnd = std::max(m_statedEnd, target + head.length);
  m_placed.emplace(position, target);
  return m_writer.AppendRecord(m_head, m_payload) && TellNowAndThen();
}

// Whether so much may be appended.
bool TileCopier::HasRoomFor(std::uint64_t size) {
  const std::uint64_t position = m_writer.GetPosition();
  m_isTooLong = position > m_limit || size > m_limit - position;
  return !m_isTooLong || CannotRead();
}

// By way of the file, not of the index in memory, of which a large grid would fill too much.
bool TileCopier::ForAllCells(CellsVisit visit) {
  m_all = m_index.CountIn(m_sourceLength);
  Io::IndexWalker cells(m_file, m_index, m_records.swap, m_all);
  while (cells.Next())
    if (!(this->*visit)(cells) || !m_progress(cells.Position(), m_all)) return false;
  return !cells.HasFailed() || CannotRead();
}

bool TileCopier::CopyCells(const Io::IndexWalker& cells) {
  for (std::size_t i = 0; i < cells.Size(); ++i) {
    m_done = cells.First() + i;
    std::uint64_t value = cells.Value(i);
    if (Format::StatusOf(value) == Format::kStatusEmpty) continue;
    if (!Format::HoldsRecord(Format::StatusOf(value))) return CannotRead();
    std::uint64_t length = m_source.Index().GetHint(m_done);
    if (length == 0)
      length = Format::DistanceToNext(value, i + 1 < cells.Size() ? cells.Value(i + 1) : 0);
    if (!LeadToPlaced(value) &&
        (!ReadRecord(Format::PositionOf(value), length) || !WriteTile(value, {})))
      return false;
    if (!m_writer.PutEntry(m_done, &value)) return false;
  }
  return true;
}

bool TileCopier::CopyNames() {
  std::vector<std::uint32_t> slots;
  if (!m_source.Names()->Sort(slots)) return CannotRead();
  m_all = slots.size();
  m_table.emplace(slots.size(), slots.size());
  m_copied.reserve(slots.size());
  for (std::size_t i = 0; i < slots.size(); ++i) {
    m_done = i;
    std::uint64_t value;
    if (!m_source.Index().ReadStable(slots[i], value)) return CannotRead();
    if (Format::StatusOf(value) != Format::kStatusEmpty && !CopyName(slots[i], value)) return false;
  }
  return true;
}

bool TileCopier::CopyName(std::uint32_t number, std::uint64_t value) {
  if (!Format::HoldsRecord(Format::StatusOf(value))) return CannotRead();
  if (!ReadRecord(Format::PositionOf(value), m_source.Index().GetHint(number))) return false;
  const Format::RecordHead& head = m_reader.Head();
  Name name;
  name.stored.assign(reinterpret_cast<const char*>(m_reader.NameBytes()), head.nameLength);
  name.charset = head.charset;
  std::uint64_t slot[2] = {value};
  std::uint64_t& code = slot[1];
  if (!Decode(name) || !FindCode(name, code)) return Io::FailUnlessBySystem(ZrCause::kBadName);
  if (FindCopied(code) != nullptr) return true;  // shadowed
  const std::string_view units(reinterpret_cast<const char*>(name.units.data()),
                               name.units.size() * sizeof(char16_t));
  if (!WriteTile(slot[0], {Format::kNameCharsetUtf16, units}) ||
      !m_writer.PutEntry(m_copied.size(), slot))
    return false;
  m_table->Insert(code, static_cast<std::uint32_t>(m_copied.size()),
                  [](std::uint32_t) { return false; });
  m_copied.push_back({code, number});
  return true;
}

const TileCopier::CopiedName* TileCopier::FindCopied(std::uint64_t code) const {
  const auto slot =
      m_table->Find(code, [&](std::uint32_t number) { return m_copied[number].code == code; });
  return slot ? &m_copied[*slot] : nullptr;
}

bool TileCopier::WriteCount() {
  const auto bytes =
      Format::EncodeNamingHeader(m_sizes.MakeHeader(m_index.count, m_copied.size()), false);
  return m_target.WriteAt(Format::kHeaderSize, bytes.data(), bytes.size());
}

bool TileCopier::Decode(Name& name) const {
  const std::uint32_t version = m_records.formatVersion;
  if (version == Format::kOlderVersion) return m_decode({name.charset, name.stored}, name.units);
  if (version != Format::kCurrentVersion || name.stored.size() % sizeof(char16_t) != 0)
    return false;
  name.units = UnitsOf(name.stored, m_records.swap);
  return true;
}

// The name in a slot of the source.
bool TileCopier::ReadName(std::uint32_t slot, Name& name) {
  std::uint64_t value;
  ZrByteArray bytes;
  unsigned char charset[Format::kWidth4];
  Io::RecordReader reader(m_file, m_records);
  if (!m_source.Index().ReadStable(slot, value)) return false;
  const std::uint64_t position = Format::PositionOf(value);
  if (!m_file.ReadAt(position + Format::kCharsetOffset, charset, sizeof charset) ||
      reader.ReadName(position, bytes) != Io::NameRead::kRead)
    return false;
  name.charset = LoadScalar<std::uint32_t>(charset, m_records.swap);
  name.stored.assign(reinterpret_cast<const char*>(bytes.GetData()), bytes.GetSize());
  return true;
}

// The code under which the target is to find the name: the first that no other name has. A name
// that was copied already gets the code of that copy, which shadows it, for lookups find the lower
// code first; it is the same name if the stored bytes are, for lookups do not ask for their
// charset. Bytes that differ and become one name are no case for a choice.
bool TileCopier::FindCode(const Name& name, std::uint64_t& code) {
  code = Format::HashUnits(name.units);
  while (const CopiedName* const found = FindCopied(code)) {
    Name other;
    if (!ReadName(found->source, other) || !Decode(other)) return CannotRead();
    if (other.units == name.units) return other.stored == name.stored;
    const std::uint64_t next = Format::GetNextHashCode(code);
    if (next == code) return false;
    code = next;
  }
  return true;
}

// The record becomes that of m_reader, its payload m_payload. A hint of 0 is none.
//
// Each record is read for its payload, and some once before for their tables. Where that comes to
// more than twice the file, tiles share room, as many as damage makes them: a small file could
// ask for more copies of one record than any disk holds.
bool TileCopier::ReadRecord(std::uint64_t position, std::uint64_t hint) {
  constexpr std::uint64_t kHead = Format::kGridRecordHead;
  const std::uint64_t payload = hint > kHead ? hint - kHead : kUsualPayload;
  if (!m_reader.Read(position, {kHead, payload}, m_payload) ||
      !m_reader.Head().MayLieAt(position, m_index))
    return CannotRead();
  m_read += m_reader.Head().length;
  m_isTooLong = m_read > 2 * m_sourceLength;
  return !m_isTooLong || CannotRead();
}

// Writes the tile of an index value, whose current record was just read. The value then leads to
// the copy.
bool TileCopier::WriteTile(std::uint64_t& value, const Format::StoredName& name) {
  CollectVersions();
  m_payloadBytes = 0;
  m_tableBytes = 0;
  for (std::size_t i = m_versions.size(); i-- > 0;) {
    std::uint64_t& locator = m_versions[i].locator;
    const std::uint64_t position = Format::PositionOf(i == 0 ? value : locator);
    locator = Format::PackIndexValue(Format::StatusOf(locator), position);
    if (LeadToPlaced(locator)) continue;
    if ((m_versions.size() > 1 && !ReadRecord(position, 0)) || !AppendVersion(i, name))
      return false;
  }
  value =
      Format::PackIndexValue(Format::StatusOf(value), Format::PositionOf(m_versions[0].locator));
  return true;
}

// Whether the record of an index value is in the target already; the value then leads there.
bool TileCopier::LeadToPlaced(std::uint64_t& value) const {
  const auto placed = m_placed.find(Format::PositionOf(value));
  if (placed == m_placed.end()) return false;
  value = Format::PackIndexValue(Format::StatusOf(value), placed->second);
  return true;
}

// The newest version always is alive, whatever its entry says: it is what a lookup gives.
void TileCopier::CollectVersions() {
  const Format::VersionTable table = m_reader.Versions();
  m_versions.clear();
  for (std::uint32_t entry = 0; entry < table.Count(); ++entry) {
    const bool isGone = Format::IsGone(Format::StatusOf(table.Locator(entry)));
    if (entry == 0 || !isGone) m_versions.push_back({table.Stamp(entry), table.Locator(entry)});
  }
}

// Begins the head of the version's copy. The record that was read last says how far it is filled,
// and its status where the locator has none.
bool TileCopier::BeginHead(Version& version, const Format::StoredName& name) {
  const Format::RecordHead& head = m_reader.Head();
  std::uint8_t status = Format::StatusOf(version.locator);
  if (!Format::HoldsRecord(status)) status = head.StatusByFilling();
  version.locator = Format::PackIndexValue(status, 0);
  return m_head.Begin({version.stamp, status, head.capacity, head.filledLength}, name);
}

// Appends the record that was just read, with a table of the tile's versions so far or of itself.
// m_versions then says where it is.
bool TileCopier::AppendVersion(std::size_t number, const Format::StoredName& name) {
  static_assert(sizeof(Version) == Format::kVersionEntrySize);
  Version& version = m_versions[number];
  const Format::VersionTable table(reinterpret_cast<const unsigned char*>(&version),
                                   static_cast<std::uint32_t>(m_versions.size() - number), false);
  if (!BeginHead(version, name) || (HasWholeTable(number) && !m_head.ReplaceVersions(table, 0)))
    return false;
  // UTF-16 needs up to twice the room of the bytes that an older file has for a name.
  const std::uint64_t nameLength = m_reader.Head().nameLength;
  if (name.bytes.size() > nameLength)
    m_limit += std::min<std::uint64_t>(name.bytes.size() - nameLength, nameLength);
  version.locator |= m_writer.GetPosition();
  return HasRoomFor(m_head.Head().length) && m_writer.AppendRecord(m_head, m_payload) &&
         TellNowAndThen();
}

// Only the table of the current record counts. All of them would grow with the square of the number
// of versions.
bool TileCopier::HasWholeTable(std::size_t number) {
  const std::uint64_t others = (m_versions.size() - number - 1) * Format::kVersionEntrySize;
  m_payloadBytes += m_payload.GetSize();
  if (number == 0) return true;
  if (m_layout == kTight ||
      m_tableBytes + others > std::max(kUsualTables, m_payloadBytes / kTablesPart))
    return false;
  m_tableBytes += others;
  return true;
}

bool TileCopier::TellNowAndThen() {
  if (m_writer.GetPosition() - m_told < kTellEvery) return true;
  m_told = m_writer.GetPosition();
  return m_progress(m_done, m_all);
}

}  // namespace Zarn::Engine
