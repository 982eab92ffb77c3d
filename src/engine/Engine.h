#pragma once

#include <functional>
#include <map>
#include <memory>

#include "Locks.h"
#include "MaxSizes.h"
#include "OpenFile.h"
#include "Operation.h"
#include "RecordBuffers.h"
#include "RedoFile.h"
#include "TileWalk.h"
#include "VersionList.h"
#include "ZrCacheFile.h"
#include "ZrCompactFile.h"
#include "ZrStatistics.h"
#include "ZrTextCodec.h"

namespace Zarn::Engine {

/// What a ZrCompactFile points to: the operations on one container file, for all threads. The
/// public class documents each operation; here are their steps. An operation takes its locks, asks
/// the rooms of the open file (CellIndex or NameIndex, TileStore, Tail), writes the index entry,
/// and answers a result code.
///
/// State and who guards it:
///   m_state.file, m_strPath, m_strAbsolutePath, m_pCacheFile
///                 changed with the mutex and m_stateMutex held, so one of them is enough to use
///                 them; lookups use the file that Lookups admits them to
///   m_state.isCurrent, m_nOpenMode, m_xorString, m_mapTextCodec     by the mutex
///   m_buffers, m_maxSizes, m_locks               by themselves
class Engine {
 public:
  using Mode = ZrCompactFile::ZrOpenMode;

  explicit Engine(ZrProcess& object) : m_locks(object) {}
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // Lifecycle.cpp
  unsigned int Create(const PelmUnicodeString& path, unsigned int rows, unsigned int cols,
                      const PelmUnicodeString& password, Mode mode);
  unsigned int Create(const PelmUnicodeString& path, std::uint64_t capacity,
                      const PelmUnicodeString& password, Mode mode);
  unsigned int Open(const PelmUnicodeString& path, const PelmUnicodeString& password, Mode mode);
  unsigned int SetPassword(const PelmUnicodeString& password);
  bool Close();
  /// For the callback of the process lock; does nothing while no file is open.
  void Refresh();

  // Lifecycle.cpp
  bool CloseAll();
  /// Tells apart the paths that GetFullPath gives, of all objects; 0: cannot tell.
  std::uint64_t GetPathNumber() const { return m_bHasCacheFile ? 0 : m_pathNumber.load(); }

  // Accessors.cpp: take no operation's locks.
  bool IsOpen() const;
  bool Flush();
  PelmUnicodeString GetFullPath() const;
  void SetMaxSize(double first, double second) { m_maxSizes.Set({first, second}); }
  bool IsVersionEnabled() const;
  unsigned int GetIndexInfo(unsigned int& first, unsigned int& second) const;
  bool GetGridIdxValue(unsigned int row, unsigned int col, unsigned long long& value);

  // GridOperations.cpp
  unsigned int SetAt(const ZrCellStore& store);
  unsigned int SetAt(unsigned int row, unsigned int col, const PelmUnicodeString& filePath,
                     std::uint64_t version);
  unsigned int Lookup(unsigned int row, unsigned int col, ZrByteArray& data, ZrVersion& given,
                      std::uint64_t version);
  unsigned int Remove(unsigned int row, unsigned int col, std::uint64_t version);

  // NamedOperations.cpp
  unsigned int SetAt(const NamedStore& store);
  unsigned int SetAt(const PelmUnicodeString& name, const PelmUnicodeString& filePath,
                     std::uint64_t version);
  unsigned int Lookup(const PelmUnicodeString& name, ZrByteArray& data, ZrVersion& given,
                      std::uint64_t version);
  unsigned int Remove(const PelmUnicodeString& name, std::uint64_t version);
  ZrCompactFile::ZrStatus GetStatus(const PelmUnicodeString& name);
  bool GetValidNamingList(PelmArray<PelmUnicodeString>& names);

  // BatchOperations.cpp
  unsigned int SetBatch(const std::vector<ZrCellStore>& stores, std::vector<unsigned int>& results);
  unsigned int SetBatch(const std::vector<ZrNameStore>& stores, std::vector<unsigned int>& results);

  // VersionOperations.cpp
  unsigned int GetVersions(unsigned int row, unsigned int col, std::vector<ZrVersion>& versions);
  unsigned int GetVersions(const PelmUnicodeString& name, std::vector<ZrVersion>& versions);
  unsigned int RemoveAll(unsigned int row, unsigned int col);
  unsigned int RemoveAll(const PelmUnicodeString& name);

