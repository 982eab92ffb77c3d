#pragma once

#include <sys/stat.h>

#include <atomic>
#include <string>

#include "ZrProcess.h"

namespace Zarn {

/// kReserved: one holder, beside any number of shared ones; it may make its lock exclusive.
enum class LockMode { kNone, kShared, kReserved, kExclusive };

/// A lock on a file: any number of shared holders beside one reserved one, or one exclusive holder,
/// among all FileLock objects of all processes.
///
/// Bytes far behind any contents stand for it; they are locked, never written:
///   MAIN    is what is held, as a read lock or as a write lock.
///   GATE    is the way to MAIN. An exclusive holder keeps the gate closed while it waits for MAIN
///           and while it holds it; a shared one goes through it. So readers that overlap without
///           end do not starve a writer.
///   RESERVE is all that a reservation takes; an exclusive holder takes it before the other two.
///
/// Four more bytes are held shared by those who are present, for as long as they are: OPEN by
/// all, UNLOCKED, WRITER and MAPPED by those who say so (Presence).
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

  /// Waits for the lock; false on failure. This object must hold none.
  bool Lock(LockMode mode);
  /// Waits until a reserved lock is an exclusive one; false, and it stays as it is, on failure.
  bool ExcludeShared();
  void Unlock();

  /// Claims the file for this object until it is closed, by a fourth byte, which has nothing to do
  /// with the lock. Without `wait` false if another object has the claim; also false on failure, or
  /// without the right to write.
  bool Claim(bool wait);

  /// Declares this object present, until Leave or Close. Waits for one who is leaving.
  bool Enter(Presence presence);
  /// Takes that back. True if nobody is present any more; then nobody enters before Close.
  bool Leave();
  /// Whether another object is present in this way.
  bool IsAnotherPresent(Presence presence) const;

  /// Whether an object of any other descriptor than this one has said that it maps the file.
  static bool IsMapped(int fd);

  /// What is held. Safe from any thread.
  LockMode GetMode() const { return m_mode.load(std::memory_order_acquire); }
  /// Below 0 while closed.
  int GetDescriptor() const { return m_fd; }
  /// The process may not write this file. Then it gets shared locks for all modes: it cannot write,
  /// and shared locks keep writers out.
  bool IsReadOnly() const { return m_readOnly; }
  bool IsOpenOn(const struct stat& status) const;

 private:
  struct Registry;
  void CloseDescriptor();

  std::atomic<LockMode> m_mode{LockMode::kNone};
  bool m_readOnly = false;
  bool m_isClaim = false;
  bool m_isPresent = false;
  int m_fd = -1;
  dev_t m_device = 0;
  ino_t m_inode = 0;
};

}  // namespace Zarn
