#include "OperationLock.h"

#include <new>
#include <utility>

namespace Zarn::Engine {
namespace {

constexpr unsigned int kReadersPerFlight = 64;

}  // namespace

LookupBarrier::LookupBarrier(ZrCompactFile& object)
    : m_exclusive(object.m_readers, std::defer_lock) {
  ++object.m_nBarriers;  // readers that follow each other without end must not keep it closed
  m_exclusive.lock();
  --object.m_nBarriers;
}

OperationLock::OperationLock(ZrCompactFile& object, Kind kind)
    : m_object(object), m_kind(kind), m_mutex(object.m_mutex, std::defer_lock) {
  if (kind == kReader && ShareLookups()) return;
  m_mutex.lock();
  try {
    if (object.m_bOpened) Acquire();
  } catch (const std::bad_alloc&) {
    m_usable = false;
  }
  if (kind == kLongReader) ++object.m_nLongReaders;
}

bool OperationLock::ShareLookups() {
  if (m_object.m_nBarriers != 0) return false;
  m_shared = std::shared_lock(m_object.m_readers);
  const auto* buffer = m_object.FindBuffer();
  m_usable = m_object.m_bSharedLookups && buffer != nullptr && *buffer != nullptr;
  if (!m_usable) m_shared.unlock();
  return m_usable;
}

void OperationLock::Acquire() {
  if (m_object.m_bLockHeld) {
    if (!IsReader()) return;
  } else if (!m_object.m_bLockDisabled || m_kind == kCompaction) {
    m_processLocked = IsReader() ? LockForReading() : LockForWriting();
    if (!m_processLocked) return;
  }
  if (m_kind == kWriter || (m_kind == kStore && m_object.m_nLongReaders != 0))
    m_barrier.emplace(m_object);
  if (m_kind == kCompaction) m_object.m_bLockHeld = true;
  m_usable = m_object.m_bIndexValid;
}

bool OperationLock::LockForReading() {
  auto& flight = m_object.m_flight;
  const bool isFull = flight.boarded >= kReadersPerFlight && m_object.m_nLongReaders == 0;
  if (flight.aboard == 0 || isFull || !m_object.m_bIndexValid) {
    WaitForReaders();
    if (!m_object.ReaderLock(1)) return false;
    flight.boarded = 0;
  }
  ++flight.aboard;
  ++flight.boarded;
  m_flight = flight.number;
  return true;
}

bool OperationLock::LockForWriting() {
  WaitForReaders();
  return m_kind == kWriter ? m_object.WriterLock(1) : m_object.ReservedLock(1);
}

bool OperationLock::ExcludeLookups() {
  if (!m_object.ExcludeReaders()) return false;
  if (!m_barrier && m_kind != kCompaction) m_barrier.emplace(m_object);
  return true;
}

// Ends the flight: its readers have left m_mutex, and hold m_readers until they have read.
void OperationLock::WaitForReaders() {
  auto& flight = m_object.m_flight;
  if (flight.aboard == 0) return;
  { const LookupBarrier barrier(m_object); }
  flight.End();
  m_object.ReaderUnlock();
}

OperationLock::~OperationLock() {
  m_barrier.reset();
  if (m_shared.owns_lock()) m_shared.unlock();
  if (m_kind == kLongReader) --m_object.m_nLongReaders;
  if (m_processLocked && !m_mutex.owns_lock()) m_mutex.lock();
  LeaveProcessLock();
}

void OperationLock::LeaveProcessLock() {
  if (!std::exchange(m_processLocked, false)) return;
  if (IsReader()) {
    auto& flight = m_object.m_flight;
    if (flight.number != m_flight) return;
    if (--flight.aboard == 0) m_object.ReaderUnlock();
    return;
  }
  if (m_kind == kCompaction) m_object.m_bLockHeld = false;
  m_object.WriterUnlock();
}

void OperationLock::LeaveMutex() {
  if (m_shared.owns_lock() || m_object.m_bLockHeld) return;
  m_shared = std::shared_lock(m_object.m_readers);
  m_mutex.unlock();
}

}  // namespace Zarn::Engine
