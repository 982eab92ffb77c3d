#include "support/FileChecker.h"

#include "ZrCompactFile.h"

namespace Support {
namespace {

constexpr unsigned long long kPositionMask = 0x00FFFFFFFFFFFFFF;

}  // namespace

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
  ReadEntries();
}

void FileChecker::ReadEntries() {
  fileSize = m_file.size();
  m_big = Number(2, 1) != 0;
  m_named = Number(7, 4) == 1;
  const unsigned long long index = Number(19, 8);
  const unsigned long long count =
      m_named ? Number(index, 8) : Number(index, 4) * Number(index + 4, 4);
  for (unsigned long long i = 0; errors.empty() && i < count; ++i)
    entries.push_back(Number(index + (m_named ? 36 + i * 16 : 12 + i * 8), 8));
}

CheckedRecord FileChecker::Record(unsigned long long position) const {
  unsigned long long at = position + 8;
  if (m_named) at += 8 + Number(position + 12, 4);
  CheckedRecord record{Number(position, 8), 0, 0, {}};
  const unsigned long long count = Number(at, 4);
  at += 4;
  for (unsigned long long i = 0; i < count && at + 32 <= fileSize; ++i, at += 16) {
    const unsigned long long locator = Number(at + 8, 8);
    record.versions.push_back(
        {Number(at, 8), static_cast<unsigned int>(locator >> 56), locator & kPositionMask});
  }
  record.capacity = Number(at, 8);
  record.filled = Number(at + 8, 8);
  return record;
}

unsigned long long FileChecker::Number(unsigned long long offset, std::size_t width) const {
  unsigned long long value = 0;
  for (std::size_t i = 0; i < width; ++i) {
    const unsigned long long place = offset + (m_big ? i : width - 1 - i);
    value = value << 8 | (place < fileSize ? m_file[place] : 0xFFU);
  }
  return value;
}

}  // namespace Support
