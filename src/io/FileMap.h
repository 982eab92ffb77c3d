#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include "ZrFile64.h"

namespace Zarn::Io {

/// A file as memory, to be read without a system call. It is mapped with room to grow; what lies
/// behind its end is never touched, for that would end the process. Safe from any thread.
class FileMap {
 public:
  explicit FileMap(std::shared_ptr<const ZrFile64> file) : m_file(std::move(file)) {}
  ~FileMap();
  FileMap(const FileMap&) = delete;
  FileMap& operator=(const FileMap&) = delete;

  bool IsOf(const ZrFile64* file) const { return m_file.get() == file; }
  /// Copies up to `size` bytes at `position`; returns how many there are in the file. None as well
  /// if it cannot be mapped. Meanwhile the file must not become shorter.
  std::uint64_t ReadUpTo(std::uint64_t position, void* target, std::uint64_t size);
  /// For after the file may have become shorter.
  void Invalidate() { m_length.store(0); }

 private:
  struct View {
    const unsigned char* bytes;
    std::uint64_t size;
  };

  bool Extend();

  const std::shared_ptr<const ZrFile64> m_file;
  std::atomic<std::uint64_t> m_length{0};  // of the file as far as it may be touched in m_view
  std::atomic<const View*> m_view{nullptr};
  std::atomic<bool> m_isUseless{false};  // the file cannot be mapped
  std::mutex m_mutex;
  std::deque<View> m_views;  // all that were ever handed out; guarded by m_mutex
};

}  // namespace Zarn::Io
