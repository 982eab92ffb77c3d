#include "PmDirectory.h"

#include "Hilbert.h"

namespace Formats {

std::string EncodeDirectory(std::span<const PmEntry> entries) {
  std::string bytes;
  AppendVarint(bytes, entries.size());
  std::uint64_t last = 0;
  for (const PmEntry& entry : entries) {
    AppendVarint(bytes, entry.id - last);
    last = entry.id;
  }
  for (const PmEntry& entry : entries)
    AppendVarint(bytes, entry.runLength);
  for (const PmEntry& entry : entries)
    AppendVarint(bytes, entry.length);
  // 0 says: directly behind the entry before.
  std::uint64_t behind = UINT64_MAX;
  for (const PmEntry& entry : entries) {
    AppendVarint(bytes, entry.offset == behind ? 0 : entry.offset + 1);
    behind = entry.offset + entry.length;
  }
  return bytes;
}

PmDirectoryReader::PmDirectoryReader(std::string_view bytes) {
  VarintReader reader(bytes);
  std::uint64_t count = 0;
  m_isDamaged = true;
  if (!reader.Read(count) || count == 0) return;
  for (VarintReader* column : {&m_ids, &m_runLengths, &m_lengths, &m_offsets}) {
    *column = VarintReader(reader.Rest());
    if (!reader.Skip(count)) return;
  }
  if (!reader.Rest().empty()) return;
  m_idsLeft = m_entriesLeft = count;
  m_isDamaged = !ReadNextId();
}

// Makes a difference to the id before into the next one.
bool PmDirectoryReader::ReadNextId() {
  const bool isFirst = m_idsLeft == m_entriesLeft;
  if (m_idsLeft == 0) {
    m_nextId = kEndOfIds;
    return true;
  }
  --m_idsLeft;
  std::uint64_t step = 0;
  if (!m_ids.Read(step) || (step == 0 && !isFirst) || step >= kEndOfIds - m_nextId) return false;
  m_nextId += step;
  return true;
}

bool PmDirectoryReader::ReadOffset(std::uint64_t endOfLast) {
  std::uint64_t number = 0;
  if (!m_offsets.Read(number) || (number == 0 && endOfLast == 0)) return false;
  m_entry.offset = number == 0 ? endOfLast : number - 1;
  return m_entry.length <= UINT64_MAX - m_entry.offset;
}

bool PmDirectoryReader::Next() {
  if (m_isDamaged || m_entriesLeft == 0) return false;
  --m_entriesLeft;
  const std::uint64_t endOfLast = m_entry.offset + m_entry.length;  // 0: there was none
  m_entry.id = m_nextId;
  std::uint64_t runLength = 0, length = 0;
  if (!ReadNextId() || !m_runLengths.Read(runLength) || runLength > UINT32_MAX ||
      runLength > m_nextId - m_entry.id || !m_lengths.Read(length) || length == 0 ||
      length > UINT32_MAX)
    return Fail();
  m_entry.runLength = static_cast<std::uint32_t>(runLength);
  m_entry.length = static_cast<std::uint32_t>(length);
  return ReadOffset(endOfLast) || Fail();
}

}  // namespace Formats
