#pragma once

#include <hx/tiles.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <variant>

#include "TileFilter.h"

namespace Hxcf {

/// A compact file, or a folder of grids, as commands see it.
class Archive {
 public:
  /// Throws hx::Error if it is not there.
  static Archive Open(const std::filesystem::path& path, const hx::Options& options);
  explicit Archive(hx::Tileset set) : m_what(std::move(set)) {}
  explicit Archive(hx::Container grid) : m_what(std::move(grid)) {}

  /// A container of names, or grids for some zooms; null for a grid by itself.
  hx::Tileset* GetSet() { return std::get_if<hx::Tileset>(&m_what); }
  /// A grid by itself, or a container of names; null for grids for some zooms.
  hx::Container* GetFile();
  bool IsGrid() const { return std::holds_alternative<hx::Container>(m_what); }
  bool IsNames() { return !IsGrid() && GetSet()->names() != nullptr; }

  /// A tile by the text that means it: "ROW,COL" in a grid, "Z/X/Y" in a set of grids, else a name.
  /// Throws WrongCall for a text that means none.
  struct Address {
    std::string text;
    hx::Cell cell;
    std::optional<hx::Tile> tile;
  };
  Address Parse(const std::string& text);
  /// The tile that an address of another archive means here; nothing if none can.
  std::optional<Address> FindSame(const Address& address);

  std::optional<hx::Payload> Find(const Address& address, hx::Stamp stamp = hx::kNewest);
  bool Contains(const Address& address);
  void Put(const Address& address, hx::Bytes bytes, const hx::PutOptions& options);
  bool Erase(const Address& address);
  bool Erase(const Address& address, hx::Stamp stamp);
  std::vector<hx::Version> Versions(const Address& address);

  /// Which tiles a command is about. Zooms and the box leave out names that are no tiles.
  struct Filter {
    Formats::TileFilter tiles;
    std::string prefix;
    bool isForAll = true;  // nothing but the prefix counts

    bool Holds(const std::optional<hx::Tile>& tile) const {
      return isForAll || (tile && tiles.Holds(*tile));
    }
  };
  /// False ends the walk.
  using Visit = std::function<bool(const Address&, const hx::Entry&)>;
  void ForEach(const Filter& filter, bool withPayloads, const Visit& visit);
  /// How many tiles there are, by the index.
  std::uint64_t Count();
  hx::Statistics Count(const hx::Container::Progress& progress);

 private:
  hx::Key KeyOf(const Address& address) const {
    return IsGrid() ? hx::Key(address.cell) : hx::Key(address.text);
  }

  std::variant<hx::Container, hx::Tileset> m_what;
};

}  // namespace Hxcf
