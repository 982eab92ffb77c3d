#pragma once

#include "IndexValue.h"
#include "RecordHead.h"
#include "StoreArguments.h"
#include "ZrByteArray.h"

/// What the operations on tiles hand to each other, however a tile is addressed.
namespace Zarn::Engine {

/// A tile's index entry while an operation works on it.
struct TileEntry {
  std::uint32_t number = 0;  // cell of a grid, slot of a naming index
  std::uint64_t stored = 0;  // the index value in the file
  std::uint8_t status = Format::StatusOf(stored);
  std::uint64_t position = Format::PositionOf(stored);
  bool isHeadRead = false;  // the record's head, and it is in the thread's buffer

  std::uint64_t Value() const { return Format::PackIndexValue(status, position); }
  bool HoldsRecord() const { return Format::HoldsRecord(status); }
  /// The status follows the completeness of the write just made, deliberately also when that went
  /// to an older version, or nowhere.
  void FollowCompleteness(const Format::StoreSpan& span) {
    if (span.Status() == Format::kStatusPartial)
      status = Format::kStatusPartial;
    else if (status == Format::kStatusPartial)
      status = Format::kStatusComplete;
  }
};

/// What leads to a record of a tile: its entry or, to an older version, a locator in the current
/// record.
struct RecordReference {
  TileEntry& entry;
  std::uint64_t locatorPlace = 0;  // in the file; 0: the entry leads there
  std::uint64_t locator = 0;       // what it is now
};

/// Bytes of a record as they were before one write within a page replaced them, for the case that
/// the operation fails after all.
struct RecordBackup {
  std::uint64_t position = 0;
  ZrByteArray bytes;  // empty: nothing was replaced
};

/// What a caller stores.
struct TileStore {
  const ZrByteArray& data;
  Format::StoreSpan span;
  std::uint64_t version;
  Format::StoredName name;  // for the record of a new name
};

/// Where a name is in the naming index, or would go.
struct NameSlot {
  TileEntry entry;
  std::uint64_t code = 0;  // with the ordinal under which the name is found
  bool isNew = false;      // no slot has this code yet
};

}  // namespace Zarn::Engine
