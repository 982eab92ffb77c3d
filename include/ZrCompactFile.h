#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "HxCompactFileExport.h"
#include "PelmArray.h"
#include "PelmUnicodeString.h"
#include "ZrBatch.h"
#include "ZrByteArray.h"
#include "ZrFilledLength.h"
#include "ZrProcess.h"
#include "ZrResult.h"
#include "ZrStatistics.h"
#include "ZrVerify.h"
#include "ZrVersion.h"

namespace Zarn {

namespace Engine {
class Engine;
class TileWalk;
}  // namespace Engine

/// One container file, for all threads of a process: tiles stored whole or in pieces, in versions,
/// and read back while others write.
///
/// Use: Create or Open, then store and look up, then Close. A file is a grid file, whose tiles lie
/// in cells, or a naming file, whose tiles have names.
///
/// Versions. Every store names a stamp, larger for newer. A lookup gives the newest version, or an
/// older one asked for by its exact stamp. A tile stored in pieces names the same capacity and
/// stamp with each, and the offset of the piece; lookups give the whole area and how far it is
/// filled.
///
/// Threads. Any thread may use the object, without locks of its own. Each thread that opens it, or
/// works on its tiles, counts as a user until it calls Close; the Close of the last user closes the
/// file. The accessors marked "lock-free" never wait for an operation that is under way.
///
/// Processes. Every process that uses a file at the same time must open it with kProcessLock. Then
/// each operation sees all that others finished before, whether they changed tiles or replaced the
/// file; an operation that cannot get the process lock, or finds the file gone or damaged, fails
/// and writes nothing. If one of several openers lacks that bit, nothing is guaranteed. Two objects
/// on one file within a process count as two processes.
///
/// Paths. One that is empty or has a NUL inside is unusable. A relative one is taken from the
/// working directory of the moment; it is unusable if that directory was deleted, or its name is
/// not UTF-8.
///
/// Fork. A child must not touch an object that its parent had open.
///
/// Crash. What an operation has acknowledged survives the death of the process at any moment. An
/// operation cut short by a kill leaves its tile as it was, or as it was to become; one that a disk
/// fails leaves it as it was. A version that is rewritten in its own place needs room for a copy of
/// it at the end of the file meanwhile, and a full disk is noticed before anything is overwritten.
/// Loss of power may cost whatever came after the last Flush. A process with a limit on file sizes
/// should ignore SIGXFSZ, to see a result instead.
class HX_COMPACTFILE_API ZrCompactFile : public ZrProcess {
 public:
  /// State of a cell or of a version. It is stored in one byte, so a damaged file may hold any
  /// value; only kComplete and kPartial mean that a record is there.
  enum ZrStatus : std::uint8_t {
    kEmpty = 0,     ///< no tile
    kComplete = 1,  ///< the last write filled its payload area to the end
    kPartial = 2,   ///< the payload area has room behind the last write
    kUnknown = 4,   ///< answered when a status cannot be read; never stored
  };

  /// A set of the bits below.
  using ZrOpenMode = std::uint32_t;
  static constexpr ZrOpenMode kReplace = 1;        ///< creating replaces an existing file
  static constexpr ZrOpenMode kReadOnly = 2;       ///< open for reading only
  static constexpr ZrOpenMode kCreateMissing = 4;  ///< the mode with which missing files are made
  static constexpr ZrOpenMode kProcessLock = 8;    ///< use the process lock
  /// Lookups copy tiles from a mapping of the file instead of reading them, which is faster for
  /// tiles that are in memory. It requires trust in other programs: if one without kProcessLock
  /// cuts the file, or the disk fails, a lookup may end the process by SIGBUS, where without this
  /// bit it answers kReadFailure. (A store may do so with and without, since it stores an index
  /// entry on two pages through a mapping.) Damage within the file gives the same results as ever.
  /// Where the file cannot be mapped, the bit has no effect.
  static constexpr ZrOpenMode kMapped = 16;
  /// Open never makes a missing file, whatever else the mode says: it answers kNotFound. It changes
  /// nothing else, and creating ignores it.
  static constexpr ZrOpenMode kMustExist = 32;

  /// Largest capacity that a store may ask for, in bytes: 2 GiB less 100 bytes.
  static constexpr unsigned long long kMaxCapacity = 0x7FFFFF9C;

