// Fuzzes the reading of PMTiles on a file that is damaged in any way: it is refused with a
// sentence, or gives tiles that go up along the curve and lie in the file.
#include <exception>

#include "FormatError.h"
#include "Harness.h"
#include "Hilbert.h"
#include "PmTilesSource.h"

using namespace Fuzz;

namespace {

// A damaged run may stand for all tiles of a zoom.
constexpr int kMostTiles = 1000;

void Visit(Formats::PmTilesSource& source, const Formats::TileFilter& filter, std::size_t length) {
  int left = kMostTiles;
  std::uint64_t nextId = 0;
  source.Visit(filter,
               [&](const hx::Tile& tile, hx::Bytes bytes) {
                 CHECK(filter.Holds(tile));
                 const std::uint64_t id = Formats::IdOf(tile);
                 CHECK(id >= nextId && Formats::TileOf(id) == tile);
                 nextId = id + 1;
                 CHECK(!bytes.empty() && bytes.size() < length);
                 return --left > 0;
               },
               {});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  static const PelmUnicodeString path = Path("t.pmtiles");
  WriteFile(path, Bytes(reinterpret_cast<const char*>(bytes), size));
  // gzip makes at most some thousand bytes of one, in a buffer that is doubled; values of JSON take
  // 16 bytes for two of text.
  const Number inflated = 2 * 1100 * size;
  const MemoryLimit limit(32 * inflated + kBuffers, 8 * inflated + kBuffers);
  try {
    Formats::PmTilesSource source(path.ToUtf8());
    CHECK(source.GetMetadata().bounds() && source.GetMetadata().min_zoom());
    Visit(source, {}, size);
    Visit(source, {2, 9, hx::Bounds{-20, -20, 60, 60}}, size);
  } catch (const Formats::FormatError& error) {
    CHECK(std::string(error.what()).size() > path.ToUtf8().size() + 5);
  }
  return 0;
}
