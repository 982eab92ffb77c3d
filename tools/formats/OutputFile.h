#pragma once

#include <cstdint>
#include <filesystem>

#include "ZrFile64.h"
#include "ZrNewFile.h"

namespace Formats {

/// A file in the making, which appears under its path whole or not at all. Failures are thrown as
/// FormatError.
class OutputFile {
 public:
  /// Begins a temporary file beside the path. Without `replace`, something that has the path is a
  /// failure already here.
  OutputFile(const std::filesystem::path& path, bool replace);

  const std::filesystem::path& GetPath() const { return m_path; }
  /// Where the file is until Publish, for who writes it by other means.
  std::filesystem::path GetTemporaryPath() const;
  void WriteAt(std::uint64_t position, const void* bytes, std::uint64_t size);
  void ReadAt(std::uint64_t position, void* bytes, std::uint64_t size) const;
  /// Gives the file its path, once it would survive a loss of power.
  void Publish();

 private:
  std::filesystem::path m_path;
  bool m_replace;
  Zarn::ZrFile64 m_stream;
  Zarn::ZrNewFile m_file;
};

/// Throws FormatError if something is at the path, also a broken link.
void ExpectNothingAt(const std::filesystem::path& path);

}  // namespace Formats
