#include "Archive.h"

#include <charconv>

#include "Console.h"

namespace Hxcf {
namespace {

std::optional<hx::Cell> ParseCell(const std::string& text) {
  hx::Cell cell;
  const char* const end = text.data() + text.size();
  const auto row = std::from_chars(text.data(), end, cell.row);
  if (row.ec != std::errc() || row.ptr == end || *row.ptr != ',') return std::nullopt;
  const auto col = std::from_chars(row.ptr + 1, end, cell.col);
  return col.ec == std::errc() && col.ptr == end ? std::optional(cell) : std::nullopt;
}

}  // namespace

Archive Archive::Open(const std::filesystem::path& path, const hx::Options& options) {
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored))
    return Archive(hx::Tileset::open(path, options));
  hx::Container file = hx::Container::open(path, options);
  if (file.layout().is_grid()) return Archive(std::move(file));
  return Archive(hx::Tileset(std::move(file)));
}

hx::Container* Archive::GetFile() {
  return IsGrid() ? std::get_if<hx::Container>(&m_what) : GetSet()->names();
}

Archive::Address Archive::Parse(const std::string& text) {
  Address address{text, {}, {}};
  if (IsGrid()) {
    const auto cell = ParseCell(text);
    if (!cell) throw WrongCall("\"" + text + "\" is no cell: ROW,COL");
    address.cell = *cell;
    return address;
  }
  address.tile = hx::Tile::parse(text);
  if (!IsNames() && !address.tile) throw WrongCall("\"" + text + "\" is no tile: ZOOM/COLUMN/ROW");
  return address;
}

std::optional<Archive::Address> Archive::FindSame(const Address& address) {
  const bool hasOne = IsGrid() ? ParseCell(address.text).has_value() : IsNames() || address.tile;
  return hasOne ? std::optional(Parse(address.text)) : std::nullopt;
}

std::optional<hx::Payload> Archive::Find(const Address& address, hx::Stamp stamp) {
  hx::Container* const file = GetFile();
  return file != nullptr ? file->find(KeyOf(address), stamp) : GetSet()->find(*address.tile, stamp);
}

bool Archive::Contains(const Address& address) {
  hx::Container* const file = GetFile();
  return file != nullptr ? file->contains(KeyOf(address)) : GetSet()->contains(*address.tile);
}

void Archive::Put(const Address& address, hx::Bytes bytes, const hx::PutOptions& options) {
  if (hx::Container* const file = GetFile())
    file->put(KeyOf(address), bytes, options);
  else
    GetSet()->put(*address.tile, bytes, options);
}

bool Archive::Erase(const Address& address) {
  hx::Container* const file = GetFile();
  return file != nullptr ? file->erase(KeyOf(address)) : GetSet()->erase(*address.tile);
}

bool Archive::Erase(const Address& address, hx::Stamp stamp) {
  hx::Container* const file = GetFile();
  return file != nullptr ? file->erase(KeyOf(address), stamp)
                         : GetSet()->erase(*address.tile, stamp);
}

std::vector<hx::Version> Archive::Versions(const Address& address) {
  hx::Container* const file = GetFile();
  return file != nullptr ? file->versions(KeyOf(address)) : GetSet()->versions(*address.tile);
}

void Archive::ForEach(const Filter& filter, bool withPayloads, const Visit& visit) {
  hx::CursorOptions options;
  options.payloads = withPayloads;
  Address address;
  if (!IsNames() && !IsGrid()) {
    const auto visitTile = [&](const hx::Tile& tile, const hx::Entry& entry) {
      address.tile = tile;
      address.text = tile.name();
      return !filter.Holds(tile) || !address.text.starts_with(filter.prefix) ||
             visit(address, entry);
    };
    for (const hx::ZoomRange& range : GetSet()->ranges())
      if (filter.isForAll || filter.tiles.HasZoom(range.zoom))
        GetSet()->for_each(visitTile, range.zoom, options);
    return;
  }
  if (IsGrid() && !filter.isForAll) throw WrongCall("a grid has no zooms");
  if (!IsGrid()) options.prefix = filter.prefix;
  for (const hx::Entry& entry : GetFile()->tiles(options)) {
    if (IsGrid()) {
      address.cell = entry.cell();
      address.text = std::to_string(address.cell.row) + "," + std::to_string(address.cell.col);
      if (!address.text.starts_with(filter.prefix)) continue;
    } else {
      address.text = entry.name();
      address.tile = hx::Tile::parse(address.text);
    }
    if (filter.Holds(address.tile) && !visit(address, entry)) return;
  }
}

std::uint64_t Archive::Count() {
  return GetFile() != nullptr ? GetFile()->size() : GetSet()->size();
}

hx::Statistics Archive::Count(const hx::Container::Progress& progress) {
  return GetFile() != nullptr ? GetFile()->statistics(progress) : GetSet()->statistics(progress);
}

}  // namespace Hxcf
