#pragma once

#include <filesystem>
#include <string>

#include <hx/bytes.h>

namespace Formats {

/// A folder in the making, which appears under its path whole or not at all: until Publish it has a
/// temporary name beside the path, and the destructor removes it. Failures are thrown as
/// FormatError.
class NewFolder {
 public:
  /// The path must be free, or an empty folder.
  explicit NewFolder(const std::filesystem::path& path);
  ~NewFolder();
  NewFolder(const NewFolder&) = delete;
  NewFolder& operator=(const NewFolder&) = delete;

  const std::filesystem::path& GetPath() const { return m_path; }
  /// Writes a file of this relative name, which must not be there, with the folders that it needs.
  /// A name that is refused changes nothing; after other failures the folder cannot be published.
  void Write(const std::string& name, hx::Bytes bytes);
  void Publish();

 private:
  void WriteBytes(int fd, hx::Bytes bytes, const std::string& name);

  std::filesystem::path m_path;
  std::filesystem::path m_temporary;
  std::string m_folder;   // that was made last, with a slash
  bool m_isWhole = true;  // no file has failed
  bool m_isPublished = false;
};

/// Whether a name, taken as a relative path, names a file within the folder: no part of it is
/// empty,
/// "." or "..", and it has no zero.
bool IsWithinFolder(std::string_view name);

}  // namespace Formats
