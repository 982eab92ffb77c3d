#pragma once

#include <functional>

#include "Locks.h"

namespace Zarn::Engine {

/// Holds an object's locks for one operation, in their one order: the mutex, then the process lock,
/// which refreshes the open file. Released in reverse order.
class Operation {
 public:
  enum Kind {
    kReader,
    kWriter,
    kCompaction,  ///< reserves the file; until it ends, lookups of this object run under its lock
  };

  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  /// Whether a file is open.
  bool IsOpen() const { return m_state.file != nullptr; }
  /// Whether a file is open, the lock is held, and the index is that of the file. If not, the
  /// operation fails and writes nothing.
  bool IsUsable() const { return m_isUsable; }

 protected:
  Operation(Locks& locks, const OpenState& state, Kind kind);
  ~Operation();

  void LeaveProcessLock();
  bool ExcludeReaders();
  bool Pause(const std::function<bool()>& action);

 private:
  void Acquire();
  bool LockProcess();
  void BeginWriting();

  Locks& m_locks;
  const OpenState& m_state;
  const Kind m_kind;
  bool m_processLocked = false;
  bool m_isUsable = false;
};

/// An operation that changes nothing: a lookup that needs the lock, or a check.
class HX_SCOPED_CAPABILITY ReadOperation : public Operation {
 public:
  ReadOperation(Locks& locks, const OpenState& state) HX_ACQUIRE_SHARED(locks)
      : Operation(locks, state, kReader) {}
  ~ReadOperation() HX_RELEASE_GENERIC() = default;

  /// Calls `action`, which may throw, and lets others work meanwhile. False if it answers false, or
  /// if the file is another one afterwards.
  bool Pause(const std::function<bool()>& action) { return Operation::Pause(action); }
};

/// An operation that may change the file.
class HX_SCOPED_CAPABILITY WriteOperation : public Operation {
 public:
  WriteOperation(Locks& locks, const OpenState& state, Kind kind = kWriter) HX_ACQUIRE(locks)
      : Operation(locks, state, kind) {}
  ~WriteOperation() HX_RELEASE_GENERIC() = default;

  /// Before a compaction changes the file itself. False if it must not.
  bool ExcludeReaders() { return Operation::ExcludeReaders(); }
  /// Gives back the process lock before the end.
  void LeaveProcessLock() { Operation::LeaveProcessLock(); }
};

}  // namespace Zarn::Engine
