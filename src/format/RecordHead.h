#pragma once

#include <string_view>

#include "IndexShape.h"
#include "VersionTable.h"

/// The head of a data record: everything before its payload area.
namespace Zarn::Format {

/// The bytes of a file that a record takes. Nothing but the record lies before `filledEnd`; behind
/// that may lie others, where a light writer has left its capacity unwritten.
struct RecordExtent {
  std::uint64_t begin;
  std::uint64_t filledEnd;
  std::uint64_t end;
};

/// A parsed head. Every extent in it was found to lie within the stated record length.
struct RecordHead {
  std::uint64_t length = 0;      // of the whole record, as it states itself
  std::uint32_t charset = 0;     // naming files only
  std::uint32_t nameLength = 0;  // bytes at kNameOffset; naming files only
  std::uint32_t versionCount = 0;
  std::uint64_t tableOffset = 0;
  std::uint64_t capacity = 0;  // bytes of payload area, which begin at `size`
  std::uint64_t filledLength = 0;
  std::uint64_t size = 0;

  /// The status of a version that no entry or locator states.
  std::uint8_t StatusByFilling() const {
    return filledLength == capacity ? kStatusComplete : kStatusPartial;
  }
  /// Whether a light writer may have written it, into a grid: that does not write the capacity that
  /// the data do not use. The file may end there; and it may go on there, if the writer appends
  /// where the file ends.
  bool HasReserve() const {
    return versionCount == 1 && filledLength < capacity && length == size + capacity;
  }
  /// The extent of the grid record at `position`.
  RecordExtent ExtentAt(std::uint64_t position) const {
    return {position, position + (HasReserve() ? size + filledLength : length), position + length};
  }
  /// Whether an entry or a locator may lead to it there: it has a version, and lies outside the
  /// index.
  bool MayLieAt(std::uint64_t position, const IndexShape& index) const;
  VersionTable Table(const unsigned char* record, bool swap) const {
    return VersionTable(record + tableOffset, versionCount, swap);
  }
};

struct HeadParse {
  enum Outcome {
    kComplete,
    kNeedsMore,  ///< `needed` bytes from the start of the record must be there to go on
    kDamaged,    ///< what the head says does not fit into the length that it states
  };
  Outcome outcome;
  std::uint64_t needed = 0;
};

/// Parses the first `available` bytes of a record. `head` holds the fields up to where the parse
/// ended; the length, which is the first one, even in a damaged record of 8 bytes or more.
HeadParse ParseRecordHead(const unsigned char* bytes, std::uint64_t available,
                          const RecordShape& shape, RecordHead& head);

/// What the head of a new record with one version says.
struct NewRecord {
  std::uint64_t stamp = 0;
  std::uint8_t status = kStatusComplete;
  std::uint64_t capacity = 0;
  std::uint64_t filledLength = 0;
};

/// A name as a record holds it. Owns nothing.
struct StoredName {
  std::uint32_t charset = 0;
  std::string_view bytes;
};

/// The size of a head with one version; in a grid it has no name.
constexpr std::uint64_t RecordHeadSize(const RecordShape& shape, std::uint64_t nameLength) {
  return shape.IsNaming() ? kMinNamingRecord + kVersionEntrySize + nameLength : kGridRecordHead;
}

/// Writes the RecordHeadSize bytes of a head. The name is stored as it is.
void EncodeRecordHead(unsigned char* target, const RecordShape& shape, const StoredName& name,
                      const NewRecord& record);

}  // namespace Zarn::Format
