#pragma once

#include <cstdint>

namespace Zarn {

/// Something in the file that no writer leaves so.
struct ZrVerifyFinding {
  /// What it is about; tells which of the fields below apply.
  enum Kind : std::uint8_t {
    kHeader,      ///< a field of the file's header
    kIndex,       ///< a field of the index's header, or where the index lies
    kEntry,       ///< the entry of a cell or a name
    kRecord,      ///< the current record of a tile: its head, name, or version table
    kVersion,     ///< an older version: its place in the table, or its record
    kOverlap,     ///< a record that lies over another one of some tile
    kUnreadable,  ///< bytes that the system could not read
  };
  Kind kind = kHeader;              ///< what it is about
  unsigned long long position = 0;  ///< in the file: of the field, the entry or the record
  /// From kEntry on: the number of the entry, which is the slot of a name, or the cell, counted
  /// row by row.
  unsigned long long number = 0;
  unsigned int row = 0;            ///< the same, of a cell
  unsigned int col = 0;            ///< of a cell
  unsigned long long version = 0;  ///< kVersion: the stamp
  const char* message = "";        ///< what is wrong, in English; lives as long as the library
};

/// What a check has counted, as far as it came. Where nothing overlaps, the bytes of index, live
/// and dead are those of the file.
struct ZrVerifySummary {
  unsigned long long findings = 0;    ///< reported or not
  unsigned long long tiles = 0;       ///< cells or names whose current record is there
  unsigned long long versions = 0;    ///< of all tiles, the newest included
  unsigned long long indexBytes = 0;  ///< of the file's header and the index
  unsigned long long liveBytes = 0;   ///< of the records of all versions
  unsigned long long deadBytes = 0;   ///< the rest, which a compaction would give back
  /// What the last records state, but the file does not have, because a light writer has stored
  /// less than the capacity. These tiles cannot be read until others have been stored.
  unsigned long long unwrittenBytes = 0;
};

}  // namespace Zarn