  // Walking.cpp
  unsigned int Step(TileWalk& walk);
  unsigned int RemoveOlderThan(std::uint64_t stamp, unsigned long long& removed);
  unsigned int GetStatistics(ZrStatistics& statistics);
  unsigned int GetStatistics(ZrStatistics& statistics,
                             const ZrCompactFile::StatisticsProgress& progress);

  // Compaction.cpp, Checking.cpp
  unsigned int Compact(const ZrCompactFile::CompactProgress& progress);
  unsigned int Verify(ZrVerifySummary& summary, const ZrCompactFile::VerifyReport& report,
                      const ZrCompactFile::VerifyProgress& progress);

 private:
  /// What an object was asked for.
  struct Identity {
    PelmUnicodeString path;          // as given, completed
    PelmUnicodeString absolutePath;  // where the file is, whatever the working directory
    Format::XorString xorString{};   // of the password
    Mode mode = 0;
  };

  OpenFile& File() const HX_REQUIRES_SHARED(m_locks) { return *m_state.file; }
  ZrByteArray* GetSwapData() HX_REQUIRES_SHARED(m_locks);
  std::shared_ptr<OpenFile> GetFile() const;
  unsigned int AskCacheFile(const std::function<unsigned int(ZrCacheFile&)>& ask) const;
  bool IsReadOnly() const HX_REQUIRES_SHARED(m_locks);

  // Lifecycle.cpp
  template <typename IndexHeader>
  unsigned int CreateContainer(const IndexHeader& header, const PelmUnicodeString& path,
                               const PelmUnicodeString& password, Mode mode)
      HX_REQUIRES(m_locks.GetMutex());
  unsigned int OpenCacheFile(const PelmUnicodeString& path, const PelmUnicodeString& password)
      HX_REQUIRES(m_locks.GetMutex());
  unsigned int OpenContainer(const PelmUnicodeString& path, const PelmUnicodeString& password,
                             Mode mode) HX_REQUIRES(m_locks.GetMutex());
  bool MakeMissing(const Identity& identity);
  unsigned int Join() HX_REQUIRES(m_locks.GetMutex());
  bool IsOpenAt(const PelmUnicodeString& path) const HX_REQUIRES(m_locks.GetMutex());
  void SetIdentity(Identity identity) HX_REQUIRES(m_locks.GetMutex());
  bool ProcessLockInit() HX_REQUIRES(m_locks.GetMutex());
  unsigned int TakeIntoUse(std::shared_ptr<ZrFile64> created) HX_REQUIRES(m_locks.GetMutex());
  unsigned int RefreshIndex(std::shared_ptr<ZrFile64> created) HX_REQUIRES(m_locks.GetMutex());
  unsigned int LoadFile(const std::shared_ptr<ZrFile64>& created, std::shared_ptr<OpenFile>& loaded)
      HX_REQUIRES(m_locks.GetMutex());
  void Publish(std::shared_ptr<OpenFile> file) HX_REQUIRES(m_locks.GetMutex());
  bool RefreshFile() HX_REQUIRES(m_locks.GetMutex());
  void AdmitLookups() HX_REQUIRES(m_locks.GetMutex());
  void LeaveFile() HX_REQUIRES(m_locks.GetMutex());
  void DetachCacheFile() HX_REQUIRES(m_locks.GetMutex());
  void CloseForThread() HX_REQUIRES(m_locks.GetMutex());
  void TearDown() HX_REQUIRES(m_locks.GetMutex());

  // LookUp.h, and what lookups have in common
  template <typename Look>
  bool UseFile(Look look, bool usesBuffer);
  template <typename Attempt>
  bool Survey(Attempt attempt);
  template <typename Attempt, typename Finish>
  bool LookUp(Attempt attempt, Finish finish, bool usesBuffer = true);
  template <typename Use>
  bool LookUpSlot(const PelmUnicodeString& name, Use use);
  static void HandOver(OpenFile& file, const TileEntry& entry, const Io::RecordReader& record,
                       ZrByteArray& buffer, ZrByteArray& data, ZrVersion& given);
  static unsigned int ReadTile(OpenFile& file, View& view, const NameKey& key,
                               std::uint64_t version, ZrByteArray& buffer, TileEntry& entry,
                               Io::RecordReader& record);

