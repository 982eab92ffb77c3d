#pragma once

#include <filesystem>
#include <memory>

#include <hx/bytes.h>
#include <hx/key.h>
#include <hx/metadata.h>
#include "TileSource.h"

namespace Formats {

/// A set of tiles in another format, in the making. It appears under its path, whole, with Finish;
/// without that the destructor leaves nothing. Its calls throw FormatError. A tile that has no
/// place in the format is refused and changes nothing; after other failures the set cannot be
/// finished. One thread at a time uses it.
class TileSink {
 public:
  virtual ~TileSink() = default;
  /// Before or after the tiles. What the format requires and these do not say (its name, the format
  /// of tiles, zooms and bounds) is made of the path and the tiles.
  virtual void SetMetadata(const hx::Metadata& metadata) = 0;
  /// Takes a tile, in any order, but each once: a second one makes this call or Finish fail. Empty
  /// bytes are refused.
  virtual void Put(const hx::Tile& tile, hx::Bytes bytes) = 0;
  virtual void Finish() = 0;
};

struct SinkOptions {
  /// A file that has the path may be replaced. A folder may not, unless it is empty.
  bool replace = false;
  Rows rows = Rows::kDown;  ///< for folders
};
/// Begins a set at `path`, whose extension tells the format: ".mbtiles", ".pmtiles", or none for a
/// folder.
std::unique_ptr<TileSink> CreateSink(const std::filesystem::path& path,
                                     const SinkOptions& options = {});

}  // namespace Formats
