#include "ZrTileCursor.h"

#include "Engine.h"

namespace Zarn {
namespace {

using Engine::TileWalk;

TileWalk::Content ContentOf(ZrTileCursor::Content content) {
  return content == ZrTileCursor::kSizes ? TileWalk::Content::kHeads : TileWalk::Content::kWhole;
}

}  // namespace

ZrTileCursor::ZrTileCursor(ZrCompactFile& file, Content content)
    : ZrTileCursor(file, PelmUnicodeString(), content) {}

ZrTileCursor::ZrTileCursor(ZrCompactFile& file, const PelmUnicodeString& prefix, Content content)
    : m_file(file), m_walk(std::make_unique<TileWalk>(ContentOf(content), prefix)) {}

ZrTileCursor::~ZrTileCursor() = default;

unsigned int ZrTileCursor::Next() { return m_file.Step(*m_walk); }
unsigned int ZrTileCursor::GetRow() const { return m_walk->GetTile().row; }
unsigned int ZrTileCursor::GetCol() const { return m_walk->GetTile().col; }

PelmUnicodeString ZrTileCursor::GetName() const {
  const std::u16string& name = m_walk->GetTile().name;
  return PelmUnicodeString(name.data(), name.size());
}

const std::vector<unsigned long long>& ZrTileCursor::GetStamps() const {
  return m_walk->GetTile().stamps;
}

ZrVersion ZrTileCursor::GetVersion() const {
  const TileWalk::Tile& tile = m_walk->GetTile();
  const unsigned long long stamp = tile.stamps.empty() ? 0 : tile.stamps.front();
  return {stamp, tile.capacity, tile.filledLength, tile.status};
}

const unsigned char* ZrTileCursor::GetData() const { return m_walk->GetTile().data; }
unsigned long long ZrTileCursor::GetSize() const { return m_walk->GetTile().capacity; }

bool ZrTileCursor::GetPayload(ZrByteArray& data) const {
  const TileWalk::Tile& tile = m_walk->GetTile();
  return tile.data != nullptr && data.Assign(tile.data, tile.capacity);
}

unsigned long long ZrTileCursor::GetDamagedCount() const { return m_walk->GetDamaged(); }

}  // namespace Zarn
