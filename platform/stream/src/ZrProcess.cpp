#include "ZrProcess.h"

#include <cassert>
#include <cerrno>
#include <ctime>
#include <string>
#include <tuple>

#include "ChangeWatch.h"
#include "FileLock.h"
#include "FileSyscalls.h"
#include "ZrFile.h"

namespace Zarn {
namespace {

// Stands for the contents of a file at one moment: the count of a watch, or else stat's fields.
struct FileVersion {
  bool operator==(const FileVersion&) const = default;

  bool isDistinct = false;  // every later change makes another version
  std::uint64_t events = 0;
  // Device, inode, size, time of modification, time of change.
  std::tuple<dev_t, ino_t, off_t, time_t, long, time_t, long> status = {};
};

// `looked`: a time at which the file was not yet looked at. A change after that is stamped with a
// time no earlier, but for the coarseness of stamps: two seconds on the worst file systems.
FileVersion StatVersion(const struct stat& status, bool isLocal, const timespec& looked) {
  constexpr time_t kStampSteps = 2;
  return {isLocal && status.st_ctim.tv_sec + kStampSteps < looked.tv_sec,
          0,
          {status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec,
           status.st_mtim.tv_nsec, status.st_ctim.tv_sec, status.st_ctim.tv_nsec}};
}

FileVersion WatchVersion(const ChangeWatch::Counts& counts) {
  return {counts.events != 0, counts.events, {}};
}

enum class AtPath { kLockedFile, kOtherFile, kNothing };

}  // namespace

// Hidden, though it belongs to a class that is not.
struct __attribute__((visibility("hidden"))) ZrProcess::Impl {
  bool Bind();
  bool Lock(LockMode mode, bool refresh);
  bool LockAgain(LockMode mode);
  bool ExcludeReaders();
  bool LockFileAtPath(LockMode mode);
  AtPath Look();
  void Unlock();
  bool IsHeld() const { return m_lock.GetMode() != LockMode::kNone; }

