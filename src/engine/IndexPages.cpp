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

// A word in memory: two bits of status, 46 of position, 16 of hint. A value that does not fit,
// which is damaged or leads behind 64 TiB, is not kept: it is read each time, as one that is to be
// forgotten.
constexpr unsigned kHintBits = 16;
constexpr unsigned kStatusPlace = 62;
constexpr std::uint64_t kHintMask = (std::uint64_t{1} << kHintBits) - 1;
constexpr std::uint64_t kForgotten = std::uint64_t{3} << kStatusPlace;
constexpr std::uint64_t kMostPosition = (std::uint64_t{1} << (kStatusPlace - kHintBits)) - 1;

constexpr std::uint64_t WordOf(std::uint64_t value) {
  const std::uint64_t status = Format::StatusOf(value);
  const std::uint64_t position = Format::PositionOf(value);
  if (status >= kForgotten >> kStatusPlace || position > kMostPosition) return kForgotten;
  return status << kStatusPlace | position << kHintBits;
}

constexpr std::uint64_t ValueOf(std::uint64_t word) {
  return Format::PackIndexValue(static_cast<std::uint8_t>(word >> kStatusPlace),
                                word >> kHintBits & kMostPosition);
}

constexpr bool IsForgotten(std::uint64_t word) { return word >= kForgotten; }

// What is in the file instead of a value that must be read again.
constexpr std::uint64_t kNoValue = UINT64_MAX;
static_assert(IsForgotten(WordOf(kNoValue)));
static_assert(Format::kStatusPartial < kForgotten >> kStatusPlace);

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
      m_words(area.Size()),
      m_tags(PageCount(area.Size(), kPageSize) * kWord) {
  static_assert(kPageSize % Format::kGridEntrySize == 0 && kPageSize % Format::kNamingSlotSize == 0,
                "no entry lies on two pages, for pages are counted from the first entry");
}

bool IndexPages::IsUsable() const { return m_words.IsUsable() && m_tags.IsUsable(); }

// A mapping is as quick as a page of our own, and always new. Where others change the file, a page
// is read whole only if it may be kept.
bool IndexPages::Read(std::uint64_t entry, Entry& result, View& view) {
  if (entry >= m_area.index.count) return false;
  const std::uint64_t offset = entry * m_area.index.EntrySize();
  const std::uint64_t page = offset / kPageSize;
  view.m_entry = entry;
  view.m_page = View::kNone;
  view.m_isRead = false;
  bool isForgotten = false;
  if (view.m_isMapped || !ReadKept(offset, result, &view, &isForgotten)) {
    if (view.m_isMapped || isForgotten) {
      unsigned char bytes[Format::kNamingSlotSize];
      if (!view.ReadIndex(PositionOf(offset), bytes, m_area.index.EntrySize())) return false;
      view.m_isRead = true;
      result = Decode(bytes);
    } else {
      if (!ReadPage(page, view.m_bytes)) return false;
      view.m_page = page;
      result = Decode(view.m_bytes + offset % kPageSize);
    }
  }
  view.m_value = result.value;
  view.m_code = result.code;
  view.UsesTile(static_cast<std::uint32_t>(entry));
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
        std::memcpy(view.m_bytes + offset % kPageSize, &kNoValue, sizeof kNoValue);
    }
  const std::lock_guard guard(m_mutex);
  if (m_board.MayKeep(view.GetEntriesNow())) Keep(view.m_page, view.m_bytes, view.GetEntriesNow());
}

// Only into a page that has all the others.
void IndexPages::KeepEntry(const View& view) {
  const std::uint64_t offset = view.m_entry * m_area.index.EntrySize();
  if (view.m_isMapped || !IsForgotten(WordAt(offset).load(std::memory_order_relaxed))) return;
  const std::lock_guard guard(m_mutex);
  if (m_board.MayKeep(view.GetEntriesNow())) StoreAt(offset, {view.m_value, view.m_code});
}

void IndexPages::Forget(std::uint32_t entry) {
  if (entry >= m_area.index.count) return;
  const std::lock_guard guard(m_mutex);
  const auto word = WordAt(entry * m_area.index.EntrySize());
  word.store(kForgotten | (word.load(std::memory_order_relaxed) & kHintMask),
             std::memory_order_release);
}

// The tag tells before and after that the page has not changed meanwhile. Without a view, for the
// holder of the writer lock.
bool IndexPages::ReadKept(std::uint64_t offset, Entry& result, const View* view,
                          bool* isForgotten) const {
  const auto tag = TagOf(offset / kPageSize);
  const std::uint64_t before = tag.load(std::memory_order_acquire);
  if (view != nullptr ? !view->IsCurrent(before) : !m_board.IsCurrent(before)) return false;
  const std::uint64_t word = WordAt(offset).load(std::memory_order_acquire);
  result = {ValueOf(word), 0};
  if (!m_area.index.IsGrid()) result.code = WordAt(offset + kWord).load(std::memory_order_acquire);
  if (tag.load(std::memory_order_relaxed) != before) return false;
  if (isForgotten != nullptr) *isForgotten = IsForgotten(word);
  return !IsForgotten(word);
}

