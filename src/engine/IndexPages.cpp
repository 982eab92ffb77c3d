#include "IndexPages.h"

#include <algorithm>
#include <cstring>

#include "WholeWords.h"

namespace Zarn::Engine {
namespace {

constexpr std::uint64_t kPageSize = 4096;
static_assert(kPageSize % Format::kGridEntrySize == 0 && kPageSize % Format::kNamingSlotSize == 0);

std::uint64_t PageCount(std::uint64_t size) { return (size + kPageSize - 1) / kPageSize; }
std::uint64_t BitmapSize(std::uint64_t size) { return (PageCount(size) + 7) / 8; }

}  // namespace

ZeroMemory::ZeroMemory(std::uint64_t size) : m_size(size) {
  if (size == 0) return;
  void* bytes = ::mmap(nullptr, size, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (bytes != MAP_FAILED) m_bytes = static_cast<unsigned char*>(bytes);
}

ZeroMemory::~ZeroMemory() {
  if (m_bytes != nullptr) ::munmap(m_bytes, m_size);
}

IndexPages::IndexPages(std::shared_ptr<const ZrFile64> file, const Area& area)
    : m_file(std::move(file)),
      m_area(area),
      m_bytes(area.Size()),
      m_loaded(BitmapSize(area.Size())),
      m_hints(area.index.count * sizeof(std::uint32_t)) {}

bool IndexPages::IsUsable() const {
  return m_bytes.IsUsable() && m_loaded.IsUsable() && m_hints.IsUsable();
}

bool IndexPages::ReadValue(std::uint64_t entry, std::uint64_t& value,
                           const Format::HeaderImage* header) {
  if (entry >= m_area.index.count) return false;
  const std::uint64_t offset = entry * m_area.index.EntrySize();
  const std::lock_guard guard(m_mutex);
  if (!LoadPages(offset, sizeof value, header)) return false;
  value = LoadScalar<std::uint64_t>(m_bytes.Get() + offset, m_area.swap);
  return true;
}

// No entry lies on two pages, for pages are counted from the first entry.
bool IndexPages::ReadStableValue(std::uint64_t entry, std::uint64_t& value) {
  if (entry >= m_area.index.count) return false;
  const std::uint64_t offset = entry * m_area.index.EntrySize();
  if (!IsLoaded(offset / kPageSize)) return ReadValue(entry, value);
  value = ValueAt(offset).load(std::memory_order_acquire);
  value = LoadScalar<std::uint64_t>(&value, m_area.swap);
  return true;
}

bool IndexPages::ReadNewValue(std::uint64_t entry, Io::FileMap* map, std::uint64_t& value) const {
  const std::uint64_t offset = entry * m_area.index.EntrySize();
  unsigned char bytes[sizeof value];
  const bool isMapped =
      map != nullptr && Io::ReadSharedEntries(*map, m_area.index.EntryAt(0) + offset, bytes,
                                              sizeof bytes, m_area.swap) == sizeof bytes;
  if (!isMapped && !ReadFile(offset, bytes, sizeof bytes)) return false;
  value = LoadScalar<std::uint64_t>(bytes, m_area.swap);
  return true;
}

bool IndexPages::Write(std::uint64_t entry, const void* source, std::uint64_t size) {
  const std::uint64_t offset = entry * m_area.index.EntrySize();
  if (offset > m_area.Size() || size > m_area.Size() - offset) return false;
  const std::lock_guard guard(m_mutex);
  if (!LoadPages(offset, size, nullptr)) return false;  // lest loading it later undoes the change
  const auto* bytes = static_cast<const unsigned char*>(source);
  for (std::uint64_t i = 0; i < size; i += sizeof(std::uint64_t)) {
    std::uint64_t value;
    std::memcpy(&value, bytes + i, sizeof value);
    ValueAt(offset + i).store(value, std::memory_order_release);
  }
  return true;
}

void IndexPages::Invalidate() {
  const std::lock_guard guard(m_mutex);
  if (m_area.Size() != 0) std::memset(m_loaded.Get(), 0, BitmapSize(m_area.Size()));
}

bool IndexPages::LoadPages(std::uint64_t offset, std::uint64_t size,
                           const Format::HeaderImage* header) {
  const std::uint64_t end = PageCount(offset + size);
  for (std::uint64_t page = offset / kPageSize; page < end; ++page) {
    if (IsLoaded(page)) continue;
    const std::uint64_t begin = page * kPageSize;
    const std::uint64_t now = std::min(kPageSize, m_area.Size() - begin);
    if (!ReadFile(begin, m_bytes.Get() + begin, now) || (header != nullptr && !HasHeader(*header)))
      return false;
    const auto bit = static_cast<unsigned char>(1U << page % 8);
    std::atomic_ref(m_loaded.Get()[page / 8]).fetch_or(bit, std::memory_order_release);
  }
  return true;
}

bool IndexPages::IsLoaded(std::uint64_t page) const {
  const unsigned char bits =
      std::atomic_ref(m_loaded.Get()[page / 8]).load(std::memory_order_acquire);
  return (bits >> page % 8 & 1) != 0;
}

// A replacement of the file changes the header first. So what was read before the header was found
// unchanged is not yet the new file's.
bool IndexPages::HasHeader(const Format::HeaderImage& header) const {
  Format::HeaderImage now;
  return m_file->ReadAt(0, now.data(), now.size()) && now == header;
}

bool IndexPages::ReadFile(std::uint64_t offset, unsigned char* target, std::uint64_t size) const {
  return Io::ReadEntries(*m_file, m_area.index.EntryAt(0) + offset, target, size, m_area.isShared,
                         m_area.swap)
      .has_value();
}

std::atomic_ref<std::uint64_t> IndexPages::ValueAt(std::uint64_t offset) {
  return std::atomic_ref(*reinterpret_cast<std::uint64_t*>(m_bytes.Get() + offset));
}

std::uint32_t IndexPages::GetHint(std::uint64_t entry) const {
  auto* hints = reinterpret_cast<std::uint32_t*>(m_hints.Get());
  return std::atomic_ref(hints[entry]).load(std::memory_order_relaxed);
}

void IndexPages::SetHint(std::uint64_t entry, std::uint32_t hint) {
  auto* hints = reinterpret_cast<std::uint32_t*>(m_hints.Get());
  std::atomic_ref(hints[entry]).store(hint, std::memory_order_relaxed);
}

}  // namespace Zarn::Engine