  ZrCompactFile();
  /// Closes the file whatever threads still count as users; none may be inside a call.
  ~ZrCompactFile() override;

  /// @name Lifecycle
  /// @{

  /// Creates a grid file, with its missing folders, and opens it. The file appears complete or not
  /// at all. With kReplace it takes the place of an existing one in one step, and gets the
  /// permissions, the access control list and, as far as this process may, the owner and the group
  /// of that; if one of these cannot be given, it gets fewer permissions.
  ///
  /// @param path      ".cf" is appended to a path without an extension.
  /// @param rows,cols at least 1 each, their product at most 0x10000000.
  /// @param password  scrambles the header; empty for none.
  /// @param mode      bits of ZrOpenMode.
  ///
  /// kOk; kNotCreated for bad sizes, an unusable or a ".sc" path, an existing file without
  /// kReplace, or if the file cannot be made, locked or opened. The calling thread has closed what
  /// it had open before; what other threads still have open stays so if this fails.
  unsigned int Create(const PelmUnicodeString& path, unsigned int rows, unsigned int cols,
                      const PelmUnicodeString& password, ZrOpenMode mode);
  /// The same for a naming file with room for `capacity` names at first, 1 to 0x8000000. The values
  /// of SetMaxSize are stored in it.
  unsigned int Create(const PelmUnicodeString& path, unsigned long long capacity,
                      const PelmUnicodeString& password, ZrOpenMode mode);

  /// Opens a file, joins it if it is open in this object, or makes it, as a naming file with 128
  /// slots, if it is missing and the mode is not exactly kReadOnly and has no kMustExist.
  ///
  /// kOk; kNotUsable if the lock, memory or the index is not available; kNotCreated if a missing
  /// file cannot be made; kWrongFile for no compact file or a wrong password; kNotFound, also for
  /// an unusable path; kNotOpen if the file cannot be opened, or is no regular file. A file that
  /// cannot be opened for writing is opened for reading. A ".sc" path gives the result of the
  /// registered ZrCacheFile, to which the object then delegates.
  unsigned int Open(const PelmUnicodeString& path, const PelmUnicodeString& password,
                    ZrOpenMode mode);

  /// Ends the calling thread's use; closes the file if no other thread uses it. Always true, except
  /// that a ".sc" file gives its own result.
  bool Close();

  /// Ends the use of all threads and closes the file. Operations that are under way end first,
  /// whatever thread runs them, and those that come later find nothing open; a check goes on until
  /// it looks at the file again, and answers kNotUsable then. A thread that is no user any more
  /// need not call Close. The object may be opened again. False, and the file stays open, within
  /// the progress of a compaction; a ".sc" file gives its own result.
  bool CloseAll();

  /// Whether a file is open. Lock-free.
  bool IsOpen() const;
  /// Waits until all that was stored before would survive a loss of power. False if nothing is
  /// open, or the system reports an error. Lock-free.
  bool Flush();
  /// The path as it was given, completed by ".cf". Lock-free.
  PelmUnicodeString GetFullPath() const;
  /// Two numbers of the host's that a naming file carries; they are written with the next naming
  /// header. Lock-free.
  void SetMaxSize(double first, double second);
  /// Whether tiles of the open file keep versions. Lock-free.
  bool IsVersionEnabled() const;
  /// Whether this object holds the process lock now. Lock-free.
  bool IsDeadLocked() const;
  /// Size of the index: 0 for a grid file, with rows and columns; 1 for a naming file, with
  /// capacity and count (their low 32 bits); 3 for a ".sc" file, with the first fields of its
  /// status; else the kind that the file states, with nothing. As this object last took notice of
  /// the file. Lock-free.
  unsigned int GetIndexInfo(unsigned int& first, unsigned int& second) const;

  /// Scrambles the header by another password, or by none. 1, or 0 if nothing was changed: not
  /// open, opened for reading, or the header could not be read and written.
  unsigned int SetPassword(const PelmUnicodeString& password);

  /// Receives the progress of a compaction: `done` of `total` bytes, which is twice the length of
  /// the file before, once for collecting what is alive and once for putting it back. `done` never
  /// goes down, and ends at `total`. Returning false ends a compaction that is still collecting,
  /// and has no effect later. The compacting thread calls it. While collecting, that thread may
  /// look up tiles of the object, but not change, open, close or destroy it; it must not use the
  /// file by other objects, which would wait for the end of the compaction. An exception counts as
  /// false.
  using CompactProgress = std::function<bool(unsigned long long done, unsigned long long total)>;

