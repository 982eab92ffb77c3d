#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <hx/bytes.h>

namespace Formats {

/// Reads whole files, one after the other, into memory that it keeps.
class FileReader {
 public:
  /// False if it is no regular file, or cannot be read; GetFault says why.
  bool Read(const std::filesystem::path& path);
  /// Valid until the next call.
  hx::Bytes GetBytes() const { return {m_buffer.data(), m_size}; }
  const std::string& GetFault() const { return m_fault; }

 private:
  bool Fail(const std::string& fault);

  std::vector<char> m_buffer;
  std::size_t m_size = 0;
  std::string m_fault;
};

}  // namespace Formats
