#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <utility>
#include <vector>

#include "HxCompactFileExport.h"
#include "PelmArray.h"
#include "PelmUnicodeString.h"
#include "ZrBatch.h"
#include "ZrByteArray.h"
#include "ZrCacheFile.h"
#include "ZrFile64.h"
#include "ZrFilledLength.h"
#include "ZrMutex.h"
#include "ZrProcess.h"
#include "ZrResult.h"
#include "ZrTextCodec.h"
#include "ZrVerify.h"

namespace Zarn {

namespace Format {
class RecordImage;
struct StoredName;
}  // namespace Format
namespace Io {
struct DataEnd;
enum class NameRead;
class FileMap;
class RecordReader;
class RedoFile;
struct RecordGuess;
}  // namespace Io
namespace Engine {
class IndexPages;
class LookupBarrier;
class NameKey;
class NameTable;
class OperationLock;
struct FileState;
struct BatchSource;
struct NameSlot;
struct RecordBackup;
struct RecordReference;
class StoreBatch;
struct TileEntry;
struct TileStore;
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
/// Threads. Any thread may use the object, without locks of its own. Each that opens it, or works
/// on its tiles, counts as a user until it calls Close; the last one's Close closes the file. The
/// accessors marked "lock-free" never wait for an operation that is under way.
///
/// Processes. Every process that uses a file at the same time must open it with kProcessLock. Then
/// each operation sees all that others finished before, whether they changed tiles or replaced the
/// file; an operation that cannot have the lock, or finds the file gone or damaged, fails and
/// writes nothing. Among openers without that bit, or one with and one without, nothing is
/// guaranteed. Two objects on one file within a process count as two processes.
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
  static constexpr ZrOpenMode kProcessLock = 8;    ///< use the lock between processes
  /// Lookups copy tiles from a mapping of the file instead of reading them, which is faster for
  /// tiles that are in memory. It asks for trust in everybody else: if the file is cut by a program
  /// that does not take kProcessLock, or its disk fails, a lookup may end the process by SIGBUS,
  /// where without this bit it answers kReadFailure. (A store may in either case, for an index
  /// entry on two pages is stored through a mapping.) Damage within the file is reported as ever.
  /// Where the file cannot be mapped, the bit has no effect.
  static constexpr ZrOpenMode kMapped = 16;

  /// Largest capacity that a store may ask for, in bytes: 2 GiB less 100 bytes.
  static constexpr unsigned long long kMaxCapacity = 0x7FFFFF9C;

  ZrCompactFile();
  /// Closes the file whatever threads still count as users; none may be inside a call.
  ~ZrCompactFile() override;

  /// @name Lifecycle
  /// @{

  /// Creates a grid file, with its missing folders, and opens it. The file appears complete or not
  /// at all; with kReplace it takes the place of an existing one in one step, and
  /// gets its permissions and access control list and, as far as this process may, owner and group;
  /// where one of these cannot be had, fewer permissions.
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
  /// slots, if it is missing and the mode is not exactly kReadOnly.
  ///
  /// kOk; kNotUsable if the lock, memory or the index cannot be had; kNotCreated if a missing file
  /// cannot be made; kWrongFile for no compact file or a wrong password; kNotFound, also for an
  /// unusable path; kNotOpen if the file cannot be opened, or is no regular file. A file that
  /// cannot be opened for writing is opened for reading. A ".sc" path gives the result of the
  /// registered ZrCacheFile, to which the object then delegates.
  unsigned int Open(const PelmUnicodeString& path, const PelmUnicodeString& password,
                    ZrOpenMode mode);

  /// Ends the calling thread's use; closes the file if no other thread uses it. Always true, except
  /// that a ".sc" file gives its own result.
  bool Close();

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
  /// Whether this object holds the lock between processes now. Lock-free.
  bool IsDeadLocked() const;
  /// Size of the index: 0 for a grid file, with rows and columns; 1 for a naming file, with
  /// capacity and count (their low 32 bits); 3 for a ".sc" file, with the first fields of its
  /// status; else the kind that the file states, with nothing. Lock-free.
  unsigned int GetIndexInfo(unsigned int& first, unsigned int& second) const;

