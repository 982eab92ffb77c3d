#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

namespace Zarn {

/// Owner, group, permissions and access control list of a file.
class FileAccess {
 public:
  /// Of an open file; nothing if the system does not tell.
  static std::optional<FileAccess> Of(int fd);
  /// Of what is at a path, which need not be one that can be opened.
  static std::optional<FileAccess> Of(const std::string& path);

  /// Gives them to an open file, as ZrFileStream::TakeOwner has it.
  bool GiveTo(int fd) const;

 private:
  struct stat m_status = {};
  std::optional<std::string>
      m_list;  // as the kernel gives it, empty for none; unknown if it does not
};

}  // namespace Zarn
