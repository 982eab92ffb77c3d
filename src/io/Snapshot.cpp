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

// The first attempt begins whatever goes on: probably it concerns another tile. Most changes take a
// microsecond or two.
bool Snapshot::Begin() {
  if (++m_attempts > kMostAttempts) return false;
  UsesMore();
  m_isUnchanged = false;
  if (m_attempts > 1) {
    m_words = m_next;
  } else if (m_board.IsNear() || !m_board.GetKnown(m_words)) {
    if (!m_board.Look(m_words)) return false;
    m_board.Note(m_words);
  }
  const int looks = m_attempts == 1 ? 0 : m_board.IsNear() ? 2000 : 100;
  for (int i = 0; i < looks && !m_board.IsSettled(m_words); ++i) {
    Pause();
    if (!m_board.Look(m_words)) return false;
  }
  return m_board.IsOurs(m_words) && (m_attempts == 1 || m_board.IsSettled(m_words));
}

bool Snapshot::LookNow() {
  if (m_board.GetPlace() == Board::kNowhere) return true;
  if (!m_board.Look(m_words)) return false;
  m_board.Note(m_words);
  return m_board.IsOurs(m_words);
}

bool Snapshot::ReadIndex(std::uint64_t position, void* target, std::uint64_t size) const {
  return (m_map != nullptr && m_map->ReadUpTo(position, target, size) == size) ||
         ReadEntries(m_file, position, static_cast<unsigned char*>(target), size);
}

bool Snapshot::IsValid() {
  if (m_board.GetPlace() == Board::kNowhere) return true;
  return LookAgain() && (m_isUnchanged || (m_usesOne && HoldsFor(m_tile)));
}

// Without a board the caller holds the lock.
bool Snapshot::LookAgain() {
  if (m_board.GetPlace() == Board::kNowhere) return true;
  std::atomic_thread_fence(std::memory_order_acquire);
  if (!m_board.Look(m_next)) return false;
  m_board.Note(m_next);
  m_isUnchanged = m_next.entries == m_words.entries && m_board.IsSettled(m_next);
  return m_board.IsOurs(m_next);
}

// While `entries` stays, nothing to which an entry leads changes: a place is overwritten only
// after its entry was changed to lead elsewhere. While only other tiles change, what belongs to
// this one stays.
bool Snapshot::HoldsFor(std::uint32_t tile) const {
  return m_board.GetPlace() == Board::kNowhere || m_isUnchanged ||
         Board::IsOther(tile, m_words, m_next);
}

}  // namespace Zarn::Io
