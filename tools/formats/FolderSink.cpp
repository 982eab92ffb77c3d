#include "FolderSink.h"

#include "FormatError.h"
#include "TileFormat.h"

namespace Formats {
namespace {

// The metadata may say anything, such as a MIME type.
bool IsExtension(const std::string& text) {
  return !text.empty() && text.find('/') == text.npos && text.find('.') == text.npos &&
         IsWithinFolder(text);
}

}  // namespace

void FolderSink::Put(const hx::Tile& tile, hx::Bytes bytes) {
  if (bytes.empty()) throw FormatError(m_folder.GetPath(), "cannot hold an empty tile");
  if (m_rows == Rows::kUp && !IsRowOf(tile.z, tile.y))
    throw FormatError(m_folder.GetPath(), "has no row for the tile " + tile.name());
  if (m_extent.Count() == 0) {
    const std::string format = m_metadata.get("format");
    m_extension = IsExtension(format) ? format : NameOf(DetectFormat(bytes));
    if (m_extension.empty()) m_extension = "bin";
  }
  m_extent.Add(tile, bytes);
  hx::Tile named = tile;
  if (m_rows == Rows::kUp) named.y = FlipRow(tile.z, tile.y);
  m_folder.Write(named.name() + "." + m_extension, bytes);
}

void FolderSink::Finish() {
  m_extent.Complete(m_metadata, m_folder.GetPath());
  m_folder.Write("metadata.json", m_metadata.to_json());
  m_folder.Publish();
}

}  // namespace Formats
