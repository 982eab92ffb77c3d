#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

#include "Tiles.h"
#include "ZrCompactFile.h"

namespace Bench {

/// Reads tiles; of one thread.
class Reader {
 public:
  virtual ~Reader() = default;
  /// Copies a tile into memory of the reader's own, and gives that.
  virtual Bytes Get(unsigned int tile) = 0;
};

/// Tiles to be stored at once, each with memory of its own: neighbours, or every `step`-th.
struct Batch {
  Batch(const Tiles& tiles, unsigned int firstTile, unsigned int count, unsigned int stepTo = 1);

  unsigned int TileAt(std::size_t i) const { return first + static_cast<unsigned int>(i) * step; }

  unsigned int first, step;
  std::vector<Zarn::ZrByteArray> data;
  // The same as the engine takes them; one of the two is empty.
  std::vector<Zarn::ZrCompactFile::ZrCellStore> cells;
  std::vector<Zarn::ZrCompactFile::ZrNameStore> names;
};

/// A store of tiles in a folder of its own. What it has been given survives the death of the
/// process at once, and of power not at all; no more is asked of anyone. Everything is written by
/// one thread; there is a reader for each that reads.
class Store {
 public:
  virtual ~Store() = default;
  virtual void Put(unsigned int tile, const Zarn::ZrByteArray& data) = 0;
  virtual void PutBatch(const Batch& batch) = 0;
  virtual std::unique_ptr<Reader> NewReader() = 0;
  /// Gives all tiles by a cursor, each copied into memory of the store's own. False without one.
  virtual bool Walk(const std::function<void(Bytes)>& visit) {
    static_cast<void>(visit);
    return false;
  }
  /// One that copies from a mapping of all tiles put before and does nothing else; the limit's
  /// only.
  virtual std::unique_ptr<Reader> NewMappedReader() { return nullptr; }
};

enum class Access { kMake, kOpen };

/// Makes or opens a store in a folder. The tiles stay the caller's.
using Opener = std::function<std::unique_ptr<Store>(const std::filesystem::path& folder,
                                                    const Tiles& tiles, Access access)>;

/// The limit: the bare system calls that any store of this format has to make. A new tile is a
/// record by one gathered write and an index entry by another one, and for a new name the count of
/// names; a tile that is replaced by one no larger is overwritten. A batch is a gathered write per
/// MiB, and one for all entries. A lookup is one read into memory of the caller's.
std::unique_ptr<Store> OpenLimit(const std::filesystem::path& folder, const Tiles& tiles,
                                 Access access);
Opener EngineOpener(Zarn::ZrCompactFile::ZrOpenMode mode);
/// The engine through its face for C++17.
std::unique_ptr<Store> OpenFace(const std::filesystem::path& folder, const Tiles& tiles,
                                Access access);
/// One transaction per store or batch, with MDB_NOSYNC.
std::unique_ptr<Store> OpenLmdb(const std::filesystem::path& folder, const Tiles& tiles,
                                Access access);
/// One statement per store, one transaction per batch, with a write-ahead log and synchronous=OFF.
std::unique_ptr<Store> OpenSqlite(const std::filesystem::path& folder, const Tiles& tiles,
                                  Access access);

}  // namespace Bench
