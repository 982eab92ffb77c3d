#include "Verifier.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <new>
#include <vector>

#include "FileHeader.h"
#include "Findings.h"
#include "IndexHeaders.h"
#include "IndexWalker.h"
#include "NameHash.h"
#include "NameKey.h"
#include "RecordHead.h"

namespace Zarn::Engine {
namespace {

constexpr std::uint64_t kEntriesAtOnce = 1024;
// Read first; holds most heads whole.
constexpr std::uint64_t kUsualHead = 256;
// Holds a table of 4 million versions, which nobody stores: each store writes a table of all
// before.
constexpr std::uint64_t kLargestHead = 64 << 20;

constexpr const char* kPastTheEnd = "the record runs past the end of the file";
constexpr const char* kIndexUnreadable = "the index cannot be read";
constexpr const char* kNeverUsed = "the slot counts as used and never was";

/// One check.
class Verifier {
 public:
  Verifier(const ZrFile64& file, const Format::XorString& xorString,
           const ZrCompactFile::VerifyReport& report, const ZrCompactFile::VerifyProgress& progress,
           ZrCompactFile::ZrVerifySummary& summary)
      : m_file(file),
        m_xorString(xorString),
        m_summary(summary),
        m_findings(report, progress, summary.findings) {}

  unsigned int Run() {
    if (!m_file.GetLength(m_fileLength)) {
      m_findings.Report(Finding::kUnreadable, 0, "the file does not tell its length");
    } else if (CheckHeader() && CheckIndexHeader()) {
      CheckEntries();
      CheckOrdinals();
      CheckOverlaps();
    }
    if (m_summary.findings != 0) {
      m_findings.NoteLast();
      return ZrResult::kReadFailure;
    }
    return m_findings.HaveEnded() ? ZrResult::kNotUsable : ZrResult::kOk;
  }

 private:
  using Finding = ZrCompactFile::ZrFinding;
  /// A head, and its bytes in memory.
  struct Head {
    std::uint64_t position = 0;
    Format::RecordHead fields;
    ZrByteArray bytes;
  };
  struct Extent : Format::RecordExtent {
    std::uint32_t number;  // of the entry
  };
  /// A hash code, with the ordinal in the lowest byte, so that the codes of one hash are
  /// neighbours.
  struct Code {
    std::uint64_t rotated;
    std::uint32_t number;
  };

  bool IsGrid() const { return m_index.IsGrid(); }
  Format::VersionTable VersionsOf(const Head& head) const {
    return head.fields.Table(head.bytes.GetData(), m_records.swap);
  }
  // Empty in a grid.
  static Format::StoredName NameOf(const Head& head) {
    const char* bytes = reinterpret_cast<const char*>(head.bytes.GetData());
    return {head.fields.charset, {bytes + Format::kNameOffset, head.fields.nameLength}};
  }

  bool CheckHeader() {
    constexpr auto kKind = Finding::kHeader;
    switch (Io::ReadFileHeader(m_file, m_xorString, m_header, m_records.swap)) {
      case Io::HeaderRead::kTooShort:
        return m_findings.Fail(kKind, 0, "the file has no whole header");
      case Io::HeaderRead::kBadMagic:
        return m_findings.Fail(kKind, 0, "the header does not begin with \"CF\"");
      case Io::HeaderRead::kOk:
        break;
    }
    const Format::HeaderView header(m_header);
    m_records = header.Records(m_records.swap);
    m_index = {m_records.kind, header.IndexOffset()};
    if (m_header[Format::kBigEndianFlagOffset] > 1)
      m_findings.Report(kKind, Format::kBigEndianFlagOffset, "the byte order is neither 0 nor 1");
    if (m_records.formatVersion != Format::kCurrentVersion &&
        m_records.formatVersion != Format::kOlderVersion)
      m_findings.Report(kKind, Format::kFormatVersionOffset, "the format version is unknown");
    if (!std::isfinite(header.CreateTime()))
      m_findings.Report(kKind, Format::kCreateTimeOffset, "the time of creation is not a number");
    // The others are the words of the board, which those who use the file leave when they die.
    const auto isSet = [](unsigned char byte) { return byte != 0; };
    const auto* const bytes = m_header.data();
    if (std::any_of(bytes + Format::kReservedOffset, bytes + Format::kHeaderFieldsSize, isSet) ||
        isSet(bytes[Format::kMaskOffset]))
      m_findings.Report(kKind, Format::kReservedOffset, "the reserved bytes are not zero");
    if (!IsGrid() && !m_records.IsNaming())
      return m_findings.Fail(kKind, Format::kFileKindOffset, "the kind of the file is unknown");
    // Only the index of names ever moves.
    if (IsGrid() ? m_index.begin != Format::kHeaderSize : m_index.begin < Format::kHeaderSize)
      return m_findings.Fail(kKind, Format::kIndexOffsetOffset,
                             "the index does not lie behind the header");
    return true;
  }

