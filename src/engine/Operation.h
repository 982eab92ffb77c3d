#pragma once

#include "Locks.h"

namespace Zarn::Engine {

/// Holds an object's locks for one operation, in their one order. Released in reverse order.
///
/// The process lock is one per object. Lookups of several threads hold it together, as a
/// flight: the first one takes it and the last one gives it back. A flight takes a fixed number of
/// lookups; then the next one waits until the flight is over, so lookups in turn without end keep
/// no other process out.
///
/// Where the process lock is not in use, a lookup holds only the readers' lock, shared,
/// and does not even take the mutex.
class Operation {
 public:
  enum Kind {
    kReader,
    kLongReader,  ///< takes long: lookups may join it, stores wait
    kStore,       ///< writes, but lookups go on until ExcludeLookups
    kWriter,      ///< writes, without lookups from the start
    kCompaction,  ///< as kStore; until it ends, lookups of this object run under its lock
  };

  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  /// Whether a file is open. For operations that hold the mutex.
  bool IsOpen() const HX_NOT_CHECKED { return m_locks.m_isOpen; }
  /// Whether a file is open, the lock is held, and the index is that of the file. If not, the
  /// operation fails and writes nothing.
  bool IsUsable() const { return m_usable; }

 protected:
  Operation(Locks& locks, const RecordBuffers& buffers, Kind kind);
  ~Operation();

  bool ExcludeLookups();
  void LeaveMutex();
  void LeaveProcessLock();

 private:
  bool ShareLookups(const RecordBuffers& buffers);
  void Acquire();
  bool LockForReading();
  bool LockForWriting();
  void WaitForReaders();
  bool IsReader() const { return m_kind == kReader || m_kind == kLongReader; }

  Locks& m_locks;
  const Kind m_kind;
  std::unique_lock<ZrMutex> m_mutex;
  bool m_processLocked = false;
  std::uint64_t m_flight = 0;  // of a reader: the one that it belongs to
  bool m_usable = false;
  std::optional<LookupBarrier> m_barrier;
  std::shared_lock<std::shared_mutex> m_shared;
};

/// An operation that changes nothing.
class HX_SCOPED_CAPABILITY ReadOperation : public Operation {
 public:
  ReadOperation(Locks& locks, const RecordBuffers& buffers, Kind kind = kReader)
      HX_ACQUIRE_SHARED(locks)
      : Operation(locks, buffers, kind) {}
  ~ReadOperation() HX_RELEASE_GENERIC() = default;

  /// Lets other threads work, once the record is found and only the file is needed.
  void LeaveMutex() { Operation::LeaveMutex(); }
};

/// An operation that may change the file.
class HX_SCOPED_CAPABILITY WriteOperation : public Operation {
 public:
  WriteOperation(Locks& locks, const RecordBuffers& buffers, Kind kind = kWriter) HX_ACQUIRE(locks)
      : Operation(locks, buffers, kind) {}
  ~WriteOperation() HX_RELEASE_GENERIC() = default;

  /// Keeps lookups of all threads and processes out, before a change to anything but the end of the
  /// file and entries of empty cells. False if it must not be made.
  bool ExcludeLookups() { return Operation::ExcludeLookups(); }
  /// Gives back the process lock before the end.
  void LeaveProcessLock() { Operation::LeaveProcessLock(); }
};

}  // namespace Zarn::Engine