  /// Scrambles the header by another password, or by none. 1, or 0 if nothing was changed: not
  /// open, opened for reading, or the header could not be read and written.
  unsigned int SetPassword(const PelmUnicodeString& password);

  /// Told how far a compaction has come: `done` of `total` bytes, which is twice the length of the
  /// file before, once for collecting what is alive and once for putting it back. `done` never goes
  /// down, and ends at `total`. False ends a compaction that is still collecting, and has no effect
  /// later. Called in the compacting thread, which while it collects may look up tiles of the
  /// object, but not change, open, close or destroy it; it must not touch the file by other
  /// objects, which would wait for the compaction's own end. An exception counts as false.
  using CompactProgress = std::function<bool(unsigned long long done, unsigned long long total)>;

  /// Rewrites the file without the space that replaced and removed tiles and versions have left.
  ///
  /// What is alive is collected in a file beside it, which needs as much room: ".$" and the name,
  /// in the same folder. Nobody may open it whom the permissions of this one, its group and its
  /// access control list keep out; where those cannot be given to it, it has fewer. That then takes
  /// the place of the old contents, byte by byte; path and inode stay. All versions stay, with
  /// their stamps and with how far they are filled, and so does the size of the index; the time of
  /// creation is a new one. Names of an older file become UTF-16, and a file of the other byte
  /// order becomes one of this host's. Beyond some fixed buffers it takes as much memory as the
  /// largest tile, and of a naming file some 100 bytes per name.
  ///
  /// The object works as before afterwards, for all its threads; the calling one is among its users
  /// then. Operations of other threads and, with kProcessLock, of other processes wait meanwhile,
  /// but other processes go on with lookups while what is alive is collected; they must not use the
  /// file without that bit. While the contents are being replaced, the lock-free
  /// accessors of this object answer as if nothing were open.
  ///
  /// A crash, a kill or a loss of power at any moment costs nothing: the file is as before, or the
  /// next Open, also of a light class, finishes what was begun, for which it needs the right to
  /// write the file and the file beside it; without, it fails. A file beside it that is not needed
  /// any more is replaced by the next compaction, even one that cannot be opened, if the folder
  /// lets it be deleted; it may be deleted after a Flush of the file. A folder of that name stays.
  ///
  /// The file becomes no longer, but for names of an older file, which become UTF-16.
  ///
  /// If the file cannot be written while it is being replaced, the file beside it takes its path
  /// instead; then it has another inode, and other hard links of the old one lead to a file that
  /// opens no more.
  ///
  /// A file that is mounted by itself, as into an application's container, is not compacted there:
  /// its folder is another one for others, who would not find the file beside it after a crash.
  ///
  /// kOk; kNotOpen; kUnknownKind; kNotCreated for a file opened for reading, one that has lost its
  /// path or is mounted by itself, a naming file whose index cannot be brought up to date, and if
  /// the file beside it cannot be made or another compaction is at work; kReadFailure for a grid
  /// whose index cannot be brought up to date, and for a tile that cannot be read; kWriteFailure if
  /// there is no room, for a name that cannot be converted or that two names would become, and if
  /// the progress answered false. After all of these the file is as it was. kNotUsable if the
  /// compacted file could not be opened again, or if it could not be put in its place, where both
  /// files are then left for the next Open. A ".sc" file gives the result of its ZrCacheFile's
  /// Reconstruction.
  unsigned int Compact();
  /// The same, and tells how far it has come; an empty function is none.
  unsigned int Compact(const CompactProgress& progress);
  /// @}

  /// @name Checking
  /// @{

  using ZrFinding = Zarn::ZrVerifyFinding;        ///< what a check finds
  using ZrVerifySummary = Zarn::ZrVerifySummary;  ///< what it counts
  /// Told each finding; false ends the check. Called in the checking thread, which must not use the
  /// object meanwhile, nor store into the file through another one, which would wait for ever. An
  /// exception counts as false.
  using VerifyReport = std::function<bool(const ZrFinding& finding)>;
  /// Told how many of all index entries are done; the same rules. `done` never goes down, and ends
  /// at `total`.
  using VerifyProgress = std::function<bool(unsigned long long done, unsigned long long total)>;

