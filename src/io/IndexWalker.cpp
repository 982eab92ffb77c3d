#include "IndexWalker.h"

#include <algorithm>

#include "WholeWords.h"

namespace Zarn::Io {

IndexWalker::IndexWalker(const ZrFileStream& file, const Format::IndexShape& index, bool swap,
                         std::uint64_t end, const WalkOptions& options)
    : m_file(file),
      m_index(index),
      m_entrySize(index.EntrySize()),
      m_swap(swap),
      m_options(options),
      m_blockSize(options.blockSize != 0 ? options.blockSize : 64 * 1024 / m_entrySize),
      m_end(end),
      m_next(std::min(options.first, end)),
      m_first(m_next) {}

bool IndexWalker::Next() {
  m_size = 0;
  m_failed = false;
  SkipHole();
  m_first = m_next;
  if (m_first == m_end) return false;
  m_size = std::min(m_blockSize, m_end - m_first);
  m_next += m_size;
  m_failed = !ReadBlock();
  if (m_failed) m_size = 0;
  return m_size != 0;
}

void IndexWalker::SkipHole() {
  const std::uint64_t left = m_end - m_next;
  const std::uint64_t position = m_index.EntryAt(m_next);
  if (left == 0 || (m_options.readsLastBlock && left <= m_blockSize)) return;
  const std::uint64_t hole = std::max(m_file.NextData(position), position) - position;
  m_next += std::min(hole / m_entrySize, left);
}

// The walk ends where the file does; of the last entry it may have a part.
bool IndexWalker::ReadBlock() {
  const std::uint64_t position = m_index.EntryAt(m_first);
  m_bytes.resize(m_size * m_entrySize);
  const auto got = ReadEntries(m_file, position, m_bytes.data(), m_bytes.size());
  if (!got) return false;
  if (*got == m_bytes.size()) return true;
  m_size = (*got + m_entrySize - 1) / m_entrySize;
  m_end = m_next = m_first + m_size;
  return true;
}

}  // namespace Zarn::Io