IndexPages::Entry IndexPages::Decode(const unsigned char* bytes) const {
  Entry entry{LoadScalar<std::uint64_t>(bytes, m_area.swap)};
  if (!m_area.index.IsGrid()) entry.code = LoadScalar<std::uint64_t>(bytes + kWord, m_area.swap);
  return entry;
}

bool IndexPages::ReadStable(std::uint64_t entry, Entry& result, PagesAhead* ahead) {
  if (entry >= m_area.index.count) return false;
  const std::uint64_t offset = entry * m_area.index.EntrySize();
  return ReadKept(offset, result, nullptr) ||
         (ahead != nullptr && ReadAhead(offset, result, *ahead)) || ReadAndKeep(offset, result);
}

bool IndexPages::ReadAndKeep(std::uint64_t offset, Entry& result) {
  unsigned char bytes[kPageSize];
  const std::uint64_t page = offset / kPageSize;
  if (!ReadPage(page, bytes)) return false;
  const std::lock_guard guard(m_mutex);
  Keep(page, bytes, m_board.GetEntries());
  result = Decode(bytes + offset % kPageSize);
  return true;
}

// Who goes on with the next page is expected to go on further.
bool IndexPages::ReadAhead(std::uint64_t offset, Entry& result, PagesAhead& ahead) const {
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
  result = Decode(&ahead.m_bytes[offset - ahead.m_first * kPageSize]);
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
  for (std::uint64_t i = 0; i < size; i += m_area.index.EntrySize())
    StoreAt(begin + i, Decode(bytes + i));
  tag.store(Io::Board::Tag(entries), std::memory_order_release);
}

// A page that is not current is read when it is asked for, and has the change then.
void IndexPages::Write(std::uint64_t entry, const unsigned char* bytes, std::uint64_t count) {
  const std::uint64_t size = m_area.index.EntrySize();
  const std::lock_guard guard(m_mutex);
  for (std::uint64_t i = 0; i < count; ++i)
    if (IsKept((entry + i) * size)) StoreAt((entry + i) * size, Decode(bytes + i * size));
}

void IndexPages::WriteValue(std::uint64_t entry, std::uint64_t value) {
  const std::uint64_t offset = entry * m_area.index.EntrySize();
  const std::lock_guard guard(m_mutex);
  if (IsKept(offset)) StoreValueAt(offset, value);
}

bool IndexPages::IsKept(std::uint64_t offset) const {
  return m_board.IsCurrent(TagOf(offset / kPageSize).load(std::memory_order_relaxed));
}

// The caller holds m_mutex. The code first: who sees the value, sees it as well.
void IndexPages::StoreAt(std::uint64_t offset, const Entry& entry) {
  if (!m_area.index.IsGrid()) WordAt(offset + kWord).store(entry.code, std::memory_order_release);
  StoreValueAt(offset, entry.value);
}

// The hint stays.
void IndexPages::StoreValueAt(std::uint64_t offset, std::uint64_t value) {
  const auto word = WordAt(offset);
  word.store(WordOf(value) | (word.load(std::memory_order_relaxed) & kHintMask),
             std::memory_order_release);
}

std::atomic_ref<std::uint64_t> IndexPages::WordAt(std::uint64_t offset) const {
  return std::atomic_ref(*reinterpret_cast<std::uint64_t*>(m_words.Get() + offset));
}

std::atomic_ref<std::uint64_t> IndexPages::TagOf(std::uint64_t page) const {
  return std::atomic_ref(reinterpret_cast<std::uint64_t*>(m_tags.Get())[page]);
}

std::uint64_t IndexPages::GetHint(std::uint64_t entry) const {
  return WordAt(entry * m_area.index.EntrySize()).load(std::memory_order_relaxed) & kHintMask;
}

// A large record takes so long that a second read of it does not matter. A page that was never read
// gets no memory for a hint. What changes the word meanwhile, stays.
void IndexPages::SetHint(std::uint64_t entry, std::uint64_t length) {
  const std::uint64_t hint = length <= kHintMask ? length : 0;
  const std::uint64_t offset = entry * m_area.index.EntrySize();
  if (TagOf(offset / kPageSize).load(std::memory_order_relaxed) == 0) return;
  const auto word = WordAt(offset);
  std::uint64_t before = word.load(std::memory_order_relaxed);
  if ((before & kHintMask) != hint)
    word.compare_exchange_strong(before, (before & ~kHintMask) | hint, std::memory_order_relaxed);
}

std::uint64_t IndexPages::GuessLength(std::uint64_t entry, std::uint64_t position,
                                      const View& view) const {
  const std::uint64_t offset = (entry + 1) * m_area.index.EntrySize();
  if (entry + 1 >= m_area.index.count) return 0;
  unsigned char bytes[Format::kNamingSlotSize];
  Entry next;
  if (view.m_isMapped) {
    if (!view.ReadIndex(PositionOf(offset), bytes, m_area.index.EntrySize())) return 0;
    next = Decode(bytes);
  } else if (view.m_page == offset / kPageSize) {
    next = Decode(view.m_bytes + offset % kPageSize);
  } else if (!ReadKept(offset, next, nullptr)) {
    return 0;
  }
  return Format::DistanceToNext(position, next.value);
}

}  // namespace Zarn::Engine
