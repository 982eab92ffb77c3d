#include "Locks.h"

#include <thread>

#include "OpenFile.h"
#include "ZrThread.h"

namespace Zarn::Engine {

void ProcessLock::Settle(OpenFile& file) const {
  Io::Board& board = file.GetBoard();
  if (!board.IsOdd() || IsAnotherPresent(Presence::kWritesUnlocked)) return;
  if (IsExclusive() && !file.GetStream()->IsReadOnly())
    board.Repair();
  else
    board.Bury();
}

// The count comes before the look at the file, and Stop does the reverse: one of them sees the
// other.
Lookups::Visit::Visit(Lookups& lookups) {
  const std::uint32_t thread = ZrThread::GetCurrentThreadId();
  if (thread >= kThreads) return;
  m_count = &lookups.m_threads[thread].count;
  m_count->fetch_add(1);
  m_file = lookups.m_file.load();
}

Lookups::Visit::~Visit() {
  if (m_count != nullptr)
    m_count->store(m_count->load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

void Lookups::Stop() {
  m_file.store(nullptr);
  for (Thread& thread : m_threads) {
    const std::uint32_t count = thread.count.load();
    while (count % 2 != 0 && thread.count.load() == count)
      std::this_thread::yield();
  }
}

}  // namespace Zarn::Engine
