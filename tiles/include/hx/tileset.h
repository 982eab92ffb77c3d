#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "hx/container.h"
#include "hx/metadata.h"

namespace hx {

/// The part of a zoom that a tileset of grids has room for.
struct ZoomRange {
  std::uint32_t zoom = 0;
  std::uint32_t first_col = 0, first_row = 0;
  std::uint32_t cols = 1, rows = 1;

  /// All of a zoom: 2^zoom columns and rows.
  static constexpr ZoomRange whole(std::uint32_t zoom) noexcept {
    return {zoom, 0, 0, std::uint32_t{1} << zoom, std::uint32_t{1} << zoom};
  }
  constexpr bool holds(const Tile& tile) const noexcept {
    return tile.z == zoom && tile.x >= first_col && tile.x - first_col < cols &&
           tile.y >= first_row && tile.y - first_row < rows;
  }
};

/// A pyramid of tiles, by zoom, column and row (downwards), with its metadata.
///
/// It is one container of names, "z/x/y" for each tile and "metadata.json", which suits most sets.
/// Or it is a folder with one grid for each zoom, "z.cf", and the manifest "tileset.json", which
/// says where the grids begin; this suits sets that are dense. How many columns a zoom has is up to
/// the set.
///
/// Errors, threads, processes and crashes as with Container. The metadata of a set of grids are
/// replaced as a whole, in one step; of two who do that at the same time, one counts.
class HX_TILES_API Tileset {
 public:
  /// The name of the metadata, in a container of names.
  static constexpr char kMetadataName[] = "metadata.json";

  /// @name Opening
  /// @{

  /// Opens the set at `path`: a file, or a folder with a manifest.
  static Tileset open(const std::filesystem::path& path, const Options& options = {});
  /// Creates a container of names. Throws (Cause::kExists) if a file is there.
  static Tileset create(const std::filesystem::path& path, const Metadata& metadata = {},
                        const Options& options = {});
  /// Opens the set if it is there; else creates a container of names.
  static Tileset open_or_create(const std::filesystem::path& path, const Options& options = {});
  /// Creates a folder with a grid for each of the ranges, one of a zoom. The manifest comes last: a
  /// folder without one is no set, and a grid of the right size that is there is used. Throws
  /// (Cause::kExists) if there is a manifest, or another file in the place of a grid.
  static Tileset create_grids(const std::filesystem::path& folder,
                              const std::vector<ZoomRange>& ranges, const Metadata& metadata = {},
                              const Options& options = {});

  /// Takes over an open container, which must be one of names. Throws (Cause::kWrongKind) else.
  explicit Tileset(Container names);

  /// Nothing is open.
  Tileset() noexcept;
  Tileset(Tileset&& other) noexcept;
  Tileset& operator=(Tileset&& other) noexcept;
  ~Tileset();

  bool is_open() const noexcept { return m_set != nullptr; }
  void close() noexcept;
  /// The container of names; null for a set of grids.
  Container* names() const noexcept;
  /// The grid of a zoom; null if there is none, and for a container of names. Its first row and
  /// column are those of the range.
  Container* grid(std::uint32_t zoom) const noexcept;
  /// Of a set of grids.
  std::vector<ZoomRange> ranges() const;

  /// Reads the metadata; they may have been changed by others.
  Metadata metadata() const;
  void set_metadata(const Metadata& metadata);
  /// @}

  /// @name Tiles
  /// As the same calls of Container. Outside of all grids there are no tiles, and none can be
  /// stored (Cause::kOutOfRange).
  /// @{
  Payload get(const Tile& tile, Stamp stamp = kNewest) const;
  std::optional<Payload> find(const Tile& tile, Stamp stamp = kNewest) const;
  Status try_get(const Tile& tile, Payload& payload, Stamp stamp = kNewest) const noexcept;
  bool contains(const Tile& tile) const;
  void put(const Tile& tile, Bytes bytes, const PutOptions& options = {});
  Status try_put(const Tile& tile, Bytes bytes, const PutOptions& options = {}) noexcept;
  /// One store of several.
  struct TilePut {
    Tile tile;
    Bytes bytes;
    PutOptions options = {};
  };
  /// Throws for the first that could not be stored, or before any is stored if one lies outside.
  void put_all(const std::vector<TilePut>& puts);
  bool erase(const Tile& tile);
  bool erase(const Tile& tile, Stamp stamp);
  std::uint64_t erase_older_than(Stamp stamp);
  std::vector<Version> versions(const Tile& tile) const;
  /// @}

  /// @name The whole set
  /// @{

  /// Calls `visit` for each tile, as Container::tiles gives them; the zooms of grids one after the
  /// other. Of one zoom, or of all. It returns false to end.
  void for_each(const std::function<bool(const Tile&, const Entry&)>& visit,
                std::optional<std::uint32_t> zoom = {}, const CursorOptions& options = {}) const;
  /// How many tiles there are: of grids by their indexes, of names by a walk.
  std::uint64_t size() const;
  /// Of all files together; `done` and `total` are those of each.
  Statistics statistics(const Container::Progress& progress = {}) const;
  void flush();
  /// Of each file; `done` and `total` are those of the file.
  void compact(const Container::Progress& progress = {});
  bool verify(const std::function<bool(const Finding&)>& report = {}) const;
  /// @}

 private:
  struct Set;
  struct Place;

  Set& Use() const;
  Place Find(const Tile& tile) const noexcept;
  Place FindToStore(const Tile& tile) const;

  std::unique_ptr<Set> m_set;
};

}  // namespace hx
