#include "TileCopier.h"

#include <algorithm>
#include <cstring>

#include "IndexValue.h"
#include "NameHash.h"
#include "StoreArguments.h"
#include "ZrResult.h"

namespace Zarn::Engine {
namespace {

constexpr std::uint64_t kCellsAtOnce = 8192;
// Read where the size of a record is unknown: holds most tiles whole, and costs little where not.
constexpr std::uint64_t kUsualPayload = 16 * 1024;
constexpr std::uint64_t kTellEvery = 1 << 20;  // bytes written

bool IsGrid(std::uint32_t fileKind) { return fileKind == Format::kGridFile; }

Format::IndexArea IndexAreaOf(const FileState& state) {
  const Format::HeaderView header(state.header);
  const std::uint64_t begin = header.IndexOffset();
  return {begin, IsGrid(header.FileKind())
                     ? Format::GridDataStart(begin, state.grid.rowCount, state.grid.colCount)
                     : Format::NamingSlotOffset(begin, state.naming.capacity)};
}

ImageWriter WriterFor(const FileState& source, ZrFile64& target) {
  constexpr std::uint64_t kIndex = Format::kHeaderSize;
  if (IsGrid(Format::HeaderView(source.header).FileKind()))
    return {target, Format::GridEntryOffset(kIndex, 0), Format::kGridEntrySize,
            Format::GridDataStart(kIndex, source.grid.rowCount, source.grid.colCount)};
  return {target, Format::NamingSlotOffset(kIndex, 0), Format::kNamingSlotSize,
          Format::NamingSlotOffset(kIndex, source.naming.capacity)};
}

}  // namespace

TileCopier::TileCopier(const FileState& source, ZrFile64& target, NameDecoder decode,
                       Progress progress)
    : m_source(source),
      m_target(target),
      m_decode(std::move(decode)),
      m_progress(std::move(progress)),
      m_kind(Format::HeaderView(source.header).FileKind()),
      m_sourceIndex(IndexAreaOf(source)),
      m_reader(*source.file, m_kind, source.swap),
      m_head(m_headBytes, m_kind, false),
      m_writer(WriterFor(source, target)) {}

unsigned int TileCopier::Copy() {
  if (!m_source.file->GetLength(m_sourceLength)) return ZrResult::kReadFailure;
  const unsigned int result = IsGrid(m_kind) ? CopyGrid() : CopyNames();
  if (result != ZrResult::kOk) return result;
  return m_writer.Flush() && (IsGrid(m_kind) || WriteCount()) ? ZrResult::kOk
                                                              : ZrResult::kWriteFailure;
}

// By way of the file, not of the index in memory, of which a large grid would fill too much.
// Entries beyond the end of the file are empty, and may be many more than those within.
unsigned int TileCopier::CopyGrid() {
  const std::uint64_t start = Format::GridEntryOffset(m_sourceIndex.begin, 0);
  const std::uint64_t inFile =
      (m_sourceLength - std::min(start, m_sourceLength) + Format::kGridEntrySize - 1) /
      Format::kGridEntrySize;
  const std::uint64_t count = std::min<std::uint64_t>(
      Format::GridEntryCount(m_source.grid.rowCount, m_source.grid.colCount), inFile);
  m_all = count;
  std::vector<std::uint64_t> entries;
  for (std::uint64_t cell = 0; cell < count; cell += entries.size()) {
    const std::uint64_t position = start + cell * Format::kGridEntrySize;
    const std::uint64_t empty =
        (m_source.file->NextData(position) - position) / Format::kGridEntrySize;
    if (empty >= count - cell) break;
    cell += empty;
    entries.resize(std::min(kCellsAtOnce, count - cell));
    if (!ReadCells(cell, entries)) return ZrResult::kReadFailure;
    const unsigned int result = CopyCells(cell, entries);
    if (result != ZrResult::kOk) return result;
    if (!m_progress(cell + entries.size(), count)) return ZrResult::kWriteFailure;
  }
  return ZrResult::kOk;
}

// Entries beyond the end of the file are empty.
bool TileCopier::ReadCells(std::uint64_t first, std::vector<std::uint64_t>& entries) const {
  const std::uint64_t position =
      Format::GridEntryOffset(m_sourceIndex.begin, 0) + first * Format::kGridEntrySize;
  const std::uint64_t size = entries.size() * Format::kGridEntrySize;
  auto* bytes = reinterpret_cast<unsigned char*>(entries.data());
  const std::uint64_t got = m_source.file->ReadUpTo(position, bytes, size);
  std::uint64_t length;
  if (got < size && (!m_source.file->GetLength(length) || length > position + got)) return false;
  std::memset(bytes + got, 0, size - got);
  for (std::uint64_t& entry : entries)
    entry = LoadScalar<std::uint64_t>(&entry, m_source.swap);
  return true;
}

unsigned int TileCopier::CopyCells(std::uint64_t first, const std::vector<std::uint64_t>& entries) {
  for (std::size_t i = 0; i < entries.size(); ++i) {
    m_done = first + i;
    const std::uint64_t position = Format::PositionOf(entries[i]);
    if (Format::StatusOf(entries[i]) == Format::kStatusEmpty) continue;
    const std::uint64_t next = i + 1 < entries.size() ? entries[i + 1] : 0;
    std::uint64_t length = m_source.index->GetHint(first + i);
    if (length == 0) length = Format::DistanceToNext(entries[i], next);
    if (!Format::HoldsRecord(Format::StatusOf(entries[i])) || !ReadRecord(position, length))
      return ZrResult::kReadFailure;
    std::uint64_t value;
    const unsigned int result = WriteTile(entries[i], {}, value);
    if (result != ZrResult::kOk) return result;
    if (!m_writer.PutEntry(first + i, &value)) return ZrResult::kWriteFailure;
  }
  return ZrResult::kOk;
}

unsigned int TileCopier::CopyNames() {
  const std::vector<NameTable::Entry> places = m_source.names->Sorted();
  m_all = places.size();
  for (std::size_t i = 0; i < places.size(); ++i) {
    m_done = i;
    std::uint64_t value;
    if (!m_source.index->ReadValue(places[i].slot, m_source.swap, value))
      return ZrResult::kReadFailure;
    if (Format::StatusOf(value) == Format::kStatusEmpty) continue;
    const unsigned int result = CopyName(places[i], value);
    if (result != ZrResult::kOk) return result;
  }
  return ZrResult::kOk;
}

unsigned int TileCopier::CopyName(const NameTable::Entry& place, std::uint64_t value) {
  if (!Format::HoldsRecord(Format::StatusOf(value)) ||
      !ReadRecord(Format::PositionOf(value), m_source.index->GetHint(place.slot)))
    return ZrResult::kReadFailure;
  const Format::RecordHead& head = m_reader.Head();
  Name name;
  name.stored.assign(reinterpret_cast<const char*>(m_reader.NameBytes()), head.nameLength);
  name.charset = head.charset;
  std::uint64_t code;
  if (!Decode(name)) return ZrResult::kWriteFailure;
  switch (FindCode(name, code)) {
    case CodeSearch::kShadowed:
      return ZrResult::kOk;
    case CodeSearch::kTaken:
      return ZrResult::kWriteFailure;
    case CodeSearch::kUnreadable:
      return ZrResult::kReadFailure;
    case CodeSearch::kFree:
      break;
  }
  const std::string_view units(reinterpret_cast<const char*>(name.units.data()),
                               name.units.size() * sizeof(char16_t));
  std::uint64_t slot[2] = {0, code};
  const unsigned int result = WriteTile(value, {Format::kNameCharsetUtf16, units}, slot[0]);
  if (result != ZrResult::kOk) return result;
  return m_writer.PutEntry(m_names.GetSize(), slot) && m_names.Insert(code, place.slot)
             ? ZrResult::kOk
             : ZrResult::kWriteFailure;
}

bool TileCopier::WriteCount() {
  Format::NamingHeader header = m_source.naming;
  header.count = m_names.GetSize();
  header.flags = Format::kVersionsEnabled;
  const auto image = Format::EncodeNamingHeader(header, false);
  return m_target.WriteAt(Format::kHeaderSize, image.data(), image.size());
}

bool TileCopier::Decode(Name& name) const {
  const std::uint32_t version = Format::HeaderView(m_source.header).FormatVersion();
  if (version == Format::kOlderVersion) return m_decode({name.charset, name.stored}, name.units);
  if (version != Format::kCurrentVersion || name.stored.size() % sizeof(char16_t) != 0)
    return false;
  name.units.resize(name.stored.size() / sizeof(char16_t));
  for (std::size_t i = 0; i < name.units.size(); ++i)
    name.units[i] = LoadScalar<std::uint16_t>(&name.stored[i * sizeof(char16_t)], m_source.swap);
  return true;
}

// The name in a slot of the source.
bool TileCopier::ReadName(std::uint32_t slot, Name& name) {
  std::uint64_t value;
  ZrByteArray bytes;
  unsigned char charset[Format::kWidth4];
  Io::RecordReader reader(*m_source.file, m_kind, m_source.swap);
  if (!m_source.index->ReadValue(slot, m_source.swap, value)) return false;
  const std::uint64_t position = Format::PositionOf(value);
  if (!m_source.file->ReadAt(position + Format::kCharsetOffset, charset, sizeof charset) ||
      reader.ReadName(position, bytes) != Io::NameRead::kRead)
    return false;
  name.charset = LoadScalar<std::uint32_t>(charset, m_source.swap);
  name.stored.assign(reinterpret_cast<const char*>(bytes.GetData()), bytes.GetSize());
  return true;
}

// The code under which the target is to find the name: the first that no other name has. A name
// that was copied already is shadowed by that copy, for lookups find the lower code first; it is
// the same name if the stored bytes are, for lookups do not ask for their charset. Bytes that
// differ and become one name are no case for a choice.
TileCopier::CodeSearch TileCopier::FindCode(const Name& name, std::uint64_t& code) {
  code = Format::HashUnits(name.units);
  for (;;) {
    const auto found = m_names.Find(code);
    if (!found) return CodeSearch::kFree;
    Name other;
    if (!ReadName(*found, other) || !Decode(other)) return CodeSearch::kUnreadable;
    if (other.units == name.units)
      return other.stored == name.stored ? CodeSearch::kShadowed : CodeSearch::kTaken;
    const std::uint64_t next = Format::NextHashCode(code);
    if (next == code) return CodeSearch::kTaken;
    code = next;
  }
}

// The record becomes that of m_reader, its payload m_payload. A length of 0 is unknown.
//
// Each record is read for its payload, and some once before for their tables. Where that comes to
// more than twice the file, tiles share records, as only damage can make them: a small file could
// ask for more copies of one record than any disk holds.
bool TileCopier::ReadRecord(std::uint64_t position, std::uint64_t guessedLength) {
  constexpr std::uint64_t kHead = Format::kGridRecordHead;
  const std::uint64_t payload = guessedLength > kHead ? guessedLength - kHead : kUsualPayload;
  if (!m_reader.Read(position, {kHead, payload}, m_payload) || m_reader.Head().versionCount == 0 ||
      !m_sourceIndex.LeavesRoom(position, m_reader.Head().length))
    return false;
  m_read += m_reader.Head().length;
  return m_read <= 2 * m_sourceLength;
}

// Writes the tile whose current record was just read; `value` is its index value.
unsigned int TileCopier::WriteTile(std::uint64_t value, const Format::StoredName& name,
                                   std::uint64_t& newValue) {
  CollectVersions();
  const std::size_t count = m_versions.size();
  for (std::size_t i = count; i-- > 0;) {
    const Version version = m_versions[i];
    const std::uint64_t position = Format::PositionOf(i == 0 ? value : version.locator);
    if (count > 1 && !ReadRecord(position, 0)) return ZrResult::kReadFailure;
    if (!AppendVersion(version, name, i + 1 == count)) return ZrResult::kWriteFailure;
  }
  newValue = Format::PackIndexValue(Format::StatusOf(value), m_headPosition);
  return ZrResult::kOk;
}

// The newest version always is alive, whatever its entry says: it is what a lookup gives.
void TileCopier::CollectVersions() {
  const Format::VersionTable table = m_reader.Versions();
  m_versions.clear();
  for (std::uint32_t entry = 0; entry < table.Count(); ++entry) {
    const std::uint8_t status = Format::StatusOf(table.Locator(entry));
    const bool isGone = status == Format::kStatusEmpty || status == Format::kStatusUnknown;
    if (entry == 0 || !isGone) m_versions.push_back({table.Stamp(entry), table.Locator(entry)});
  }
}

// Appends the record that was just read, with a table of the tile's versions so far.
bool TileCopier::AppendVersion(const Version& version, const Format::StoredName& name,
                               bool isFirst) {
  const Format::RecordHead& head = m_reader.Head();
  std::uint8_t status = Format::StatusOf(version.locator);
  if (!Format::HoldsRecord(status)) status = head.StatusByFilling();
  if (isFirst) {
    if (!m_head.Begin({version.stamp, status, head.capacity, head.filledLength}, name))
      return false;
  } else {
    const std::uint8_t previous = Format::StatusOf(m_head.Versions().Locator(0));
    m_head.SetLocator(0, Format::PackIndexValue(previous, m_headPosition));
    if (!m_head.PushVersion(version.stamp, Format::PackIndexValue(status, 0))) return false;
    m_head.SetPayload(head.capacity, head.filledLength);
  }
  m_headPosition = m_writer.GetPosition();
  return m_writer.AppendRecord(m_head, m_payload) && TellNowAndThen();
}

bool TileCopier::TellNowAndThen() {
  if (m_writer.GetPosition() - m_told < kTellEvery) return true;
  m_told = m_writer.GetPosition();
  return m_progress(m_done, m_all);
}

}  // namespace Zarn::Engine
