#include "OperationLock.h"

#include <new>
#include <utility>

namespace Zarn::Engine {
namespace {

constexpr unsigned int kReadersPerFlight = 64;

}  // namespace

OperationLock::OperationLock(ZrCompactFile& object, Kind kind)
    : m_object(object), m_kind(kind), m_mutex(object.m_mutex) {
  try {
    if (object.m_bOpened) Acquire();
  } catch (const std::bad_alloc&) {
    m_usable = false;
  }
}

void OperationLock::Acquire() {
  if (m_object.m_bLockHeld) {
    if (m_kind != kReader) return;
  } else if (!m_object.m_bLockDisabled || m_kind == kCompaction) {
    m_processLocked = m_kind == kReader ? LockForReading() : LockForWriting();
    if (!m_processLocked) return;
  }
  if (m_kind == kWriter) m_exclusive = std::unique_lock(m_object.m_readers);
  if (m_kind == kCompaction) m_object.m_bLockHeld = true;
  m_usable = m_object.m_bIndexValid;
}

bool OperationLock::LockForReading() {
  auto& flight = m_object.m_flight;
  const bool isFull = flight.boarded >= kReadersPerFlight && flight.staying == 0;
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
  return m_object.WriterLock(1);
}

// Ends the flight: its readers have left m_mutex, and hold m_readers until they have read.
void OperationLock::WaitForReaders() {
  auto& flight = m_object.m_flight;
  if (flight.aboard == 0) return;
  m_object.m_readers.lock();
  m_object.m_readers.unlock();
  flight.End();
  m_object.ReaderUnlock();
}

OperationLock::~OperationLock() {
  if (m_exclusive.owns_lock()) m_exclusive.unlock();
  if (m_shared.owns_lock()) m_shared.unlock();
  if (m_processLocked && !m_mutex.owns_lock()) m_mutex.lock();
  LeaveProcessLock();
}

void OperationLock::LeaveProcessLock() {
  if (!std::exchange(m_processLocked, false)) return;
  if (m_kind == kReader) {
    auto& flight = m_object.m_flight;
    if (flight.number != m_flight) return;
    if (m_stays) --flight.staying;
    if (--flight.aboard == 0) m_object.ReaderUnlock();
    return;
  }
  if (m_kind == kCompaction) m_object.m_bLockHeld = false;
  m_object.WriterUnlock();
}

void OperationLock::StayLong() {
  if (!m_processLocked) return;
  m_stays = true;
  ++m_object.m_flight.staying;
}

void OperationLock::LeaveMutex() {
  if (m_object.m_bLockHeld) return;
  m_shared = std::shared_lock(m_object.m_readers);
  m_mutex.unlock();
}

}  // namespace Zarn::Engine
