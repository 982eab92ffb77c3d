#pragma once

#include <filesystem>
#include <string>

#include "Extent.h"
#include "NewFolder.h"
#include "TileSink.h"

namespace Formats {

/// Writes a folder of files "z/x/y.ext", with the format as extension, and "metadata.json". The
/// format is that of the metadata if they are set before the first tile, or else that of this tile.
class FolderSink : public TileSink {
 public:
  FolderSink(const std::filesystem::path& path, Rows rows) : m_folder(path), m_rows(rows) {}

  void SetMetadata(const hx::Metadata& metadata) override { m_metadata = metadata; }
  void Put(const hx::Tile& tile, hx::Bytes bytes) override;
  void Finish() override;

 private:
  NewFolder m_folder;
  Rows m_rows;
  std::string m_extension;
  Extent m_extent;
  hx::Metadata m_metadata;
};

}  // namespace Formats
