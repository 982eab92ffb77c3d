#include "FileMap.h"

#include <sys/mman.h>

#include <algorithm>
#include <new>

namespace Zarn::Engine {

FileMap::~FileMap() {
  for (const View& view : m_views)
    ::munmap(const_cast<unsigned char*>(view.bytes), view.size);
}

const unsigned char* FileMap::Get(std::uint64_t position, std::uint64_t& available) {
  std::uint64_t length = m_length.load(std::memory_order_acquire);
  if (position >= length) {
    if (!Extend(position)) return nullptr;
    length = m_length.load(std::memory_order_acquire);
    if (position >= length) return nullptr;
  }
  available = length - position;
  return m_view.load(std::memory_order_acquire)->bytes + position;
}

// Learns how long the file is, and maps more of it if it has outgrown the view: twice as much, so
// that this is seldom. A view that may be in use stays.
bool FileMap::Extend(std::uint64_t position) {
  constexpr std::uint64_t kSmallest = std::uint64_t{1} << 28;
  const std::lock_guard guard(m_mutex);
  std::uint64_t length;
  if (!m_file->GetLength(length) || position >= length) return false;
  const View* view = m_view.load(std::memory_order_relaxed);
  if (view == nullptr || view->size < length) {
    if (length > INT64_MAX / 4) return false;
    const std::uint64_t size = std::max(2 * length, kSmallest);
    const unsigned char* bytes = m_file->Map(size);
    if (bytes == nullptr) return false;
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

}  // namespace Zarn::Engine
