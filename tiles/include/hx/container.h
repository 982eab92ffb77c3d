#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ZrStatistics.h"
#include "ZrVerify.h"
#include "ZrVersion.h"
#include "hx/bytes.h"
#include "hx/cursor.h"
#include "hx/error.h"
#include "hx/export.h"
#include "hx/key.h"

namespace hx {

using Version = Zarn::ZrVersion;              ///< stamp, sizes and status of one version
using Statistics = Zarn::ZrStatistics;        ///< what a file consists of
using Finding = Zarn::ZrVerifyFinding;        ///< what a check finds
using VerifySummary = Zarn::ZrVerifySummary;  ///< what it counts

/// How a file is used.
struct Options {
  bool read_only = false;
  /// Other processes, or other objects of this one, use the file at the same time. All of them must
  /// say so. Lookups cost the same; a store takes a lock of the system.
  bool shared = true;
  /// Lookups copy tiles from a mapping of the file, which is faster for those in memory. It
  /// requires trust in other programs: if one that is none of the openers cuts the file, or the
  /// disk fails, a lookup may end the process by SIGBUS.
  bool mapped = false;
  /// Keeps a file from being opened by mistake; it is no encryption.
  std::string password = {};
};

/// Of what kind a new container is.
class Layout {
 public:
  /// Tiles in cells: at most 2^28 of them.
  static constexpr Layout grid(std::uint32_t rows, std::uint32_t cols) noexcept {
    return {rows, cols, 0};
  }
  /// Tiles with names, with room for so many at first; it grows.
  static constexpr Layout names(std::uint32_t capacity = 1024) noexcept { return {0, 0, capacity}; }

  constexpr bool is_grid() const noexcept { return m_capacity == 0; }
  constexpr std::uint32_t rows() const noexcept { return m_rows; }
  constexpr std::uint32_t cols() const noexcept { return m_cols; }
  constexpr std::uint32_t capacity() const noexcept { return m_capacity; }

 private:
  constexpr Layout(std::uint32_t rows, std::uint32_t cols, std::uint32_t capacity) noexcept
      : m_rows(rows), m_cols(cols), m_capacity(capacity) {}

  std::uint32_t m_rows, m_cols, m_capacity;
};

/// What a store says beside the key and the bytes.
struct PutOptions {
  /// The version. A stamp that is there is replaced; another one is added. Where tiles have only
  /// one version, leave it as it is.
  Stamp stamp = 0;
  /// Size of the payload area, of which the bytes are a piece; 0: they are all of it.
  std::uint64_t capacity = 0;
  /// Where in that area they go.
  std::uint64_t offset = 0;
};

/// One store of several.
struct Put {
  Key key;
  Bytes bytes;
  PutOptions options = {};
};

/// Of several versions of a tile, the newest.
inline constexpr Stamp kNewest = UINT64_MAX;

/// One container file, open. It closes itself.
///
///     auto tiles = hx::Container::open_or_create("tiles.cf", hx::Layout::names());
///     tiles.put("14/8721/5433", bytes);
///     hx::Payload tile = tiles.get("14/8721/5433");
///
/// Errors. A call throws Error if it cannot do what it says, and std::bad_alloc if memory is short.
/// Those that begin with `try_` say the same by a Status, and throw nothing.
///
/// Threads. Any thread may use an open container at any time, without locks of its own. Only to
/// move, assign or destroy it, no other call may be under way.
///
/// Processes. Those that share a file (Options::shared) see each other's stores at once. A child
/// that was forked must not use its parent's container.
///
/// Crashes. What a call has stored survives the death of the process at any moment; after flush(),
/// a loss of power.
class HX_TILES_API Container {
 public:
  /// @name Opening
  /// @{

  /// Opens the file at `path`, which must be there. ".cf" is appended to a path without an
  /// extension.
  static Container open(const std::filesystem::path& path, const Options& options = {});
  /// Creates a file, with its missing folders. Throws (Cause::kExists) if one is there.
  static Container create(const std::filesystem::path& path, const Layout& layout,
                          const Options& options = {});
  /// Creates a file in the place of the one that may be there, in one step.
  static Container replace(const std::filesystem::path& path, const Layout& layout,
                           const Options& options = {});
  /// Opens the file if it is there, whatever its layout; else creates it.
  static Container open_or_create(const std::filesystem::path& path, const Layout& layout,
                                  const Options& options = {});
  /// The first one without exceptions. After a failure nothing is open.
  static Status try_open(const std::filesystem::path& path, const Options& options,
                         Container& container) noexcept;

