#include "RecordBuffers.h"

#include <new>

#include "Cause.h"
#include "ZrThread.h"

namespace Zarn::Engine {

ZrByteArray* RecordBuffers::GetSwapData(bool swap) {
  const std::uint32_t thread = ZrThread::GetCurrentThreadId();
  const bool isKnown = thread < m_known.size();
  if (ZrByteArray* const own = isKnown ? m_known[thread].load() : nullptr) return own;
  const std::lock_guard guard(m_mutex);
  try {
    std::unique_ptr<ZrByteArray>& buffer = m_mapSwapData[thread];
    if (buffer == nullptr) buffer = std::make_unique<ZrByteArray>();
    buffer->SetSwap(swap);
    if (isKnown) m_known[thread] = buffer.get();
    return buffer.get();
  } catch (const std::bad_alloc&) {
    Io::Fail(ZrCause::kNoMemory);
    return nullptr;
  }
}

bool RecordBuffers::HasUsers() const {
  const std::lock_guard guard(m_mutex);
  return !m_mapSwapData.empty();
}

void RecordBuffers::DropOwn() {
  const std::uint32_t thread = ZrThread::GetCurrentThreadId();
  if (thread < m_known.size()) m_known[thread] = nullptr;
  const std::lock_guard guard(m_mutex);
  m_mapSwapData.erase(thread);
}

void RecordBuffers::DropAll() {
  Invalidate();
  const std::lock_guard guard(m_mutex);
  m_mapSwapData.clear();
}

void RecordBuffers::Invalidate() {
  for (auto& buffer : m_known)
    buffer = nullptr;
}

}  // namespace Zarn::Engine
