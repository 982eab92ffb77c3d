#include "InputFile.h"

#include <algorithm>

#include "FormatError.h"

namespace Formats {

InputFile::InputFile(const std::filesystem::path& path) : m_path(path) {
  errno = EINVAL;  // of what is no regular file
  if (!m_file.Open(PelmUnicodeString::FromUtf8(path.native()), Zarn::ZrFile64::kRead) ||
      !m_file.GetLength(m_length))
    throw FormatError::OfSystem(path, "cannot be opened");
}

void InputFile::Fill(Buffer& buffer, std::uint64_t position, std::uint64_t size) {
  buffer.size = 0;
  if (buffer.bytes.size() < size) buffer.bytes.resize(size);
  errno = 0;
  if (!m_file.ReadAt(position, buffer.bytes.data(), size))
    throw errno == 0 ? FormatError(m_path, "has become shorter while it was read")
                     : FormatError::OfSystem(m_path, "cannot be read");
  buffer.position = position;
  buffer.size = size;
}

// A read that goes on where the farthest one ended is expected to be followed by more. Others, of
// tiles that were stored once for several places, leave the window as it is.
hx::Bytes InputFile::Read(std::uint64_t position, std::uint64_t size) {
  constexpr std::uint64_t kWindow = 1 << 20;
  if (position > m_length || size > m_length - position) throw FormatError(m_path, "is cut short");
  const auto holds = [&](const Buffer& buffer) {
    return position >= buffer.position && position - buffer.position <= buffer.size &&
           size <= buffer.size - (position - buffer.position);
  };
  Buffer* buffer = holds(m_window) ? &m_window : &m_single;
  if (!holds(*buffer)) {
    if (position == m_next) buffer = &m_window;
    const std::uint64_t ahead = buffer == &m_window ? kWindow : 0;
    Fill(*buffer, position, std::min(std::max(size, ahead), m_length - position));
  }
  m_next = std::max(m_next, position + size);
  return {buffer->bytes.data() + (position - buffer->position), size};
}

hx::Bytes InputFile::ReadUpTo(std::uint64_t position, std::uint64_t size) {
  return Read(position, std::min(size, m_length - std::min(position, m_length)));
}

}  // namespace Formats
