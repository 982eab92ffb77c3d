#include "support/FileChecker.h"

namespace Support {
namespace {

constexpr unsigned long long kPositionMask = 0x00FFFFFFFFFFFFFF;

}  // namespace

FileChecker::FileChecker(const PelmUnicodeString& path) : m_file(ReadFile(path)) { CheckFile(); }

void FileChecker::CheckFile() {
  fileSize = m_file.size();
  if (fileSize < 64 || m_file[0] != 'C' || m_file[1] != 'F') return Report("header", 0);
  m_big = m_file[2] != 0;
  m_named = Number(7, 4) == 1;
  m_indexStart = Number(19, 8);
  const unsigned long long count =
      m_named ? Number(m_indexStart, 8) : Number(m_indexStart, 4) * Number(m_indexStart + 4, 4);
  const unsigned long long headerSize = m_named ? 36 : 12;
  const unsigned long long entrySize = m_named ? 16 : 8;
  m_indexEnd = m_indexStart + headerSize + count * entrySize;
  if (m_indexEnd > fileSize) return Report("index beyond the file", m_indexEnd);
  for (unsigned long long i = 0; i < count; ++i)
    entries.push_back(Number(m_indexStart + headerSize + i * entrySize, 8));
  for (const unsigned long long entry : entries)
    CheckTile(entry);
  unsigned long long end = 0;
  for (const auto& [first, last] : m_claimed) {
    if (first < end) Report("record overlaps the one before", first);
    end = last;
  }
}

void FileChecker::CheckTile(unsigned long long entry) {
  const unsigned long long status = entry >> 56;
  const unsigned long long position = entry & kPositionMask;
  if (status > 2) Report("status", entry);
  if (status != 1 && status != 2) return;
  if (!IsRecord(position)) return Report("no record", position);
  Claim(position);
  const CheckedRecord record = Record(position);
  for (std::size_t i = 1; i < record.versions.size(); ++i) {
    const CheckedVersion& version = record.versions[i];
    if (version.stamp >= record.versions[i - 1].stamp) Report("table out of order", position);
    if (!IsRecord(version.position) || Record(version.position).versions[0].stamp != version.stamp)
      Report("no such older version", version.position);
    else
      Claim(version.position);
  }
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
  if (at + 16 + record.capacity > position + record.length) record.versions.clear();
  return record;
}

bool FileChecker::IsRecord(unsigned long long position) const {
  const bool outside =
      position < 64 || position >= fileSize || (position >= m_indexStart && position < m_indexEnd);
  if (outside || Number(position, 8) > fileSize - position) return false;
  const CheckedRecord record = Record(position);
  return !record.versions.empty() && record.filled <= record.capacity;
}

void FileChecker::Claim(unsigned long long position) {
  if (!m_claimed.emplace(position, position + Number(position, 8)).second)
    Report("two tiles share a record", position);
}

unsigned long long FileChecker::Number(unsigned long long offset, std::size_t width) const {
  unsigned long long value = 0;
  for (std::size_t i = 0; i < width; ++i) {
    const unsigned long long place = offset + (m_big ? i : width - 1 - i);
    value = value << 8 | (place < fileSize ? m_file[place] : 0xFFU);
  }
  return value;
}

void FileChecker::Report(const std::string& what, unsigned long long position) {
  errors += what + " at " + std::to_string(position) + "\n";
}

}  // namespace Support
