#include "Board.h"

#include <bit>
#include <utility>

#include "IndexValue.h"
#include "Layout.h"
#include "ZrFile64.h"

namespace Zarn::Io {
namespace {

using Word = std::uint64_t;

// The word of the end shares its place with the mask, which is its first byte.
constexpr int kEndShift = std::endian::native == std::endian::little ? 8 : 0;
// No file ends there: the end remains unknown.
constexpr Word kRenounced = Format::kPositionMask << kEndShift;

constexpr std::size_t kFirst = Format::kGenerationWordOffset;
constexpr std::size_t kSize = Format::kHeaderSize - kFirst;
constexpr std::size_t kChangeAt = Format::kChangeWordOffset - kFirst;
constexpr std::size_t kEntriesAt = Format::kEntriesWordOffset - kFirst;
constexpr std::size_t kMaskAt = Format::kMaskOffset - kFirst;

// More than one operation raises `entries` by, and less than makes the counts come round.
constexpr Word kMostEntries = 1 << 8;

// The word of the change.
struct Told {
  std::uint32_t tile;
  std::uint16_t turn;
  std::uint16_t number;

  explicit Told(Word word)
      : tile(static_cast<std::uint32_t>(word)),
        turn(static_cast<std::uint16_t>(word >> 32)),
        number(static_cast<std::uint16_t>(word >> 48)) {}
  Word Pack() const { return Word{number} << 48 | Word{turn} << 32 | tile; }
};

// Of the change that makes `entries` odd, and even again.
std::uint16_t NumberOf(Word entries) { return static_cast<std::uint16_t>((entries + 1) / 2); }

std::uint64_t EndOf(Word word) { return word == kRenounced ? 0 : word >> kEndShift; }

Word MaskOf(unsigned char byte) { return byte * Word{0x0101010101010101}; }

Word LoadWord(const unsigned char* bytes) { return LoadScalar<Word>(bytes, false); }

// From the header's bytes, scrambled or not: then the mask is zero, unless the file is damaged.
Board::Words WordsIn(const unsigned char* bytes) {
  const Word mask = MaskOf(bytes[kMaskAt]);
  return {LoadWord(bytes) ^ mask, LoadWord(bytes + kChangeAt) ^ mask,
          LoadWord(bytes + kEntriesAt) ^ mask, LoadWord(bytes + kMaskAt) ^ mask};
}

unsigned char* BytesOf(void* page) { return static_cast<unsigned char*>(page) + kFirst; }

Word Mask(void* page) {
  return MaskOf(std::atomic_ref(BytesOf(page)[kMaskAt]).load(std::memory_order_relaxed));
}

std::atomic_ref<Word> WordOf(void* page, std::size_t number) {
  return std::atomic_ref(reinterpret_cast<Word*>(BytesOf(page))[number]);
}

}  // namespace

Board::Board(Place place, ZrFileStream& file, const Format::HeaderImage& header, bool isMapped)
    : m_place(place), m_file(file) {
  Words words;
  if (place == kInFile) {
    words = WordsIn(&header[kFirst]);
    if (isMapped) m_page = file.MapPage(false);
  }
  m_generation = words.generation;
  m_refreshed = words.entries;
  m_end = words.end;
  if (words.entries % 2 != 0) m_odd = words.entries;
  Know(words);
}

Board::~Board() {
  ZrFileStream::UnmapPage(m_page);
  ZrFileStream::UnmapPage(m_writable);
}

// In this order: who sees a new `entries` here has seen a `change` no newer than that.
bool Board::Look(Words& words) const {
  if (m_place != kInFile) {
    words.generation = m_own[kGeneration].load(std::memory_order_acquire);
    words.change = m_own[kChange].load(std::memory_order_acquire);
    words.entries = m_own[kEntries].load(std::memory_order_acquire);
    return true;
  }
  return m_page != nullptr ? LookAtPage(m_page, words) : LookAtFile(words);
}

// A lookup does not touch the page that this object writes to: another program may cut the file,
// and to touch a page that is gone ends the process. Under the lock the length was just looked at.
bool Board::LookUnderLock(Words& words) const {
  return m_place == kInFile && m_mayWritePage ? LookAtPage(m_writable, words) : Look(words);
}

bool Board::LookAtPage(void* page, Words& words) {
  const Word mask = Mask(page);
  words.generation = WordOf(page, kGeneration).load(std::memory_order_acquire) ^ mask;
  words.change = WordOf(page, kChange).load(std::memory_order_acquire) ^ mask;
  words.entries = WordOf(page, kEntries).load(std::memory_order_acquire) ^ mask;
  words.end = WordOf(page, kEnd).load(std::memory_order_relaxed) ^ mask;
  return true;
}

bool Board::LookAtFile(Words& words) const {
  unsigned char bytes[kSize];
  if (!m_file.ReadAt(kFirst, bytes, sizeof bytes)) return false;
  words = WordsIn(bytes);
  return true;
}

bool Board::GetKnown(Words& words) const {
  words.generation = m_generation;
  words.change = m_knownChange.load(std::memory_order_acquire);
  words.entries = m_known.load(std::memory_order_acquire);
  return words.entries != kWriting;
}

// A tile that is told raises `entries` soon after, so the counts have not come round.
bool Board::IsOther(std::uint32_t tile, const Words& before, const Words& now) {
  return IsNext(before, now) && TileOf(before) != tile && TileOf(now) != tile;
}

bool Board::IsNext(const Words& before, const Words& now) {
  const auto turns = static_cast<std::uint16_t>(Told(now.change).turn - Told(before.change).turn);
  return turns <= 1 && now.entries - before.entries < kMostEntries && now.end != kRenounced &&
         TileOf(before) != BoardChange::kMany && TileOf(now) != BoardChange::kMany;
}

bool Board::IsTold(const Words& words) {
  return Told(words.change).number == NumberOf(words.entries);
}

void Board::Note(const Words& words) {
  if (IsNear()) return;
  const Word before = m_known.load(std::memory_order_relaxed);
  if (words.entries == before || !IsTold(words)) return;
  const std::lock_guard guard(m_mutex);
  const Word known = m_known.load(std::memory_order_relaxed);
  if (known != kWriting && words.entries > known) Know(words);
}

// If all changes since are those of two tiles, only these are no longer current; else nothing is.
// In this order: who sees the new `entries` sees that, too; and who sees the
// new `change`, sees the new `entries`.
void Board::Know(const Words& words) {
  Words before;
  if (GetKnown(before) && m_keeper != nullptr && IsNext(before, words) && IsTold(words)) {
    m_known.store(kWriting, std::memory_order_release);
    m_keeper->Forget(TileOf(before));
    m_keeper->Forget(TileOf(words));
  } else {
    m_validFrom.store(words.entries, std::memory_order_release);
  }
  m_known.store(words.entries, std::memory_order_release);
  m_knownChange.store(words.change, std::memory_order_release);
}

bool Board::MayKeep(std::uint64_t entries) const {
  return (m_place == kInFile ? m_known : m_own[kEntries]).load(std::memory_order_acquire) ==
         entries;
}

bool Board::IsCurrent(std::uint64_t tag, std::uint64_t entries) const {
  return (m_place != kInFile || m_known.load(std::memory_order_acquire) == entries) &&
         IsCurrent(tag);
}

std::uint64_t Board::GetEntries() const {
  Words words;
  return LookUnderLock(words) ? words.entries : 0;
}

Board::Change Board::Refresh() {
  if (m_place == kInObject) return Change::kNone;
  if (m_place == kNowhere) {
    m_file.ForgetPages();
    Forget();
    return Change::kTiles;
  }
  Words words;
  if (!LookUnderLock(words) || !IsOurs(words)) return Change::kAll;
  m_odd = words.entries % 2 != 0 ? words.entries : 0;
  m_end = words.end;
  const std::lock_guard guard(m_mutex);
  if (words.entries != m_known.load(std::memory_order_relaxed)) Know(words);
  // Lookups may have seen the change before.
  return std::exchange(m_refreshed, words.entries) == words.entries ? Change::kNone
                                                                    : Change::kTiles;
}

// The dead writer has told the tile before it changed anything.
void Board::Repair() {
  BeginWriting();
  if (Set(kEntries, [](Word word) { return (word | 1) + 1; })) m_odd = 0;
  EndWriting();
  Forget();
}

void Board::Forget() {
  if (m_place == kNowhere) m_own[kEntries].fetch_add(2);
  Words words;
  if (LookUnderLock(words)) m_validFrom.store(words.entries, std::memory_order_release);
}

// Until EndWriting, lookups of other threads use nothing that was kept: they cannot tell this
// object's changes from those of others.
void Board::BeginWriting() {
  if (m_place != kInFile) return;
  {
    const std::lock_guard guard(m_mutex);
    m_known.store(kWriting, std::memory_order_release);
  }
  if (m_writable == nullptr && !m_file.IsReadOnly()) {
    m_writable = m_file.MapPage(true);
    m_overwritesInPlace = m_file.OverwritesInPlace();
  }
  m_mayWritePage =
      m_writable != nullptr && (m_overwritesInPlace || ZrFileStream::PreparePage(m_writable));
}

void Board::EndWriting() {
  Words words;
  if (m_place != kInFile || GetKnown(words)) return;
  const bool isKnown = LookUnderLock(words);
  const std::lock_guard guard(m_mutex);
  // Somebody who writes without the lock may have changed more than this object.
  if (!isKnown || words.end == kRenounced)
    m_validFrom.store(isKnown ? words.entries : kWriting - 1, std::memory_order_release);
  m_refreshed = words.entries;
  m_known.store(words.entries, std::memory_order_release);
  m_knownChange.store(words.change, std::memory_order_release);
}

// The tile that was told may be told again: another one may write without the lock.
bool Board::Tell(std::uint32_t tile) {
  Words words;
  return LookUnderLock(words) && Set(kChange, [&](Word word) {
           Told told(word);
           if (std::exchange(told.tile, tile) != tile) ++told.turn;
           told.number = NumberOf(words.entries);
           return told.Pack();
         });
}

bool Board::Replaces() {
  if (!Set(kGeneration, [](Word word) { return word + 1; })) return false;
  ++m_generation;
  return true;
}

bool Board::TellsEnd() const { return m_place == kInFile && m_end != kRenounced; }

std::uint64_t Board::GetEnd() const { return EndOf(m_end); }

std::uint64_t Board::LookForEnd() const {
  Words words;
  return Look(words) ? EndOf(words.end) : 0;
}

bool Board::SetEnd(std::uint64_t end) {
  if (m_place != kInFile || end == GetEnd()) return true;
  return Set(kEnd, [&](Word word) {
    m_end = word == kRenounced ? word : end << kEndShift;
    return m_end;
  });
}

bool Board::ForgetEnd() {
  m_end = 0;
  return Tell(BoardChange::kMany) && Set(kEnd, [](Word) { return Word{0}; });
}

bool Board::RenounceEnd() {
  m_end = kRenounced;
  return m_place != kInFile || Set(kEnd, [](Word) { return kRenounced; });
}

void Board::Clear(const PelmUnicodeString& path) {
  unsigned char bytes[kSize];
  if (m_place != kInFile || !m_file.ReadAt(kFirst, bytes, sizeof bytes)) return;
  const unsigned char mask = bytes[kMaskAt];
  bool isClear = true;
  for (unsigned char& byte : bytes)
    isClear = std::exchange(byte, mask) == mask && isClear;
  if (isClear) return;
  ZrFile64 writable;
  if (!m_file.IsReadOnly())
    m_file.WriteAt(kFirst, bytes, sizeof bytes);
  else if (m_file.IsSameFile(path) && writable.Open(path, ZrFile64::kReadWrite))
    writable.WriteAt(kFirst, bytes, sizeof bytes);
}

// The fences keep the change of the word and the writes that it tells of in their order.
template <typename Function>
bool Board::Set(WordNumber number, Function function) {
  if (m_place != kInFile) {
    m_own[number].store(function(m_own[number].load(std::memory_order_relaxed)));
    std::atomic_thread_fence(std::memory_order_seq_cst);
    return true;
  }
  if (m_mayWritePage) {
    std::atomic_thread_fence(std::memory_order_seq_cst);
    const std::uint64_t mask = Mask(m_writable);
    auto target = WordOf(m_writable, number);
    std::uint64_t before = target.load();
    while (!target.compare_exchange_weak(before, function(before ^ mask) ^ mask)) {
    }
    std::atomic_thread_fence(std::memory_order_seq_cst);
    return true;
  }
  alignas(std::uint64_t) unsigned char bytes[kSize];
  if (!m_file.ReadAt(kFirst, bytes, sizeof bytes)) return false;
  const std::uint64_t mask = MaskOf(bytes[kMaskAt]);
  const std::size_t at = number * Format::kWidth8;
  const std::uint64_t after = function(LoadWord(bytes + at) ^ mask) ^ mask;
  return m_file.WriteAt(kFirst + at, &after, sizeof after);
}

// In this order: who sees that a record is overwritten sees `entries` odd, or further on.
BoardChange::BoardChange(Board& board, std::uint32_t tile)
    : m_board(board),
      m_isOdd(board.Set(Board::kEntries, [](std::uint64_t word) { return (word + 1) | 1; })),
      m_isShown(m_isOdd && board.Tell(tile)) {}

BoardChange::~BoardChange() {
  if (m_isOdd) m_board.Set(Board::kEntries, [](std::uint64_t word) { return (word | 1) + 1; });
}

}  // namespace Zarn::Io
