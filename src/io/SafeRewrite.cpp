#include "SafeRewrite.h"

namespace Zarn::Io {

bool SafeRewrite::KeepOld(std::uint32_t tile, std::uint64_t position, std::uint64_t size) {
  const bool isRead =
      m_buffer.ResizeForOverwrite(size) && m_file.ReadAt(position, m_buffer.GetData(), size);
  KeepOld(tile, position, m_buffer.GetData(), isRead ? size : 0);
  return isRead;
}

void SafeRewrite::KeepOld(std::uint32_t tile, std::uint64_t position, const unsigned char* bytes,
                          std::uint64_t size) {
  m_tile = tile;
  m_oldPosition = position;
  m_old = bytes;
  m_oldSize = size;
}

void SafeRewrite::PutBack() {
  if (m_oldSize == 0) return;
  const BoardChange change(m_board, m_tile);
  PutOldBack();
}

// Whatever part of these bytes could be replaced can be written again.
void SafeRewrite::PutOldBack() { m_file.WriteAt(m_oldPosition, m_old, m_oldSize); }

}  // namespace Zarn::Io
