#include "Extent.h"

#include <algorithm>

namespace Formats {

void Extent::Add(const hx::Tile& tile, hx::Bytes bytes) {
  if (m_count == 0) m_format = DetectFormat(bytes);
  if (m_count == 0 || tile.z > m_maxZoom) m_range = {tile.x, tile.x, tile.y, tile.y};
  ++m_count;
  m_gzipCount += Formats::IsGzip(bytes);
  m_minZoom = std::min(m_minZoom, tile.z);
  m_maxZoom = std::max(m_maxZoom, tile.z);
  if (tile.z < m_maxZoom) return;
  m_range.firstX = std::min(m_range.firstX, tile.x);
  m_range.lastX = std::max(m_range.lastX, tile.x);
  m_range.firstY = std::min(m_range.firstY, tile.y);
  m_range.lastY = std::max(m_range.lastY, tile.y);
}

void Extent::Complete(hx::Metadata& metadata, const std::filesystem::path& path) const {
  const auto add = [&](const char* key, const std::string& value) {
    if (metadata.get(key).empty() && !value.empty()) metadata.set(key, value);
  };
  add("name", path.stem().string());
  if (m_count == 0) return;
  add("format", NameOf(m_format));
  add("minzoom", std::to_string(m_minZoom));
  add("maxzoom", std::to_string(m_maxZoom));
  const bool isMap = IsRowOf(m_maxZoom, m_range.lastX) && IsRowOf(m_maxZoom, m_range.lastY);
  if (metadata.get("bounds").empty() && isMap) metadata.set_bounds(BoundsOf(m_maxZoom, m_range));
}

}  // namespace Formats
