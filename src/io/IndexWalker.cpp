#include "IndexWalker.h"

#include <algorithm>
#include <cstring>

#include "SharedEntries.h"

namespace Zarn::Io {

bool IndexWalker::Next() {
  constexpr std::uint64_t kBlock = 64 * 1024;
  m_failed = false;
  m_size = 0;
  if (m_next >= m_count) return false;
  const std::uint64_t position = m_index.EntryAt(m_next);
  const std::uint64_t hole = std::max(m_file.NextData(position), position) - position;
  m_next += hole / m_index.EntrySize();
  if (m_next >= m_count) return false;
  m_first = m_next;
  const std::uint64_t size = std::min(kBlock / m_index.EntrySize(), m_count - m_first);
  m_next += size;
  m_bytes.resize(size * m_index.EntrySize());
  m_failed = !ReadBlock(m_index.EntryAt(m_first));
  if (!m_failed) m_size = size;
  return !m_failed;
}

// What lies beyond the end of the file is zero; nothing else may be missing.
bool IndexWalker::ReadBlock(std::uint64_t position) {
  const std::uint64_t size = m_bytes.size();
  const std::uint64_t got = m_isShared && m_index.IsGrid()
                                ? ReadSharedEntries(m_file, position, m_bytes.data(), size, m_swap)
                                : m_file.ReadUpTo(position, m_bytes.data(), size);
  std::memset(m_bytes.data() + got, 0, size - got);
  std::uint64_t length;
  return got == size || (m_file.GetLength(length) && length <= position + got);
}

}  // namespace Zarn::Io
