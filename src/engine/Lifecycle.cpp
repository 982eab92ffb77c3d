#include <new>

#include "DataEnd.h"
#include "EmptyContainer.h"
#include "FileState.h"
#include "OpenPath.h"
#include "OperationLock.h"
#include "PathRules.h"
#include "PelmTime.h"
#include "StoreArguments.h"
#include "ZrCompactFile.h"
#include "ZrFile.h"
#include "ZrNewFile.h"
#include "ZrThread.h"

namespace Zarn {

static_assert(ZrCompactFile::kMaxCapacity == Format::kMaxCapacity);

namespace {

constexpr std::uint64_t kMissingFileCapacity = 128;  // slots of a naming file that Open makes

/// Writes a whole new container and gives it its path.
class NewContainer {
 public:
  NewContainer(const PelmUnicodeString& path, const PelmUnicodeString& password, bool replace)
      : m_path(ZrFile::GetAbsolute(Format::CompletePath(path))),
        m_password(password),
        m_replace(replace) {}

  const PelmUnicodeString& Path() const { return m_path; }
  /// Open for reading and writing once the file is made.
  const std::shared_ptr<ZrFile64>& Stream() const { return m_stream; }

  /// With a grid's header, or a naming file's.
  template <typename IndexHeader>
  ZrNewFile::Outcome Make(const IndexHeader& header) {
    const PelmUnicodeString folder = ZrFile::GetDir(m_path);
    if (!folder.IsEmpty()) ZrFile::MkDirEx(folder);
    const Format::XorString xorString = Format::MakeXorString(m_password.GetBuffer());
    // What it replaces may be kept from others.
    constexpr unsigned int kOwnerOnly = 0600, kUsual = 0666;
    const unsigned int permissions = m_replace && ZrFile::IsExist(m_path) ? kOwnerOnly : kUsual;
    const double now = PelmTime().GetCurTime().GetTime();
    if (!m_file.Begin(m_path, permissions) ||
        !Engine::WriteEmptyContainer(*m_stream, xorString, header, now))
      return ZrNewFile::Outcome::kFailed;
    return m_replace ? m_file.Replace() : m_file.Publish();
  }
  /// Without this the file goes away again with this object.
  void Commit() { m_file.Commit(); }