  /// Rewrites the file without the space that replaced and removed tiles and versions have left.
  ///
  /// It collects what is alive in the redo image, a file beside this one, which needs as much room:
  /// ".$" and the name, in the same folder. Its permissions, group and access control list are
  /// those of this file; where they cannot be given to it, it has fewer permissions. Its bytes then
  /// take the place of the old contents; path and inode stay. All versions stay, with their stamps
  /// and with how far they are filled, and so does the size of the index; the time of creation is a
  /// new one. Names of an older file become UTF-16, and a file of the other byte order gets that of
  /// this host. A compaction allocates some fixed buffers, as much memory as the largest tile, and
  /// for a naming file some 100 bytes per name.
  ///
  /// Afterwards the object works as before for all its threads, and the calling thread is one of
  /// its users. Operations of other threads and, with kProcessLock, of other processes wait
  /// meanwhile, except that other processes go on with lookups while the compaction collects; they
  /// must not use the file without that bit. While the contents are being replaced, the lock-free
  /// accessors of this object answer as if nothing were open.
  ///
  /// A crash, a kill or a loss of power at any moment costs nothing: the file is as before, or the
  /// next Open, also of a light class, finishes the compaction. For that it needs the right to
  /// write the file and the redo image; without, it fails. The next compaction replaces a redo
  /// image that is left over, even one that cannot be opened, if the folder lets it be deleted. You
  /// may delete one after a Flush of the file. A folder of that name stays.
  ///
  /// The file becomes no longer, except by names of an older file, which become UTF-16.
  ///
  /// If the file cannot be written while it is being replaced, the redo image takes its path
  /// instead; then it has another inode, and other hard links of the old one lead to a file that
  /// opens no more.
  ///
  /// A file that is mounted by itself, as into an application's container, is not compacted there:
  /// other processes see another folder around it, and would not find the redo image after a crash.
  ///
  /// kOk; kNotOpen; kUnknownKind; kNotCreated for a file opened for reading, one that has lost its
  /// path or is mounted by itself, a naming file whose index cannot be brought up to date, and if
  /// the redo image cannot be made or another compaction is at work; kReadFailure for a grid
  /// whose index cannot be brought up to date, and for a tile that cannot be read; kWriteFailure if
  /// there is no room, for a name that cannot be converted or that two names would become, and if
  /// the progress answered false. After all of these the file is as it was. kNotUsable if the
  /// compacted file could not be opened again, or if it could not be put in its place, where both
  /// files are then left for the next Open. A ".sc" file gives the result of its ZrCacheFile's
  /// Reconstruction.
  unsigned int Compact();
  /// The same, and reports its progress; an empty function gets no report.
  unsigned int Compact(const CompactProgress& progress);
  /// @}

  /// @name Checking
  /// @{

  using ZrFinding = Zarn::ZrVerifyFinding;        ///< what a check finds
  using ZrVerifySummary = Zarn::ZrVerifySummary;  ///< what it counts
  /// Receives each finding; returning false ends the check. The checking thread calls it, and must
  /// not use the object meanwhile, nor store into the file through another one, which would wait
  /// for ever. An exception counts as false.
  using VerifyReport = std::function<bool(const ZrFinding& finding)>;
  /// Receives how many of all index entries are done, without a lock: it may use the file. `done`
  /// never goes down, and ends at `total`. The answer false and an exception end the check.
  using VerifyProgress = std::function<bool(unsigned long long done, unsigned long long total)>;

  /// Checks the whole file, as it is on the disk, for what no writer leaves: in headers, entries,
  /// heads of records and version tables, and for records that lie over each other. Tiles have no
  /// checksums, so it does not find damage to their bytes, nor changes that give another sound
  /// file; docs/format.md lists these. It changes nothing.
  ///
  /// @param summary  receives the counts.
  /// @param report   may be empty.
  /// @param progress may be empty.
  ///
  /// kOk for a sound file; kReadFailure if there were findings, and, without any, if the headers
  /// cannot be brought up to date under the process lock; kNotUsable if the progress
  /// ended the check before there was a finding, if the file was compacted, replaced, given another
  /// password or, of names, a larger index meanwhile, if memory is short, and for a ".sc" file;
  /// kNotOpen.
  ///
  /// Lookups of all threads and processes go on meanwhile. Stores go on between two parts of the
  /// check, and may be counted; the progress is told between them, too. A program that stores
  /// without kProcessLock meanwhile may cause false findings. The time is in proportion to the
  /// number of versions and the size of the index, and the memory is some 24 bytes per version.
  unsigned int Verify(ZrVerifySummary& summary, const VerifyReport& report,
                      const VerifyProgress& progress = VerifyProgress());
  /// The same, and only counts.
  unsigned int Verify(ZrVerifySummary& summary);
  /// @}

