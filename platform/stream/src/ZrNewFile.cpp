#include "ZrNewFile.h"

#include <sys/random.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <utility>

#include "FileSyscalls.h"
#include "ZrFailure.h"
#include "ZrFile.h"

namespace Zarn {
namespace {

std::string PrivateName() {
  std::uint64_t number = 0;
  if (::getrandom(&number, sizeof number, GRND_NONBLOCK) < 0) number = 0;
  char name[32];
  std::snprintf(name, sizeof name, ".hxcf-%016" PRIx64, number);
  return name;
}

}  // namespace

bool ZrNewFile::Begin(const PelmUnicodeString& path, unsigned int permissions) {
  Undo();
  m_stream.Close();
  m_path = path;
  if (!ZrFile::ToNative(path, m_nativePath)) return false;
  const std::string directory = ZrFile::GetDir(path).ToUtf8();
  constexpr int kAttempts = 16;  // a clash of random names even once is next to impossible
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (Make(directory + PrivateName(), permissions)) return true;
    if (errno != EEXIST && errno != EINTR) break;
  }
  // Why a missing folder could not be made says more than that it is missing.
  const bool isNoted = errno == ENOENT && GetFailureNote().systemError != 0;
  return !isNoted && FailBySystem();
}

// The name is kept first: there may be no memory for it once there is a file to undo.
bool ZrNewFile::Make(const std::string& temporary, unsigned int permissions) {
  m_temporary = temporary;
  const int fd = GetFileSyscalls().open(
      m_temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, permissions);
  if (fd < 0) return false;
  m_state = State::kBegun;
  if (m_stream.Attach(fd, false)) return true;
  Undo();
  errno = EIO;
  return false;
}

ZrNewFile::Outcome ZrNewFile::Publish() {
  if (m_state != State::kBegun) return Outcome::kFailed;
  const FileSyscalls& calls = GetFileSyscalls();
  int result = calls.renameNoReplace(m_temporary.c_str(), m_nativePath.c_str());
  const bool needsLink = result != 0 && (errno == EINVAL || errno == ENOSYS);
  if (needsLink) result = calls.link(m_temporary.c_str(), m_nativePath.c_str());
  if (result != 0) {
    FailBySystem();
    return errno == EEXIST ? Outcome::kExists : Outcome::kFailed;
  }
  m_state = State::kPublished;
  if (!needsLink) return Outcome::kPublished;
  // Of a file system that makes another inode of a link, this stream must have the one that others
  // open, for locks and pages are the inode's.
  calls.unlink(m_temporary.c_str());
  return m_stream.Reopen(m_path) ? Outcome::kPublished : Outcome::kFailed;
}

// By an exchange of names, which can be undone; where the file system has none, for good.
ZrNewFile::Outcome ZrNewFile::Replace() {
  if (m_state != State::kBegun) return Outcome::kFailed;
  struct stat old;
  const FileSyscalls& calls = GetFileSyscalls();
  const bool isThere = calls.stat(m_nativePath.c_str(), &old) == 0;
  if (isThere ? S_ISDIR(old.st_mode) || !m_stream.TakeOwner(m_path)
              : errno != ENOENT && errno != ELOOP) {
    FailBySystem(isThere && S_ISDIR(old.st_mode) ? EISDIR : errno);
    return Outcome::kFailed;
  }
  if (calls.renameExchange(m_temporary.c_str(), m_nativePath.c_str()) == 0) {
    m_state = State::kExchanged;
    return Outcome::kPublished;
  }
  if (errno == ENOENT) {
    const Outcome outcome = Publish();
    if (outcome != Outcome::kExists) return outcome;
  } else if (errno != EINVAL && errno != ENOSYS) {
    FailBySystem();
    return Outcome::kFailed;
  }
  if (calls.rename(m_temporary.c_str(), m_nativePath.c_str()) != 0) {
    FailBySystem();
    return Outcome::kFailed;
  }
  m_state = State::kReplaced;
  return Outcome::kPublished;
}

void ZrNewFile::Commit() {
  if (m_state == State::kBegun) return;  // it has no name yet
  if (m_state == State::kExchanged) GetFileSyscalls().unlink(m_temporary.c_str());
  m_state = State::kNone;
}

// Touches the path only while it still names the file that was made here. Allocates nothing: memory
// may be why there is something to undo.
void ZrNewFile::Undo() {
  const State state = std::exchange(m_state, State::kNone);
  if (state == State::kNone) return;
  const FileSyscalls& calls = GetFileSyscalls();
  struct stat there;
  struct stat ours;
  const bool isOurs = calls.stat(m_nativePath.c_str(), &there) == 0 && m_stream.GetStatus(ours) &&
                      there.st_dev == ours.st_dev && there.st_ino == ours.st_ino;
  if (state == State::kPublished && isOurs) calls.unlink(m_nativePath.c_str());
  if (state == State::kExchanged && isOurs &&
      calls.renameExchange(m_temporary.c_str(), m_nativePath.c_str()) != 0)
    calls.rename(m_temporary.c_str(), m_nativePath.c_str());  // the old one is back all the same
  if (state == State::kBegun || state == State::kExchanged) calls.unlink(m_temporary.c_str());
  m_stream.Close();  // last: a claim must hold until then
}

}  // namespace Zarn