  bool CheckIndexHeader() {
    const std::uint64_t size = m_index.HeaderSize();
    if (m_fileLength < size || m_index.begin > m_fileLength - size)
      return m_findings.Fail(Finding::kIndex, m_index.begin,
                             "the index header does not lie in the file");
    Format::GridHeaderImage grid;
    Format::NamingHeaderImage naming;
    if (!m_file.ReadAt(m_index.begin, IsGrid() ? grid.data() : naming.data(), size))
      return m_findings.Fail(Finding::kUnreadable, m_index.begin,
                             "the index header cannot be read");
    if (IsGrid())
      CheckGridHeader(Format::DecodeGridHeader(grid, m_records.swap));
    else if (!CheckNamingHeader(Format::DecodeNamingHeader(naming, m_records.swap)))
      return false;
    CheckIndexArea();
    return true;
  }

  void CheckGridHeader(const Format::GridHeader& grid) {
    const std::uint32_t cells = grid.rowCount * grid.colCount;  // wraps, as where it is created
    if (grid.rowCount == 0 || grid.colCount == 0 || cells > Format::kMaxGridCells)
      m_findings.Report(Finding::kIndex, m_index.begin,
                        "no grid has this number of rows and columns");
    CheckFlags(grid.flags, m_index.begin + Format::kGridFlagsOffset);
    m_colCount = grid.colCount;
    m_index = Format::IndexShape::OfGrid(m_index.begin, grid.rowCount, grid.colCount);
    m_count = m_index.count;
  }

  bool CheckNamingHeader(const Format::NamingHeader& naming) {
    if (naming.capacity == 0 || naming.capacity > Format::kMaxNamingCapacity)
      return m_findings.Fail(Finding::kIndex, m_index.begin, "no index has this number of slots");
    if (naming.count > naming.capacity)
      return m_findings.Fail(Finding::kIndex, m_index.begin + Format::kNamingCountOffset,
                             "more slots are in use than there are");
    CheckFlags(naming.flags, m_index.begin + Format::kNamingFlagsOffset);
    m_index.count = naming.capacity;
    m_count = naming.count;
    return true;
  }

  void CheckFlags(std::uint32_t flags, std::uint64_t position) {
    m_hasVersions = (flags & Format::kVersionsEnabled) != 0;
    if ((flags & ~Format::kVersionsEnabled) != 0)
      m_findings.Report(Finding::kIndex, position, "a flag is set that has no meaning");
  }

  void CheckIndexArea() {
    m_summary.indexBytes =
        Format::kHeaderSize + std::min(m_index.End(), m_fileLength) - m_index.begin;
    if (m_index.End() <= m_fileLength) return;
    m_findings.Report(Finding::kIndex, m_fileLength, "the file ends within the index");
    const std::uint64_t first = m_index.EntryAt(0);
    const std::uint64_t room = m_fileLength > first ? m_fileLength - first : 0;
    m_count = std::min(m_count, room / m_index.EntrySize());
  }

  void CheckEntries() {
    Io::IndexWalker entries(m_file, m_index, m_records.swap, m_count,
                            {.blockSize = kEntriesAtOnce});
    for (std::uint64_t next = 0; next < m_count && !m_findings.HaveEnded();) {
      const bool isRead = entries.Next();
      // Cells in a hole are empty. Slots should not lie there, but an index may claim more of them
      // than the file has bytes.
      if (entries.First() > next && !IsGrid()) ReportEntry(Finding::kEntry, next, kNeverUsed);
      if (!isRead && !entries.HasFailed()) break;
      CheckBlock(entries);
      next = entries.Position();
      if (next < m_count) m_findings.TellProgress(next, m_count);
    }
    if (!m_findings.HaveEnded() && entries.Position() < m_count)
      ReportEntry(Finding::kUnreadable, entries.Position(), kIndexUnreadable);
    m_findings.TellProgress(m_count, m_count);
  }

