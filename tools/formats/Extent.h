#pragma once

#include <cstdint>
#include <filesystem>

#include <hx/bytes.h>
#include <hx/key.h>
#include <hx/metadata.h>
#include "TileFilter.h"
#include "TileFormat.h"

namespace Formats {

/// What a sink learns of its tiles, for metadata that say less.
class Extent {
 public:
  void Add(const hx::Tile& tile, hx::Bytes bytes);

  std::uint64_t Count() const { return m_count; }
  /// Of the tiles; there must be one.
  std::uint32_t MinZoom() const { return m_minZoom; }
  std::uint32_t MaxZoom() const { return m_maxZoom; }
  /// Whether all tiles are compressed by gzip, or none of them.
  bool IsGzip() const { return m_gzipCount == m_count; }
  bool IsPlain() const { return m_gzipCount == 0; }
  /// Adds name, format, zooms and bounds where they are missing.
  void Complete(hx::Metadata& metadata, const std::filesystem::path& path) const;

 private:
  std::uint64_t m_count = 0, m_gzipCount = 0;
  TileFormat m_format = TileFormat::kUnknown;  // of the first tile
  std::uint32_t m_minZoom = UINT32_MAX, m_maxZoom = 0;
  TileRange m_range;  // of the deepest zoom
};

}  // namespace Formats