 private:
  const PelmUnicodeString m_path;
  const PelmUnicodeString& m_password;
  const bool m_replace;
  const std::shared_ptr<ZrFile64> m_stream = std::make_shared<ZrFile64>();
  ZrNewFile m_file{*m_stream};
};

}  // namespace

ZrCompactFile::ZrCompactFile()
    : m_header(Format::PresetHeader()), m_pDataEnd(std::make_unique<Io::DataEnd>()) {
  SetCallBack(RefeshIndexCallBack, this);
}

ZrCompactFile::~ZrCompactFile() {
  const std::lock_guard lock(m_mutex);
  if (m_pCacheFile != nullptr) m_pCacheFile->Close();
  TearDown();
}

unsigned int ZrCompactFile::Create(const PelmUnicodeString& path, unsigned int rows,
                                   unsigned int cols, const PelmUnicodeString& password,
                                   ZrOpenMode mode) {
  const std::lock_guard lock(m_mutex);
  if (m_bLockHeld) return ZrResult::kNotCreated;
  try {
    Close();
    return CreateGrid(path, rows, cols, password, mode);
  } catch (const std::bad_alloc&) {
    TearDown();
    return ZrResult::kNotCreated;
  }
}

unsigned int ZrCompactFile::Create(const PelmUnicodeString& path, unsigned long long capacity,
                                   const PelmUnicodeString& password, ZrOpenMode mode) {
  const std::lock_guard lock(m_mutex);
  if (m_bLockHeld) return ZrResult::kNotCreated;
  try {
    Close();
    return CreateNaming(path, capacity, password, mode);
  } catch (const std::bad_alloc&) {
    TearDown();
    return ZrResult::kNotCreated;
  }
}

unsigned int ZrCompactFile::CreateGrid(const PelmUnicodeString& path, unsigned int rows,
                                       unsigned int cols, const PelmUnicodeString& password,
                                       ZrOpenMode mode) {
  // In 64 bits: a product that wraps below the limit would ask for more memory than there is.
  const std::uint64_t cells = std::uint64_t{rows} * cols;
  if (cells == 0 || cells > Format::kMaxGridCells || Format::IsCachePath(path) ||
      !Format::IsUsablePath(path))
    return ZrResult::kNotCreated;
  NewContainer container(path, password, (mode & kReplace) != 0);
  if (container.Make(Format::GridHeader{rows, cols, Format::kVersionsEnabled}) !=
          ZrNewFile::Outcome::kPublished ||
      !TakeNewFile(container.Stream(), container.Path(), path, password, mode))
    return ZrResult::kNotCreated;
  container.Commit();
  return ZrResult::kOk;
}

unsigned int ZrCompactFile::CreateNaming(const PelmUnicodeString& path, unsigned long long capacity,
                                         const PelmUnicodeString& password, ZrOpenMode mode) {
  if (capacity == 0 || capacity > Format::kMaxNamingCapacity || Format::IsCachePath(path) ||
      !Format::IsUsablePath(path))
    return ZrResult::kNotCreated;
  NewContainer container(path, password, (mode & kReplace) != 0);
  const auto [maxSize1, maxSize2] = GetMaxSizes();
  if (container.Make(
          Format::NamingHeader{capacity, 0, maxSize1, maxSize2, Format::kVersionsEnabled}) !=
          ZrNewFile::Outcome::kPublished ||
      !TakeNewFile(container.Stream(), container.Path(), path, password, mode))
    return ZrResult::kNotCreated;
  container.Commit();
  return ZrResult::kOk;
}

// Goes on with what was just created, by the stream that it was created through; that may write
// even where the mode says read-only, until the first refresh.
bool ZrCompactFile::TakeNewFile(std::shared_ptr<ZrFile64> stream,
                                const PelmUnicodeString& absolutePath,
                                const PelmUnicodeString& path, const PelmUnicodeString& password,
                                ZrOpenMode mode) {
  TearDown();
  SetIdentity(Format::CompletePath(path), absolutePath, password, mode);
  std::unique_lock state(m_stateMutex);
  m_file = std::move(stream);
  state.unlock();
  return TakeIntoUse() == ZrResult::kOk;
}

unsigned int ZrCompactFile::Open(const PelmUnicodeString& path, const PelmUnicodeString& password,
                                 ZrOpenMode mode) {
  const std::lock_guard lock(m_mutex);
  if (m_bLockHeld) return ZrResult::kNotUsable;
  try {
    if (Format::IsCachePath(path)) return OpenCacheFile(path, password);
    if (m_pCacheFile == nullptr && IsOpenAt(path)) return Join();
    Close();
    return OpenContainer(path, password, mode);
  } catch (const std::bad_alloc&) {
    TearDown();
    return ZrResult::kNotUsable;
  }
}

unsigned int ZrCompactFile::OpenContainer(const PelmUnicodeString& path,
                                          const PelmUnicodeString& password, ZrOpenMode mode) {
  // The bit of the mapping takes nothing from "exactly kReadOnly".
  const bool mayCreate = (mode & ~kMapped) != kReadOnly;
  if (!Format::IsUsablePath(path)) return mayCreate ? ZrResult::kNotCreated : ZrResult::kNotFound;
  const PelmUnicodeString completed = Format::CompletePath(path);
  if (m_pCacheFile == nullptr && IsOpenAt(completed)) return Join();  // other threads use it
  const PelmUnicodeString absolutePath = ZrFile::GetAbsolute(completed);
  if (absolutePath.IsEmpty()) return ZrResult::kNotFound;
  if (!ZrFile::IsExist(absolutePath)) {
    if (!mayCreate) return ZrResult::kNotFound;
    NewContainer container(absolutePath, password, false);
    const auto [maxSize1, maxSize2] = GetMaxSizes();
    // Whoever made it meanwhile: the file is there.
    if (container.Make(Format::NamingHeader{kMissingFileCapacity, 0, maxSize1, maxSize2,
                                            Format::kVersionsEnabled}) ==
        ZrNewFile::Outcome::kFailed)
      return ZrResult::kNotCreated;
    container.Commit();
  }
  if (m_bOpened) {
    // Other threads lose the file that they use only to one that can be opened.
    Engine::FileState probe;
    const Format::XorString xorString = Format::MakeXorString(password.GetBuffer());
    const unsigned int result =
        LoadFileState({absolutePath, (mode & kReadOnly) != 0, false, false, xorString}, probe);
    if (result != ZrResult::kOk) return result;
  }
  TearDown();
  SetIdentity(completed, absolutePath, password, mode);
  return TakeIntoUse();
}

unsigned int ZrCompactFile::OpenCacheFile(const PelmUnicodeString& path,
                                          const PelmUnicodeString& password) {
  if (m_pCacheFile == nullptr) {
    std::shared_ptr<ZrCacheFile> made = ZrCacheFile::Make();
    const std::lock_guard state(m_stateMutex);
    m_pCacheFile = std::move(made);
    m_bHasCacheFile = m_pCacheFile != nullptr;
  }
  return m_pCacheFile->Open(path, password, ZrFile64::kRead);
}

void ZrCompactFile::DetachCacheFile() {
  std::shared_ptr<ZrCacheFile> detached;  // destroyed without the mutex
  const std::lock_guard state(m_stateMutex);
  detached.swap(m_pCacheFile);
  m_bHasCacheFile = false;
}

unsigned int ZrCompactFile::Join() {
  if (GetSwapData() != nullptr) return ZrResult::kOk;
  Close();
  return ZrResult::kNotUsable;
}

// One whose index cannot be brought up to date, perhaps for a password that has changed, is opened
// anew rather than joined.
bool ZrCompactFile::IsOpenAt(const PelmUnicodeString& path) const {
  return m_bOpened && m_bIndexValid && Io::IsPathOf(path, m_strPath, *m_file);
}

void ZrCompactFile::SetIdentity(const PelmUnicodeString& path,
                                const PelmUnicodeString& absolutePath,
                                const PelmUnicodeString& password, ZrOpenMode mode) {
  m_strPassword = password;
  m_xorString = Format::MakeXorString(password.GetBuffer());
  m_nOpenMode = mode;
  const std::lock_guard state(m_stateMutex);
  m_strPath = path;
  m_strAbsolutePath = absolutePath;
}

// Locks and loads the file that the members name. An older cache file is let go before it is known
// whether the container can be loaded.
unsigned int ZrCompactFile::TakeIntoUse() {
  unsigned int result = ZrResult::kNotUsable;
  if (m_bLockHeld || (ProcessLockInit() && WriterLock(0))) {
    DetachCacheFile();
    result = RefreshIndex(m_file != nullptr);
    if (!m_bLockHeld) WriterUnlock();
  } else if (!ZrFile64().Open(m_strAbsolutePath, ZrFile64::kRead)) {
    result = ZrResult::kNotOpen;  // what cannot be opened cannot be locked
  }
  if (result == ZrResult::kOk) {
    const std::lock_guard state(m_stateMutex);
    m_bOpened = true;
  }
  if (result == ZrResult::kOk && GetSwapData() == nullptr) result = ZrResult::kNotUsable;
  if (result != ZrResult::kOk) TearDown();
  return result;
}

bool ZrCompactFile::Close() {
  const std::lock_guard lock(m_mutex);
  if (m_pCacheFile != nullptr) return m_pCacheFile->Close();
  if (!m_bOpened || m_bLockHeld) return true;
  if (auto* const known = FindBuffer()) *known = nullptr;
  m_mapSwapData.erase(ZrThread::GetCurrentThreadId());
  if (m_mapSwapData.empty()) TearDown();
  return true;
}

// Lets go of the file, in whatever state the object is: after this it is as good as new, except
// that it keeps its path, and what SetMaxSize gave it while nothing was open.
void ZrCompactFile::TearDown() {
  const Engine::LookupBarrier barrier(*this);  // lookups under way end first
  m_bSharedLookups = false;
  ForgetBuffers();
  if (!m_bLockHeld) {
    m_flight.End();
    ProcessLockRelease();
    m_mapSwapData.clear();
  }
  // Closed and freed only when the accessors can go on.
  std::shared_ptr<ZrFile64> file;
  std::shared_ptr<Engine::IndexPages> index;
  std::shared_ptr<Io::FileMap> map;
  const std::lock_guard state(m_stateMutex);
  if (m_bOpened) m_dMaxSize1 = m_dMaxSize2 = 0;
  file.swap(m_file);
  index.swap(m_pIndex);
  map.swap(m_pMap);
  m_mapHashCode = nullptr;
  m_mapTextCodec.clear();
  m_header = Format::PresetHeader();
  m_nRowCount = m_nColCount = m_nGridFlags = m_nNamingFlags = 0;
  m_nNamingCapacity = m_nNamingCount = 0;
  m_bSwap = m_bOpened = m_bIndexValid = false;
}

bool ZrCompactFile::IsOpen() const {
  std::unique_lock state(m_stateMutex);
  const std::shared_ptr<ZrCacheFile> cache = m_pCacheFile;
  if (cache == nullptr) return m_bOpened;
  state.unlock();
  return cache->IsOpen();
}

bool ZrCompactFile::Flush() {
  std::unique_lock state(m_stateMutex);
  const std::shared_ptr<ZrFile64> file = m_file;
  state.unlock();
  return file != nullptr && file->Sync();
}

PelmUnicodeString ZrCompactFile::GetFullPath() const {
  std::unique_lock state(m_stateMutex);
  const std::shared_ptr<ZrCacheFile> cache = m_pCacheFile;
  if (cache == nullptr) return m_strPath;
  state.unlock();
  return cache->GetFullPath();
}

std::pair<double, double> ZrCompactFile::GetMaxSizes() const {
  const std::lock_guard state(m_stateMutex);
  return {m_dMaxSize1, m_dMaxSize2};
}

void ZrCompactFile::SetMaxSize(double first, double second) {
  const std::lock_guard state(m_stateMutex);
  m_dMaxSize1 = first;
  m_dMaxSize2 = second;
}

}  // namespace Zarn
