#include "FileMap.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace Zarn::Io {

FileMap::~FileMap() {
  for (const View& view : m_views)
    ::munmap(const_cast<unsigned char*>(view.bytes), view.size);
}

std::uint64_t FileMap::ReadUpTo(std::uint64_t position, void* target, std::uint64_t size) {
  const auto inFile = [&] {
    const std::uint64_t length = m_length.load(std::memory_order_acquire);
    return position < length ? std::min(size, length - position) : 0;
  };
  std::uint64_t available = inFile();
  if (available < size && !m_isUseless.load(std::memory_order_relaxed) && Extend())
    available = inFile();
  if (available != 0)
    std::memcpy(target, m_view.load(std::memory_order_acquire)->bytes + position, available);
  return available;
}

// Asks for the length of the file, and maps twice as much if the file has outgrown the view, so
// this is seldom. Readers may use the old view, which stays.
bool FileMap::Extend() {
  constexpr std::uint64_t kSmallest = std::uint64_t{1} << 28;
  const std::lock_guard guard(m_mutex);
  std::uint64_t length;
  if (!m_file->GetLength(length)) return false;
  const View* view = m_view.load(std::memory_order_relaxed);
  if (view == nullptr || view->size < length) {
    if (length > INT64_MAX / 4) return false;
    const std::uint64_t size = std::max(2 * length, kSmallest);
    const unsigned char* bytes = m_file->Map(size);
    if (bytes == nullptr) {
      m_isUseless.store(view == nullptr, std::memory_order_relaxed);
      return false;
    }
    try {
      m_views.push_back({bytes, size});
    } catch (const std::bad_alloc&) {
      ::munmap(const_cast<unsigned char*>(bytes), size);
      return false;
    }
    m_view.store(&m_views.back(), std::memory_order_release);
  }
  m_length.store(length, std::memory_order_release);
  return true;
}

}  // namespace Zarn::Io
