#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <utility>

#include "Extent.h"
#include "OutputFile.h"
#include "Sqlite.h"
#include "TileSink.h"

namespace Formats {

/// Writes an MBTiles file with the tables `tiles` and `metadata`. Until it is finished the file is
/// a temporary one that needs no journal.
class MbTilesSink : public TileSink {
 public:
  MbTilesSink(const std::filesystem::path& path, bool replace);

  void SetMetadata(const hx::Metadata& metadata) override { m_metadata = metadata; }
  void Put(const hx::Tile& tile, hx::Bytes bytes) override;
  void Finish() override;

 private:
  using Column = std::pair<std::uint32_t, std::uint32_t>;  // zoom and column

  void FollowOrder(const Column& column);
  void ExpectWhole() const;
  void WriteMetadata();

  OutputFile m_file;
  std::optional<SqliteDatabase> m_database;  // closed before the file gets its name
  SqliteStatement m_insert;
  Column m_last;
  bool m_isOrdered = true;  // up to now; then the index is there
  bool m_isWhole = true;    // nothing has failed
  Extent m_extent;
  hx::Metadata m_metadata;
};

}  // namespace Formats