  /// Looks through the whole file, as it is on the disk, for what no writer leaves so: in headers,
  /// entries, heads of records and version tables, and for records that lie over each other. Tiles
  /// have no checksums, so damage to their bytes is not found, nor is what gives another sound
  /// file; docs/format.md lists it. Nothing is changed.
  ///
  /// @param summary  receives what was counted.
  /// @param report   may be empty.
  /// @param progress may be empty.
  ///
  /// kOk for a sound file; kReadFailure if there were findings, and, without any, if the headers
  /// cannot be brought up to date under the lock between processes; kNotUsable if the progress
  /// ended the check before there was a finding, if memory is short, and for a ".sc" file;
  /// kNotOpen.
  ///
  /// Lookups of all threads and processes go on meanwhile. Stores wait until it is done, and what
  /// this object is asked after such a store waits with it; but new tiles that other processes
  /// store in a grid do not wait, and may be counted. A program that stores without kProcessLock
  /// meanwhile may cause findings that are none. It takes time in proportion to the
  /// number of versions and the size of the index, and some 24 bytes of memory per version.
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

  /// Reads a tile.
  ///
  /// @param data         receives the whole payload area, in memory of at most twice its size or
  ///                     64 KiB. That is exchanged, so a pointer from before is stale. Position 0.
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
  /// Stores many tiles at once: as so many calls of SetAt one after the other, but under one lock,
  /// and new tiles with few large writes.
  ///
  /// @param stores  in any order; rows of cells in their order are the fastest.
  /// @param results receives what SetAt would have answered to each. A null `data` is as empty.
  ///
  /// kOk if all were; else the first other result. When it returns, every tile is as safe as after
  /// SetAt; a process that is killed meanwhile may have stored any of them.
  unsigned int SetBatch(const std::vector<ZrCellStore>& stores, std::vector<unsigned int>& results);

  /// Status of a cell; kUnknown if it cannot be read. The index is as it was when it was last
  /// looked at under the lock, or newer. Lock-free, unless another process is compacting the file
  /// at that moment, or has done so or replaced the file since: then it may wait as a lookup would.
  /// With kProcessLock, kUnknown once the file has lost its path.
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
  friend class Engine::LookupBarrier;
  friend class Engine::OperationLock;
  friend HX_COMPACTFILE_API void RefeshIndexCallBack(void* owner);

  // Lifecycle. Called with m_mutex held.
  unsigned int OpenCacheFile(const PelmUnicodeString& path, const PelmUnicodeString& password);
  unsigned int CreateGrid(const PelmUnicodeString& path, unsigned int rows, unsigned int cols,
                          const PelmUnicodeString& password, ZrOpenMode mode);
  unsigned int CreateNaming(const PelmUnicodeString& path, unsigned long long capacity,
                            const PelmUnicodeString& password, ZrOpenMode mode);
  bool TakeNewFile(std::shared_ptr<ZrFile64> stream, const PelmUnicodeString& absolutePath,
                   const PelmUnicodeString& path, const PelmUnicodeString& password,
                   ZrOpenMode mode);
  unsigned int OpenContainer(const PelmUnicodeString& path, const PelmUnicodeString& password,
                             ZrOpenMode mode);
  void DetachCacheFile();
  unsigned int Join();
  unsigned int TakeIntoUse();
  bool IsOpenAt(const PelmUnicodeString& path) const;
  void TearDown();
  void SetIdentity(const PelmUnicodeString& path, const PelmUnicodeString& absolutePath,
                   const PelmUnicodeString& password, ZrOpenMode mode);
  std::pair<double, double> GetMaxSizes() const;
  bool ProcessLockInit();

  // Index. Called with m_mutex held.
  unsigned int RefreshIndex(bool keepsWriting = false);
  bool HasOnlyOtherTiles() const;
  void ForgetTiles();
  void Publish(Engine::FileState& state);
  Engine::FileState GetState() const;
  bool HasVersions() const;
  unsigned long long GetIndexEnd() const;
  std::optional<std::uint32_t> FindCell(unsigned int row, unsigned int col) const;
  bool ReadGridIdxValueLocked(unsigned int row, unsigned int col, unsigned long long& value) const;
  bool ReadGridSlot(unsigned int row, unsigned int col, Engine::TileEntry& entry) const;
  bool ReadSharedSlot(unsigned int row, unsigned int col, Engine::TileEntry& entry) const;
  bool WriteIndexValue(Engine::TileEntry& entry);

