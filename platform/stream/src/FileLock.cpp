#include "FileLock.h"

#include <mutex>
#include <utility>
#include <vector>

#include "Descriptors.h"
#include "ZrFailure.h"
#include "ZrMutex.h"

namespace Zarn {
namespace {

struct Bytes {
  off_t start;
  off_t count;
};

constexpr off_t kLockOffset = off_t{1} << 62;
constexpr Bytes kReserve = {kLockOffset - 1, 1};
constexpr Bytes kGate = {kLockOffset, 1};
constexpr Bytes kMain = {kLockOffset + 1, 1};
constexpr Bytes kGateAndMain = {kLockOffset, 2};
constexpr Bytes kAll = {kLockOffset - 1, 3};
constexpr Bytes kClaim = {kLockOffset + 2, 1};
constexpr Bytes kUnlocked = {kLockOffset + 3, 1};
constexpr Bytes kWriter = {kLockOffset + 4, 1};
constexpr Bytes kOpenByte = {kLockOffset + 5, 1};
constexpr Bytes kMapped = {kLockOffset + 6, 1};
constexpr Bytes kPresence = {kLockOffset + 3, 4};

// F_OFD_SETLK: takes or frees a lock, or fails at once. F_OFD_SETLKW: waits for it. F_OFD_GETLK:
// whether it could be taken.
bool Ask(int fd, int command, short type, Bytes bytes) {
  struct flock request = {};
  request.l_type = type;
  request.l_whence = SEEK_SET;
  request.l_start = bytes.start;
  request.l_len = bytes.count;
  return Uninterrupted([&] { return GetFileSyscalls().lock(fd, command, &request); }) == 0 &&
         (command != F_OFD_GETLK || request.l_type == F_UNLCK);
}

// Polls for some tens of microseconds before the caller blocks. To block and to be woken takes
// longer than most operations hold the lock; and a process that locks without pause would get the
// lock again each time before a blocked one runs.
bool TryForAWhile(int fd, short type, Bytes bytes) {
  constexpr int kAttempts = 200;
  for (int i = 0; i < kAttempts; ++i)
    if (Ask(fd, F_OFD_SETLK, type, bytes)) return true;
  return false;
}

bool Wait(int fd, short type, Bytes bytes) {
  return TryForAWhile(fd, type, bytes) || Ask(fd, F_OFD_SETLKW, type, bytes);
}

// The caller holds RESERVE.
bool Exclude(int fd) {
  if (Ask(fd, F_OFD_SETLK, F_WRLCK, kGateAndMain)) return true;
  if (!Wait(fd, F_WRLCK, kGate)) return false;
  if (Wait(fd, F_WRLCK, kMain)) return true;
  Ask(fd, F_OFD_SETLK, F_UNLCK, kGate);
  return false;
}

bool LockExclusive(int fd) {
  if (Ask(fd, F_OFD_SETLK, F_WRLCK, kAll)) return true;
  if (!Wait(fd, F_WRLCK, kReserve)) return false;
  if (Exclude(fd)) return true;
  Ask(fd, F_OFD_SETLK, F_UNLCK, kReserve);
  return false;
}

bool LockShared(int fd) {
  if (!Wait(fd, F_RDLCK, kGateAndMain)) return false;
  if (Ask(fd, F_OFD_SETLK, F_UNLCK, kGate)) return true;
  Ask(fd, F_OFD_SETLK, F_UNLCK, kGateAndMain);
  return false;
}

// The bytes of one who is present; they are neighbours.
Bytes BytesOf(Presence presence) {
  switch (presence) {
    case Presence::kMapsFile:
      return {kOpenByte.start, 2};
    case Presence::kWrites:
      return {kWriter.start, 2};
    case Presence::kMapsAndWrites:
      return {kWriter.start, 3};
    case Presence::kWritesUnlocked:
      return {kUnlocked.start, 3};
    default:
      return kOpenByte;
  }
}

int OpenFile(const std::string& path, int access) {
  // O_NONBLOCK: opening a FIFO must not wait for its other end. Regular files ignore it.
  const int flags = access | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  return AboveStandardStreams(
      Uninterrupted([&] { return GetFileSyscalls().open(path.c_str(), flags, 0); }));
}

}  // namespace

// All objects of the process.
struct FileLock::Registry {
  Registry() { HandleForkOf<Registry>(); }