  // GridOperations.cpp, NamedOperations.cpp
  unsigned int StoreOne(const ZrCellStore& store) HX_REQUIRES(m_locks);
  unsigned int StoreOne(const NamedStore& store) HX_REQUIRES(m_locks);
  unsigned int StoreTile(TileEntry& entry, NameSlot* slot, const StoreRequest& request)
      HX_REQUIRES(m_locks);
  unsigned int RemoveVersion(TileEntry& entry, ZrByteArray& buffer, std::uint64_t version)
      HX_REQUIRES(m_locks);
  bool MakeRoomForName() HX_REQUIRES(m_locks);
  bool ReserveNames(std::size_t count) HX_REQUIRES(m_locks);
  bool GrowIndex() HX_REQUIRES(m_locks);

  bool MayStore(const WriteOperation& operation) const HX_REQUIRES(m_locks);
  static unsigned int RefuseStore(std::uint64_t size);
  static unsigned int RefuseName(const PelmUnicodeString& name);

  // VersionOperations.cpp
  unsigned int ListVersions(unsigned int row, unsigned int col, VersionList& list);
  unsigned int ListVersions(const PelmUnicodeString& name, VersionList& list);
  ZrByteArray* FindName(const PelmUnicodeString& name, TileEntry& entry) HX_REQUIRES(m_locks);
  unsigned int RemoveTile(TileEntry& entry) HX_REQUIRES(m_locks);

  // Walking.cpp
  struct Address {
    PelmUnicodeString name;
    std::uint32_t row = 0, col = 0;
  };
  unsigned int WhyUnusable() const;
  bool TakeTurn(TileWalk::Turn turn, TileWalk& walk, unsigned int& result);
  template <typename Attempt, typename Take>
  bool LookUpFor(TileWalk& walk, unsigned int& result, Attempt attempt, Take take);
  bool ReadEntryAlone(TileWalk& walk, unsigned int& result);
  bool ListHash(TileWalk& walk, unsigned int& result);
  bool ReadNameAlone(TileWalk& walk, unsigned int& result);
  unsigned int RemoveOlderThan(std::uint64_t stamp, const std::vector<Address>& tiles,
                               unsigned long long& removed);
  bool FindForRemoval(const Address& tile, TileStore& tiles, TileEntry& entry) HX_REQUIRES(m_locks);
  TileWalk::Seen CountEntries(OpenFile& file, View& view, std::uint64_t& next,
                              ZrStatistics& statistics);
  void CountTile(const TileWalk& walk, ZrStatistics& statistics);

  // BatchOperations.cpp
  template <typename Store>
  unsigned int StoreAll(const std::vector<Store>& stores, std::vector<unsigned int>& results);
  template <typename Store>
  bool StoreTogether(const std::vector<Store>& stores, std::vector<unsigned int>& results);

  // Compaction.cpp
  unsigned int BuildImage(Io::RedoFile& image, const ZrCompactFile::CompactProgress& progress)
      HX_REQUIRES(m_locks);
  bool WriteEmptyImage(ZrFile64& image) HX_REQUIRES(m_locks);
  unsigned int ReplaceByImage(Io::RedoFile& image, WriteOperation& operation,
                              const ZrCompactFile::CompactProgress& progress) HX_REQUIRES(m_locks);
  Io::RedoFile::Outcome Replace(Io::RedoFile& image, OpenFile& file,
                                const Io::RedoFile::Progress& progress)
      HX_REQUIRES(m_locks.GetMutex());
  bool DecodeOlderName(const Format::StoredName& stored, std::u16string& name);
  ZrTextCodec* GetTextCodec(PELMCharset::Charset from, PELMCharset::Charset to);

  Locks m_locks;
  RecordBuffers m_buffers;
  MaxSizes m_maxSizes;
  OpenState m_state;
  mutable Mutex m_stateMutex;
  PelmUnicodeString m_strPath;
  PelmUnicodeString m_strAbsolutePath;
  std::shared_ptr<ZrCacheFile> m_pCacheFile;  // the ".sc" file that is in use instead
  std::atomic<bool> m_bHasCacheFile{false};   // whether there is one; to be read without a lock
  Mode m_nOpenMode HX_GUARDED_BY(m_locks.GetMutex()) = 0;
  Format::XorString m_xorString HX_GUARDED_BY(m_locks.GetMutex()){};
  std::map<std::uint64_t, std::unique_ptr<ZrTextCodec>> m_mapTextCodec;  // by both charsets
  std::atomic<std::uint64_t> m_pathNumber{0};                            // see GetPathNumber
  std::atomic<std::uint32_t> m_flushes{0};                               // under way
};

}  // namespace Zarn::Engine
