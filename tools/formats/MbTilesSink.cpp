#include "MbTilesSink.h"

#include "FormatError.h"

namespace Formats {
namespace {

constexpr const char* kMakeIndex =
    "CREATE UNIQUE INDEX tile_index ON tiles (zoom_level, tile_column, tile_row)";

}  // namespace

MbTilesSink::MbTilesSink(const std::filesystem::path& path, bool replace) : m_file(path, replace) {
  m_database.emplace(m_file.GetTemporaryPath(), path, true);
  // Larger pages than usual take a sixth of the time away, and add a twentieth to the file where
  // tiles are of some kilobytes. The number is "MPBX", by which programs that know files by numbers
  // know MBTiles.
  m_database->Run(
      "PRAGMA page_size = 8192; PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF;"
      "PRAGMA locking_mode = EXCLUSIVE; PRAGMA application_id = 0x4D504258;"
      "CREATE TABLE metadata (name text, value text);"
      "CREATE TABLE tiles (zoom_level integer, tile_column integer, tile_row integer,"
      " tile_data blob);"
      "BEGIN");
  m_database->Run(kMakeIndex);
  m_insert = m_database->Prepare("INSERT INTO tiles VALUES (?1, ?2, ?3, ?4)");
}

void MbTilesSink::Put(const hx::Tile& tile, hx::Bytes bytes) {
  if (!IsRowOf(tile.z, tile.y))
    throw FormatError(m_file.GetPath(), "has no row for the tile " + tile.name());
  if (bytes.empty()) throw FormatError(m_file.GetPath(), "cannot hold an empty tile");
  const std::uint32_t row = FlipRow(tile.z, tile.y);
  ExpectWhole();
  m_isWhole = false;
  FollowOrder({tile.z, tile.x});
  constexpr std::uint64_t kTilesPerTransaction = 8192;
  if (m_extent.Count() % kTilesPerTransaction == kTilesPerTransaction - 1)
    m_database->Run("COMMIT; BEGIN");
  m_extent.Add(tile, bytes);
  m_insert.Bind(1, std::int64_t{tile.z});
  m_insert.Bind(2, std::int64_t{tile.x});
  m_insert.Bind(3, std::int64_t{row});
  m_insert.Bind(4, bytes);
  m_insert.Step();
  m_insert.Reset();
  m_isWhole = true;
}

// Tiles that come column by column are best added to the index at once. Others, of a large set,
// would change pages all over it; then it is better made at the end.
void MbTilesSink::FollowOrder(const Column& column) {
  if (m_isOrdered && column < m_last) {
    m_database->Run("DROP INDEX tile_index");
    m_isOrdered = false;
  }
  m_last = column;
}

void MbTilesSink::WriteMetadata() {
  m_extent.Complete(m_metadata, m_file.GetPath());
  SqliteStatement insert = m_database->Prepare("INSERT INTO metadata VALUES (?1, ?2)");
  for (const auto& [name, value] : m_metadata.values()) {
    insert.Bind(1, name);
    insert.Bind(2, value);
    insert.Step();
    insert.Reset();
  }
}

// Without a journal SQLite cannot undo the half of a row that it could not insert.
void MbTilesSink::ExpectWhole() const {
  if (!m_isWhole) throw FormatError(m_file.GetPath(), "could not be written as a whole");
}

void MbTilesSink::Finish() {
  ExpectWhole();
  WriteMetadata();
  if (!m_isOrdered) m_database->Run(kMakeIndex);
  m_database->Run("CREATE UNIQUE INDEX name ON metadata (name); COMMIT");
  m_insert = {};
  m_database.reset();
  m_file.Publish();
}

}  // namespace Formats
