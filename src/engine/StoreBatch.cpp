#include "StoreBatch.h"

#include <utility>

namespace Zarn::Engine {

void StoreBatch::Add(std::uint64_t key, Tile tile) {
  const std::uint64_t length = tile.GetLength();
  m_keys.insert(key);
  m_tiles.push_back(std::move(tile));
  m_blockSize += length;
}

bool StoreBatch::IsBlockFull() const {
  constexpr std::uint64_t kBlock = 1 << 20;
  constexpr std::size_t kTiles = 512;  // of two parts each: a system call takes 1024
  return m_blockSize >= kBlock || m_tiles.size() - m_inFile >= kTiles;
}

std::vector<iovec> StoreBatch::PlaceBlock(std::uint64_t position) {
  std::vector<iovec> parts;
  parts.reserve(2 * (m_tiles.size() - m_inFile));
  for (std::size_t i = m_inFile; i < m_tiles.size(); ++i) {
    Tile& tile = m_tiles[i];
    parts.push_back({tile.head.data(), tile.head.size()});
    parts.push_back({const_cast<unsigned char*>(tile.data->GetData()), tile.data->GetSize()});
    tile.slot.entry.position = position;
    position += tile.GetLength();
  }
  return parts;
}

void StoreBatch::KeepBlock() {
  m_inFile = m_tiles.size();
  m_blockSize = 0;
}

std::vector<StoreBatch::Tile> StoreBatch::TakeTiles() {
  std::vector<Tile> tiles = std::move(m_tiles);
  *this = StoreBatch();
  std::sort(tiles.begin(), tiles.end(),
            [](const Tile& a, const Tile& b) { return a.slot.entry.number < b.slot.entry.number; });
  return tiles;
}

}  // namespace Zarn::Engine
