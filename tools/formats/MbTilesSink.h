#pragma once

#include <filesystem>
#include <optional>

#include "Extent.h"
#include "OutputFile.h"
#include "Sqlite.h"
#include "TileSink.h"

namespace Formats {

/// Writes an MBTiles file with the tables `tiles` and `metadata`. Until it is finished the file is
/// a temporary one that needs no journal, and indexes are made when all rows are there.
class MbTilesSink : public TileSink {
 public:
  MbTilesSink(const std::filesystem::path& path, bool replace);

  void SetMetadata(const hx::Metadata& metadata) override { m_metadata = metadata; }
  void Put(const hx::Tile& tile, hx::Bytes bytes) override;
  void Finish() override;

 private:
  void WriteMetadata();

  OutputFile m_file;
  std::optional<SqliteDatabase> m_database;  // closed before the file gets its name
  SqliteStatement m_insert;
  Extent m_extent;
  hx::Metadata m_metadata;
};

}  // namespace Formats
