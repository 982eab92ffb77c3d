#pragma once

#include <atomic>
#include <memory>

#include "HxPlatformExport.h"
#include "PelmUnicodeString.h"
#include "ZrFileStream.h"

namespace Zarn {

/// Reader/writer lock on a container file, among all objects of all processes; and the knowledge
/// whether somebody else has changed the file since this object's owner last loaded it.
///
/// The owner derives from this class. It wraps every operation in a lock and its unlock, and keeps
/// to these rules:
///  - A lock call that answers false has locked nothing; the operation fails.
///  - Who has loaded the state of the file says so while holding the lock: SetStateLoaded(true).
///    With it, the object's own writes under the writer lock count as known.
///  - Whose write failed half-way, so that memory and file may differ, says SetStateLoaded(false)
///    before it unlocks.
///  - Nobody writes while IsLockReadOnly.
///  - Who puts another file at the path does so under the writer lock, and leaves both files alone
///    from then on until the next lock, which is that of the new file.
///
/// Threads: one thread at a time makes calls, except isLocked. Two objects exclude each other also
/// within one process, so one thread must not lock two objects on the same file.
///
/// Processes: any number of readers or one writer. A writer may begin as one who lets readers go
/// on: while it does what does not disturb them. A waiting writer goes before readers that come
/// later. The lock is on the file itself, far behind its contents; nothing is written for it, and
/// there is no other file. It follows the path: if another file has taken the place of the locked
/// one, the next lock call locks that file, which counts as a change. A directory of the path that
/// is renamed is not noticed, nor are changes made through a memory mapping.
///
/// Crash: the kernel frees the lock of a process that dies. What it had written by then counts as
/// a change for the others.
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

  /// Sets the lock up for the existing file at `path`; gives back first what there was. Nothing
  /// counts as loaded. 0: usable; 1: usable for reading (see IsLockReadOnly); 2: `path` leads to
  /// nothing; 3: to something that is not a regular file or cannot be opened.
  unsigned int ProcessLockInit(const PelmUnicodeString& path);
  /// Gives everything back, a held lock included.
  void ProcessLockRelease();

  /// Waits for the lock, shared with other readers. It may be held several times over, and by the
  /// writer in either way; only the first call has an effect and only the last unlock releases. A
  /// reader cannot become the writer: that is a mistake, and answers false.
  ///
  /// With `refresh` 1 the first call invokes the callback if the file may have changed since the
  /// state was loaded, or if it never was; again each time until SetStateLoaded(true).
  bool ReaderLock(unsigned char refresh);
  /// The same, for the one writer.
  bool WriterLock(unsigned char refresh);
  /// The same for the one writer, but readers go on until ExcludeReaders. Given back by
  /// WriterUnlock.
  bool ReservedLock(unsigned char refresh);
  /// Waits until a writer has the lock for itself. False if it cannot, or is no writer; then it
  /// holds what it held.
  bool ExcludeReaders();
  /// Does nothing if the lock is not held.
  void ReaderUnlock();
  /// Does nothing if the lock is not held.
  void WriterUnlock();

  /// `function(owner)` is to load the state. It runs in the locking thread while the lock is held,
  /// and may lock again, for reading at least.
  void SetCallBack(void (*function)(void* owner), void* owner);

  /// Whether this object holds the lock now. Safe from any thread.
  bool isLocked() const;

 protected:
  /// Another face of the same lock, with the same state: for an owner that keeps the lock in a part
  /// of its own, which reaches what is protected here.
  explicit ZrProcess(ZrProcess* other);

  /// Says whether the state in memory is that of the file now. Has no effect without the lock.
  void SetStateLoaded(bool loaded);
  /// Whether it is, as far as is known; while the lock is held. What a callback could not load, or
  /// what changed without a callback (`refresh` 0, another file at the path), shows here. Always
  /// true while m_bLockDisabled.
  bool IsStateLoaded() const;
  /// The process may not write the file, so the writer lock does not keep readers out. May differ
  /// after each lock call, since the file may.
  bool IsLockReadOnly() const;
  /// Whether the file open in `stream` is the one that the lock is on.
  bool IsLockOn(const ZrFileStream& stream) const;
  /// A number of the file that the lock is on. Another file, or the same one after
  /// ProcessLockInit, has another number.
  std::uint64_t GetLockedFile() const;
  /// Whether nothing is at the path, looked up now. For after a lock or a callback has failed.
  bool IsPathDeleted() const;

  /// While true, lock calls answer true and unlock calls do nothing; neither counts as one.
  std::atomic<bool>& m_bLockDisabled;
};

}  // namespace Zarn