  /// @name Tiles of a grid file
  /// @{

  /// Stores a tile, a piece of one, or a version.
  ///
  /// @param capacity size of the version's payload area, at most kMaxCapacity; 0 for the size of
  ///                 the data.
  /// @param offset   where in that area the data goes; the rest of the area keeps what it held, and
  ///                 is unspecified in a new one.
  /// @param version  stamp. The stamp of a version that is there replaces or completes it.
  ///
  /// kOk; kNotOpen; kWriteFailure for empty data, invalid numbers, a cell outside the grid, a file
  /// opened for reading, or a record that could not be read or written; then the tile is as it was.
  /// In a file without versions a tile that is there is not changed, which is also kOk.
  unsigned int SetAt(unsigned int row, unsigned int col, const ZrByteArray& data,
                     unsigned long long capacity, unsigned long long offset,
                     unsigned long long version);

  /// The same for `size` bytes at `bytes`.
  unsigned int SetAt(unsigned int row, unsigned int col, const void* bytes, unsigned long long size,
                     unsigned long long capacity, unsigned long long offset,
                     unsigned long long version);

  /// Reads a tile.
  ///
  /// @param data         receives the whole payload area, in memory of at most twice its size or
  ///                     64 KiB. The memory is exchanged, so an older pointer is stale. Position 0.
  /// @param filledLength receives how far the area is filled: where the last write into it ended.
  /// @param version      the exact stamp of an older version selects it, any other the newest.
  ///
  /// kOk; kNotFound for an empty cell, with empty data; kReadFailure if nothing is open, for a cell
  /// outside the grid and for a damaged record; then `data` is untouched and `filledLength` 0.
  unsigned int Lookup(unsigned int row, unsigned int col, ZrByteArray& data,
                      unsigned long long& filledLength, unsigned long long version);
  /// The same for a std::uint64_t.
  template <typename Length>
  ZrForUint64<Length, unsigned int> Lookup(unsigned int row, unsigned int col, ZrByteArray& data,
                                           Length& filledLength, unsigned long long version) {
    unsigned long long filled = filledLength;
    const unsigned int result = Lookup(row, col, data, filled, version);
    filledLength = filled;
    return result;
  }

  /// Removes the version with exactly this stamp. kOk, also if there is none, or if the file keeps
  /// no versions; kWriteFailure if nothing is open, for a cell outside the grid, a file opened for
  /// reading, and a record that could not be read or written.
  unsigned int Remove(unsigned int row, unsigned int col, unsigned long long version);

  using ZrCellStore = Zarn::ZrCellStore;  ///< one of the stores of a batch
  /// Stores many tiles at once: like one call of SetAt for each in order, but under one lock, and
  /// new tiles with few large writes.
  ///
  /// @param stores  in any order; rows of cells in their order are the fastest.
  /// @param results receives what SetAt would have answered to each. A null `data` is as empty.
  ///
  /// kOk if all results are; else the first other one. When it returns, every tile is as safe as
  /// after SetAt; a process that is killed meanwhile may have stored any of them.
  unsigned int SetBatch(const std::vector<ZrCellStore>& stores, std::vector<unsigned int>& results);

  /// Status of a cell; kUnknown if it cannot be read. It is at least as new as the last operation
  /// under the lock. Lock-free, unless another process compacts the file at that moment, or has
  /// compacted or replaced it since: then it may wait as a lookup would. With kProcessLock,
  /// kUnknown once the file has lost its path.
  ZrStatus GetStatus(unsigned int row, unsigned int col) const;
  /// Index value of a cell: status in the top byte, record position below. As GetStatus.
  bool GetGridIdxValue(unsigned int row, unsigned int col, unsigned long long& value) const;
  /// @}

