#pragma once

#include <filesystem>
#include <string>

#include "Sqlite.h"
#include "TileSource.h"

namespace Formats {

/// An MBTiles file: an SQLite database with a table or view `tiles`, or with the tables `map` and
/// `images` alone, where equal tiles are stored once. Rows that are no tiles are reported: NULL or
/// another type than it should be, a row beyond its zoom, an empty payload.
class MbTilesSource : public TileSource {
 public:
  explicit MbTilesSource(const std::filesystem::path& path);

  const hx::Metadata& GetMetadata() const override { return m_metadata; }
  std::optional<std::uint64_t> Count() override;
  void Visit(const TileFilter& filter, const Visitor& visit, const Report& report) override;

 private:
  void ReadMetadata();

  SqliteDatabase m_database;
  std::string m_tiles;    // what follows FROM
  std::string m_counted;  // table with as many rows
  hx::Metadata m_metadata;
};

}  // namespace Formats
