#pragma once

#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <system_error>

#include "PelmUnicodeString.h"

/// How many files and folders there are in a folder.
inline std::size_t CountEntries(const std::filesystem::path& folder) {
  using Walk = std::filesystem::directory_iterator;
  return static_cast<std::size_t>(std::distance(Walk(folder), Walk()));
}
inline std::size_t CountOpenDescriptors() { return CountEntries("/proc/self/fd"); }

/// An empty folder of its own for a test, removed with all contents at the end.
class TemporaryFolder {
 public:
  enum Place { kDisk, kMemory };  ///< in memory if the machine has such a place

  explicit TemporaryFolder(Place place = kDisk) {
    const std::filesystem::path memory = "/dev/shm";
    const bool inMemory = place == kMemory && std::filesystem::is_directory(memory);
    std::string name =
        ((inMemory ? memory : std::filesystem::temp_directory_path()) / "hxcf-test-XXXXXX")
            .string();
    if (::mkdtemp(name.data()) == nullptr) std::abort();
    m_folder = name;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& GetFolder() const { return m_folder; }
  std::size_t CountFiles() const { return CountEntries(m_folder); }
  /// Path of the entry `name`, which need not exist.
  PelmUnicodeString GetPath(const std::string& name) const {
    return PelmUnicodeString::FromUtf8((m_folder / name).string());
  }

 private:
  std::filesystem::path m_folder;
};
