#include "ZrNewFile.h"

#include <sys/random.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>

#include "FileSyscalls.h"
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

// For file systems whose rename cannot refuse to replace.
int LinkIntoPlace(const char* from, const char* to) {
  if (GetFileSyscalls().link(from, to) != 0) return -1;
  GetFileSyscalls().unlink(from);
  return 0;
}

}  // namespace

ZrNewFile::~ZrNewFile() { Abandon(); }

void ZrNewFile::Abandon() {
  if (m_temporary.empty()) return;
  m_stream.Close();
  GetFileSyscalls().unlink(m_temporary.c_str());
  m_temporary.clear();
}

bool ZrNewFile::Begin(const PelmUnicodeString& path) {
  Abandon();
  m_stream.Close();
  if (!ZrFile::ToNative(path, m_path)) return false;
  const std::string directory = ZrFile::GetDir(path).ToUtf8();
  constexpr int kAttempts = 16;  // a clash of random names even once is next to impossible
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const std::string temporary = directory + PrivateName();
    const int fd = GetFileSyscalls().open(temporary.c_str(),
                                          O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0666);
    if (fd >= 0) {
      m_temporary = temporary;
      if (m_stream.Attach(fd, false)) return true;
      Abandon();
      return false;
    }
    if (errno != EEXIST && errno != EINTR) return false;
  }
  return false;
}

ZrNewFile::Outcome ZrNewFile::Publish() {
  if (m_temporary.empty()) return Outcome::kFailed;
  int result = GetFileSyscalls().renameNoReplace(m_temporary.c_str(), m_path.c_str());
  if (result != 0 && (errno == EINVAL || errno == ENOSYS))
    result = LinkIntoPlace(m_temporary.c_str(), m_path.c_str());
  if (result != 0) return errno == EEXIST ? Outcome::kExists : Outcome::kFailed;
  m_temporary.clear();
  return Outcome::kPublished;
}

ZrNewFile::Outcome ZrNewFile::Replace() {
  if (m_temporary.empty()) return Outcome::kFailed;
  if (GetFileSyscalls().rename(m_temporary.c_str(), m_path.c_str()) != 0) return Outcome::kFailed;
  m_temporary.clear();
  return Outcome::kPublished;
}

}  // namespace Zarn