  static Registry& Get() {
    static Registry& registry = *new Registry;  // outlives all static objects
    return registry;
  }

  // Closes without unlocking: the locks are the parent's as well.
  void DropInChild() {
    for (FileLock* lock : m_locks)
      lock->CloseDescriptor();
  }

  ZrMutex m_mutex;
  std::vector<FileLock*> m_locks;
};

FileLock::FileLock() {
  const std::lock_guard guard(Registry::Get().m_mutex);
  Registry::Get().m_locks.push_back(this);
}

FileLock::~FileLock() {
  Close();
  const std::lock_guard guard(Registry::Get().m_mutex);
  std::erase(Registry::Get().m_locks, this);
}

bool FileLock::Open(const std::string& path) {
  const std::lock_guard guard(Registry::Get().m_mutex);
  int fd = OpenFile(path, O_RDWR);
  const bool readOnly = fd < 0 && (errno == EACCES || errno == EPERM || errno == EROFS);
  if (readOnly) fd = OpenFile(path, O_RDONLY);
  if (fd < 0) return FailBySystem();
  struct stat status;
  const bool isKnown = GetFileSyscalls().fstat(fd, &status) == 0;
  if (!isKnown || !S_ISREG(status.st_mode)) {
    FailBySystem(isKnown ? 0 : errno);
    GetFileSyscalls().close(fd);
    return false;
  }
  CloseDescriptor();
  m_fd = fd;
  m_readOnly = readOnly;
  m_device = status.st_dev;
  m_inode = status.st_ino;
  return true;
}

void FileLock::Close() {
  // Closing would not free the lock while a process that is being started still has a copy.
  if (GetMode() != LockMode::kNone) Unlock();
  if (std::exchange(m_isPresent, false)) Ask(m_fd, F_OFD_SETLK, F_UNLCK, kPresence);
  if (std::exchange(m_isClaim, false)) Ask(m_fd, F_OFD_SETLK, F_UNLCK, kClaim);
  const std::lock_guard guard(Registry::Get().m_mutex);
  CloseDescriptor();
}

void FileLock::CloseDescriptor() {
  m_mode = LockMode::kNone;
  if (m_fd >= 0) GetFileSyscalls().close(m_fd);
  m_fd = -1;
}

bool FileLock::Lock(LockMode mode) {
  bool locked = false;
  if (mode == LockMode::kShared || m_readOnly)
    locked = LockShared(m_fd);
  else
    locked = mode == LockMode::kExclusive ? LockExclusive(m_fd) : Wait(m_fd, F_WRLCK, kReserve);
  if (!locked) return FailBySystem();
  m_mode = mode;
  return true;
}

bool FileLock::ExcludeShared() {
  if (!m_readOnly && !Exclude(m_fd)) return FailBySystem();
  m_mode = LockMode::kExclusive;
  return true;
}

void FileLock::Unlock() {
  m_mode = LockMode::kNone;  // first: what others read here must not outlast the lock
  Ask(m_fd, F_OFD_SETLK, F_UNLCK, kAll);
}

bool FileLock::Claim(bool wait) {
  m_isClaim = Ask(m_fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, F_WRLCK, kClaim);
  return m_isClaim || FailBySystem();
}

bool FileLock::Enter(Presence presence) {
  m_isPresent = Ask(m_fd, F_OFD_SETLKW, F_RDLCK, BytesOf(presence));
  return m_isPresent || FailBySystem();
}

// Of two who leave at the same time the second one finds nobody.
bool FileLock::Leave() {
  return m_isPresent && Ask(m_fd, F_OFD_SETLK, F_UNLCK, kPresence) && !m_readOnly &&
         Ask(m_fd, F_OFD_SETLK, F_WRLCK, kOpenByte);
}

bool FileLock::IsAnotherPresent(Presence presence) const {
  const Bytes first = {BytesOf(presence).start, 1};
  return !Ask(m_fd, F_OFD_GETLK, F_WRLCK, presence == Presence::kMapsFile ? kMapped : first);
}

bool FileLock::IsMapped(int fd) { return !Ask(fd, F_OFD_GETLK, F_WRLCK, kMapped); }

bool FileLock::IsOpenOn(const struct stat& status) const {
  return m_device == status.st_dev && m_inode == status.st_ino;
}

}  // namespace Zarn
