#pragma once

#include <atomic>
#include <memory>

#include "HxPlatformExport.h"
#include "PelmUnicodeString.h"
#include "ZrFileStream.h"

namespace Zarn {

/// What an open object tells the others of its file, for as long as it is open.
enum class Presence {
  kOpen,            ///< it remembers what it has read
  kMapsFile,        ///< it reads from a mapping as well, so the file must not become shorter
  kWrites,          ///< it writes as well
  kMapsAndWrites,   ///< both
  kWritesUnlocked,  ///< it writes, and does so without the lock
};

/// The process lock: a reader/writer lock on a container file, among all objects of all processes.
///
/// The owner derives from this class. It wraps operations in a lock and its unlock, and keeps to
/// these rules:
///  - A lock call that answers false has locked nothing; the operation fails.
///  - It does not write while IsLockReadOnly.
///  - It puts another file at the path only under the writer lock, and then leaves both files alone
///    until the next lock, which is that of the new file.
///
/// Threads: one thread at a time makes calls, except isLocked. Two objects exclude each other also
/// within one process, so one thread must not lock two objects on the same file.
///
/// Processes: any number of readers or one writer. A writer may begin with a reserved lock, which
/// lets readers go on while it does what does not disturb them. A waiting writer goes before
/// readers that come later. The lock is on the file itself, far behind its contents; it writes
/// nothing, and there is no other file. It follows the path: if another file has taken the place of
/// the locked one, the next lock call locks that file. What has changed in the file the owner finds
/// out by itself, in the callback.
///
/// Crash: the kernel frees the lock of a process that dies.
///
/// Fork: the parent's lock stays the parent's. In the child of fork(), lock calls fail and unlock
/// calls do nothing until ProcessLockInit is called there.
class HX_PLATFORM_API ZrProcess {
  struct Impl;
  std::shared_ptr<Impl> m_impl;

 public:
  ZrProcess();
  virtual ~ZrProcess();
  ZrProcess(const ZrProcess&) = delete;
  ZrProcess& operator=(const ZrProcess&) = delete;

  /// Sets the lock up for the existing file at `path`, and releases an earlier one first. 0:
  /// usable; 1: usable for reading (see IsLockReadOnly); 2: `path` leads to nothing; 3: to
  /// something that is not a regular file or cannot be opened.
  unsigned int ProcessLockInit(const PelmUnicodeString& path);
  /// Undoes ProcessLockInit, and unlocks.
  void ProcessLockRelease();

  /// Waits for the lock, shared with other readers. Lock calls nest, also as reader within writer:
  /// only the first call has an effect and only the last unlock releases. A reader cannot become
  /// the writer: that is a mistake, and answers false.
  ///
  /// With `refresh` 1 the first call invokes the callback, by which the owner takes notice of what
  /// others have changed.
  bool ReaderLock(unsigned char refresh);
  /// The same, for the one writer.
  bool WriterLock(unsigned char refresh);
  /// The same for the one writer, but readers go on until ExcludeReaders. WriterUnlock releases it.
  bool ReservedLock(unsigned char refresh);
  /// Waits until this writer excludes readers. False on failure, or if it is no writer; then it
  /// holds what it held.
  bool ExcludeReaders();
  /// Does nothing if the lock is not held.
  void ReaderUnlock();
  /// Does nothing if the lock is not held.
  void WriterUnlock();

  /// Sets the callback: `function(owner)` loads the state. It runs in the locking thread while the
  /// lock is held, and may lock again, for reading at least.
  void SetCallBack(void (*function)(void* owner), void* owner);

  /// Whether this object holds the lock now. Safe from any thread.
  bool isLocked() const;

 protected:
  /// Another object for the same lock, with the same state: for an owner that keeps the lock in a
  /// part of its own, which calls the protected functions.
  explicit ZrProcess(ZrProcess* other);

  /// The process may not write the file, so the writer lock does not keep readers out. May change
  /// with each lock call, since the file may.
  bool IsLockReadOnly() const;
  /// Whether this object holds the lock as the one writer, and readers are excluded.
  bool IsExclusive() const;
  /// Whether the file open in `stream` is the one that the lock is on.
  bool IsLockOn(const ZrFileStream& stream) const;
  /// A number of the file that the lock is on. Another file, or the same one after
  /// ProcessLockInit, has another number.
  std::uint64_t GetLockedFile() const;
  /// The length of the file when the lock was taken.
  std::uint64_t GetLockedLength() const;
  /// Declares this object present on the file, until LeaveFile or ProcessLockRelease; on another
  /// file that the lock turns to, it is not. Waits for one who is leaving.
  bool EnterFile(Presence presence);
  /// Takes that back. True if nobody is present any more, and the file may be written; then nobody
  /// enters before ProcessLockRelease.
  bool LeaveFile();
  /// Whether another object is present that maps, that writes, or that writes without the lock;
  /// for kOpen, any.
  bool IsAnotherPresent(Presence presence) const;
  /// Looks the path up: whether nothing is there. For use after a lock or a callback has failed.
  bool IsPathDeleted() const;

  /// While true, lock calls answer true and unlock calls do nothing; neither counts as one.
  std::atomic<bool>& m_bLockDisabled;
};

}  // namespace Zarn
