#pragma once

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace Formats {

/// Why a file of another format, or a folder of tiles, cannot be read or written. The one class of
/// exceptions of this library, beside std::bad_alloc and what the caller's own functions throw.
class FormatError : public std::runtime_error {
 public:
  FormatError(const std::filesystem::path& path, const std::string& reason)
      : std::runtime_error(path.string() + ": " + reason), m_path(path) {}
  /// With what the system says of the call that has just failed.
  static FormatError OfSystem(const std::filesystem::path& path, const std::string& reason) {
    return {path, reason + ": " + std::generic_category().message(errno)};
  }

  const std::filesystem::path& GetPath() const noexcept { return m_path; }

 private:
  std::filesystem::path m_path;
};

}  // namespace Formats
