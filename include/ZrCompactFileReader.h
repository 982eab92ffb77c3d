#pragma once

#include "ZrByteArray.h"
#include "ZrGridFile.h"

namespace Zarn {

namespace Io {
class RecordReader;
class Snapshot;
}  // namespace Io

/// Reads the tiles of a grid file.
///
/// One object belongs to one thread; any number may be open on one file while others change it: a
/// ZrCompactFileWriter, or objects with kProcessLock. A lookup then gives a tile, whole, that its
/// cell had at some moment of the lookup. It takes a lock only if changes go on for long.
class HX_COMPACTFILE_API ZrCompactFileReader : public ZrGridFile {
 public:
  ZrCompactFileReader() = default;
  ~ZrCompactFileReader() { Close(); }

  /// Opens an existing grid file for reading. `mode` is only stored.
  ///
  /// kOk, also if this very path is open already (compared without regard to case, unless the
  /// other spelling is a file of its own); kNotUsable for a ".sc" path; kNotFound if there is no
  /// such file; kNotOpen if it cannot be opened, is no regular file, or memory is short;
  /// kReadFailure for a damaged header, another kind of file or a wrong password. After a failure
  /// the reader is closed.
  unsigned int Open(const PelmUnicodeString& path, const PelmUnicodeString& password,
                    ZrCompactFile::ZrOpenMode mode);

  /// Always true.
  bool Close();

  /// Reads the newest version of a tile.
  ///
  /// @param data    receives the whole payload area (the tile's capacity); its memory is exchanged
  ///                for the reader's own, so a pointer from before is stale. Position 0.
  /// @param nFilled receives how far the area is filled: the end of the last write into it.
  /// @param nVersion a stamp. The stamp of an older version, exactly, selects that version, which
  ///                this class does not follow: kOk, `data` untouched, `nFilled` 0. Any other
  ///                stamp selects the newest version.
  ///
  /// kOk, with empty `data` for an empty cell; kNotOpen; kReadFailure for a cell outside the grid
  /// or a damaged record, among them one that ends beyond the file, and if the file changes again
  /// and again without a lock while the record is read; then `data` is untouched, and `nFilled`
  /// too, unless the cell's entry could be read (then 0).
  unsigned int Lookup(unsigned int row, unsigned int col, ZrByteArray& data,
                      unsigned long long& nFilled, unsigned long long nVersion);
  /// The same for a std::uint64_t.
  template <typename Length>
  ZrForUint64<Length, unsigned int> Lookup(unsigned int row, unsigned int col, ZrByteArray& data,
                                           Length& nFilled, unsigned long long nVersion) {
    unsigned long long filled = nFilled;
    const unsigned int result = Lookup(row, col, data, filled, nVersion);
    nFilled = filled;
    return result;
  }

 private:
  struct Tile;

  bool LookUp(Tile& tile);
  void ReadTile(Tile& tile, Io::Snapshot& snapshot);
  bool FindRecord(unsigned int row, unsigned int col, unsigned long long& entry,
                  unsigned long long& sizeHint) const;
  bool ReadRecord(unsigned long long position, unsigned long long sizeHint,
                  Io::RecordReader& record);

  ZrByteArray m_payload;  // of the record read last, until it is handed to the caller
};

}  // namespace Zarn
