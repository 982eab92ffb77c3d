#include "Snapshot.h"

#include "WholeWords.h"

namespace Zarn::Io {
namespace {

constexpr int kMostAttempts = 8;

void Pause() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

}  // namespace

// Most changes take a microsecond or two.
bool Snapshot::Begin() {
  const int looks = m_board.IsNear() ? 2000 : 100;
  if (++m_attempts > kMostAttempts) return false;
  m_comparesEntry = false;
  const bool mayBeKnown = m_attempts == 1 && !m_board.IsBusy() && !m_board.IsNear();
  m_words = m_hasNext ? m_next : m_board.GetKnown();
  if ((m_hasNext || mayBeKnown) && m_board.IsOurs(m_words) && m_board.IsSettled(m_words))
    return true;
  for (int i = 0; i < looks; ++i) {
    if (!m_board.Look(m_words) || !m_board.IsOurs(m_words)) return false;
    if (m_board.IsSettled(m_words)) return true;
    Pause();
  }
  return false;
}

std::optional<std::uint64_t> Snapshot::ReadWord(std::uint64_t position) const {
  std::uint64_t word;
  if (m_map != nullptr && m_map->ReadUpTo(position, &word, sizeof word) == sizeof word) return word;
  if (!ReadEntries(m_file, position, reinterpret_cast<unsigned char*>(&word), sizeof word))
    return std::nullopt;
  return word;
}

// While `entries` stays, nothing to which an entry leads changes: a place is overwritten only
// after its entry was changed to lead elsewhere.
bool Snapshot::IsUnchanged(Board::Words& now) {
  std::atomic_thread_fence(std::memory_order_acquire);
  if (!m_board.Look(now)) return false;
  const bool isSame = m_board.IsOurs(now) && now.entries == m_words.entries;
  m_board.Note(now, !isSame);
  m_hasNext = !isSame;
  m_next = now;
  return isSame;
}

// Something has changed; but if the entry is still the same, the record to which it leads is, too.
// For while `records` stays, nothing to which an entry led is overwritten. And for that record to
// be overwritten, its entry must have changed twice: away from there, and back.
bool Snapshot::IsHarmless(const Board::Words& now) const {
  constexpr std::uint64_t kOneEntry = 2;
  const bool isOneEntry = now.entries % 2 == 0 && now.entries - m_words.entries <= kOneEntry;
  return m_board.IsOurs(now) && m_board.IsSettled(now) &&
         (now.records == m_words.records || isOneEntry);
}

}  // namespace Zarn::Io
