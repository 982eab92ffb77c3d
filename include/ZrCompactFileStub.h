#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "HxCompactFileExport.h"
#include "PelmUnicodeString.h"
#include "ZrByteArray.h"
#include "ZrCompactFileReader.h"
#include "ZrCompactFileWriter.h"
#include "ZrMutex.h"

namespace Zarn {

namespace Access {
struct FileLock;
}  // namespace Access

/// One grid file of 128 x 128 cells, for all threads of a process: written through one
/// ZrCompactFileWriter, read through one ZrCompactFileReader per thread.
///
/// Use: SetPath, then Write and Read. What the two light classes say of tiles holds here: a tile
/// has one version, the offset only counts, and unused capacity at the end of the file makes the
/// last tile unreadable until something follows.
///
/// Threads. Any thread may use the object; one call at a time is carried out. There are never more
/// open readers than threads have been alive at once.
///
/// Processes. A Write holds the process lock while it runs, so any number of stubs and of
/// ZrCompactFile objects with kProcessLock may store into one file; it fails if it cannot get the
/// lock. A Read takes none: it may read a tile half old, half new that another process is rewriting
/// in its place, and no process may compact the file while it is being read.
///
/// The file should stay at its path. A Write that finds none there makes a new one, and one that
/// finds another there goes on with that, as do this object's readers from then on; a stub that
/// only reads keeps what it has opened.
///
/// Fork. A child must not touch an object that its parent had used.
///
/// Crash. What Write has answered true survives the death of the process at any moment. A killed
/// Write leaves its tile as it was, or half old, half new if it was being rewritten in its place.
/// Loss of power may cost whatever was written recently.
///
/// Nothing is thrown, except by the constructor if memory is short.
class HX_COMPACTFILE_API ZrCompactFileStub {
 public:
  ZrCompactFileStub();
  /// Waits for a call that is under way. None may come after.
  ~ZrCompactFileStub();
  ZrCompactFileStub(const ZrCompactFileStub&) = delete;
  ZrCompactFileStub& operator=(const ZrCompactFileStub&) = delete;

  /// Turns to the grid file at `path`, and creates it, with its missing folders, if there is none;
  /// whether that succeeded shows in Write and Read. A file that is there keeps its tiles, whatever
  /// its size and kind.
  ///
  /// ".cf" is appended to a path without an extension; a relative one is taken from the working
  /// directory of now. Nothing happens if the stub is at this path already, compared without regard
  /// to case, unless the other spelling is a file of its own. An empty path leaves the stub without
  /// a file. So does a shortage of memory, and a relative path where the working directory was
  /// deleted or has a name that is not UTF-8.
  void SetPath(PelmUnicodeString path);

  /// Stores a tile; creates the file if it is missing, also if another process does so meanwhile.
  ///
  /// @param row,col  the cell.
  /// @param data     the tile, not empty.
  /// @param capacity size of the tile's payload area in bytes, at most
  ///                 ZrCompactFile::kMaxCapacity; 0 for the size of the data.
  /// @param offset   where in that area the data is meant to go; it only counts into the filled
  ///                 length.
  /// @param version  version stamp, only stored.
  ///
  /// True where ZrCompactFileWriter::SetAt answers kOk. False for empty data, invalid numbers, a
  /// cell outside the grid, a stub without a path, a file that cannot be made, locked, opened for
  /// writing or written, and one that is no grid file without a password.
  bool Write(unsigned int row, unsigned int col, const ZrByteArray& data,
             unsigned long long capacity, unsigned long long offset, unsigned long long version);

  /// Reads a tile.
  ///
  /// @param row,col      the cell.
  /// @param data         receives the whole payload area; empty for an empty cell. Its memory is
  ///                     exchanged for the reader's own, so a pointer from before is stale.
  /// @param filledLength receives how far the area is filled.
  /// @param version      a stamp. That of an older version, exactly, selects that one, which is not
  ///                     followed: the answer is true, `data` untouched and `filledLength` 0. Any
  ///                     other selects the newest.
  ///
  /// True where ZrCompactFileReader::Lookup answers kOk, so also for an empty cell. False for a
  /// cell outside the grid, a damaged record, a stub without a path, and a file that could not be
  /// opened when this thread first read; then `data` is untouched. A thread for which the file
  /// could not be opened does not try again, nor does a later thread with its number, until the
  /// stub gets another path.
  bool Read(unsigned int row, unsigned int col, ZrByteArray& data, unsigned long long& filledLength,
            unsigned long long version);
  /// The same for a std::uint64_t.
  template <typename Length>
  ZrForUint64<Length, bool> Read(unsigned int row, unsigned int col, ZrByteArray& data,
                                 Length& filledLength, unsigned long long version) {
    unsigned long long filled = filledLength;
    const bool result = Read(row, col, data, filled, version);
    filledLength = filled;
    return result;
  }

 private:
  struct Reader : ZrCompactFileReader {
    PelmUnicodeString m_strOpenedFor;  // empty: for none yet
  };

  // Callers hold m_mutex.
  void CreateFile();
  bool LockFile();
  bool RefreshWriter();
  void ForgetReaders();
  Reader& GetReader();

  /// Guards all that follows.
  ZrMutex m_mutex{0};
  PelmUnicodeString m_strPath;  ///< as given
  PelmUnicodeString m_strFile;  ///< the file that it means, completed and absolute; empty for none
  /// Its state is the writer's: loaded while no other process has changed the writer's file.
  std::unique_ptr<Access::FileLock> m_pLock;
  std::unique_ptr<ZrCompactFileWriter> m_pWriter;
  std::map<std::int32_t, Reader> m_mapReader;  ///< by thread
};

}  // namespace Zarn
