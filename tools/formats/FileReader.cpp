#include "FileReader.h"

#include <cerrno>
#include <system_error>

#include "ZrFile64.h"

namespace Formats {

bool FileReader::Fail(const std::string& fault) {
  m_fault = fault;
  if (errno != 0) m_fault += ": " + std::generic_category().message(errno);
  return false;
}

bool FileReader::Read(const std::filesystem::path& path) {
  m_size = 0;
  errno = 0;
  Zarn::ZrFile64 file;
  std::uint64_t length = 0;
  if (!file.Open(PelmUnicodeString::FromUtf8(path.native()), Zarn::ZrFile64::kRead))
    return Fail("cannot be opened");
  if (!file.GetLength(length)) return Fail("has no length");
  if (m_buffer.size() < length) m_buffer.resize(length);
  if (!file.ReadAt(0, m_buffer.data(), length)) return Fail("cannot be read");
  m_size = length;
  return true;
}

}  // namespace Formats