  /// @name Tiles of a naming file
  /// As the operations on cells, with a name of 1 to 128 16-bit units instead of a cell. Names are
  /// compared exactly. A ".sc" file answers what its ZrCacheFile answers.
  /// @{

  /// Stores a tile under a name. The index grows as needed. kOk; kNotOpen; kWriteFailure also for
  /// an empty or too long name and in a file that is no naming file.
  unsigned int SetAt(const PelmUnicodeString& name, const ZrByteArray& data,
                     unsigned long long capacity, unsigned long long offset,
                     unsigned long long version);
  /// The same for `size` bytes at `bytes`.
  unsigned int SetAt(const PelmUnicodeString& name, const void* bytes, unsigned long long size,
                     unsigned long long capacity, unsigned long long offset,
                     unsigned long long version);
  using ZrNameStore = Zarn::ZrNameStore;  ///< one of the stores of a batch
  /// Stores many tiles at once, as the same operation on cells. With a ".sc" file, one by one.
  unsigned int SetBatch(const std::vector<ZrNameStore>& stores, std::vector<unsigned int>& results);
  /// Stores the contents of the file at `filePath`, which must not be empty. kWriteFailure also if
  /// it cannot be read whole.
  unsigned int SetAt(const PelmUnicodeString& name, const PelmUnicodeString& filePath,
                     unsigned long long version);
  /// The same for a cell of a grid file.
  unsigned int SetAt(unsigned int row, unsigned int col, const PelmUnicodeString& filePath,
                     unsigned long long version);
  /// kOk; kNotFound for an unknown name, with empty data; kReadFailure for an empty name, if
  /// nothing is open, in a file that is no naming file, and for a damaged record; then `data` is
  /// untouched.
  unsigned int Lookup(const PelmUnicodeString& name, ZrByteArray& data,
                      unsigned long long& filledLength, unsigned long long version);
  /// The same for a std::uint64_t.
  template <typename Length>
  ZrForUint64<Length, unsigned int> Lookup(const PelmUnicodeString& name, ZrByteArray& data,
                                           Length& filledLength, unsigned long long version) {
    unsigned long long filled = filledLength;
    const unsigned int result = Lookup(name, data, filled, version);
    filledLength = filled;
    return result;
  }
  /// Removes the version with exactly this stamp. kOk, also if the name has no such version;
  /// kWriteFailure for a name that was never stored, and as for cells.
  unsigned int Remove(const PelmUnicodeString& name, unsigned long long version);
  /// Status of a name, kEmpty if it is not there; kUnknown for an empty name, or if it cannot be
  /// looked up. Takes the locks of a lookup.
  ZrStatus GetStatus(const PelmUnicodeString& name);
  /// Appends the names to `names`, also those whose tiles were removed, in the order of their hash
  /// codes; in an older file, an empty string for each. False if nothing is open, in a file that is
  /// no naming file, if memory is short, or for names that would be longer than the file together.
  bool GetValidNamingList(PelmArray<PelmUnicodeString>& names);
  /// @}

  /// @name Versions
  /// What happens to one version is for SetAt, Lookup and Remove. In a lookup any stamp but the
  /// exact one of an older version means the newest, so 0 does unless a version has it; here a
  /// stamp is only a number, and 0 the smallest. All locks and all that holds of other processes
  /// are those of Lookup and of Remove.
  /// @{

  /// Lists the versions of a tile, the newest first.
  ///
  /// @param versions receives them. One whose record cannot be read has the status kUnknown, and
  ///                 sizes of 0.
  ///
  /// kOk; kNotFound for an empty cell, with an empty list; kReadFailure if nothing is open, for a
  /// cell outside the grid, a damaged record, or if memory is short; then `versions` is untouched.
  /// It reads the head of each version's record.
  unsigned int GetVersions(unsigned int row, unsigned int col, std::vector<ZrVersion>& versions);
  /// The same for a name; kNotFound for an unknown one. kNotUsable for a ".sc" file.
  unsigned int GetVersions(const PelmUnicodeString& name, std::vector<ZrVersion>& versions);

  /// Reads a tile, and tells which version it gives; else as the other Lookup.
  ///
  /// @param given receives its stamp, status, capacity and filled length; zeros on failure.
  unsigned int Lookup(unsigned int row, unsigned int col, ZrByteArray& data, ZrVersion& given,
                      unsigned long long version);
  /// The same for a name. A ".sc" file tells of no version.
  unsigned int Lookup(const PelmUnicodeString& name, ZrByteArray& data, ZrVersion& given,
                      unsigned long long version);