  void CheckBlock(const Io::IndexWalker& entries) {
    if (entries.HasFailed()) ReportEntry(Finding::kUnreadable, entries.First(), kIndexUnreadable);
    for (std::size_t i = 0; i < entries.Size() && !m_findings.HaveEnded(); ++i)
      CheckEntry(entries.First() + i, entries.Value(i), IsGrid() ? 0 : entries.Code(i));
  }

  void CheckEntry(std::uint64_t number, std::uint64_t value, std::uint64_t code) {
    if (IsGrid() && Format::StatusOf(value) == Format::kStatusEmpty) return;
    SetTile(number);
    m_code = code;
    if (!IsGrid())
      m_codes.push_back({std::rotl(m_code, 64 - static_cast<int>(Format::kOrdinalShift)),
                         static_cast<std::uint32_t>(number)});
    const std::uint8_t status = Format::StatusOf(value);
    const std::uint64_t position = Format::PositionOf(value);
    const bool isEmpty = status == Format::kStatusEmpty;
    if (isEmpty && position == 0) {
      if (m_code == 0) ReportEntry(Finding::kEntry, number, kNeverUsed);
    } else if (!isEmpty && !Format::HoldsRecord(status)) {
      ReportEntry(Finding::kEntry, number, "the entry has a status that is never stored");
    } else if (!IsPlace(position)) {
      ReportEntry(Finding::kEntry, number, "the entry names a place where no record can be");
    } else if (!isEmpty) {
      CheckTile(position);
    } else if (ReadHead(Finding::kRecord, position, m_current)) {
      // A name whose tile is gone is still listed, from the record that the slot goes on naming.
      CheckName(m_current);
    }
  }

  void CheckTile(std::uint64_t position) {
    if (!ReadRecord(Finding::kRecord, position, m_current)) return;
    ++m_summary.tiles;
    KeepExtent(m_current);
    if (!IsGrid()) CheckName(m_current);
    const std::uint32_t count = m_current.fields.versionCount;
    if (count > 1 && !m_hasVersions)
      m_findings.Report(Finding::kRecord, position,
                        "the tile has versions, which the file does not keep");
    for (std::uint32_t entry = 1; entry < count && !m_findings.HaveEnded(); ++entry)
      CheckOlderVersion(entry);
  }

  // One that is marked as gone is dead space, but lookups still find it.
  void CheckOlderVersion(std::uint32_t entry) {
    constexpr auto kKind = Finding::kVersion;
    const std::uint64_t locator = VersionsOf(m_current).Locator(entry);
    const std::uint8_t status = Format::StatusOf(locator);
    const std::uint64_t position = Format::PositionOf(locator);
    const std::uint64_t stamp = VersionsOf(m_current).Stamp(entry);
    m_findings.At().version = stamp;
    const bool isGone = Format::IsGone(status);
    if (isGone && position == 0) return;
    const std::uint64_t place = m_current.position + m_current.fields.tableOffset +
                                std::uint64_t{entry} * Format::kVersionEntrySize;
    if (!isGone && !Format::HoldsRecord(status))
      return m_findings.Report(kKind, place, "the version has a status that is never stored");
    if (!IsPlace(position))
      return m_findings.Report(kKind, place, "the table names a place where no record can be");
    if (!ReadRecord(kKind, position, m_older)) return;
    if (!isGone) KeepExtent(m_older);
    if (VersionsOf(m_older).Stamp(0) != stamp)
      m_findings.Report(kKind, position,
                        "the record of an older version has another stamp than the table says");
    const Format::StoredName name = NameOf(m_current), olderName = NameOf(m_older);
    if (name.charset != olderName.charset || name.bytes != olderName.bytes)
      m_findings.Report(kKind, position, "the record of an older version has another name");
  }

  bool IsPlace(std::uint64_t position) {
    if (position + kUsualHead > m_fileLength) LookForGrowth();
    return position < m_fileLength && m_index.LeavesRoom(position, 1);
  }

  // What was stored since the check began lies behind what was the end of the file then; or across
  // it, if the record was just being written.
  void LookForGrowth() {
    std::uint64_t length;
    if (m_file.GetLength(length)) m_fileLength = std::max(m_fileLength, length);
  }

