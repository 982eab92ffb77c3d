#pragma once

#include <atomic>
#include <optional>

#include "FileHeader.h"
#include "IndexEntries.h"
#include "IndexHeaders.h"
#include "MaxSizes.h"
#include "NameKey.h"
#include "NameTable.h"
#include "PelmArray.h"
#include "RecordReader.h"

namespace Zarn::Engine {

class TileStore;

/// The index of a naming file: finds the slot of a name by its hash code, adds slots, and grows.
///
/// Threads: reading needs the right to read the open file, everything else the right to change it;
/// the two counts may be asked for by any thread at any time.
class NameIndex final : public IndexEntries {
 public:
  /// Loads the index header and the hash codes of all slots. If `previous`, of the same object
  /// before, is this index with fewer slots, only the codes of the new ones are read, and its table
  /// is taken over. Null if the index does not lie in the file, or if memory is short.
  static std::unique_ptr<NameIndex> Load(const std::shared_ptr<ZrFile64>& file,
                                         Io::FileHeader& header, MaxSizes& maxSizes,
                                         NameIndex* previous, double previousCreateTime);
  NameIndex(std::shared_ptr<ZrFile64> file, Io::FileHeader& fileHeader, MaxSizes& maxSizes,
            const Format::NamingHeader& header, const IndexPages::Area& area,
            const NameIndex* previous);

  std::uint64_t GetCapacity() const { return m_nNamingCapacity; }
  std::uint64_t GetCount() const { return m_nNamingCount; }
  bool HasVersions() const { return (m_nNamingFlags & Format::kVersionsEnabled) != 0; }
  /// The host's two numbers as they were in the file when the index was loaded.
  const MaxSizes::Values& GetSizesInFile() const { return m_sizesInFile; }

  /// How many slots have the hash of a name, through its ordinals.
  std::uint32_t GetSameHashCodeCount(std::uint64_t code) const {
    return m_mapHashCode->GetSameHashCodeCount(code);
  }
  /// The slot of a code that the index has. False if it cannot be read: its status is unknown then.
  bool ReadSlot(std::uint64_t code, NameSlot& slot) const;
  /// Finds the slot of a name, or the code under which it would get one. The head of the record
  /// that has the name stays in the store's record buffer.
  ///
  /// False, with `slot.isNew`, if all ordinals are taken by other names. False without, if it
  /// cannot be told: no record that could be read has the name, and that of `slot` could not; or
  /// not even the index could, and the slot's status is unknown.
  bool GetNamingIdxValue(const NameKey& key, TileStore& store, NameSlot& slot) const;
  /// Whether the record of an entry has this name; nothing if the record cannot be read, and so may
  /// have any. Its head stays in the store's record buffer.
  static std::optional<bool> HasName(TileEntry& entry, const NameKey& key, TileStore& store);

  /// Writes the slot of a name that was stored, or a new one.
  bool UpdateNamingIndex(NameSlot& slot) {
    return slot.isNew ? AddSlots(&slot, 1) : WriteIndexValue(slot.entry);
  }
  /// Writes slots of new names, behind those in use. They are written before they are counted in,
  /// so that an operation cut short leaves no trace.
  bool AddSlots(const NameSlot* slots, std::uint64_t count);
  /// Whether there is room for one more slot.
  bool IsFull() const { return m_nNamingCount >= m_nNamingCapacity; }
  /// Doubles the index: a new one at `position`, the end of the data, to which the header then
  /// points. Until the header is written the file is as it was; the area counts only once it is on
  /// the disk.
  bool IncreaseNamingIndexCapacity(std::uint64_t position);

  /// Appends the names, removed ones as well, in the order of their hash codes. False if one cannot
  /// be read, or if they are longer than the file together. Throws std::bad_alloc.
  bool List(const Format::RecordShape& shape, PelmArray<PelmUnicodeString>& names) const;
  /// All slots by hash code, for compaction.
  const NameTable& GetTable() const { return *m_mapHashCode; }

 private:
  bool InitHashCodeMap(std::uint64_t first);
  bool HasGrownFrom(const NameIndex& previous) const;
  bool ReSetHashCodeAndIndexValue(const NameKey& key, TileStore& store, std::uint32_t run,
                                  NameSlot& slot) const;
  Io::NameRead GetKeyString(std::uint64_t recordPosition, const Format::RecordShape& shape,
                            ZrByteArray& keyBuf) const;
  bool WriteHeader(std::uint64_t indexOffset, std::uint64_t capacity, std::uint64_t count);
  bool CopySlots(std::uint64_t from, std::uint64_t to, std::uint64_t size);

  Io::FileHeader& m_header;
  MaxSizes& m_maxSizes;
  std::shared_ptr<NameTable> m_mapHashCode;  // slots by hash code
  std::atomic<std::uint64_t> m_nNamingCapacity;
  std::atomic<std::uint64_t> m_nNamingCount;
  const std::uint32_t m_nNamingFlags;
  const MaxSizes::Values m_sizesInFile;
};

}  // namespace Zarn::Engine
