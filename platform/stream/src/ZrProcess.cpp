#include "ZrProcess.h"

#include <cassert>
#include <cerrno>
#include <string>

#include "FileLock.h"
#include "FileSyscalls.h"
#include "ZrFailure.h"
#include "ZrFile.h"

namespace Zarn {
namespace {

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
  std::uint64_t m_files = 0;   // that the lock has been on
  std::uint64_t m_length = 0;  // of the file when the lock was taken
  unsigned int m_depth = 0;    // while the lock is held: how often
  void (*m_function)(void*) = nullptr;
  void* m_owner = nullptr;
};

// Turns to the file that is at the path now.
bool ZrProcess::Impl::Bind() {
  if (!m_lock.Open(m_path)) return false;
  ++m_files;
  return true;
}

bool ZrProcess::Impl::Lock(LockMode mode, bool refresh) {
  if (IsHeld()) return LockAgain(mode);
  if (!LockFileAtPath(mode)) return false;
  m_depth = 1;
  if (refresh && m_function != nullptr) m_function(m_owner);
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

AtPath ZrProcess::Impl::Look() {
  struct stat status;
  if (GetFileSyscalls().stat(m_path.c_str(), &status) != 0) {
    FailBySystem();
    return AtPath::kNothing;
  }
  if (!m_lock.IsOpenOn(status)) return AtPath::kOtherFile;
  m_length = static_cast<std::uint64_t>(status.st_size);
  return AtPath::kLockedFile;
}

void ZrProcess::Impl::Unlock() {
  if (IsHeld() && --m_depth == 0) m_lock.Unlock();
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

bool ZrProcess::IsLockReadOnly() const { return m_impl->m_lock.IsReadOnly(); }

bool ZrProcess::IsExclusive() const {
  return m_impl->m_lock.GetMode() == LockMode::kExclusive && !IsLockReadOnly();
}

bool ZrProcess::IsLockOn(const ZrFileStream& stream) const {
  struct stat status;
  return stream.GetStatus(status) && m_impl->m_lock.IsOpenOn(status);
}

std::uint64_t ZrProcess::GetLockedFile() const { return m_impl->m_files; }

std::uint64_t ZrProcess::GetLockedLength() const { return m_impl->m_length; }

bool ZrProcess::EnterFile(Presence presence) { return m_impl->m_lock.Enter(presence); }

bool ZrProcess::LeaveFile() { return m_impl->m_lock.Leave(); }

bool ZrProcess::IsAnotherPresent(Presence presence) const {
  return m_impl->m_lock.IsAnotherPresent(presence);
}

bool ZrProcess::IsPathDeleted() const {
  struct stat status;
  return !m_impl->m_path.empty() && GetFileSyscalls().stat(m_impl->m_path.c_str(), &status) != 0 &&
         (errno == ENOENT || errno == ENOTDIR);
}

}  // namespace Zarn