  /// Nothing is open.
  Container() noexcept;
  Container(Container&& other) noexcept;
  Container& operator=(Container&& other) noexcept;
  /// Closes the file.
  ~Container();

  bool is_open() const noexcept { return m_file != nullptr; }
  /// Closes the file now; nothing is open afterwards.
  void close() noexcept;
  /// As the file was opened, in UTF-8, completed by ".cf".
  std::string path() const;
  /// Of a container of names: with its capacity now.
  Layout layout() const;
  /// @}

  /// @name Tiles
  /// A key of the wrong kind fails with Cause::kWrongKind.
  /// @{

  /// The newest version of a tile, or the one of this stamp if it is there. Throws
  /// (Cause::kNoTile) if there is no tile.
  Payload get(const Key& key, Stamp stamp = kNewest) const;
  /// The same; nothing if there is no tile.
  std::optional<Payload> find(const Key& key, Stamp stamp = kNewest) const;
  /// The same, into an object that may have been used before, which is the fastest way. If there is
  /// no tile, the status is missing(), and the payload empty; after other failures it is as it was.
  Status try_get(const Key& key, Payload& payload, Stamp stamp = kNewest) const noexcept;
  /// Copies the tile into memory of the caller's, as far as it has room, and returns the size of
  /// the tile; nothing if there is no tile.
  std::optional<std::size_t> read(const Key& key, void* target, std::size_t size,
                                  Stamp stamp = kNewest) const;
  /// Whether there is a tile.
  bool contains(const Key& key) const;

  /// Stores a tile, or the version or the piece of one that the options say. Empty bytes cannot be
  /// stored.
  void put(const Key& key, Bytes bytes, const PutOptions& options = {});
  Status try_put(const Key& key, Bytes bytes, const PutOptions& options = {}) noexcept;
  /// Stores several at once: one lock and few large writes for all. Throws for the first that could
  /// not be stored; the others are.
  void put_all(const std::vector<Put>& puts);
  /// The same. `results` receives a ZrResult of each.
  Status try_put_all(const std::vector<Put>& puts, std::vector<unsigned int>& results) noexcept;

  /// Removes all versions of a tile. False if there is none.
  bool erase(const Key& key);
  /// Removes one. False if there is none of this stamp.
  bool erase(const Key& key, Stamp stamp);
  /// Removes all versions with smaller stamps, of all tiles, and returns how many.
  std::uint64_t erase_older_than(Stamp stamp);

  /// All versions of a tile, the newest first; none if there is no tile.
  std::vector<Version> versions(const Key& key) const;
  /// @}

  /// @name The whole file
  /// @{

  /// Walks over all tiles: those of a grid by rows, names in no order. No lock is held between two
  /// steps, and others may store meanwhile: each tile that is there all the time is given once.
  Cursor tiles(const CursorOptions& options = {}) const;
  /// Calls `visit(const Entry&)` for each.
  template <typename Visit>
  void for_each(Visit visit, const CursorOptions& options = {}) const {
    for (const Entry& entry : tiles(options))
      visit(entry);
  }
  /// Receives how much is done, of how much. False ends the call (Cause::kCancelled).
  using Progress = std::function<bool(std::uint64_t done, std::uint64_t total)>;
  /// How many tiles there are, by the index alone.
  std::uint64_t size() const;
  /// Counts tiles, versions, and bytes alive and dead. It walks over the heads of all tiles.
  Statistics statistics(const Progress& progress = {}) const;

  /// Keeps the file from being opened without this password; empty: by none.
  void set_password(std::string_view password);

  /// Waits until all that was stored before would survive a loss of power.
  void flush();
  /// Rewrites the file without the space that replaced and removed tiles have left. Lookups go on
  /// but for a moment; stores wait.
  void compact(const Progress& progress = {});
  /// Checks the whole file. True if it is sound. Else `report` has received what was found; it
  /// returns false to end the check, and must not use the file.
  bool verify(const std::function<bool(const Finding&)>& report = {},
              VerifySummary* summary = nullptr) const;
  /// The same, with progress; it may use the file. Throws (Cause::kCancelled) if that ends the
  /// check before there was a finding. `summary` may be null.
  bool verify(const std::function<bool(const Finding&)>& report, VerifySummary* summary,
              const Progress& progress) const;
  /// @}

 private:
  struct File;

  File& Use() const;
  unsigned int Create(const std::filesystem::path& path, const Layout& layout,
                      const Options& options, bool replace);
  unsigned int StoreAll(const std::vector<Put>& puts, std::vector<unsigned int>& results);

  std::unique_ptr<File> m_file;
};

}  // namespace hx
