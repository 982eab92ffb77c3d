#include "IndexPages.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>

#include "IndexValue.h"
#include "WholeWords.h"
#include "ZrFailure.h"

namespace Zarn::Engine {
namespace {

constexpr std::uint64_t kWord = sizeof(std::uint64_t);

std::uint64_t PageCount(std::uint64_t size, std::uint64_t pageSize) {
  return (size + pageSize - 1) / pageSize;
}

}  // namespace

ZeroMemory::ZeroMemory(std::uint64_t size) : m_size(size) {
  if (size == 0) return;
  void* bytes = ::mmap(nullptr, size, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (bytes != MAP_FAILED)
    m_bytes = static_cast<unsigned char*>(bytes);
  else
    FailBySystem();
}

ZeroMemory::~ZeroMemory() {
  if (m_bytes != nullptr) ::munmap(m_bytes, m_size);
}

IndexPages::IndexPages(const ZrFile64& file, Io::Board& board, const Area& area)
    : m_file(file),
      m_board(board),
      m_area(area),
      m_bytes(area.Size()),
      m_tags(PageCount(area.Size(), kPageSize) * kWord),
      m_hints(area.index.count * sizeof(Hint)) {
  static_assert(kPageSize % Format::kGridEntrySize == 0 && kPageSize % Format::kNamingSlotSize == 0,
                "no entry lies on two pages, for pages are counted from the first entry");
  static_assert(sizeof(Entry) == Format::kNamingSlotSize, "a slot is read as it lies in the file");
}

bool IndexPages::IsUsable() const {
  return m_bytes.IsUsable() && m_tags.IsUsable() && m_hints.IsUsable();
}

// A mapping is as quick as a page of our own, and always new. Where others change the file, a page
// is read whole only if it may be kept.
bool IndexPages::Read(std::uint64_t entry, Entry& result, View& view) {
  if (entry >= m_area.index.count) return false;
  const std::uint64_t offset = entry * m_area.index.EntrySize();
  const std::uint64_t page = offset / kPageSize;
  Entry stored;
  view.m_entry = entry;
  view.m_page = View::kNone;
  view.m_isRead = false;
  const bool isKept = !view.m_isMapped && ReadKept(offset, stored, &view);
  if (!isKept && (view.m_isMapped || stored.value == kForgotten)) {
    if (!view.ReadIndex(PositionOf(offset), &stored, m_area.index.EntrySize())) return false;
    view.m_isRead = true;
  } else if (!isKept) {
    if (!ReadPage(page, view.m_bytes)) return false;
    view.m_page = page;
    std::memcpy(&stored, view.m_bytes + offset % kPageSize, m_area.index.EntrySize());
  }
  view.m_value = stored.value;
  view.m_code = stored.code;
  view.UsesTile(static_cast<std::uint32_t>(entry));
  result = Decode(stored);
  return true;
}

bool IndexPages::Check(View& view) {
  const bool isValid = view.IsValid();
  if (isValid && view.m_page != View::kNone && view.HasFollowed()) KeepPage(view);
  if (isValid && view.m_isRead && view.HasOneTile()) KeepEntry(view);
  return isValid;
}

// Without what has changed meanwhile.
void IndexPages::KeepPage(View& view) {
  if (!view.IsUnchanged())
    for (const std::uint32_t tile : view.GetChanged()) {
      const std::uint64_t offset = tile * m_area.index.EntrySize();
      if (tile < m_area.index.count && offset / kPageSize == view.m_page)
        std::memcpy(view.m_bytes + offset % kPageSize, &kForgotten, sizeof kForgotten);
    }
  const std::lock_guard guard(m_mutex);
  if (m_board.MayKeep(view.GetEntriesNow())) Keep(view.m_page, view.m_bytes, view.GetEntriesNow());
}

// Only into a page that has all the others. The code first: who sees the value, sees it as well.
void IndexPages::KeepEntry(const View& view) {
  const std::uint64_t offset = view.m_entry * m_area.index.EntrySize();
  const auto value = ValueAt(offset);
  if (view.m_isMapped || value.load(std::memory_order_relaxed) != kForgotten) return;
  const std::lock_guard guard(m_mutex);
  if (!m_board.MayKeep(view.GetEntriesNow())) return;
  if (!m_area.index.IsGrid()) ValueAt(offset + kWord).store(view.m_code, std::memory_order_relaxed);
  value.store(view.m_value, std::memory_order_release);
}

void IndexPages::Forget(std::uint32_t entry) {
  if (entry >= m_area.index.count) return;
  const std::lock_guard guard(m_mutex);
  ValueAt(entry * m_area.index.EntrySize()).store(kForgotten, std::memory_order_release);
}

// The tag tells before and after that the page has not changed meanwhile. Without a view, for the
// holder of the writer lock.
bool IndexPages::ReadKept(std::uint64_t offset, Entry& stored, const View* view) const {
  const auto tag = TagOf(offset / kPageSize);
  const std::uint64_t before = tag.load(std::memory_order_acquire);
  if (view != nullptr ? !view->IsCurrent(before) : !m_board.IsCurrent(before)) return false;
  stored.value = ValueAt(offset).load(std::memory_order_acquire);
  if (!m_area.index.IsGrid()) stored.code = ValueAt(offset + kWord).load(std::memory_order_acquire);
  return tag.load(std::memory_order_relaxed) == before && stored.value != kForgotten;
}

IndexPages::Entry IndexPages::Decode(const Entry& stored) const {
  return {LoadScalar<std::uint64_t>(&stored.value, m_area.swap),
          LoadScalar<std::uint64_t>(&stored.code, m_area.swap)};
}

bool IndexPages::ReadStable(std::uint64_t entry, Entry& result, PagesAhead* ahead) {
  if (entry >= m_area.index.count) return false;
  const std::uint64_t offset = entry * m_area.index.EntrySize();
  Entry stored;
  if (!ReadKept(offset, stored, nullptr) &&
      !(ahead != nullptr && ReadAhead(offset, stored, *ahead)) && !ReadAndKeep(offset, stored))
    return false;
  result = Decode(stored);
  return true;
}

bool IndexPages::ReadAndKeep(std::uint64_t offset, Entry& stored) {
  unsigned char bytes[kPageSize];
  const std::uint64_t page = offset / kPageSize;
  if (!ReadPage(page, bytes)) return false;
  const std::lock_guard guard(m_mutex);
  Keep(page, bytes, m_board.GetEntries());
  std::memcpy(&stored, bytes + offset % kPageSize, m_area.index.EntrySize());
  return true;
}

// Who goes on with the next page is expected to go on further.
bool IndexPages::ReadAhead(std::uint64_t offset, Entry& stored, PagesAhead& ahead) const {
  constexpr std::uint64_t kSize = 16 * kPageSize;
  const std::uint64_t page = offset / kPageSize;
  if (page == ahead.m_end) {
    ahead.m_first = page;
    ahead.m_bytes.resize(kSize);
    const std::uint64_t begin = page * kPageSize;
    if (Io::ReadEntries(m_file, PositionOf(begin), ahead.m_bytes.data(),
                        std::min(kSize, m_area.Size() - begin)))
      ahead.m_end = page + kSize / kPageSize;
  }
  if (page < ahead.m_first || page >= ahead.m_end) {
    ahead.m_first = ahead.m_end = page + 1;
    return false;
  }
  std::memcpy(&stored, &ahead.m_bytes[offset - ahead.m_first * kPageSize],
              m_area.index.EntrySize());
  return true;
}

bool IndexPages::ReadPage(std::uint64_t page, unsigned char* target) const {
  const std::uint64_t begin = page * kPageSize;
  return Io::ReadEntries(m_file, PositionOf(begin), target,
                         std::min(kPageSize, m_area.Size() - begin))
      .has_value();
}

// Keeps what is right for this value of `entries`. The caller holds m_mutex: a page that changes
// meanwhile must not get an old one over it.
void IndexPages::Keep(std::uint64_t page, const unsigned char* bytes, std::uint64_t entries) {
  const std::uint64_t begin = page * kPageSize;
  const std::uint64_t size = std::min(kPageSize, m_area.Size() - begin);
  const auto tag = TagOf(page);
  tag.store(0, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  for (std::uint64_t i = 0; i < size; i += kWord) {
    std::uint64_t value;
    std::memcpy(&value, bytes + i, kWord);
    ValueAt(begin + i).store(value, std::memory_order_release);
  }
  tag.store(Io::Board::Tag(entries), std::memory_order_release);
}

// A page that is not current is read when it is asked for, and has the change then.
void IndexPages::Write(std::uint64_t entry, const void* source, std::uint64_t size) {
  const std::uint64_t offset = entry * m_area.index.EntrySize();
  const auto* bytes = static_cast<const unsigned char*>(source);
  const std::lock_guard guard(m_mutex);
  for (std::uint64_t i = 0; i < size;) {
    const std::uint64_t page = (offset + i) / kPageSize;
    const std::uint64_t end = std::min(size, (page + 1) * kPageSize - offset);
    const bool isKept = m_board.IsCurrent(TagOf(page).load(std::memory_order_relaxed));
    for (; i < end; i += kWord) {
      std::uint64_t value;
      std::memcpy(&value, bytes + i, kWord);
      if (isKept) ValueAt(offset + i).store(value, std::memory_order_release);
    }
  }
}

std::atomic_ref<std::uint64_t> IndexPages::ValueAt(std::uint64_t offset) const {
  return std::atomic_ref(*reinterpret_cast<std::uint64_t*>(m_bytes.Get() + offset));
}

std::atomic_ref<std::uint64_t> IndexPages::TagOf(std::uint64_t page) const {
  return std::atomic_ref(reinterpret_cast<std::uint64_t*>(m_tags.Get())[page]);
}

std::uint64_t IndexPages::GetHint(std::uint64_t entry) const {
  return HintOf(entry).load(std::memory_order_relaxed);
}

// A large record takes so long that a second read of it does not matter.
void IndexPages::SetHint(std::uint64_t entry, std::uint64_t length) {
  const Hint hint = length <= UINT16_MAX ? static_cast<Hint>(length) : 0;
  if (const auto place = HintOf(entry); place.load(std::memory_order_relaxed) != hint)
    place.store(hint, std::memory_order_relaxed);
}

std::atomic_ref<IndexPages::Hint> IndexPages::HintOf(std::uint64_t entry) const {
  return std::atomic_ref(reinterpret_cast<Hint*>(m_hints.Get())[entry]);
}

std::uint64_t IndexPages::GuessLength(std::uint64_t entry, std::uint64_t position,
                                      const View& view) const {
  const std::uint64_t offset = (entry + 1) * m_area.index.EntrySize();
  if (entry + 1 >= m_area.index.count) return 0;
  Entry next;
  if (view.m_isMapped) {
    if (!view.ReadIndex(PositionOf(offset), &next.value, kWord)) return 0;
  } else if (view.m_page == offset / kPageSize) {
    std::memcpy(&next.value, view.m_bytes + offset % kPageSize, kWord);
  } else if (!ReadKept(offset, next, nullptr)) {
    return 0;
  }
  return Format::DistanceToNext(position, Decode(next).value);
}

}  // namespace Zarn::Engine
