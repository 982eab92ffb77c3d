#include "RecordBuffers.h"

#include <new>

#include "ZrThread.h"

namespace Zarn::Engine {

ZrByteArray* RecordBuffers::FindOwn() const {
  const std::uint32_t thread = ZrThread::GetCurrentThreadId();
  return thread < m_known.size() ? m_known[thread].load() : nullptr;
}

ZrByteArray* RecordBuffers::GetSwapData(bool swap) {
  const std::uint32_t thread = ZrThread::GetCurrentThreadId();
  try {
    std::unique_ptr<ZrByteArray>& buffer = m_mapSwapData[thread];
    if (buffer == nullptr) buffer = std::make_unique<ZrByteArray>();
    buffer->SetSwap(swap);
    if (thread < m_known.size()) m_known[thread] = buffer.get();
    return buffer.get();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void RecordBuffers::DropOwn() {
  const std::uint32_t thread = ZrThread::GetCurrentThreadId();
  if (thread < m_known.size()) m_known[thread] = nullptr;
  m_mapSwapData.erase(thread);
}

void RecordBuffers::DropAll() {
  Invalidate();
  m_mapSwapData.clear();
}

void RecordBuffers::Invalidate() {
  for (auto& buffer : m_known)
    buffer = nullptr;
}

}  // namespace Zarn::Engine
