#pragma once

#include <vector>

#include "Header.h"
#include "IndexWalker.h"
#include "RecordHead.h"
#include "Scramble.h"
#include "ZrCompactFile.h"
#include "ZrFile64.h"

namespace Zarn::Engine {

/// Checks a container by what its file says, and believes nothing of it: every number is tested
/// before it is used. The whole takes time in proportion to the length of the file, and some 32
/// bytes of memory per version and 16 per name that does not lie in a hole.
///
/// What cannot be told from something that writers leave is not reported; see docs/format.md.
class Verifier {
 public:
  using Finding = ZrCompactFile::ZrFinding;

  Verifier(const ZrFile64& file, const Format::XorString& xorString,
           const ZrCompactFile::VerifyReport& report, const ZrCompactFile::VerifyProgress& progress,
           ZrCompactFile::ZrVerifySummary& summary);

  /// kOk; kReadFailure if there were findings; kNotUsable if the progress function ended the check
  /// before there were any. Throws std::bad_alloc.
  unsigned int Run();

 private:
  /// A head, and its bytes in memory.
  struct Head {
    std::uint64_t position = 0;
    Format::RecordHead fields;
    ZrByteArray bytes;
  };
  /// The bytes that a record takes, and the number of its entry. Nothing but the record lies before
  /// `filledEnd`; behind that, what a light writer has not written may hold others.
  struct Extent {
    std::uint64_t begin;
    std::uint64_t filledEnd;
    std::uint64_t end;
    std::uint32_t number;
  };
  /// A hash code, with the ordinal in the lowest byte, so that the codes of one hash are
  /// neighbours.
  struct Code {
    std::uint64_t rotated;
    std::uint32_t number;
  };

  bool IsGrid() const { return m_index.IsGrid(); }
  bool IsPlace(std::uint64_t position);
  void LookForGrowth();
  Format::VersionTable VersionsOf(const Head& head) const {
    return head.fields.Table(head.bytes.GetData(), m_records.swap);
  }
  Format::StoredName NameOf(const Head& head) const;

  bool CheckHeader();
  bool CheckIndexHeader();
  bool CheckGridHeader();
  bool CheckNamingHeader();
  void CheckFlags(std::uint32_t flags, std::uint64_t position);
  void CheckIndexArea();

  void CheckEntries();
  void CheckHole(std::uint64_t first);
  void CheckBlock(const Io::IndexWalker& entries);
  void ReportUnreadable(std::uint64_t first);
  void CheckEntry(std::uint64_t number, std::uint64_t value, std::uint64_t code);
  void CheckEmptySlot(std::uint64_t value);
  void CheckTile(std::uint64_t position);
  void CheckOlderVersion(std::uint32_t entry);

  bool ReadRecord(Finding::Kind kind, std::uint64_t position, Head& head);
  bool ReadHead(Finding::Kind kind, std::uint64_t position, Head& head);
  bool Spend(std::uint64_t position, std::uint64_t bytes);
  bool CheckExtent(Finding::Kind kind, const Head& head);
  bool HasReserve(const Head& head) const;
  void CheckTable(Finding::Kind kind, const Head& head);
  void CheckName(const Head& head);
  void KeepExtent(const Head& head);

  void CheckOrdinals();
  void CheckOverlaps();

  void SetTile(std::uint64_t number);
  void TellProgress(std::uint64_t done);
  void Report(Finding::Kind kind, std::uint64_t position, const char* message);
  /// The same, for what makes it pointless to look further.
  bool Fail(Finding::Kind kind, std::uint64_t position, const char* message) {
    Report(kind, position, message);
    return false;
  }

  const ZrFile64& m_file;
  const Format::XorString& m_xorString;
  const ZrCompactFile::VerifyReport& m_report;
  const ZrCompactFile::VerifyProgress& m_progress;
  ZrCompactFile::ZrVerifySummary& m_summary;
  std::uint64_t m_fileLength = 0;

  Format::HeaderImage m_header{};
  Format::RecordShape m_records;
  Format::IndexShape m_index;
  std::uint32_t m_colCount = 0;  // of a grid
  bool m_hasVersions = false;
  std::uint64_t m_count = 0;  // entries that are in use, and in the file

  Finding m_at;                   // what is being looked at
  std::uint64_t m_code = 0;       // of the slot
  Head m_current;                 // of the tile's current record
  Head m_older;                   // of an older version's
  std::uint64_t m_headBytes = 0;  // that were read of all heads
  std::vector<Extent> m_extents;  // of what is alive
  std::vector<Code> m_codes;      // of all slots in use
  bool m_ended = false;           // nothing more is to be looked at
};

}  // namespace Zarn::Engine
