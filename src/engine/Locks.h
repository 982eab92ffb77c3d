#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "Guards.h"
#include "ZrMutex.h"
#include "ZrProcess.h"

namespace Zarn::Engine {

class OpenFile;

/// The process lock, as the engine reaches it: another face of the object's base class.
struct ProcessLock : ZrProcess {
  explicit ProcessLock(ZrProcess& object) : ZrProcess(&object) {}

  /// Whether the mode does without it.
  bool IsDisabled() const { return m_bLockDisabled; }
  void SetDisabled(bool disabled) { m_bLockDisabled = disabled; }
  /// While the lock is held: an odd word on the board of the locked file is a dead writer's, but
  /// for those who write without the lock.
  void Settle(OpenFile& file) const;

  using ZrProcess::EnterFile;
  using ZrProcess::GetLockedFile;
  using ZrProcess::GetLockedLength;
  using ZrProcess::IsAnotherPresent;
  using ZrProcess::IsExclusive;
  using ZrProcess::IsLockOn;
  using ZrProcess::IsLockReadOnly;
  using ZrProcess::LeaveFile;
};

/// The lookups under way. They take no lock; they only say that they use the open file, so whoever
/// replaces or closes it can wait for them.
class Lookups {
 public:
  /// One lookup of the calling thread. It uses the file as long as this object lives.
  class Visit {
   public:
    explicit Visit(Lookups& lookups);
    ~Visit();
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

    /// Null: the lookup needs the mutex.
    OpenFile* GetFile() const { return m_file; }

   private:
    std::atomic<std::uint32_t>* m_count = nullptr;  // of the thread
    OpenFile* m_file = nullptr;
  };

  /// From now on lookups may use the file.
  void Admit(OpenFile* file) { m_file.store(file); }
  /// From now on lookups need the mutex. Waits until no other one uses the file.
  void Stop();

 private:
  static constexpr std::size_t kThreads = 64;
  /// Odd while the thread of this number uses the file. A line of the cache of its own.
  struct alignas(64) Thread {
    std::atomic<std::uint32_t> count{0};
  };

  std::atomic<OpenFile*> m_file{nullptr};
  std::array<Thread, kThreads> m_threads;
};

/// The file that an object has open. The mutex guards it.
struct OpenState {
  std::shared_ptr<OpenFile> file;  // null: none
  bool isCurrent = false;          // the last refresh has succeeded

  bool IsUsable() const { return file != nullptr && isCurrent; }
};

/// All locks of an object. Operations take them through Operation, in the order of docs/design.md
/// (lock order).
///
/// As a capability it stands for the right to use the open file: exclusive to change it, shared to
/// read what only writers change.
class HX_CAPABILITY("operation") Locks {
 public:
  explicit Locks(ZrProcess& object) : m_process(object) {}

  /// Whether a compaction holds the process lock for the operations of its callbacks.
  bool IsHeldByCompaction() const HX_REQUIRES(m_mutex) { return m_bLockHeld; }
  /// For a write operation, which holds the mutex from beginning to end.
  void AssertMutexHeld() const HX_ASSERT_HELD(m_mutex) {}

  ZrMutex& GetMutex() const HX_RETURN_CAPABILITY(m_mutex) { return m_mutex; }
  ProcessLock& GetProcessLock() { return m_process; }
  const ProcessLock& GetProcessLock() const { return m_process; }
  Lookups& GetLookups() { return m_lookups; }

 private:
  friend class Operation;

  mutable ZrMutex m_mutex{1};
  ProcessLock m_process;
  Lookups m_lookups;
  bool m_bLockHeld HX_GUARDED_BY(m_mutex) = false;
};

}  // namespace Zarn::Engine
