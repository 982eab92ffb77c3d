#pragma once

#include <sys/uio.h>

#include <algorithm>
#include <unordered_set>
#include <vector>

#include "TileEntry.h"

namespace Zarn::Engine {

/// New tiles that are stored together: first their records, in blocks that are written at once,
/// then their entries in the index. What needs memory throws std::bad_alloc, and has changed
/// nothing then.
class StoreBatch {
 public:
  struct Tile {
    NameSlot slot;                      // of a cell only the entry counts
    std::size_t store = 0;              // its number among the caller's stores
    std::vector<unsigned char> head;    // of its record
    const ZrByteArray* data = nullptr;  // fills the payload area of its record

    std::uint64_t GetLength() const { return head.size() + data->GetSize(); }
  };

  /// Whether a tile of this key is there: a cell, or a name's hash code.
  bool Holds(std::uint64_t key) const { return m_keys.count(key) != 0; }
  std::size_t GetCount() const { return m_tiles.size(); }
  void Add(std::uint64_t key, Tile tile);

  /// The block: the tiles whose records are not written yet.
  bool HasBlock() const { return m_inFile < m_tiles.size(); }
  bool IsBlockFull() const;
  /// Gives the records their places, the first one `position`, and returns their bytes in order.
  std::vector<iovec> PlaceBlock(std::uint64_t position);
  /// The block is written.
  void KeepBlock();
  /// It could not be: its tiles are taken out, after `dropped` was called for each.
  template <typename Dropped>
  void DropBlock(Dropped dropped) {
    const auto first = m_tiles.begin() + static_cast<std::ptrdiff_t>(m_inFile);
    std::for_each(first, m_tiles.end(), dropped);
    m_tiles.erase(first, m_tiles.end());
    m_blockSize = 0;
  }

  /// Takes out all tiles, in the order of their entries; there must be no block.
  std::vector<Tile> TakeTiles();

 private:
  std::unordered_set<std::uint64_t> m_keys;
  std::vector<Tile> m_tiles;
  std::size_t m_inFile = 0;
  std::uint64_t m_blockSize = 0;  // bytes
};

}  // namespace Zarn::Engine
