#include "RecordImage.h"

#include <cstring>

namespace Zarn::Format {

bool RecordImage::Parse() {
  return ParseRecordHead(m_bytes.GetData(), m_bytes.GetSize(), m_shape, m_head).outcome ==
         HeadParse::kComplete;
}

bool RecordImage::Begin(const NewRecord& record, const StoredName& name) {
  if (!m_bytes.ResizeForOverwrite(RecordHeadSize(m_shape, name.bytes.size()))) return false;
  EncodeRecordHead(m_bytes.GetData(), m_shape, name, record);
  return Parse();
}

void RecordImage::SetLocator(std::uint32_t entry, std::uint64_t locator) {
  StoreScalar(Entry(entry) + kWidth8, locator, m_shape.swap);
}

void RecordImage::SetPayload(std::uint64_t capacity, std::uint64_t filledLength) {
  unsigned char* sizes = m_bytes.GetData() + m_head.size - kPayloadSizesSize;
  StoreScalar(sizes, capacity, m_shape.swap);
  StoreScalar(sizes + kWidth8, filledLength, m_shape.swap);
  m_head.capacity = capacity;
  m_head.filledLength = filledLength;
  SetLength(m_head.size + capacity);
}

bool RecordImage::PushVersion(std::uint64_t stamp, std::uint64_t locator) {
  if (m_head.versionCount == UINT32_MAX) return false;
  const std::uint64_t size = m_head.size + kVersionEntrySize;
  if (m_bytes.GetSize() < size && !m_bytes.Resize(size)) return false;
  std::memmove(Entry(1), Entry(0), m_head.versionCount * kVersionEntrySize);
  SetCount(m_head.versionCount + 1);
  SetEntry(0, stamp, locator);
  return true;
}

bool RecordImage::InsertVersion(std::uint32_t index, std::uint64_t stamp, std::uint64_t locator) {
  const auto from = static_cast<std::uint64_t>(Entry(index) - m_bytes.GetData());
  if (m_head.versionCount == UINT32_MAX || !MoveTail(from, kVersionEntrySize)) return false;
  SetCount(m_head.versionCount + 1);
  SetEntry(index, stamp, locator);
  SetLength(m_head.length + kVersionEntrySize);
  return true;
}

void RecordImage::RemoveVersions(std::uint32_t index, std::uint32_t count) {
  unsigned char* entry = Entry(index);
  const unsigned char* next = Entry(index + count);
  const unsigned char* end = m_bytes.GetData() + m_bytes.GetSize();
  std::memmove(entry, next, static_cast<std::size_t>(end - next));
  SetCount(m_head.versionCount - count);
}

bool RecordImage::ReplaceVersions(const VersionTable& other, std::uint32_t first) {
  const std::uint32_t count = other.Count() - first;
  const std::uint64_t oldSize = std::uint64_t{m_head.versionCount} * kVersionEntrySize;
  const std::uint64_t newSize = std::uint64_t{count} * kVersionEntrySize;
  const auto distance = static_cast<std::int64_t>(newSize - oldSize);
  if (!MoveTail(m_head.tableOffset + oldSize, distance)) return false;
  SetCount(count);
  for (std::uint32_t entry = 0; entry < count; ++entry)
    SetEntry(entry, other.Stamp(first + entry), other.Locator(first + entry));
  SetLength(m_head.length + newSize - oldSize);
  return true;
}

void RecordImage::SetLength(std::uint64_t length) {
  StoreScalar(m_bytes.GetData(), length, m_shape.swap);
  m_head.length = length;
}

void RecordImage::SetCount(std::uint32_t count) {
  StoreScalar(m_bytes.GetData() + m_head.tableOffset - kVersionCountSize, count, m_shape.swap);
  m_head.versionCount = count;
  m_head.size = m_head.tableOffset + std::uint64_t{count} * kVersionEntrySize + kPayloadSizesSize;
}

void RecordImage::SetEntry(std::uint32_t index, std::uint64_t stamp, std::uint64_t locator) {
  StoreScalar(Entry(index), stamp, m_shape.swap);
  SetLocator(index, locator);
}

bool RecordImage::MoveTail(std::uint64_t from, std::int64_t distance) {
  const std::uint64_t size = m_bytes.GetSize();
  const std::uint64_t target = from + static_cast<std::uint64_t>(distance);
  if (distance > 0 && !m_bytes.Resize(size + static_cast<std::uint64_t>(distance))) return false;
  std::memmove(m_bytes.GetData() + target, m_bytes.GetData() + from, size - from);
  return distance > 0 || m_bytes.Resize(target + size - from);
}

}  // namespace Zarn::Format