  std::atomic<bool> m_disabled{false};
  std::string m_path;  // empty while not set up
  FileLock m_lock;
  ChangeWatch m_watch;
  std::uint64_t m_files = 0;  // that the lock has been on
  bool m_isLocal = false;
  std::uint64_t m_namesChecked = 0;  // the path led to the locked file at this count
  FileVersion m_loadedVersion;       // the owner's state
  FileVersion m_version;             // when the lock was taken
  bool m_isLoaded = false;           // while the lock is held: the owner's state is m_version's
  unsigned int m_depth = 0;          // while the lock is held: how often
  void (*m_function)(void*) = nullptr;
  void* m_owner = nullptr;
};

// Turns to the file that is at the path now.
bool ZrProcess::Impl::Bind() {
  if (!m_lock.Open(m_path)) return false;
  ++m_files;
  m_watch.Stop();
  m_isLocal = IsOnLocalFileSystem(m_lock.GetDescriptor());
  if (m_isLocal) m_watch.Start(m_lock.GetDescriptor());
  m_namesChecked = 0;
  m_loadedVersion = {};
  return true;
}

bool ZrProcess::Impl::Lock(LockMode mode, bool refresh) {
  if (IsHeld()) return LockAgain(mode);
  if (!LockFileAtPath(mode)) return false;
  m_depth = 1;
  m_isLoaded = m_loadedVersion.isDistinct && m_loadedVersion == m_version;
  if (refresh && !m_isLoaded && m_function != nullptr) m_function(m_owner);
  return IsHeld();  // unless the callback has released everything
}

bool ZrProcess::Impl::LockAgain(LockMode mode) {
  const bool isUpgrade = mode != LockMode::kShared && m_lock.GetMode() == LockMode::kShared;
  assert(!isUpgrade && "two readers would wait for each other");
  if (isUpgrade || (mode == LockMode::kExclusive && !ExcludeReaders())) return false;
  ++m_depth;
  return true;
}

bool ZrProcess::Impl::ExcludeReaders() {
  if (m_lock.GetMode() == LockMode::kReserved) return m_lock.ExcludeShared();
  return m_lock.GetMode() == LockMode::kExclusive;
}

bool ZrProcess::Impl::LockFileAtPath(LockMode mode) {
  for (;;) {
    if (!m_lock.Lock(mode)) return false;
    const AtPath found = Look();
    if (found == AtPath::kLockedFile) return true;
    m_lock.Unlock();
    if (found == AtPath::kNothing || !Bind()) return false;
  }
}

// Whether the path leads to the locked file; then m_version is set. A watch makes it unnecessary to
// look the path up while nothing happens to the names of the locked file.
AtPath ZrProcess::Impl::Look() {
  timespec now = {};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  const ChangeWatch::Counts counts = m_watch.Poll();
  m_version = WatchVersion(counts);
  if (counts.events != 0 && counts.names == m_namesChecked) return AtPath::kLockedFile;
  struct stat status;
  if (GetFileSyscalls().stat(m_path.c_str(), &status) != 0) return AtPath::kNothing;
  if (!m_lock.IsOpenOn(status)) return AtPath::kOtherFile;
  m_namesChecked = counts.names;
  if (counts.events == 0) m_version = StatVersion(status, m_isLocal, now);
  return AtPath::kLockedFile;
}

// A writer's state is that of the file after its writes, too: no other process has written
// meanwhile. Without a watch there is no version, since times do not tell one write from the next.
// The lock of a process that may not write does not keep writers out.
void ZrProcess::Impl::Unlock() {
  if (!IsHeld() || --m_depth > 0) return;
  if (m_lock.GetMode() != LockMode::kShared && !m_lock.IsReadOnly())
    m_version = WatchVersion(m_watch.Poll());
  m_loadedVersion = m_isLoaded ? m_version : FileVersion();
  m_lock.Unlock();
}

ZrProcess::ZrProcess() : m_impl(std::make_shared<Impl>()), m_bLockDisabled(m_impl->m_disabled) {}

ZrProcess::ZrProcess(ZrProcess* other)
    : m_impl(other->m_impl), m_bLockDisabled(m_impl->m_disabled) {}

ZrProcess::~ZrProcess() = default;

unsigned int ZrProcess::ProcessLockInit(const PelmUnicodeString& path) {
  constexpr unsigned int kReadOnly = 1;
  constexpr unsigned int kNoFile = 2;
  constexpr unsigned int kNotUsable = 3;
  ProcessLockRelease();
  std::string native;
  if (!ZrFile::ToNative(path, native)) return kNoFile;
  m_impl->m_path = native;
  if (m_impl->Bind()) return IsLockReadOnly() ? kReadOnly : 0;
  const bool isMissing = IsPathDeleted();
  m_impl->m_path.clear();
  return isMissing ? kNoFile : kNotUsable;
}

void ZrProcess::ProcessLockRelease() {
  m_impl->m_lock.Close();
  m_impl->m_watch.Stop();
  m_impl->m_path.clear();
}

bool ZrProcess::ReaderLock(unsigned char refresh) {
  return m_bLockDisabled || m_impl->Lock(LockMode::kShared, refresh == 1);
}

bool ZrProcess::WriterLock(unsigned char refresh) {
  return m_bLockDisabled || m_impl->Lock(LockMode::kExclusive, refresh == 1);
}

bool ZrProcess::ReservedLock(unsigned char refresh) {
  return m_bLockDisabled || m_impl->Lock(LockMode::kReserved, refresh == 1);
}

bool ZrProcess::ExcludeReaders() { return m_bLockDisabled || m_impl->ExcludeReaders(); }

void ZrProcess::ReaderUnlock() {
  if (!m_bLockDisabled) m_impl->Unlock();
}

void ZrProcess::WriterUnlock() { ReaderUnlock(); }

void ZrProcess::SetCallBack(void (*function)(void*), void* owner) {
  m_impl->m_function = function;
  m_impl->m_owner = owner;
}

bool ZrProcess::isLocked() const { return m_impl->IsHeld(); }

void ZrProcess::SetStateLoaded(bool loaded) { m_impl->m_isLoaded = loaded; }

bool ZrProcess::IsStateLoaded() const {
  return m_bLockDisabled || (m_impl->IsHeld() && m_impl->m_isLoaded);
}

bool ZrProcess::IsLockReadOnly() const { return m_impl->m_lock.IsReadOnly(); }

bool ZrProcess::IsLockOn(const ZrFileStream& stream) const {
  struct stat status;
  return stream.GetStatus(status) && m_impl->m_lock.IsOpenOn(status);
}

std::uint64_t ZrProcess::GetLockedFile() const { return m_impl->m_files; }

bool ZrProcess::IsPathDeleted() const {
  struct stat status;
  return !m_impl->m_path.empty() && GetFileSyscalls().stat(m_impl->m_path.c_str(), &status) != 0 &&
         (errno == ENOENT || errno == ENOTDIR);
}

}  // namespace Zarn
