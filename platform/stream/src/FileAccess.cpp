#include "FileAccess.h"

#include <cerrno>

#include "FileSyscalls.h"

namespace Zarn {
namespace {

constexpr mode_t kPermissions = 0777;
constexpr mode_t kOwnerPermissions = 0700;

// For a file of another group: its members were among the others, and the members of the group of
// before are among them now.
mode_t WithoutGroup(mode_t mode) {
  const mode_t both = mode & mode >> 3 & 07;
  return (mode & kOwnerPermissions) | both << 3 | both;
}

using AccessList = std::optional<std::string>;
constexpr const char* kAccessList = "system.posix_acl_access";

bool HasNoList() { return errno == ENODATA || errno == EOPNOTSUPP || errno == ENOSYS; }

// `read` is called as getxattr, for that list.
template <typename Read>
AccessList ReadAccessList(Read read) {
  ssize_t size = read(nullptr, 0);
  std::string list(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
  if (size > 0) size = read(list.data(), list.size());
  if (size < 0) return HasNoList() ? AccessList("") : std::nullopt;
  list.resize(static_cast<std::size_t>(size));
  return list;
}

// An empty list removes the one that the file may have got from its folder.
bool SetAccessList(int fd, const std::string& list) {
  const FileSyscalls& calls = GetFileSyscalls();
  if (!list.empty()) return calls.fsetxattr(fd, kAccessList, list.data(), list.size(), 0) == 0;
  return calls.fremovexattr(fd, kAccessList) == 0 || HasNoList();
}

}  // namespace

std::optional<FileAccess> FileAccess::Of(int fd) {
  const FileSyscalls& calls = GetFileSyscalls();
  FileAccess access;
  access.m_list = ReadAccessList(
      [&](char* list, std::size_t size) { return calls.fgetxattr(fd, kAccessList, list, size); });
  if (calls.fstat(fd, &access.m_status) != 0) return std::nullopt;
  return access;
}

std::optional<FileAccess> FileAccess::Of(const std::string& path) {
  const FileSyscalls& calls = GetFileSyscalls();
  FileAccess access;
  access.m_list = ReadAccessList([&](char* list, std::size_t size) {
    return calls.getxattr(path.c_str(), kAccessList, list, size);
  });
  if (calls.stat(path.c_str(), &access.m_status) != 0) return std::nullopt;
  return access;
}

bool FileAccess::GiveTo(int fd) const {
  const FileSyscalls& calls = GetFileSyscalls();
  struct stat mine;
  if (calls.fstat(fd, &mine) != 0) return false;
  constexpr uid_t kSameOwner = static_cast<uid_t>(-1);
  bool hasGroup = mine.st_gid == m_status.st_gid;
  if (mine.st_uid != m_status.st_uid || !hasGroup)
    hasGroup = calls.fchown(fd, m_status.st_uid, m_status.st_gid) == 0 ||
               calls.fchown(fd, kSameOwner, m_status.st_gid) == 0 ||  // which a member may
               hasGroup;
  mode_t mode = m_status.st_mode & kPermissions;
  // Beside a list, the bits of the group stand for all that it names.
  if (!m_list || (!hasGroup && !m_list->empty()) || !SetAccessList(fd, *m_list))
    mode &= kOwnerPermissions;
  else if (!hasGroup)
    mode = WithoutGroup(mode);
  return (mine.st_mode & kPermissions) == mode || calls.fchmod(fd, mode) == 0;
}

}  // namespace Zarn
