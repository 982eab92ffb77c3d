#include "OutputFile.h"

#include "FormatError.h"

namespace Formats {

void ExpectNothingAt(const std::filesystem::path& path) {
  std::error_code ignored;
  if (std::filesystem::exists(std::filesystem::symlink_status(path, ignored)))
    throw FormatError(path, "exists already");
}

OutputFile::OutputFile(const std::filesystem::path& path, bool replace)
    : m_path(path), m_replace(replace), m_file(m_stream) {
  if (!replace) ExpectNothingAt(path);
  if (!m_file.Begin(PelmUnicodeString::FromUtf8(path.native())))
    throw FormatError::OfSystem(path, "cannot be created");
}

std::filesystem::path OutputFile::GetTemporaryPath() const {
  return m_file.GetTemporaryPath().ToUtf8();
}

void OutputFile::WriteAt(std::uint64_t position, const void* bytes, std::uint64_t size) {
  if (!m_stream.WriteAt(position, bytes, size))
    throw FormatError::OfSystem(m_path, "cannot be written");
}

void OutputFile::ReadAt(std::uint64_t position, void* bytes, std::uint64_t size) const {
  if (!m_stream.ReadAt(position, bytes, size))
    throw FormatError::OfSystem(m_path, "cannot be read back");
}

void OutputFile::Publish() {
  if (!m_stream.Sync()) throw FormatError::OfSystem(m_path, "cannot be written");
  using Outcome = Zarn::ZrNewFile::Outcome;
  const Outcome outcome = m_replace ? m_file.Replace() : m_file.Publish();
  if (outcome == Outcome::kExists) throw FormatError(m_path, "exists already");
  if (outcome != Outcome::kPublished)
    throw FormatError::OfSystem(m_path, "cannot be given its name");
  m_file.Commit();
}

}  // namespace Formats
