#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "IndexShape.h"
#include "Snapshot.h"
#include "ZrFile64.h"

namespace Zarn::Engine {

/// Memory that reads as zero and is committed page by page when it is first touched.
class ZeroMemory {
 public:
  explicit ZeroMemory(std::uint64_t size);
  ~ZeroMemory();
  ZeroMemory(const ZeroMemory&) = delete;
  ZeroMemory& operator=(const ZeroMemory&) = delete;

  /// Null if the memory could not be allocated, or none was asked for.
  unsigned char* Get() const { return m_bytes; }
  bool IsUsable() const { return m_bytes != nullptr || m_size == 0; }

 private:
  std::uint64_t m_size;
  unsigned char* m_bytes = nullptr;
};

/// A lookup's view of the file: a Snapshot, and the page of the index that it has read.
class View : public Io::Snapshot {
 public:
  View(Io::Board& board, const ZrFileStream& file, Io::FileMap* map)
      : Snapshot(board, file, map), m_isMapped(map != nullptr) {}

  /// The table of names is complete, at this moment.
  void SeesAllNames() { m_seesAllNames = true; }
  bool HasSeenAllNames() const { return m_seesAllNames; }

 private:
  friend class IndexPages;
  static constexpr std::uint64_t kPageSize = 4096;
  static constexpr std::uint64_t kNone = UINT64_MAX;

  const bool m_isMapped;
  bool m_seesAllNames = false;
  std::uint64_t m_page = kNone;  // the number of the page in m_bytes
  std::uint64_t m_entry = 0;     // the entry that was read last
  std::uint64_t m_value = 0;     // its index value
  std::uint64_t m_code = 0;
  bool m_isRead = false;  // from the file, by itself
  unsigned char m_bytes[kPageSize];
};

/// Pages of the index that follow the one that was read last. They are not kept, for a page that is
/// kept takes longer than to read it.
class PagesAhead {
 private:
  friend class IndexPages;

  std::uint64_t m_first = UINT64_MAX;  // by the numbers of pages
  std::uint64_t m_end = UINT64_MAX;
  std::vector<unsigned char> m_bytes;
};

/// The entries of an index area in memory, read page by page when they are first asked for. So
/// opening costs nothing per entry, and after another process's change only what is used is read
/// again: each page has the board's tag of when it was read.
///
/// An index value has more bits than files of our days need. The rest of its word holds a hint, so
/// a lookup touches one line of memory, and hints need none of their own.
///
/// What lies beyond the end of the file reads as zero: an index cut short has empty entries.
///
/// Threads: lookups call Read, Check and the hints at any time. The rest is for one who holds the
/// writer lock.
class IndexPages {
 public:
  /// Which index, and how it is read.
  struct Area {
    std::uint64_t Size() const { return index.count * index.EntrySize(); }

    Format::IndexShape index;
    bool swap = false;  // the file is in the other byte order
  };
  /// An entry of the index as numbers.
  struct Entry {
    std::uint64_t value = 0;  ///< the index value
    std::uint64_t code = 0;   ///< the hash code of a slot; of a cell 0
  };

  /// `file` and `board` outlive this object.
  IndexPages(const ZrFile64& file, Io::Board& board, const Area& area);

  /// False if memory was short; then nothing else may be called.
  bool IsUsable() const;
  const Area& GetArea() const { return m_area; }

  /// Reads an entry. False if there is none of this number, or if the file cannot be read.
  bool Read(std::uint64_t entry, Entry& result, View& view);
  /// Whether everything that the view has read is valid. Then the page or the entry that it has
  /// read is kept.
  bool Check(View& view);
  /// The same for one who holds the writer lock. `ahead`: for one who reads many entries, most of
  /// them in their order; to be made anew when one has changed.
  bool ReadStable(std::uint64_t entry, Entry& result, PagesAhead* ahead = nullptr);
  /// Changes entries in memory, from the one of this number on, to what is in the file already:
  /// these bytes.
  void Write(std::uint64_t entry, const unsigned char* bytes, std::uint64_t count);
  /// The same for the index value of one entry.
  void WriteValue(std::uint64_t entry, std::uint64_t value);

  /// The entry, if there is one of this number, is to be read again. Any thread may tell.
  void Forget(std::uint32_t entry);

  /// The hint for an entry: how long its record was when it was last seen; 0 if its page is not in
  /// memory, and for a large record. It may be wrong.
  std::uint64_t GetHint(std::uint64_t entry) const;
  void SetHint(std::uint64_t entry, std::uint64_t length);
  /// For an entry without a hint: how long the record at `position` is if the next entry's follows
  /// it; 0 if that entry would have to be read.
  std::uint64_t GuessLength(std::uint64_t entry, std::uint64_t position, const View& view) const;

 private:
  static constexpr std::uint64_t kPageSize = View::kPageSize;
  bool ReadKept(std::uint64_t offset, Entry& result, const View* view,
                bool* isForgotten = nullptr) const;
  Entry Decode(const unsigned char* bytes) const;
  bool ReadPage(std::uint64_t page, unsigned char* target) const;
  bool ReadAndKeep(std::uint64_t offset, Entry& result);
  bool ReadAhead(std::uint64_t offset, Entry& result, PagesAhead& ahead) const;
  void Keep(std::uint64_t page, const unsigned char* bytes, std::uint64_t entries);
  void KeepPage(View& view);
  void KeepEntry(const View& view);
  std::uint64_t PositionOf(std::uint64_t offset) const { return m_area.index.EntryAt(0) + offset; }
  void StoreAt(std::uint64_t offset, const Entry& entry);
  void StoreValueAt(std::uint64_t offset, std::uint64_t value);
  bool IsKept(std::uint64_t offset) const;
  std::atomic_ref<std::uint64_t> WordAt(std::uint64_t offset) const;
  std::atomic_ref<std::uint64_t> TagOf(std::uint64_t page) const;

  const ZrFile64& m_file;
  Io::Board& m_board;
  const Area m_area;
  std::mutex m_mutex;  // held while pages change
  ZeroMemory m_words;  // atomic: of each entry value and hint, of a slot then the code
  ZeroMemory m_tags;   // of each page, atomic; 0 while it changes
};

}  // namespace Zarn::Engine
