#include <hx/tiles.h>

#include "Stores.h"
#include "Support.h"

namespace Bench {
namespace {

constexpr hx::Stamp kStamp = 5;

hx::Key KeyOf(const Tiles& tiles, unsigned int tile) {
  if (tiles.IsNamed()) return tiles.utf8Names[tile];
  return hx::Cell{tile / kColumns, tile % kColumns};
}

class FaceReader : public Reader {
 public:
  FaceReader(const hx::Container& file, const Tiles& tiles) : m_file(file), m_tiles(tiles) {}

  Bytes Get(unsigned int tile) override {
    Check(m_file.try_get(KeyOf(m_tiles, tile), m_payload, kStamp).ok());
    return {reinterpret_cast<const unsigned char*>(m_payload.data()), m_payload.size()};
  }

 private:
  const hx::Container& m_file;
  const Tiles& m_tiles;
  hx::Payload m_payload;
};

class FaceStore : public Store {
 public:
  FaceStore(const std::filesystem::path& folder, const Tiles& tiles, Access access)
      : m_tiles(tiles) {
    hx::Options options;
    options.shared = false;
    const auto layout = tiles.IsNamed() ? hx::Layout::names(tiles.Count())
                                        : hx::Layout::grid(tiles.Rows(), kColumns);
    m_file = access == Access::kOpen ? hx::Container::open(folder / "tiles", options)
                                     : hx::Container::create(folder / "tiles", layout, options);
  }

  void Put(unsigned int tile, const Zarn::ZrByteArray& data) override {
    m_file.put(KeyOf(m_tiles, tile), {data.GetData(), data.GetSize()}, {kStamp});
  }

  void PutBatch(const Batch& batch) override {
    std::vector<hx::Put> puts;
    for (std::size_t i = 0; i < batch.data.size(); ++i)
      puts.push_back({KeyOf(m_tiles, batch.TileAt(i)),
                      {batch.data[i].GetData(), batch.data[i].GetSize()},
                      {kStamp}});
    m_file.put_all(puts);
  }

  std::unique_ptr<Reader> NewReader() override {
    return std::make_unique<FaceReader>(m_file, m_tiles);
  }

 private:
  const Tiles& m_tiles;
  hx::Container m_file;
};

}  // namespace

std::unique_ptr<Store> OpenFace(const std::filesystem::path& folder, const Tiles& tiles,
                                Access access) {
  return std::make_unique<FaceStore>(folder, tiles, access);
}

}  // namespace Bench
