#include "support/FileChecker.h"

#include "ZrCompactFile.h"

namespace Support {

FileChecker::FileChecker(const PelmUnicodeString& path) : m_file(ReadFile(path)) {
  using Zarn::ZrCompactFile;
  ZrCompactFile file;
  ZrCompactFile::ZrVerifySummary summary;
  const unsigned int opened = file.Open(path, u"", ZrCompactFile::kReadOnly);
  if (opened != 0) errors = "not opened: " + std::to_string(opened) + "\n";
  const unsigned int result = file.Verify(summary, [this](const ZrCompactFile::ZrFinding& finding) {
    errors += finding.message + (" at " + std::to_string(finding.position)) + "\n";
    return true;
  });
  if (result != 0 || summary.unwrittenBytes != 0)
    errors += "result " + std::to_string(result) + "\n";
}

std::string FileChecker::Describe(unsigned long long position) const {
  std::string text = std::to_string(Number(position, 8)) + ",";
  const unsigned long long end = position + 12 + Number(position + 8, 4) * 16;
  for (unsigned long long at = position + 12; at < end && at < m_file.size(); at += 16)
    text += " " + std::to_string(Number(at, 8)) + ":" + std::to_string(Number(at + 8, 8) >> 56) +
            "|" + std::to_string(Number(at + 8, 8) & 0x00FFFFFFFFFFFFFF);
  return text + ", " + std::to_string(Number(end, 8)) + "/" + std::to_string(Number(end + 8, 8));
}

unsigned long long FileChecker::Number(unsigned long long offset, std::size_t width) const {
  unsigned long long value = 0;
  for (std::size_t i = 0; i < width; ++i) {
    const unsigned long long place = offset + (m_file.at(2) != 0 ? i : width - 1 - i);
    value = value << 8 | (place < m_file.size() ? m_file[place] : 0xFFU);
  }
  return value;
}

}  // namespace Support
