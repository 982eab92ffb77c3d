#include "Stores.h"
#include "Support.h"
#include "ZrTileCursor.h"

namespace Bench {
namespace {

using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;

constexpr unsigned long long kStamp = 5;

class EngineReader : public Reader {
 public:
  EngineReader(ZrCompactFile& file, const Tiles& tiles) : m_file(file), m_tiles(tiles) {}

  Bytes Get(unsigned int tile) override {
    unsigned long long filled = 0;
    Check(0 == (m_tiles.IsNamed()
                    ? m_file.Lookup(m_tiles.names[tile], m_data, filled, kStamp)
                    : m_file.Lookup(tile / kColumns, tile % kColumns, m_data, filled, kStamp)));
    Check(filled != 0);
    return {m_data.GetData(), m_data.GetSize()};
  }

 private:
  ZrCompactFile& m_file;
  const Tiles& m_tiles;
  ZrByteArray m_data;
};

class EngineStore : public Store {
 public:
  EngineStore(const std::filesystem::path& folder, const Tiles& tiles, Access access,
              ZrCompactFile::ZrOpenMode mode)
      : m_tiles(tiles) {
    const auto path = PelmUnicodeString::FromUtf8((folder / "tiles.cf").string());
    Check(0 == (access == Access::kOpen ? m_file.Open(path, u"", mode)
                : tiles.IsNamed()       ? m_file.Create(path, tiles.Count(), u"", mode)
                                        : m_file.Create(path, tiles.Rows(), kColumns, u"", mode)));
  }

  void Put(unsigned int tile, const ZrByteArray& data) override {
    Check(0 == (m_tiles.IsNamed()
                    ? m_file.SetAt(m_tiles.names[tile], data, 0, 0, kStamp)
                    : m_file.SetAt(tile / kColumns, tile % kColumns, data, 0, 0, kStamp)));
  }

  void PutBatch(const Batch& batch) override {
    Check(0 == (m_tiles.IsNamed() ? m_file.SetBatch(batch.names, m_results)
                                  : m_file.SetBatch(batch.cells, m_results)));
  }

  std::unique_ptr<Reader> NewReader() override {
    return std::make_unique<EngineReader>(m_file, m_tiles);
  }

  bool Walk(const std::function<void(Bytes)>& visit) override {
    Zarn::ZrTileCursor cursor(m_file);
    while (cursor.Next() == 0)
      visit({cursor.GetData(), static_cast<std::size_t>(cursor.GetSize())});
    return true;
  }

 private:
  const Tiles& m_tiles;
  ZrCompactFile m_file;
  std::vector<unsigned int> m_results;
};

}  // namespace

Batch::Batch(const Tiles& tiles, unsigned int firstTile, unsigned int count, unsigned int stepTo)
    : first(firstTile), step(stepTo), data(count) {
  for (unsigned int i = 0; i < count; ++i) {
    const unsigned int tile = TileAt(i);
    Check(data[i].Assign(tiles.payload.data(), tiles.SizeOf(tile)));
    SetMarks(data[i], {tile, 0});
    if (tiles.IsNamed())
      names.push_back({tiles.names[tile], &data[i], 0, 0, kStamp});
    else
      cells.push_back({tile / kColumns, tile % kColumns, &data[i], 0, 0, kStamp});
  }
}

Opener EngineOpener(ZrCompactFile::ZrOpenMode mode) {
  return [mode](const std::filesystem::path& folder, const Tiles& tiles, Access access) {
    return std::make_unique<EngineStore>(folder, tiles, access, mode);
  };
}

}  // namespace Bench
