#include "Operation.h"

#include <new>
#include <utility>

#include "RecordBuffers.h"

// What is held depends on the kind of the operation, so the compiler cannot check this file.
namespace Zarn::Engine {
namespace {

constexpr unsigned int kReadersPerFlight = 64;

}  // namespace

void Locks::Admit(const Admission& admission) {
  m_isOpen = admission.isOpen;
  m_isCurrent = admission.isCurrent;
  m_sharesLookups = admission.sharesLookups;
}

LookupBarrier::LookupBarrier(Locks& locks) : m_exclusive(locks.m_readers, std::defer_lock) {
  ++locks.m_nBarriers;  // readers that follow each other without end must not keep it closed
  m_exclusive.lock();
  --locks.m_nBarriers;
}

Operation::Operation(Locks& locks, const RecordBuffers& buffers, Kind kind) HX_NOT_CHECKED
    : m_locks(locks),
      m_kind(kind),
      m_mutex(locks.m_mutex, std::defer_lock) {
  if (kind == kReader && ShareLookups(buffers)) return;
  m_mutex.lock();
  try {
    if (locks.m_isOpen) Acquire();
  } catch (const std::bad_alloc&) {
    m_usable = false;
  }
  if (kind == kLongReader) ++locks.m_nLongReaders;
}

// A thread whose record buffer must be made, or told the byte order, goes the long way.
bool Operation::ShareLookups(const RecordBuffers& buffers) {
  if (m_locks.m_nBarriers != 0) return false;
  m_shared = std::shared_lock(m_locks.m_readers);
  m_usable = m_locks.m_sharesLookups && buffers.FindOwn() != nullptr;
  if (!m_usable) m_shared.unlock();
  return m_usable;
}

void Operation::Acquire() HX_NOT_CHECKED {
  if (m_locks.m_bLockHeld) {
    if (!IsReader()) return;
  } else if (!m_locks.m_process.IsDisabled() || m_kind == kCompaction) {
    m_processLocked = IsReader() ? LockForReading() : LockForWriting();
    if (!m_processLocked) return;
  }
  if (m_kind == kWriter || (m_kind == kStore && m_locks.m_nLongReaders != 0))
    m_barrier.emplace(m_locks);
  if (m_kind == kCompaction) m_locks.m_bLockHeld = true;
  m_usable = m_locks.m_isCurrent;
}

bool Operation::LockForReading() HX_NOT_CHECKED {
  auto& flight = m_locks.m_flight;
  const bool isFull = flight.boarded >= kReadersPerFlight && m_locks.m_nLongReaders == 0;
  if (flight.aboard == 0 || isFull || !m_locks.m_isCurrent) {
    WaitForReaders();
    if (!m_locks.m_process.ReaderLock(1)) return false;
    flight.boarded = 0;
  }
  ++flight.aboard;
  ++flight.boarded;
  m_flight = flight.number;
  return true;
}

bool Operation::LockForWriting() {
  WaitForReaders();
  ProcessLock& lock = m_locks.m_process;
  return m_kind == kWriter ? lock.WriterLock(1) : lock.ReservedLock(1);
}

bool Operation::ExcludeLookups() HX_NOT_CHECKED {
  if (!m_locks.m_process.ExcludeReaders()) return false;
  if (!m_barrier && m_kind != kCompaction) m_barrier.emplace(m_locks);
  return true;
}

// Ends the flight: its readers have left the mutex, and hold the readers' lock until they have
// read.
void Operation::WaitForReaders() HX_NOT_CHECKED {
  auto& flight = m_locks.m_flight;
  if (flight.aboard == 0) return;
  { const LookupBarrier barrier(m_locks); }
  flight.End();
  m_locks.m_process.ReaderUnlock();
}

Operation::~Operation() {
  m_barrier.reset();
  if (m_shared.owns_lock()) m_shared.unlock();
  if (m_kind == kLongReader) --m_locks.m_nLongReaders;
  if (m_processLocked && !m_mutex.owns_lock()) m_mutex.lock();
  LeaveProcessLock();
}

void Operation::LeaveProcessLock() HX_NOT_CHECKED {
  if (!std::exchange(m_processLocked, false)) return;
  if (IsReader()) {
    auto& flight = m_locks.m_flight;
    if (flight.number != m_flight) return;
    if (--flight.aboard == 0) m_locks.m_process.ReaderUnlock();
    return;
  }
  if (m_kind == kCompaction) m_locks.m_bLockHeld = false;
  m_locks.m_process.WriterUnlock();
}

void Operation::LeaveMutex() HX_NOT_CHECKED {
  if (m_shared.owns_lock() || m_locks.m_bLockHeld) return;
  m_shared = std::shared_lock(m_locks.m_readers);
  m_mutex.unlock();
}

}  // namespace Zarn::Engine
