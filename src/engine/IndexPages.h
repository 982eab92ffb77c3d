#pragma once

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "FileMap.h"
#include "Header.h"
#include "IndexShape.h"
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

/// The entries of an index area in memory, as they lie in the file, read page by page when they
/// are first asked for. So opening costs nothing per entry, and an Invalidate after another
/// process's change costs next to nothing.
///
/// What lies beyond the end of the file reads as zero: an index cut short has empty entries.
///
/// Safe from any thread: a mutex of its own guards the pages, and is held no longer than it takes
/// to read one.
class IndexPages {
 public:
  /// Which index, and how it is read.
  struct Area {
    bool operator==(const Area&) const = default;

    std::uint64_t Size() const { return index.count * index.EntrySize(); }

    Format::IndexShape index;
    bool isShared = false;  // others store new tiles meanwhile
    bool swap = false;      // the file is in the other byte order
  };

  /// `file` is kept open as long as this object lives.
  IndexPages(std::shared_ptr<const ZrFile64> file, const Area& area);

  /// False if memory was short; then nothing else may be called.
  bool IsUsable() const;
  const Area& GetArea() const { return m_area; }
  bool Covers(const ZrFile64* file, const Area& area) const {
    return m_file.get() == file && m_area == area;
  }

  /// The index value of an entry: its first 8 bytes as a number. False if there is no such entry,
  /// or if the file cannot be read.
  ///
  /// `header` is for callers without the process lock, beside which another process may replace the
  /// whole file: the header bytes of when this index was loaded. If the page of the entry has to be
  /// read, and the file has other header bytes then, this fails, too.
  bool ReadValue(std::uint64_t entry, std::uint64_t& value,
                 const Format::HeaderImage* header = nullptr);
  /// The same while nobody calls Invalidate; takes no mutex for a page that is there.
  bool ReadStableValue(std::uint64_t entry, std::uint64_t& value);
  /// The index value in the file, whatever is in memory. Reads from the map, if there is one that
  /// reaches so far.
  bool ReadNewValue(std::uint64_t entry, Io::FileMap* map, std::uint64_t& value) const;
  /// Changes whole entries in memory, from the one of this number on; they are in the file already.
  bool Write(std::uint64_t entry, const void* source, std::uint64_t size);
  /// The pages are read again when they are asked for.
  void Invalidate();

  /// The hint for an entry: how large its record was when it was last seen; 0 at first. It survives
  /// Invalidate, and may be wrong.
  std::uint32_t GetHint(std::uint64_t entry) const;
  void SetHint(std::uint64_t entry, std::uint32_t hint);

 private:
  bool LoadPages(std::uint64_t offset, std::uint64_t size, const Format::HeaderImage* header);
  bool IsLoaded(std::uint64_t page) const;
  bool HasHeader(const Format::HeaderImage& header) const;
  bool ReadFile(std::uint64_t offset, unsigned char* target, std::uint64_t size) const;
  std::atomic_ref<std::uint64_t> ValueAt(std::uint64_t offset);

  const std::shared_ptr<const ZrFile64> m_file;
  const Area m_area;
  std::mutex m_mutex;
  ZeroMemory m_bytes;   // guarded by m_mutex; of loaded pages, read also without: values, atomic
  ZeroMemory m_loaded;  // one bit per page, atomic; changed with m_mutex held
  ZeroMemory m_hints;   // 32 bits per entry, atomic
};

}  // namespace Zarn::Engine
