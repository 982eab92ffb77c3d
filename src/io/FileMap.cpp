#include "FileMap.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace Zarn::Io {
namespace {

constexpr std::uint64_t kPiece = 256 * 1024;
constexpr std::uint64_t kBits = 64;

}  // namespace

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
  if (available == 0) return 0;
  const View& view = *m_view.load(std::memory_order_acquire);
  for (std::uint64_t i = position / kPiece; i <= (position + available - 1) / kPiece; ++i)
    if (!view.WasRead(i))
      m_file->ReadAhead(i * kPiece, i != 0 && view.IsRead(i - 1) ? 2 * kPiece : kPiece);
  std::memcpy(target, view.bytes + position, available);
  return available;
}

bool FileMap::View::IsRead(std::uint64_t piece) const {
  const std::uint64_t bits = pieces[piece / kBits].load(std::memory_order_relaxed);
  return (bits & std::uint64_t{1} << piece % kBits) != 0;
}

// From now on it was.
bool FileMap::View::WasRead(std::uint64_t piece) const {
  std::atomic<std::uint64_t>& bits = pieces[piece / kBits];
  const std::uint64_t bit = std::uint64_t{1} << piece % kBits;
  const bool wasRead = (bits.load(std::memory_order_relaxed) & bit) != 0;
  if (!wasRead) bits.fetch_or(bit, std::memory_order_relaxed);
  return wasRead;
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
    const std::uint64_t size = std::max(2 * length, kSmallest);
    const unsigned char* bytes = m_file->Map(size);
    if (bytes == nullptr) {
      m_isUseless.store(view == nullptr, std::memory_order_relaxed);
      return false;
    }
    try {
      const std::uint64_t words = size / (kPiece * kBits) + 1;
      m_views.push_back({bytes, size, std::make_unique<std::atomic<std::uint64_t>[]>(words)});
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
