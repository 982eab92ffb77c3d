#pragma once

#include <atomic>

#include "IndexPages.h"
#include "IndexShape.h"
#include "RecordImage.h"
#include "RecordReader.h"
#include "SafeRewrite.h"
#include "TileEntry.h"
#include "ZrFile64.h"

namespace Zarn::Engine {

class NameKey;

/// Records and versions of tiles: takes an index entry, reads or changes the records that it leads
/// to, and returns the entry as it is to be. The caller writes it; only while a record is replaced
/// in its place does the store write it itself.
///
/// A store or removal that fails leaves the tile as it was. One that a kill cuts short leaves it
/// so, or as it was to become.
///
/// It takes no lock: the caller has the writer lock for a store or removal, and for a lookup a View
/// that it checks afterwards. One operation of one thread uses one object; what the place refers to
/// and the buffer outlive it.
class TileStore {
 public:
  /// Where the records are.
  struct Place {
    ZrFile64& file;
    Io::FileMap* map;  // of the file, to read from; null: none
    Format::RecordShape shape;
    Format::IndexShape index;  // no record lies in it
    bool hasVersions;          // without, only empty entries get tiles
    Io::Tail& tail;
    Io::Board& board;
    EntryWriter& entries;
    /// Lookups of lesser stamps have lately found older versions; any value will do.
    std::atomic<std::uint64_t>& olderEnd;
  };

  /// `buffer` is the thread's, for a record.
  TileStore(const Place& place, ZrByteArray& buffer);

  /// Reads the head of the entry's record into the buffer, unless it is there already.
  bool ReadCurrentHead(TileEntry& entry);
  /// The name in the head that was read last; valid until the buffer changes.
  Format::StoredName CurrentName() const { return m_current.Name(); }

  /// Stores a version, whatever versions the tile has. Only a version that is new and newest
  /// changes the entry's status.
  bool StoreIntoTile(TileEntry& entry, const StoreRequest& request);
  /// Removes the version with exactly this stamp, if there is one, of an entry that holds a record,
  /// in a file with versions. With `isReadOnly` it fails instead.
  bool RemoveFromTile(TileEntry& entry, std::uint64_t version, bool isReadOnly);
  /// The same for all versions whose stamps are smaller; tells how many these are.
  bool RemoveOlderThan(TileEntry& entry, std::uint64_t stamp, bool isReadOnly,
                       std::uint32_t& removed);
  /// After a store or removal, if the entry could not be written.
  void PutBack() { m_rewrite.PutBack(); }

  /// Reads the version that a lookup of `version` selects into `buffer`; `record`, which is of the
  /// same file, tells what it is. With a `key` the record must have that name, which lies in what
  /// is read anyway.
  ///
  /// kOk; kNotFound for the record of another name; kReadFailure. Nothing of it counts before the
  /// view is checked.
  static unsigned int LookUp_Inner(const Place& place, TileEntry& entry, const NameKey* key,
                                   std::uint64_t version, ZrByteArray& buffer,
                                   Io::RecordReader& record);

 private:
  using Record = Format::RecordImage;
  /// What leads to a record of a tile: its entry or, to an older version, a locator in the current
  /// record.
  struct Reference {
    TileEntry& entry;
    std::uint64_t locatorPlace = 0;  // in the file; 0: the entry leads there
    std::uint64_t locator = 0;       // what it is now
  };

  // Versions.
  bool StoreVersion(TileEntry& entry, const StoreRequest& request);
  unsigned int GetStatusAndVersionOrder(unsigned int& index, std::uint64_t recordPosition,
                                        std::uint64_t version);
  std::uint64_t AddNewData(Record& record, const StoreRequest& request,
                           const Format::StoredName& name);
  std::uint64_t AddMaxNewVersionData(std::uint64_t recordPosition, const StoreRequest& request);
  std::uint64_t AddOldVersionData(std::uint64_t recordPosition, unsigned int index,
                                  const StoreRequest& request);
  std::uint64_t ReplaceVersion(Reference& reference, std::uint64_t position, Record& record,
                               const StoreRequest& request);
  bool ReplaceInPage(std::uint32_t number, std::uint64_t position, Record& record,
                     const StoreRequest& request);
  bool AddPiece(std::uint32_t number, std::uint64_t position, const Record& record,
                const StoreRequest& request);
  bool UpdateOlderVersion(TileEntry& entry, unsigned int index, const StoreRequest& request,
                          std::uint64_t newestLocator);
  bool RemoveOlder(TileEntry& entry, unsigned int index, unsigned int count);
  bool RemoveNewest(TileEntry& entry);

  // Records.
  bool ReadHead(std::uint64_t position, std::uint64_t seenLength, Record& record) const;
  bool ReadOlderHead(std::uint64_t position, std::uint64_t currentPosition, std::uint64_t stamp,
                     Record& record) const;
  bool ReadDataFromDataFile(std::uint64_t position, Record& record) const;
  bool UpdateSwapData(Record& record, const StoreRequest& request);
  std::uint64_t AppendSwapData(Record& record, const StoreRequest& request);
  std::uint64_t AppendNewRecord(const Record& record, const StoreRequest& request);
  bool WriteHeadAndData(std::uint64_t position, const Record& record, const StoreRequest& request);
  std::uint64_t WriteDataToDataFile(std::uint64_t position, const Record& record);
  std::uint64_t RewriteRecord(Reference& reference, std::uint64_t position, const Record& record);
  std::uint64_t MoveHome(Reference& reference, std::uint64_t copy, std::uint64_t home,
                         const Record& record, const StoreRequest* request);
  bool IsCrowded(std::uint64_t position, const Format::RecordHead& head, std::uint64_t end) const;

  bool PointTo(Reference& reference, std::uint64_t position);
  bool ReplaceLocator(Reference& reference, std::uint64_t locator);
  Record MakeRecord(ZrByteArray& bytes) const { return Record(bytes, m_place.shape); }

  const Place m_place;
  Record m_current;  // the tile's current record, in the buffer
  Io::SafeRewrite m_rewrite;
};

}  // namespace Zarn::Engine
