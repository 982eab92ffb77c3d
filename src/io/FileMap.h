#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include "ZrFile64.h"

namespace Zarn::Io {

/// A file as memory, read without a system call. Only before the first read of a piece one call
/// makes the system read all of it: else a cold file would be waited for page by page. The mapping
/// has room for the file to grow; no read touches what lies behind the end of the file, which would
/// end the process. Safe from any thread.
class FileMap {
 public:
  explicit FileMap(std::shared_ptr<const ZrFile64> file) : m_file(std::move(file)) {}
  ~FileMap();
  FileMap(const FileMap&) = delete;
  FileMap& operator=(const FileMap&) = delete;

  /// Copies up to `size` bytes at `position`; returns how many the file has there, and 0 if it
  /// cannot be mapped. Meanwhile the file must not become shorter.
  std::uint64_t ReadUpTo(std::uint64_t position, void* target, std::uint64_t size);
  /// Whether the file is known to have so many bytes there.
  bool Has(std::uint64_t position, std::uint64_t size) const {
    const std::uint64_t length = m_length.load(std::memory_order_acquire);
    return position <= length && size <= length - position;
  }

 private:
  struct View {
    bool IsRead(std::uint64_t piece) const;
    bool WasRead(std::uint64_t piece) const;

    const unsigned char* bytes;
    std::uint64_t size;
    std::unique_ptr<std::atomic<std::uint64_t>[]> pieces;  // a bit each: it was read
  };

  bool Extend();

  const std::shared_ptr<const ZrFile64> m_file;
  std::atomic<std::uint64_t> m_length{0};  // so much of m_view may be touched
  std::atomic<const View*> m_view{nullptr};
  std::atomic<bool> m_isUseless{false};  // the file cannot be mapped
  std::mutex m_mutex;
  std::deque<View> m_views;  // all views up to now, which readers may use; guarded by m_mutex
};

}  // namespace Zarn::Io
