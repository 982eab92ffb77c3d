#pragma once

#include <mutex>
#include <optional>
#include <shared_mutex>

#include "ZrCompactFile.h"

namespace Zarn::Engine {

/// Waits until no lookup reads without the object's mutex, and keeps others from it. To be made
/// with the mutex held.
class LookupBarrier {
 public:
  explicit LookupBarrier(ZrCompactFile& object);

 private:
  std::unique_lock<std::shared_mutex> m_exclusive;
};

/// Holds an object's locks for one operation, in the one order that all operations follow: its
/// mutex, the lock between processes (which brings the index up to date), and for who changes
/// records the right to do so while no lookup reads them. Released in reverse order.
///
/// The lock between processes is one per object. Readers of several threads hold it together, as a
/// flight: the first one takes it and the last one gives it back. A flight takes so many and no
/// more; then the next reader waits until it is over, so that readers in turn without end keep no
/// other process out.
///
/// Where the lock between processes is not in use, a reader needs no more than the promise that
/// nothing is changed meanwhile, and takes not even the mutex.
class OperationLock {
 public:
  /// kLongReader: one who takes long, and may be joined by lookups, while nobody stores anything.
  /// kStore: the one who writes, but lookups go on until ExcludeLookups. kWriter: without them from
  /// the start. kCompaction: as kStore; and until the end, the object's own operations run under
  /// this lock: lookups only, while others fail.
  enum Kind { kReader, kLongReader, kStore, kWriter, kCompaction };

  OperationLock(ZrCompactFile& object, Kind kind);
  ~OperationLock();
  OperationLock(const OperationLock&) = delete;
  OperationLock& operator=(const OperationLock&) = delete;

  /// Whether a file is open, the lock was had, and the index is that of the file. If not, the
  /// operation fails and writes nothing.
  bool IsUsable() const { return m_usable; }

  /// For a writer that is about to change what a lookup may be reading, here or in another process:
  /// anything but the end of the file and entries of empty cells. False if it must not.
  bool ExcludeLookups();

  /// For a reader that has found its record and needs only the file from here on: lets other
  /// threads work.
  void LeaveMutex();

  /// Gives back the lock between processes before the end.
  void LeaveProcessLock();

 private:
  bool ShareLookups();
  void Acquire();
  bool LockForReading();
  bool LockForWriting();
  void WaitForReaders();
  bool IsReader() const { return m_kind == kReader || m_kind == kLongReader; }

  ZrCompactFile& m_object;
  Kind m_kind;
  std::unique_lock<ZrMutex> m_mutex;
  bool m_processLocked = false;
  std::uint64_t m_flight = 0;  // of a reader: the one that it belongs to
  bool m_usable = false;
  std::optional<LookupBarrier> m_barrier;
  std::shared_lock<std::shared_mutex> m_shared;
};

}  // namespace Zarn::Engine
