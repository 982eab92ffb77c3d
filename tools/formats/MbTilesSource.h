#pragma once

#include <filesystem>
#include <string>

#include "Sqlite.h"
#include "TileSource.h"

namespace Formats {

/// An MBTiles file: an SQLite database with a table or view `tiles`, or with the tables `map` and
/// `images` alone, where equal tiles are stored once. Rows that are no tiles are reported: NULL or
/// another type than it should be, a row beyond its zoom, an empty payload.
///
/// The file may say anything. SQLite checks it; values have at most 256 MiB, and the metadata 64
/// MiB. Views are computed by SQLite as they are, and may take as long as they like.
class MbTilesSource : public TileSource {
 public:
  explicit MbTilesSource(const std::filesystem::path& path);

  const hx::Metadata& GetMetadata() const override { return m_metadata; }
  std::optional<std::uint64_t> Count() override;
  void Visit(const TileFilter& filter, const Visitor& visit, const Report& report) override;

 private:
  void ReadMetadata(const std::filesystem::path& path);

  SqliteDatabase m_database;
  std::string m_tiles;    // what follows FROM
  std::string m_counted;  // table with as many rows
  hx::Metadata m_metadata;
};

}  // namespace Formats