  // Naming index. Called with m_mutex and the lock between processes held.
  bool IsNaming() const;
  bool GetNamingIdxValue(const Engine::NameKey& key, ZrByteArray& buffer,
                         Engine::NameSlot& slot) const;
  Io::NameRead GetKeyString(unsigned long long recordPosition, ZrByteArray& key) const;
  std::optional<bool> HasName(Engine::TileEntry& entry, const Engine::NameKey& key,
                              ZrByteArray& buffer) const;
  bool ReadSlot(std::uint64_t code, Engine::NameSlot& slot) const;
  bool UpdateNamingIndex(Engine::NameSlot& slot);
  bool AddSlots(const Engine::NameSlot* slots, unsigned long long count);
  bool WriteNamingHeader(unsigned long long indexOffset, unsigned long long capacity,
                         unsigned long long count);
  bool IncreaseNamingIndexCapacity();
  bool CopySlots(unsigned long long from, unsigned long long to, unsigned long long size);
  unsigned int LookupName(const Engine::NameKey& key, Engine::OperationLock& lock,
                          ZrByteArray& data, unsigned long long& filledLength,
                          unsigned long long version);
  std::shared_ptr<ZrCacheFile> GetCacheFile() const;

  ZrTextCodec* GetTextCodec(PELMCharset::Charset from, PELMCharset::Charset to);
  bool DecodeOlderName(const Format::StoredName& stored, std::u16string& name);

  // Compaction. Called with m_mutex held, and with the lock between processes: ReplaceByImage gives
  // that back if the file has become another one.
  unsigned int BuildImage(const Engine::FileState& source, Io::RedoFile& image,
                          const CompactProgress& progress);
  bool WriteEmptyImage(const Engine::FileState& source, ZrFile64& image) const;
  unsigned int ReplaceByImage(const Engine::FileState& source, Io::RedoFile& image,
                              Engine::OperationLock& lock, const CompactProgress& progress);

  // Stores. Called with m_mutex and the lock between processes held for writing.
  unsigned int StoreCell(const ZrCellStore& store, Engine::OperationLock& lock);
  unsigned int StoreName(const ZrNameStore& store);

  // Batches. Likewise, but for StoreAll and StoreTogether.
  unsigned int StoreAll(const Engine::BatchSource& source, std::vector<unsigned int>& results);
  bool StoreTogether(const Engine::BatchSource& source, std::vector<unsigned int>& results);
  bool AddToBatch(const ZrCellStore& store, std::size_t number, Engine::StoreBatch& batch);
  bool AddToBatch(const ZrNameStore& store, std::size_t number, Engine::StoreBatch& batch);
  void WriteBlock(Engine::StoreBatch& batch, std::vector<unsigned int>& results);
  void WriteBatch(Engine::StoreBatch& batch, Engine::OperationLock& lock,
                  std::vector<unsigned int>& results);
  bool WriteEntries(const Engine::NameSlot* slots, std::size_t count);
  bool WriteCells(const Engine::NameSlot* cells, std::size_t count);

