#include "OperationLock.h"

#include <new>
#include <utility>

namespace Zarn::Engine {

OperationLock::OperationLock(ZrCompactFile& object, Kind kind)
    : m_object(object), m_kind(kind), m_mutex(object.m_mutex) {
  try {
    if (object.m_bOpened) Acquire(kind);
  } catch (const std::bad_alloc&) {
    m_usable = false;
  }
}

void OperationLock::Acquire(Kind kind) {
  if (m_object.m_bLockHeld) {
    if (kind != kReader) return;
  } else {
    m_processLocked = kind == kReader ? m_object.ReaderLock(1) : m_object.WriterLock(1);
    if (!m_processLocked) return;
  }
  if (kind == kWriter) m_exclusive = std::unique_lock(m_object.m_readers);
  if (kind == kCompaction) m_object.m_bLockHeld = true;
  m_usable = m_object.m_bIndexValid;
}

OperationLock::~OperationLock() {
  if (m_exclusive.owns_lock()) m_exclusive.unlock();
  if (m_mutex.owns_lock()) LeaveProcessLock();
}

void OperationLock::LeaveProcessLock() {
  if (!std::exchange(m_processLocked, false)) return;
  if (m_kind == kCompaction) m_object.m_bLockHeld = false;
  if (m_kind == kReader)
    m_object.ReaderUnlock();
  else
    m_object.WriterUnlock();
}

void OperationLock::LeaveMutex() {
  if (!m_object.m_bLockDisabled || m_object.m_bLockHeld) return;
  m_shared = std::shared_lock(m_object.m_readers);
  m_mutex.unlock();
}

}  // namespace Zarn::Engine
