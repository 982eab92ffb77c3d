#include "MbTilesSource.h"

#include <algorithm>

#include "FormatError.h"
#include "InputFile.h"

namespace Formats {
namespace {

// SQLite would take an empty file as an empty database.
const std::filesystem::path& ExpectSqlite(const std::filesystem::path& path) {
  if (InputFile(path).ReadUpTo(0, kSqliteMagic.size()).text() != kSqliteMagic)
    throw FormatError(path, "is no SQLite file");
  return path;
}

std::string Between(const char* column, std::uint64_t first, std::uint64_t last) {
  return std::string(column) + " BETWEEN " + std::to_string(first) + " AND " + std::to_string(last);
}

// Lets SQLite use its index. What is given is checked by the filter once more.
std::string ConditionOf(const TileFilter& filter) {
  if (!filter.HasBounds()) {
    if (filter.MinZoom() == 0 && filter.MaxZoom() == UINT32_MAX) return "";
    return " WHERE " + Between("zoom_level", filter.MinZoom(), filter.MaxZoom());
  }
  std::string terms;
  for (std::uint32_t zoom = filter.MinZoom(); zoom <= filter.MaxZoom(); ++zoom) {
    const TileRange range = filter.RangeOf(zoom);
    terms += terms.empty() ? " WHERE " : " OR ";
    terms += "(zoom_level = " + std::to_string(zoom);
    if (!range.IsAcross()) terms += " AND " + Between("tile_column", range.firstX, range.lastX);
    terms += " AND " + Between("tile_row", FlipRow(zoom, range.lastY), FlipRow(zoom, range.firstY));
    terms += ")";
  }
  return terms.empty() ? " WHERE 0" : terms;
}

enum Column { kZoom, kColumn, kRow, kData };

// Why the row is no tile; null if it is one.
const char* FaultOf(const SqliteStatement& row) {
  for (const Column column : {kZoom, kColumn, kRow})
    if (row.TypeOf(column) != SQLITE_INTEGER)
      return "zoom, column or row is NULL or no whole number";
  const std::int64_t zoom = row.Number(kZoom), x = row.Number(kColumn), y = row.Number(kRow);
  if (zoom < 0 || zoom > kDeepestZoom || x < 0 || x > UINT32_MAX || y < 0 ||
      !IsRowOf(static_cast<std::uint32_t>(zoom), static_cast<std::uint64_t>(y)))
    return "no tile has this zoom, column and row";
  return nullptr;
}

hx::Tile TileOf(const SqliteStatement& row) {
  const auto zoom = static_cast<std::uint32_t>(row.Number(kZoom));
  return {zoom, static_cast<std::uint32_t>(row.Number(kColumn)),
          FlipRow(zoom, static_cast<std::uint32_t>(row.Number(kRow)))};
}

}  // namespace

MbTilesSource::MbTilesSource(const std::filesystem::path& path)
    : m_database(ExpectSqlite(path), path, false) {
  if (m_database.Has("tiles")) {
    m_tiles = m_counted = "tiles";
  } else if (m_database.Has("map") && m_database.Has("images")) {
    m_tiles = "map JOIN images ON images.tile_id = map.tile_id";
    m_counted = "map";
  } else {
    throw FormatError(path, "is an SQLite file without tiles");
  }
  ReadMetadata(path);
}

// A view may give rows without end.
void MbTilesSource::ReadMetadata(const std::filesystem::path& path) {
  if (!m_database.Has("metadata")) return;
  SqliteStatement row = m_database.Prepare("SELECT name, value FROM metadata");
  constexpr std::size_t kMost = 16 << 20;
  for (std::size_t size = 0; row.Step();) {
    if (row.TypeOf(0) == SQLITE_NULL) continue;
    const std::string name = row.Text(0), value = row.Text(1);
    size += sizeof(hx::Metadata::Values::value_type) + name.size() + value.size();
    if (size > kMost) throw FormatError(path, "has metadata that are too large");
    m_metadata.set(name, value);
  }
}

std::optional<std::uint64_t> MbTilesSource::Count() {
  SqliteStatement count = m_database.Prepare("SELECT count(*) FROM " + m_counted);
  count.Step();
  return static_cast<std::uint64_t>(count.Number(0));
}

void MbTilesSource::Visit(const TileFilter& filter, const Visitor& visit, const Report& report) {
  SqliteStatement row = m_database.Prepare(
      "SELECT zoom_level, tile_column, tile_row, tile_data FROM " + m_tiles + ConditionOf(filter));
  for (std::uint64_t number = 1; row.Step(); ++number) {
    const auto tell = [&](const std::string& what) {
      Tell(report, "row " + std::to_string(number) + ": " + what);
    };
    if (const char* const fault = FaultOf(row)) {
      tell(fault);
      continue;
    }
    const hx::Tile tile = TileOf(row);
    if (!filter.Holds(tile)) continue;
    const bool isBlob = row.TypeOf(kData) == SQLITE_BLOB;
    const hx::Bytes bytes = isBlob ? row.Blob(kData) : hx::Bytes();
    if (bytes.empty())
      tell("the tile " + tile.name() + (isBlob ? " is empty" : " is NULL or no blob"));
    else if (!visit(tile, bytes))
      return;
  }
}

}  // namespace Formats
