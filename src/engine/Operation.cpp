#include "Operation.h"

#include <new>
#include <thread>
#include <utility>

#include "Cause.h"
#include "OpenFile.h"

// What is held depends on the kind of the operation, so the compiler cannot check this file.
namespace Zarn::Engine {

Operation::Operation(Locks& locks, const OpenState& state, Kind kind) HX_NOT_CHECKED
    : m_locks(locks),
      m_state(state),
      m_kind(kind) {
  m_locks.m_mutex.Lock();
  Acquire();
}

void Operation::Acquire() HX_NOT_CHECKED {
  m_isUsable = false;
  if (m_state.file == nullptr) {
    Io::Fail(ZrCause::kNotOpen);
    return;
  }
  if (m_locks.m_bLockHeld && m_kind != kReader) {
    Io::Fail(ZrCause::kInUse);
    return;
  }
  try {
    if (!m_locks.m_bLockHeld && !LockProcess()) return;
  } catch (const std::bad_alloc&) {
    Io::Fail(ZrCause::kNoMemory);
    return;
  }
  if (m_kind == kCompaction) m_locks.m_bLockHeld = true;
  m_isUsable = m_state.IsUsable();
  if (m_kind == kWriter) BeginWriting();
}

bool Operation::LockProcess() HX_NOT_CHECKED {
  ProcessLock& lock = m_locks.m_process;
  m_processLocked = m_kind == kReader   ? lock.ReaderLock(1)
                    : m_kind == kWriter ? lock.WriterLock(1)
                                        : lock.ReservedLock(1);
  return m_processLocked;
}

void Operation::BeginWriting() {
  if (m_isUsable) m_state.file->GetBoard().BeginWriting();
}

bool Operation::ExcludeReaders() HX_NOT_CHECKED {
  ProcessLock& lock = m_locks.m_process;
  if (!lock.ExcludeReaders()) return false;
  if (!lock.IsDisabled()) {
    if (m_state.file->Refresh(lock.GetLockedLength()) == OpenFile::Change::kAll) return false;
    lock.Settle(*m_state.file);
  }
  BeginWriting();
  return true;
}

bool Operation::Pause(const std::function<bool()>& action) HX_NOT_CHECKED {
  const std::shared_ptr<OpenFile> file = m_state.file;  // stays, so that another one is told apart
  LeaveProcessLock();
  m_locks.m_mutex.Unlock();
  bool goesOn = false;
  try {
    goesOn = action();
  } catch (...) {
  }
  std::this_thread::yield();
  m_locks.m_mutex.Lock();
  Acquire();
  return goesOn && m_isUsable && m_state.file == file;
}

Operation::~Operation() HX_NOT_CHECKED {
  LeaveProcessLock();
  m_locks.m_mutex.Unlock();
}

void Operation::LeaveProcessLock() HX_NOT_CHECKED {
  if (m_kind != kReader && m_state.file != nullptr) m_state.file->GetBoard().EndWriting();
  if (!std::exchange(m_processLocked, false)) return;
  if (m_kind == kCompaction) m_locks.m_bLockHeld = false;
  m_locks.m_process.WriterUnlock();
}

}  // namespace Zarn::Engine
