#include "ZrFile.h"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <utility>

#include "Descriptors.h"
#include "FileSyscalls.h"
#include "ZrFailure.h"

namespace Zarn {
namespace {

std::size_t NameStart(std::u16string_view path) {
  const std::size_t slash = path.rfind(u'/');
  return slash == path.npos ? 0 : slash + 1;
}

PelmUnicodeString Piece(std::u16string_view units) { return {units.data(), units.size()}; }

bool IsDirectory(const std::string& path) {
  struct stat status;
  return GetFileSyscalls().stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool MakeDirectories(const std::string& path) {
  constexpr mode_t kMode = 0777;  // the process's umask narrows it
  if (GetFileSyscalls().mkdir(path.c_str(), kMode) == 0) return true;
  if (errno != ENOENT) return IsDirectory(path);
  const std::size_t nameEnd = path.find_last_not_of('/');
  const std::size_t slash = nameEnd == path.npos ? path.npos : path.rfind('/', nameEnd);
  if (slash == path.npos || slash == 0 || !MakeDirectories(path.substr(0, slash))) return false;
  return GetFileSyscalls().mkdir(path.c_str(), kMode) == 0 || IsDirectory(path);
}

// The mount that a path leads to, and 0 for the device; or 0 and the device.
bool FindMount(const std::string& path, std::pair<std::uint64_t, dev_t>& mount) {
  struct statx more;
  if (GetFileSyscalls().statx(AT_FDCWD, path.c_str(), 0, STATX_MNT_ID, &more) == 0 &&
      (more.stx_mask & STATX_MNT_ID) != 0) {
    mount = {more.stx_mnt_id, 0};
    return true;
  }
  struct stat status;
  if (GetFileSyscalls().stat(path.c_str(), &status) != 0) return false;
  mount = {0, status.st_dev};
  return true;
}

}  // namespace

PelmUnicodeString ZrFile::GetExt(const PelmUnicodeString& path) {
  const std::u16string_view name = path.GetUnits().substr(NameStart(path.GetUnits()));
  const std::size_t dot = name.rfind(u'.');
  return dot == name.npos ? PelmUnicodeString() : Piece(name.substr(dot));
}

PelmUnicodeString ZrFile::GetDir(const PelmUnicodeString& path) {
  return Piece(path.GetUnits().substr(0, NameStart(path.GetUnits())));
}

PelmUnicodeString ZrFile::GetName(const PelmUnicodeString& path) {
  return Piece(path.GetUnits().substr(NameStart(path.GetUnits())));
}

PelmUnicodeString ZrFile::GetAbsolute(const PelmUnicodeString& path) {
  if (path.IsEmpty() || path.GetUnits().front() == u'/') return path;
  std::error_code error;
  const std::string folder = std::filesystem::current_path(error).string() + '/';
  const PelmUnicodeString start = PelmUnicodeString::FromUtf8(folder);
  return error || start.ToUtf8() != folder ? PelmUnicodeString() : start + path;
}

PelmUnicodeString ZrFile::FollowLink(const PelmUnicodeString& path) {
  std::error_code error;
  const std::filesystem::path native = path.ToUtf8();
  if (!std::filesystem::is_symlink(native, error)) return path;
  const std::string target = std::filesystem::canonical(native, error).string();
  if (error) return path;
  const PelmUnicodeString found = PelmUnicodeString::FromUtf8(target);
  return found.ToUtf8() != target ? PelmUnicodeString() : found;
}

bool ZrFile::IsOnMountOfFolder(const PelmUnicodeString& path) {
  const PelmUnicodeString folder = GetDir(path);
  std::string native;
  std::pair<std::uint64_t, dev_t> mount, mountOfFolder;
  return ToNative(path, native) && FindMount(native, mount) &&
         FindMount(folder.IsEmpty() ? "." : folder.ToUtf8(), mountOfFolder) &&
         mount == mountOfFolder;
}

bool ZrFile::IsExist(const PelmUnicodeString& path) {
  std::string native;
  struct stat status;
  return ToNative(path, native) &&
         (GetFileSyscalls().stat(native.c_str(), &status) == 0 || FailBySystem());
}

bool ZrFile::MkDirEx(const PelmUnicodeString& path) {
  std::string native;
  return ToNative(path, native) && (MakeDirectories(native) || FailBySystem());
}

bool ZrFile::Delete(const PelmUnicodeString& path) {
  std::string native;
  return ToNative(path, native) &&
         (GetFileSyscalls().unlink(native.c_str()) == 0 || FailBySystem());
}

bool ZrFile::Rename(const PelmUnicodeString& from, const PelmUnicodeString& to) {
  std::string nativeFrom;
  std::string nativeTo;
  return ToNative(from, nativeFrom) && ToNative(to, nativeTo) &&
         (GetFileSyscalls().rename(nativeFrom.c_str(), nativeTo.c_str()) == 0 || FailBySystem());
}

bool ZrFile::SyncDir(const PelmUnicodeString& path) {
  const FileSyscalls& calls = GetFileSyscalls();
  const std::string directory = GetDir(path).ToUtf8();
  const int fd = Uninterrupted([&] {
    return calls.open(directory.empty() ? "." : directory.c_str(),
                      O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  });
  if (fd < 0) return FailBySystem();
  const bool synced =
      Uninterrupted([&] { return calls.fsync(fd); }) == 0 || errno == EINVAL || FailBySystem();
  calls.close(fd);
  return synced;
}

bool ZrFile::ToNative(const PelmUnicodeString& path, std::string& native) {
  native = path.ToUtf8();
  return !native.empty() && native.find('\0') == native.npos;
}

}  // namespace Zarn