  // Reads and checks the head of a version's record; false if the version cannot be used.
  bool ReadRecord(Finding::Kind kind, std::uint64_t position, Head& head) {
    if (!ReadHead(kind, position, head) || !CheckExtent(kind, head)) return false;
    if (head.fields.versionCount == 0)
      return m_findings.Fail(kind, position, "the record has no version");
    CheckTable(kind, head);
    const Format::RecordHead& fields = head.fields;
    if (fields.filledLength == 0 || fields.filledLength > fields.capacity)
      m_findings.Report(kind, position, "the filled length does not fit the capacity");
    return true;
  }

  bool ReadHead(Finding::Kind kind, std::uint64_t position, Head& head) {
    using Format::HeadParse;
    head.position = position;
    const std::uint64_t room = m_fileLength - position;
    std::uint64_t wanted = std::min(kUsualHead, room);
    for (;;) {
      if (!head.bytes.ResizeForOverwrite(wanted)) throw std::bad_alloc();
      if (!m_file.ReadAt(position, head.bytes.GetData(), wanted))
        return m_findings.Fail(Finding::kUnreadable, position, "the record cannot be read");
      const HeadParse parse =
          Format::ParseRecordHead(head.bytes.GetData(), wanted, m_records, head.fields);
      if (parse.outcome == HeadParse::kComplete) return Spend(position, head.fields.size);
      if (parse.outcome == HeadParse::kDamaged)
        return m_findings.Fail(kind, position, "the record does not hold what it states");
      if (parse.needed > std::min(room, kLargestHead))
        return m_findings.Fail(kind, position, "the head of the record does not lie in the file");
      if (!Spend(position, parse.needed)) return false;
      wanted = parse.needed;
    }
  }

  // The heads of records that do not overlap are together no longer than the file, and are read at
  // most three times until they are whole. Without this, a table of many versions that many entries
  // name could keep the check busy for years.
  bool Spend(std::uint64_t position, std::uint64_t bytes) {
    m_headBytes += bytes;
    if (m_headBytes / 3 <= m_fileLength) return true;
    m_findings.Report(Finding::kOverlap, position,
                      "so many records overlap that the rest was not looked at");
    m_findings.End();
    return false;
  }

  // Whether the record lies in the file, and not in the index.
  bool CheckExtent(Finding::Kind kind, const Head& head) {
    const std::uint64_t length = head.fields.length;
    if (length > m_fileLength - head.position) LookForGrowth();
    const std::uint64_t room = m_fileLength - head.position;
    if (length > room) {
      if (!IsGrid() || !head.fields.HasReserve() || room <= head.fields.size)
        return m_findings.Fail(kind, head.position, kPastTheEnd);
      m_summary.unwrittenBytes = std::max<std::uint64_t>(m_summary.unwrittenBytes, length - room);
    }
    return m_index.LeavesRoom(head.position, length) ||
           m_findings.Fail(kind, head.position, "the record runs into the index");
  }

  // Of entry 0 the position may be stale. The status of a version need not be what its filling
  // says: it stays where a version is completed in its place.
  void CheckTable(Finding::Kind kind, const Head& head) {
    const Format::VersionTable table = VersionsOf(head);
    const std::uint64_t own = table.Locator(0);
    if (!Format::HoldsRecord(Format::StatusOf(own)))
      m_findings.Report(kind, head.position,
                        "the record's own version has a status that is never stored");
    if (Format::PositionOf(own) != 0 && !IsPlace(Format::PositionOf(own)))
      m_findings.Report(kind, head.position,
                        "the record's own version names a place where no record can be");
    for (std::uint32_t entry = 1; entry < table.Count(); ++entry)
      if (table.Stamp(entry) >= table.Stamp(entry - 1))
        return m_findings.Report(kind, head.position, "the stamps of the table do not descend");
  }

  void CheckName(const Head& head) {
    const Format::StoredName name = NameOf(head);
    const bool isUtf16 = m_records.formatVersion == Format::kCurrentVersion;
    if (!isUtf16 && m_records.formatVersion != Format::kOlderVersion) return;  // has no names
    if (isUtf16 && (name.charset != Format::kNameCharsetUtf16 || name.bytes.size() % 2 != 0))
      m_findings.Report(Finding::kRecord, head.position, "the name is not UTF-16");
    const std::uint64_t hash = isUtf16 ? Format::HashUnits(UnitsOf(name.bytes, m_records.swap))
                                       : Format::HashBytes(name.bytes);
    if (hash != (m_code & Format::kHashMask))
      m_findings.Report(Finding::kRecord, head.position,
                        "the name has another hash than its slot says");
  }

