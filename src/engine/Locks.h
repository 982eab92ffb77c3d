#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <shared_mutex>

#include "Guards.h"
#include "ZrMutex.h"
#include "ZrProcess.h"

namespace Zarn::Engine {

class RecordBuffers;

/// The process lock, as the engine reaches it: another face of the object's base class.
struct ProcessLock : ZrProcess {
  explicit ProcessLock(ZrProcess& object) : ZrProcess(&object) {}

  /// Whether the mode does without it.
  bool IsDisabled() const { return m_bLockDisabled; }
  void SetDisabled(bool disabled) { m_bLockDisabled = disabled; }

  using ZrProcess::GetLockedFile;
  using ZrProcess::IsLockOn;
  using ZrProcess::IsLockReadOnly;
  using ZrProcess::IsStateLoaded;
  using ZrProcess::SetStateLoaded;
};

/// All locks of an object. Operations take them through Operation, in the order of docs/design.md
/// (lock order): the object's mutex, the process lock, the readers' lock, the state
/// mutex, and the index's own.
///
/// As a capability it stands for the right of one operation: shared to read the state of the
/// open file and the records in it, exclusive to change them.
class HX_CAPABILITY("operation") Locks {
 public:
  explicit Locks(ZrProcess& object) : m_process(object) {}

  /// What the owner tells of its file, with the mutex held.
  struct Admission {
    bool isOpen = false;
    bool isCurrent = false;      ///< the last refresh has succeeded
    bool sharesLookups = false;  ///< lookups need not take the mutex: nobody else changes the file
  };
  void Admit(const Admission& admission) HX_REQUIRES(m_mutex);
  bool IsOpen() const HX_REQUIRES(m_mutex) { return m_isOpen; }
  /// Safe from any thread.
  bool IsCurrent() const { return m_isCurrent; }

  /// For a write operation, which holds the mutex from beginning to end.
  void AssertMutexHeld() const HX_ASSERT_HELD(m_mutex) {}

  /// Whether a compaction holds the process lock for the operations of its callbacks.
  bool IsHeldByCompaction() const HX_REQUIRES(m_mutex) { return m_bLockHeld; }
  /// The process lock was given up as a whole, whoever held it.
  void EndFlight() HX_REQUIRES(m_mutex) { m_flight.End(); }

  ZrMutex& GetMutex() const HX_RETURN_CAPABILITY(m_mutex) { return m_mutex; }
  ProcessLock& GetProcessLock() { return m_process; }
  const ProcessLock& GetProcessLock() const { return m_process; }

 private:
  friend class Operation;
  friend class LookupBarrier;

  /// Lookups of several threads that hold the process lock together.
  struct Flight {
    std::uint64_t number = 0;
    unsigned int aboard = 0;   // 0: the lock is not held for reading
    unsigned int boarded = 0;  // since the lock was taken

    void End() {
      aboard = 0;
      ++number;
    }
  };

  mutable ZrMutex m_mutex{1};
  ProcessLock m_process;
  bool m_bLockHeld HX_GUARDED_BY(m_mutex) = false;
  bool m_isOpen HX_GUARDED_BY(m_mutex) = false;
  std::atomic<bool> m_isCurrent{false};
  Flight m_flight HX_GUARDED_BY(m_mutex);
  /// Readers that take long; only stores wait for them. Raised with m_mutex held.
  std::atomic<unsigned int> m_nLongReaders{0};
  /// Held shared by a lookup while it reads without m_mutex, exclusively by whoever changes records
  /// or the index, or closes the file.
  std::shared_mutex m_readers;
  /// Operations that hold m_mutex and wait to hold m_readers exclusively. While there are any, a
  /// lookup takes m_mutex.
  std::atomic<unsigned int> m_nBarriers{0};
  bool m_sharesLookups = false;  // guarded by m_readers, which the check does not know
};

/// Waits until no lookup reads without the object's mutex, and keeps others from it.
class LookupBarrier {
 public:
  explicit LookupBarrier(Locks& locks) HX_REQUIRES(locks.GetMutex());

 private:
  std::unique_lock<std::shared_mutex> m_exclusive;
};

}  // namespace Zarn::Engine
