#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include <hx/bytes.h>
#include "ZrFile64.h"

namespace Formats {

/// A file open for reading, which gives views of its bytes. Reads that follow each other are made
/// of large ones. It maps nothing: another program that cuts the file makes a call fail, and does
/// not end the process.
class InputFile {
 public:
  /// Throws FormatError unless `path` is a regular file.
  explicit InputFile(const std::filesystem::path& path);

  const std::filesystem::path& GetPath() const { return m_path; }
  std::uint64_t GetLength() const { return m_length; }
  /// `size` bytes from `position` on, valid until the next call. Throws FormatError, before it
  /// allocates anything, if the file is shorter.
  hx::Bytes Read(std::uint64_t position, std::uint64_t size);
  /// The same; of a shorter file what there is.
  hx::Bytes ReadUpTo(std::uint64_t position, std::uint64_t size);

 private:
  struct Buffer {
    std::vector<char> bytes;
    std::uint64_t position = 0, size = 0;  // of what it holds
  };
  void Fill(Buffer& buffer, std::uint64_t position, std::uint64_t size);

  std::filesystem::path m_path;
  Zarn::ZrFile64 m_file;
  std::uint64_t m_length = 0;
  std::uint64_t m_next = 0;  // where the farthest read ended
  Buffer m_window;           // read ahead
  Buffer m_single;           // what was asked for elsewhere
};

}  // namespace Formats