  void KeepExtent(const Head& head) {
    ++m_summary.versions;
    Format::RecordExtent extent = head.fields.ExtentAt(head.position);
    if (!IsGrid()) extent.filledEnd = extent.end;
    m_extents.push_back({extent, static_cast<std::uint32_t>(m_findings.At().number)});
  }

  // The names of one hash have the ordinals 0, 1, 2 and so on; a lookup ends where one is missing.
  void CheckOrdinals() {
    if (m_findings.HaveEnded()) return;
    std::sort(m_codes.begin(), m_codes.end(),
              [](const Code& a, const Code& b) { return a.rotated < b.rotated; });
    std::uint64_t next = 0;  // the code that goes on with the run
    for (const Code& code : m_codes) {
      const bool isFirst = (code.rotated & Format::kLastOrdinal) == 0;
      if (code.rotated != next && (!isFirst || code.rotated < next))
        ReportEntry(Finding::kEntry, code.number,
                    "the ordinal of the hash code is not the next one of its hash");
      next = code.rotated + 1;
    }
  }

  void CheckOverlaps() {
    if (m_findings.HaveEnded()) return;
    std::sort(m_extents.begin(), m_extents.end(),
              [](const Extent& a, const Extent& b) { return a.begin < b.begin; });
    std::uint64_t filledEnd = 0;
    std::uint64_t end = 0;
    for (const Extent& extent : m_extents) {
      SetTile(extent.number);
      if (extent.begin < filledEnd)
        m_findings.Report(Finding::kOverlap, extent.begin,
                          "the record overlaps another one that is alive");
      // Something else than other records lies in its reserve.
      if (extent.end > m_fileLength && extent.filledEnd < m_fileLength &&
          &extent == &m_extents.back())
        m_findings.Report(Finding::kRecord, extent.begin, kPastTheEnd);
      const std::uint64_t begin = std::max(extent.begin, end);
      const std::uint64_t inFile = std::min(extent.end, m_fileLength);
      if (begin < inFile) m_summary.liveBytes += inFile - begin;
      filledEnd = std::max(filledEnd, extent.filledEnd);
      end = std::max(end, extent.end);
    }
    m_summary.deadBytes = m_fileLength - m_summary.indexBytes - m_summary.liveBytes;
  }

  void SetTile(std::uint64_t number) {
    Finding& at = m_findings.At() = {};
    at.number = number;
    if (!IsGrid()) return;
    at.row = static_cast<unsigned int>(number / m_colCount);
    at.col = static_cast<unsigned int>(number % m_colCount);
  }

  void ReportEntry(Finding::Kind kind, std::uint64_t number, const char* message) {
    SetTile(number);
    m_findings.Report(kind, m_index.EntryAt(number), message);
  }

  const ZrFile64& m_file;
  const Format::XorString& m_xorString;
  ZrCompactFile::ZrVerifySummary& m_summary;
  Findings m_findings;
  std::uint64_t m_fileLength = 0;

  Format::HeaderImage m_header{};
  Format::RecordShape m_records;
  Format::IndexShape m_index;
  std::uint32_t m_colCount = 0;  // of a grid
  bool m_hasVersions = false;
  std::uint64_t m_count = 0;  // entries that are in use, and in the file

  std::uint64_t m_code = 0;       // of the slot
  Head m_current;                 // of the tile's current record
  Head m_older;                   // of an older version's
  std::uint64_t m_headBytes = 0;  // that were read of all heads
  std::vector<Extent> m_extents;  // of what is alive
  std::vector<Code> m_codes;      // of all slots in use
};

}  // namespace

unsigned int VerifyFile(const ZrFile64& file, const Format::XorString& xorString,
                        const ZrCompactFile::VerifyReport& report,
                        const ZrCompactFile::VerifyProgress& progress,
                        ZrCompactFile::ZrVerifySummary& summary) {
  return Verifier(file, xorString, report, progress, summary).Run();
}

}  // namespace Zarn::Engine