  /// Removes all versions of a tile, also of one whose record is damaged. Results as of Remove.
  unsigned int RemoveAll(unsigned int row, unsigned int col);
  /// The same for a name, whose record must be readable. As with Remove, the name stays in the
  /// index, and hides later names of the same hash until one of them is stored again.
  unsigned int RemoveAll(const PelmUnicodeString& name);

  /// Removes all versions in the file whose stamps are smaller; a tile that has no other version is
  /// removed. What is stored meanwhile may stay.
  ///
  /// @param stamp   the smallest stamp that stays.
  /// @param removed receives the number of versions that were removed, also after a failure.
  ///
  /// kOk, also in a file without versions, where nothing is removed; kNotOpen; kNotUsable for a
  /// ".sc" file, or if the file has become another one meanwhile (see ZrTileCursor::Next);
  /// kWriteFailure for a file opened for reading, if memory is short, and for tiles that could not
  /// be written or whose versions are not in order; kReadFailure for tiles or an index that could
  /// not be read. All other tiles are done.
  ///
  /// It walks over the heads of all records without a lock, and holds the lock for some 30 tiles at
  /// a time. A process that is killed meanwhile may have removed any of these versions.
  unsigned int RemoveOlderThan(unsigned long long stamp, unsigned long long& removed);
  /// @}

  /// @name Counting
  /// @{

  /// Receives how many of all index entries are done, without a lock. `done` never goes down. The
  /// counting thread calls it. The answer false and an exception end the count.
  using StatisticsProgress = std::function<bool(unsigned long long done, unsigned long long total)>;
  /// Counts what the index tells: `tiles`, `entries`, `indexBytes` and `fileBytes`; the others stay
  /// 0. Here each entry that names a record counts as a tile.
  ///
  /// kOk; kNotOpen; kReadFailure if the index cannot be read; kNotUsable for a ".sc" file. It takes
  /// as long as to read the index, and a lock only where a lookup would.
  unsigned int GetStatistics(ZrStatistics& statistics);
  /// Counts everything, by a walk over the heads of all records, with the results of
  /// ZrTileCursor::Next and the tiles that it gives.
  ///
  /// @param progress may be empty. If it ends the count, the result is kNotUsable, and the numbers
  ///                 are those up to there.
  unsigned int GetStatistics(ZrStatistics& statistics, const StatisticsProgress& progress);
  /// @}

  /// @name Header scrambling
  /// A header is scrambled, and unscrambled, by XOR with one byte of a key stream:
  /// GenerateStream(state, GenerateKey(password)), GenerateXorString(xorString, state), then
  /// ReMakeStream(header, 64, xorString). An empty password means an xorString of zeros. This
  /// keeps a file from being opened by mistake; it is no encryption, and tiles are stored plainly.
  /// Pure functions, for any thread.
  /// @{

  /// Exchanges two bytes.
  static void SwapByte(unsigned char& a, unsigned char& b);
  /// The 32-bit key of a NUL-terminated password of 16-bit units; 0 for null. Different passwords
  /// may have the same key, and different keys the same XOR byte.
  static unsigned int GenerateKey(const char16_t* password);
  /// Fills the 256 bytes at `state`.
  static void GenerateStream(unsigned char* state, int key);
  /// Writes 255 bytes to `out`, a buffer of 256, whose last byte is left alone. Changes `state`.
  static void GenerateXorString(unsigned char* out, unsigned char* state);
  /// XORs `length` bytes in place with the one byte xorString[length mod 256]. Does nothing if
  /// `xorString` is null or `length` is not above 0.
  static void ReMakeStream(unsigned char* buffer, int length, unsigned char* xorString);
  /// @}

 private:
  friend HX_COMPACTFILE_API void RefeshIndexCallBack(void* owner);
  friend class ZrTileCursor;

  unsigned int Step(Engine::TileWalk& walk);

  const std::unique_ptr<Engine::Engine> m_engine;
};

/// The process lock calls this when another process has changed the file; `owner` is the
/// ZrCompactFile, or null.
HX_COMPACTFILE_API void RefeshIndexCallBack(void* owner);

}  // namespace Zarn
