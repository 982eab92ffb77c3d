#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "ZrCompactFile.h"

namespace Zarn {

namespace Engine {
class TileWalk;
}

/// Walks over the tiles of a ZrCompactFile that has a file open: in a grid file over the cells row
/// by row, in a naming file over the names, in no order that means anything. It reads ahead in
/// large pieces, so a walk over all tiles takes less time than as many lookups.
///
///   ZrTileCursor cursor(file);
///   while (cursor.Next() == ZrResult::kOk)
///     ...cursor.GetName(), cursor.GetData(), cursor.GetSize()...
///
/// Guarantee. Others, threads and processes, may store, remove, compact and let the index grow
/// meanwhile. A tile that is there all through the walk is given exactly once. Each is given whole,
/// and as it was at one moment since the step before the last that read ahead: address, stamps,
/// sizes and payload belong together. A tile that is stored or removed meanwhile may be given or
/// not. A version that replaces another one meanwhile may be given or the one before. So what is
/// given may be older than the newest store by up to some 2,000 tiles; a lookup gives what is there
/// now.
///
/// Only the newest version is given, and the stamps of all. A tile is there if a lookup finds it:
/// names that are hidden behind a removed name of the same hash are not.
///
/// Damage. A tile that a lookup could not read is passed over and counted (GetDamagedCount); so is
/// a name that no lookup could find, because its hash is not that of its slot, or because it is no
/// text of the current charset in a file of the older version. The guarantee holds for all others.
///
/// Memory: half a MiB for what is read ahead, but for one larger tile; and for names 24
/// bytes for each of up to a million, or of up to an eighth of them if that is more. Files of more
/// names are walked over in several parts, each by a pass over the index.
///
/// Threads: one at a time uses a cursor, and counts as a user of the file. The file's object must
/// outlive the cursor. A cursor holds no lock between two steps, and a step takes one only where a
/// lookup would.
class HX_COMPACTFILE_API ZrTileCursor {
 public:
  /// What is read of each tile.
  enum Content : std::uint8_t {
    kSizes,     ///< all but the payload
    kPayloads,  ///< everything
  };

  /// A cursor before the first tile. `file` may be opened later, and must not be destroyed before
  /// the cursor. Throws std::bad_alloc.
  explicit ZrTileCursor(ZrCompactFile& file, Content content = kPayloads);
  /// One that gives only names that begin with `prefix`. The others are read as well: names are
  /// not kept in order.
  ZrTileCursor(ZrCompactFile& file, const PelmUnicodeString& prefix, Content content = kPayloads);
  ~ZrTileCursor();
  ZrTileCursor(const ZrTileCursor&) = delete;
  ZrTileCursor& operator=(const ZrTileCursor&) = delete;

  /// Goes on to the next tile.
  ///
  /// kOk; kNotFound behind the last one; kNotOpen; kReadFailure if the index cannot be read, or
  /// brought up to date under the process lock, or if memory is short: then the next call tries
  /// again, and the walk goes on where it was. kNotUsable, for good, for a ".sc" file, a prefix in
  /// a grid file, a file without an index, and if the file has become one with other addresses: by
  /// another one at its path, or by the compaction of a naming file of the older version.
  unsigned int Next();

  /// @name The tile that the last Next has reached
  /// Unspecified if it did not answer kOk.
  /// @{

  /// Of a cell.
  unsigned int GetRow() const;
  /// Of a cell.
  unsigned int GetCol() const;
  /// Of a naming file; empty in a grid.
  PelmUnicodeString GetName() const;
  /// Of all versions, the newest first. Valid until the next call of Next.
  const std::vector<unsigned long long>& GetStamps() const;
  /// The newest version: its stamp, status, capacity and filled length.
  ZrVersion GetVersion() const;
  /// The payload area of the newest version, GetSize() bytes of any alignment, until the next call
  /// of Next; null with kSizes.
  const unsigned char* GetData() const;
  /// Bytes of the payload area: the capacity.
  unsigned long long GetSize() const;
  /// Copies the payload area. False with kSizes, and if memory is short; then `data` is
  /// unspecified.
  bool GetPayload(ZrByteArray& data) const;
  /// @}

  /// Tiles that were passed over up to now because of damage.
  unsigned long long GetDamagedCount() const;

 private:
  ZrCompactFile& m_file;
  const std::unique_ptr<Engine::TileWalk> m_walk;
};

}  // namespace Zarn