  // Records. Called with m_mutex and the lock between processes held.
  ZrByteArray* GetSwapData();
  std::atomic<ZrByteArray*>* FindBuffer();
  void ForgetBuffers();
  bool IsReadOnly() const;
  bool IsRecordPlace(unsigned long long position, unsigned long long length) const;
  unsigned long long GetAppendPosition();
  bool FindDataEnd(unsigned long long fileLength);
  Format::RecordImage MakeImage(ZrByteArray& buffer) const;
  bool ReadHead(unsigned long long position, unsigned long long guessedLength,
                Format::RecordImage& image) const;
  bool ReadDataFromDataFile(unsigned long long position, Format::RecordImage& image) const;
  bool WriteHeadAndData(unsigned long long position, const Format::RecordImage& image,
                        const Engine::TileStore& store);
  unsigned long long WriteDataToDataFile(unsigned long long position, bool append,
                                         const Format::RecordImage& image);
  bool PointTo(Engine::RecordReference& reference, unsigned long long position);
  bool ReplaceLocator(Engine::RecordReference& reference, unsigned long long locator);
  unsigned long long MoveHome(Engine::RecordReference& reference, unsigned long long copy,
                              unsigned long long home, const Format::RecordImage& image,
                              const Engine::TileStore* store);
  bool BackUp(Engine::RecordBackup& backup, unsigned long long position, unsigned long long size);
  void PutBack(const Engine::RecordBackup& backup);
  bool IsOwnRecord(unsigned long long position) const;
  bool RunsOverRecord(unsigned long long position, unsigned long long from,
                      unsigned long long to) const;
  unsigned long long RewriteRecord(Engine::RecordReference& reference, unsigned long long position,
                                   const Format::RecordImage& image, Engine::RecordBackup& backup);
  bool UpdateSwapData(Format::RecordImage& image, const Engine::TileStore& store);
  unsigned long long AppendSwapData(Format::RecordImage& image, const Engine::TileStore& store);
  unsigned long long AppendNewRecord(Format::RecordImage& image, const Engine::TileStore& store);

  // Versions. Likewise.
  bool StoreIntoTile(Engine::TileEntry& entry, const Engine::TileStore& store,
                     Engine::RecordBackup& backup);
  bool RemoveFromTile(Engine::TileEntry& entry, unsigned long long version,
                      Engine::RecordBackup& backup);
  unsigned int GetStatusAndVersionOrder(Format::RecordImage& image, unsigned int& index,
                                        unsigned long long recordPosition,
                                        unsigned long long version);
  unsigned long long AddNewData(Format::RecordImage& image, const Engine::TileStore& store,
                                const Format::StoredName& name);
  unsigned long long AddMaxNewVersionData(unsigned long long recordPosition,
                                          Format::RecordImage& image,
                                          const Engine::TileStore& store);
  unsigned long long AddOldVersionData(unsigned long long recordPosition,
                                       Format::RecordImage& image, unsigned int index,
                                       const Engine::TileStore& store);
  unsigned long long ReplaceVersion(Engine::RecordReference& reference, unsigned long long position,
                                    Format::RecordImage& image, const Engine::TileStore& store,
                                    Engine::RecordBackup& backup);
  bool ReplaceInPage(unsigned long long position, Format::RecordImage& image,
                     const Engine::TileStore& store, Engine::RecordBackup& backup);
  bool UpdateOlderVersion(Engine::TileEntry& entry, const Format::RecordImage& image,
                          unsigned int index, const Engine::TileStore& store,
                          unsigned long long newestLocator, Engine::RecordBackup& backup);
  bool ReadCurrentHead(const Engine::TileEntry& entry, Format::RecordImage& image) const;
  bool ReadOlderHead(unsigned long long position, unsigned long long currentPosition,
                     unsigned long long stamp, Format::RecordImage& image) const;
  bool RemoveNewest(Engine::TileEntry& entry, const Format::RecordImage& current,
                    Engine::RecordBackup& backup);
  void Remember(const Engine::TileEntry& entry, unsigned long long recordLength) const;
  Io::RecordGuess GuessRecord(const Engine::TileEntry& entry, unsigned long long headSize) const;
  unsigned int LookUp_Inner(const Engine::TileEntry& entry, const Engine::NameKey* key,
                            ZrByteArray& buffer, ZrByteArray& data,
                            unsigned long long& filledLength, unsigned long long version) const;

  /// A compaction is under way and holds the lock between processes for all operations: those that
  /// its progress function calls. Guarded by m_mutex.
  bool m_bLockHeld = false;

  /// Lookups of several threads that hold the lock between processes together. Guarded by m_mutex.
  struct ReaderFlight {
    std::uint64_t number = 0;
    unsigned int aboard = 0;   ///< 0: the lock is not held for reading
    unsigned int boarded = 0;  ///< since the lock was taken

    void End() {
      aboard = 0;
      ++number;
    }
  };
  ReaderFlight m_flight;
  /// Readers that take long. Nobody waits for them, but who stores. Raised with m_mutex held.
  std::atomic<unsigned int> m_nLongReaders{0};

