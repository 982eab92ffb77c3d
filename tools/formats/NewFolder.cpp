#include "NewFolder.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>

#include "FormatError.h"
#include "OutputFile.h"

namespace Formats {
namespace {

namespace fs = std::filesystem;

// Without a slash at the end, which would make the folder its own parent.
fs::path WithoutSlash(const fs::path& path) {
  return path.has_filename() || !path.has_relative_path() ? path : path.parent_path();
}

fs::path TemporaryName() {
  std::uint64_t number = 0;
  if (::getrandom(&number, sizeof number, GRND_NONBLOCK) < 0) number = 0;
  char name[32];
  std::snprintf(name, sizeof name, ".hxcf-%016llx", static_cast<unsigned long long>(number));
  return name;
}

}  // namespace

bool IsWithinFolder(std::string_view name) {
  if (name.find('\0') != name.npos) return false;
  for (;;) {
    const std::size_t slash = name.find('/');
    const std::string_view part = name.substr(0, slash);
    if (part.empty() || part == "." || part == "..") return false;
    if (slash == name.npos) return true;
    name.remove_prefix(slash + 1);
  }
}

NewFolder::NewFolder(const fs::path& path) : m_path(WithoutSlash(path)) {
  std::error_code error;
  if (!fs::is_directory(m_path, error))
    ExpectNothingAt(m_path);
  else if (!fs::is_empty(m_path, error) || error)
    throw FormatError(m_path, "is a folder that is not empty");
  m_temporary = m_path.parent_path() / TemporaryName();
  if (::mkdir(m_temporary.c_str(), 0777) != 0)
    throw FormatError::OfSystem(m_path, "cannot be created");
}

NewFolder::~NewFolder() {
  std::error_code ignored;
  if (!m_isPublished) fs::remove_all(m_temporary, ignored);
}

// All that is below the temporary folder was made here, so no link leads out of it.
void NewFolder::Write(const std::string& name, hx::Bytes bytes) {
  if (!IsWithinFolder(name)) throw FormatError(m_path, "cannot have a file of this name: " + name);
  const std::string folder = name.substr(0, name.rfind('/') + 1);
  if (folder != m_folder) {
    std::error_code error;
    fs::create_directories(m_temporary / folder, error);
    if (error)
      throw FormatError(m_path, "cannot have the folder " + folder + ": " + error.message());
    m_folder = folder;
  }
  const int fd =
      ::open((m_temporary / name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0 && errno == EEXIST) throw FormatError(m_path, "was given a file twice: " + name);
  if (fd < 0) throw FormatError::OfSystem(m_path / name, "cannot be created");
  WriteBytes(fd, bytes, name);
}

void NewFolder::WriteBytes(int fd, hx::Bytes bytes, const std::string& name) {
  std::size_t done = 0;
  bool isGood = true;
  while (isGood && done < bytes.size()) {
    const ssize_t count = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (count > 0)
      done += static_cast<std::size_t>(count);
    else
      isGood = count < 0 && errno == EINTR;
  }
  const int error = errno;
  if (::close(fd) == 0 && isGood) return;
  if (!isGood) errno = error;
  m_isWhole = false;
  throw FormatError::OfSystem(m_path / name, "cannot be written");
}

void NewFolder::Publish() {
  if (!m_isWhole) throw FormatError(m_path, "could not be written as a whole");
  if (::rename(m_temporary.c_str(), m_path.c_str()) != 0)
    throw FormatError::OfSystem(m_path, "cannot be given its name");
  m_isPublished = true;
}

}  // namespace Formats
