#pragma once

#include <sys/stat.h>

#include <atomic>
#include <string>

namespace Zarn {

/// kReserved: one holder, beside any number of shared ones, who may come to hold it exclusively.
enum class LockMode { kNone, kShared, kReserved, kExclusive };

/// A lock on a file: any number of shared holders and one who has reserved it, or one exclusive
/// holder, among all FileLock objects of all processes.
///
/// Bytes far behind any contents stand for it; they are locked, never written:
///   MAIN    is what is held, as a read lock or as a write lock.
///   GATE    is the way to MAIN. Who wants MAIN exclusively keeps the gate from before the wait for
///           MAIN until both are let go; who wants it shared and finds the gate closed gives MAIN
///           back, and waits for the gate. So nobody overtakes a waiting writer, and readers that
///           overlap without end do not starve it.
///   RESERVE is all that a reservation takes, and what everybody has who takes the other two.
/// Nobody who has MAIN ever waits for the gate, nor with the gate for RESERVE, hence there is no
/// deadlock.
///
/// The locks belong to an open file description that only this object has. The kernel frees them
/// when a process dies, however it dies. A forked child gives up its copies of all descriptors:
/// its objects are closed, and whatever the parent holds stays the parent's.
///
/// One thread at a time, except GetMode.
class FileLock {
 public:
  FileLock();
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  /// Turns to the regular file at `path`, without a lock on it; false, and nothing has changed, if
  /// there is none that can be opened.
  bool Open(const std::string& path);
  /// Lets the lock go as well.
  void Close();

  /// Waits for the lock; false if it cannot be had at all. None may be held.
  bool Lock(LockMode mode);
  /// Waits until a reserved lock is an exclusive one; false, and it stays as it is, if it cannot be
  /// had.
  bool ExcludeShared();
  void Unlock();

  /// Takes the file for this object, among all that claim it, until it is closed: by a third byte,
  /// which has nothing to do with the lock. False if another has it and is not waited for, if it
  /// cannot be had, or without the right to write.
  bool Claim(bool wait);

  /// What is held. Safe from any thread.
  LockMode GetMode() const { return m_mode.load(std::memory_order_acquire); }
  /// Below 0 while closed.
  int GetDescriptor() const { return m_fd; }
  /// The process may not write this file. Then all locks are granted like shared ones: the holder
  /// cannot write, and everyone is kept out who would change what is there.
  bool IsReadOnly() const { return m_readOnly; }
  bool IsOpenOn(const struct stat& status) const;

 private:
  struct Registry;
  void CloseDescriptor();

  std::atomic<LockMode> m_mode{LockMode::kNone};
  bool m_readOnly = false;
  bool m_isClaim = false;
  int m_fd = -1;
  dev_t m_device = 0;
  ino_t m_inode = 0;
};

}  // namespace Zarn
