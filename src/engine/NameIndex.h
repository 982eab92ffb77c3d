#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

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
/// Threads: lookups read with a View at any time, and anybody may ask for the two counts; the rest
/// is for one who holds the writer lock. Lookups must not run while the index grows, names of
/// others are added or a larger table is taken.
class NameIndex final : public IndexEntries {
 public:
  /// Loads the index header and the hash codes of all slots. Null if the index does not lie in the
  /// file, or if memory is short. `board`, `header` and `maxSizes` outlive the object.
  static std::unique_ptr<NameIndex> Load(const std::shared_ptr<ZrFile64>& file, Io::Board& board,
                                         Io::FileHeader& header, MaxSizes& maxSizes);
  NameIndex(std::shared_ptr<ZrFile64> file, Io::Board& board, Io::FileHeader& fileHeader,
            MaxSizes& maxSizes, const Format::NamingHeader& header, const IndexPages::Area& area);

  /// Others have changed tiles. What they have done to the index, which is the same.
  enum class Growth { kNone, kNewNames, kUnknown };
  Growth LookForNewNames();
  /// After kNewNames: adds their codes. False if they cannot be read, or if memory is short.
  bool AddNewNames();
  /// Whether the names known here are all that there are, for a lookup. It may read their number.
  bool IsComplete(View& view);
  /// After the view has proved valid: the number need not be read again.
  void KeepComplete(const View& view);

  std::uint64_t GetCapacity() const { return m_nNamingCapacity; }
  std::uint64_t GetCount() const { return m_nNamingCount; }
  bool HasVersions() const { return (m_nNamingFlags & Format::kVersionsEnabled) != 0; }

  /// How many of the codes from this one on, by GetNextHashCode, are those of slots, without a look
  /// at the index: seldom, a slot with another code counts as well.
  std::uint32_t GetSameHashCodeCount(std::uint64_t code) const;
  /// Whether no two slots have one code; only a damaged file has such slots. Seldom, false.
  bool HasUniqueCodes() const {
    const std::uint64_t count = GetCount();
    return m_mapHashCode->GetSize() >= count;
  }
  /// Finds the slot of a code. kUnreadable: it cannot be told, and its status is unknown.
  enum class Found { kNone, kSlot, kUnreadable };
  Found FindSlot(std::uint64_t code, NameSlot& slot, View* view = nullptr) const;
  /// Finds the slot of a name, or the code under which it would get one. The head of the record
  /// that has the name stays in the store's record buffer.
  ///
  /// False, with `slot.isNew`, if all ordinals are taken by other names. False without, if it
  /// cannot be told: no record that could be read has the name, and that of `slot` could not; or
  /// not even the index could, and the slot's status is unknown.
  bool GetNamingIdxValue(const NameKey& key, TileStore& store, NameSlot& slot,
                         View* view = nullptr) const;
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
  /// Makes room in memory for so many more names. Long before the table is full a larger one is
  /// filled, a part with each call; lookups use the old one until it is taken. False if memory is
  /// short.
  bool Reserve(std::uint64_t count) { return Reserve(count, GetCount() + count); }
  /// Whether the larger table is filled, and is to be taken.
  bool HasLargerTable() const { return m_larger != nullptr && m_inLarger == GetCount(); }
  void TakeLargerTable() { m_mapHashCode = std::move(m_larger); }
  /// Whether there is room for one more slot.
  bool IsFull() const { return m_nNamingCount >= m_nNamingCapacity; }
  /// Doubles the index: a new one at `position`, the end of the data, to which the header then
  /// points. Until the header is written the file is as it was; the area counts only once it is on
  /// the disk.
  bool IncreaseNamingIndexCapacity(std::uint64_t position);

  /// Appends the names, removed ones as well, in the order of their hash codes. False if one cannot
  /// be read, or if they are longer than the file together. Throws std::bad_alloc.
  bool List(const Format::RecordShape& shape, PelmArray<PelmUnicodeString>& names) const;
  /// The numbers of all slots, by hash code. False if these cannot be read. Throws std::bad_alloc.
  bool Sort(std::vector<std::uint32_t>& slots) const;

 private:
  void Forget(std::uint32_t number) override;
  bool InitHashCodeMap();
  std::optional<Format::NamingHeader> ReadHeader() const;
  template <typename Visit>
  bool VisitCodes(std::uint64_t first, std::uint64_t end, Visit visit) const;
  std::uint64_t CountInData(std::uint64_t first, std::uint64_t end) const;
  bool AddCodes(NameTable& table, std::uint64_t first, std::uint64_t end) const;
  bool ReadCode(std::uint64_t slot, std::uint64_t& code) const;
  bool Reserve(std::uint64_t names, std::uint64_t slots);
  bool FillLargerTable(std::uint64_t names, std::uint64_t slots, bool isFull);
  bool ReSetHashCodeAndIndexValue(const NameKey& key, TileStore& store, NameSlot& slot,
                                  View* view) const;
  Io::NameRead GetKeyString(std::uint64_t recordPosition, const Format::RecordShape& shape,
                            ZrByteArray& keyBuf) const;
  bool WriteHeader(std::uint64_t indexOffset, std::uint64_t capacity, std::uint64_t count);
  bool CopySlots(std::uint64_t from, std::uint64_t to, std::uint64_t size);

  Io::FileHeader& m_header;
  MaxSizes& m_maxSizes;
  std::unique_ptr<NameTable> m_mapHashCode;  // slots by hash code
  std::unique_ptr<NameTable> m_larger;       // is being filled; null: none is
  std::uint64_t m_inLarger = 0;              // so many slots are in it
  std::atomic<std::uint64_t> m_tag{0};       // of when it was known to be complete
  std::mutex m_mutex;                        // held while lookups set the tag
  std::atomic<std::uint64_t> m_nNamingCapacity;
  std::atomic<std::uint64_t> m_nNamingCount;
  const std::uint32_t m_nNamingFlags;
};

}  // namespace Zarn::Engine
