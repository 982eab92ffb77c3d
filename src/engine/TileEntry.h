#pragma once

#include <span>

#include "IndexValue.h"
#include "RecordHead.h"
#include "StoreArguments.h"
#include "ZrBatch.h"
#include "ZrByteArray.h"

/// What operations on tiles and the rooms below them hand to each other, however a tile is
/// addressed.
namespace Zarn::Engine {

/// A tile's index entry while an operation works on it.
struct TileEntry {
  std::uint32_t number = 0;  // cell of a grid, slot of a naming index
  std::uint64_t stored = 0;  // the index value in the file
  std::uint8_t status = Format::StatusOf(stored);
  std::uint64_t position = Format::PositionOf(stored);
  /// Length of the record; 0: unknown. Before a store or removal it must have been seen: a record
  /// of that length counts as lying wholly in the file. Before a lookup it is a hint, which may be
  /// wrong. Afterwards it is what was read or written.
  std::uint64_t recordLength = 0;
  bool isHeadRead = false;  // the record's head is in the thread's buffer
  /// After a lookup: the version that it gives.
  std::uint64_t givenStamp = 0;
  std::uint8_t givenStatus = Format::kStatusEmpty;

  /// The index value that the entry is to get.
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

/// The same of a tile with a name; of a cell only the entry counts.
struct NameSlot {
  TileEntry entry;
  std::uint64_t code = 0;  // with the ordinal under which the name is found
  bool isNew = false;      // no slot has this code yet
};

/// What a caller stores.
using BytesToStore = std::span<const unsigned char>;

/// Of a ZrCellStore or a ZrNameStore.
template <typename Store>
BytesToStore BytesOf(const Store& store) {
  if (store.data != nullptr) return {store.data->GetData(), store.data->GetSize()};
  return {static_cast<const unsigned char*>(store.bytes), store.bytes != nullptr ? store.size : 0};
}

/// A store under a name, as the engine hands it on.
struct NamedStore {
  NamedStore(const PelmUnicodeString& itsName, BytesToStore itsData, std::uint64_t itsCapacity,
             std::uint64_t itsOffset, std::uint64_t itsVersion,
             const ZrByteArray* itsArray = nullptr)
      : name(itsName),
        data(itsData),
        capacity(itsCapacity),
        offset(itsOffset),
        version(itsVersion),
        array(itsArray) {}
  NamedStore(const PelmUnicodeString& itsName, const ZrByteArray& itsArray,
             std::uint64_t itsCapacity, std::uint64_t itsOffset, std::uint64_t itsVersion)
      : NamedStore(itsName, {itsArray.GetData(), itsArray.GetSize()}, itsCapacity, itsOffset,
                   itsVersion, &itsArray) {}
  NamedStore(const ZrNameStore& store)  // NOLINT: one of a batch is one
      : NamedStore(store.name, BytesOf(store), store.capacity, store.offset, store.version,
                   store.data) {}

  const PelmUnicodeString& name;
  BytesToStore data;
  std::uint64_t capacity, offset, version;
  const ZrByteArray* array;  // that has the data; null: none
};

/// The same with all that belongs to it.
struct StoreRequest {
  BytesToStore data;
  Format::StoreSpan span;  // where in the payload area the data go
  std::uint64_t version;
  Format::StoredName name;  // for the record of a new name
};

/// Writes entries of the index that the caller has read.
class EntryWriter {
 public:
  /// Writes the entry's Value(), if that is not what is stored, and sets `stored`. False: the
  /// file has the old one.
  virtual bool WriteIndexValue(TileEntry& entry) = 0;

 protected:
  ~EntryWriter() = default;
};

}  // namespace Zarn::Engine