  /// The published state of the open file. Changed with m_mutex and m_stateMutex both held, so
  /// either of them is enough to read it; but the two sizes, which SetMaxSize changes, need
  /// m_stateMutex.
  mutable std::mutex m_stateMutex;
  std::shared_ptr<ZrFile64> m_file;                ///< null while nothing is open
  std::array<unsigned char, 64> m_header;          ///< unscrambled, in host order
  std::array<unsigned char, 64> m_headerOnDisk{};  ///< the same as it was in the file when loaded
  std::uint32_t m_nRowCount = 0;                   ///< grid files
  std::uint32_t m_nColCount = 0;                   ///< grid files
  std::uint32_t m_nGridFlags = 0;                  ///< grid files; bit 0: versions
  std::uint64_t m_nNamingCapacity = 0;             ///< naming files: slots
  std::uint64_t m_nNamingCount = 0;                ///< naming files: slots in use
  double m_dMaxSize1 = 0;                          ///< the host's, see SetMaxSize
  double m_dMaxSize2 = 0;
  std::uint32_t m_nNamingFlags = 0;              ///< naming files; bit 0: versions
  std::shared_ptr<Engine::IndexPages> m_pIndex;  ///< entries, in the file's order
  std::shared_ptr<Io::FileMap> m_pMap;           ///< the file as memory, with kMapped
  bool m_bSwap = false;                          ///< the file is in the other byte order
  bool m_bOpened = false;
  bool m_bIndexValid = false;                 ///< the last refresh succeeded
  std::shared_ptr<ZrCacheFile> m_pCacheFile;  ///< the ".sc" file that is in use instead
  std::atomic<bool> m_bHasCacheFile{false};   ///< whether there is one; also to be read without
  PelmUnicodeString m_strPath;                ///< as given, completed

  /// Guarded by m_mutex.
  std::shared_ptr<Engine::NameTable> m_mapHashCode;  ///< naming files: slots by hash code
  std::map<std::uint64_t, std::unique_ptr<ZrTextCodec>> m_mapTextCodec;  ///< by both charsets
  std::map<std::uint32_t, std::unique_ptr<ZrByteArray>> m_mapSwapData;   ///< by thread: its users
  std::array<unsigned char, 256> m_xorString{};                          ///< the password's
  PelmUnicodeString m_strAbsolutePath;  ///< where the file is, whatever the working directory
  PelmUnicodeString m_strPassword;
  ZrOpenMode m_nOpenMode = 0;

  /// How long the file is, as long as the lock between processes tells that nobody else has changed
  /// it; 0: unknown. Guarded by m_mutex.
  std::uint64_t m_nFileEnd = 0;

  /// How long it was when a record was last appended. Guarded by m_mutex.
  std::uint64_t m_nLengthBefore = 0;

  /// Where the data of a grid file end, and whether that is known. Guarded by m_mutex.
  const std::unique_ptr<Io::DataEnd> m_pDataEnd;
  bool m_bDataEndFound = false;

  /// The number of the locked file that the state was loaded from; 0 without the lock between
  /// processes. Guarded by m_mutex.
  std::uint64_t m_nLoadedFile = 0;

  /// The lock order: m_mutex, the lock between processes, m_readers, m_stateMutex, the index's own.
  ZrMutex m_mutex{1};
  /// Held shared by a lookup while it reads without m_mutex, and exclusively by whoever changes
  /// records or the index, or closes the file.
  std::shared_mutex m_readers;
  /// Those who wait to hold m_readers exclusively, and m_mutex already: lookups then wait for that.
  std::atomic<unsigned int> m_nBarriers{0};
  /// Lookups need not take m_mutex at all. Guarded by m_readers.
  bool m_bSharedLookups = false;
  /// The buffers of m_mapSwapData of the threads with the lowest numbers. Changed with m_mutex
  /// held, and taken out with m_readers as well, but for a thread's own.
  std::array<std::atomic<ZrByteArray*>, 64> m_buffers{};
};

/// What the lock between processes calls when another process has changed the file; `owner` is the
/// ZrCompactFile, or null.
HX_COMPACTFILE_API void RefeshIndexCallBack(void* owner);

}  // namespace Zarn
