#include <vector>

#include "FileState.h"
#include "IndexHeaders.h"
#include "OpenPath.h"
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

/// Writes a whole new container and gives it its path. `indexHeader` stands at the start of an
/// index area of `indexSize` bytes, whose entries need no writing: they lie in a hole.
template <typename IndexHeaderImage>
ZrNewFile::Outcome MakeContainer(ZrFile64& stream, const PelmUnicodeString& path, bool replace,
                                 const PelmUnicodeString& password, std::uint32_t fileKind,
                                 const IndexHeaderImage& indexHeader, std::uint64_t indexSize) {
  const PelmUnicodeString folder = ZrFile::GetDir(path);
  if (!folder.IsEmpty()) ZrFile::MkDirEx(folder);
  ZrNewFile file(stream);
  const bool written =
      file.Begin(path) &&
      Io::WriteFileHeader(stream, Format::MakeXorString(password.GetBuffer()),
                          Format::NewHeader(fileKind, PelmTime().GetCurTime().GetTime()), false) &&
      stream.WriteAt(Format::kHeaderSize, indexHeader.data(), indexHeader.size()) &&
      stream.SetLength(Format::kHeaderSize + indexSize);
  if (!written) return ZrNewFile::Outcome::kFailed;
  return replace ? file.Replace() : file.Publish();
}

ZrNewFile::Outcome MakeNamingFile(ZrFile64& stream, const PelmUnicodeString& path, bool replace,
                                  const PelmUnicodeString& password,
                                  const Format::NamingHeader& header) {
  return MakeContainer(stream, path, replace, password, Format::kNamingFile,
                       Format::EncodeNamingHeader(header, false),
                       Format::kNamingHeaderSize + header.capacity * Format::kNamingSlotSize);
}

}  // namespace

ZrCompactFile::ZrCompactFile() : m_header(Format::PresetHeader()) {
  SetCallBack(RefeshIndexCallBack, this);
}

ZrCompactFile::~ZrCompactFile() {
  const std::lock_guard lock(m_mutex);
  TearDown();
}

unsigned int ZrCompactFile::Create(const PelmUnicodeString& path, unsigned int rows,
                                   unsigned int cols, const PelmUnicodeString& password,
                                   ZrOpenMode mode) {
  const std::lock_guard lock(m_mutex);
  Close();
  return CreateGrid(path, rows, cols, password, mode);
}

unsigned int ZrCompactFile::Create(const PelmUnicodeString& path, unsigned long long capacity,
                                   const PelmUnicodeString& password, ZrOpenMode mode) {
  const std::lock_guard lock(m_mutex);
  Close();
  return CreateNaming(path, capacity, password, mode);
}

unsigned int ZrCompactFile::CreateGrid(const PelmUnicodeString& path, unsigned int rows,
                                       unsigned int cols, const PelmUnicodeString& password,
                                       ZrOpenMode mode) {
  // In 64 bits: a product that wraps below the limit would ask for more memory than there is.
  const std::uint64_t cells = std::uint64_t{rows} * cols;
  if (cells == 0 || cells > Format::kMaxGridCells || Format::IsCachePath(path) ||
      !Format::IsUsablePath(path))
    return ZrResult::kNotCreated;
  ZrFile64 created;
  const auto outcome = MakeContainer(
      created, Format::CompletePath(path), (mode & kReplace) != 0, password, Format::kGridFile,
      Format::EncodeGridHeader({rows, cols, Format::kVersionsEnabled}, false),
      Format::kGridHeaderSize + cells * Format::kGridEntrySize);
  if (outcome != ZrNewFile::Outcome::kPublished) return ZrResult::kNotCreated;
  return TakeNewFile(created, path, password, mode);
}

unsigned int ZrCompactFile::CreateNaming(const PelmUnicodeString& path, unsigned long long capacity,
                                         const PelmUnicodeString& password, ZrOpenMode mode) {
  if (capacity == 0 || capacity > Format::kMaxNamingCapacity || Format::IsCachePath(path) ||
      !Format::IsUsablePath(path))
    return ZrResult::kNotCreated;
  ZrFile64 created;
  const auto outcome =
      MakeNamingFile(created, Format::CompletePath(path), (mode & kReplace) != 0, password,
                     {capacity, 0, m_dMaxSize1, m_dMaxSize2, Format::kVersionsEnabled});
  if (outcome != ZrNewFile::Outcome::kPublished) return ZrResult::kNotCreated;
  return TakeNewFile(created, path, password, mode);
}

// Opens what was just created. A file that cannot even be opened is removed again, unless it is
// somebody else's by now.
unsigned int ZrCompactFile::TakeNewFile(const ZrFile64& created, const PelmUnicodeString& path,
                                        const PelmUnicodeString& password, ZrOpenMode mode) {
  TearDown();
  SetIdentity(Format::CompletePath(path), password, mode);
  if (TakeIntoUse() == ZrResult::kOk) return ZrResult::kOk;
  if (created.IsSameFile(m_strAbsolutePath)) ZrFile::Delete(m_strAbsolutePath);
  return ZrResult::kNotCreated;
}

unsigned int ZrCompactFile::Open(const PelmUnicodeString& path, const PelmUnicodeString& password,
                                 ZrOpenMode mode) {
  const std::lock_guard lock(m_mutex);
  if (Format::IsCachePath(path)) return OpenCacheFile(path, password);
  if (m_pCacheFile == nullptr && IsOpenAt(path)) return Join();
  Close();
  if (!Format::IsUsablePath(path)) return ZrResult::kNotFound;
  const PelmUnicodeString completed = Format::CompletePath(path);
  if (m_pCacheFile == nullptr && IsOpenAt(completed)) return Join();  // other threads use it

  if (!ZrFile::IsExist(completed)) {
    if (mode == kReadOnly) return ZrResult::kNotFound;
    ZrFile64 created;
    const Format::NamingHeader header = {kMissingFileCapacity, 0, m_dMaxSize1, m_dMaxSize2,
                                         Format::kVersionsEnabled};
    // Whoever made it meanwhile: the file is there.
    if (MakeNamingFile(created, completed, false, password, header) == ZrNewFile::Outcome::kFailed)
      return ZrResult::kNotCreated;
  }
  if (m_bOpened) {
    // Other threads lose the file that they use only to one that can be opened.
    Engine::FileState probe;
    const unsigned int result = LoadFileState(
        {completed, (mode & kReadOnly) != 0, Format::MakeXorString(password.GetBuffer())}, probe);
    if (result != ZrResult::kOk) return result;
  }
  TearDown();
  SetIdentity(completed, password, mode);
  return TakeIntoUse();
}

unsigned int ZrCompactFile::OpenCacheFile(const PelmUnicodeString& path,
                                          const PelmUnicodeString& password) {
  if (m_pCacheFile == nullptr) {
    std::shared_ptr<ZrCacheFile> made = ZrCacheFile::Make();
    const std::lock_guard state(m_stateMutex);
    m_pCacheFile = std::move(made);
  }
  return m_pCacheFile->Open(path, password, ZrFile64::kRead);
}

unsigned int ZrCompactFile::Join() {
  if (GetSwapData() != nullptr) return ZrResult::kOk;
  Close();
  return ZrResult::kNotUsable;
}

bool ZrCompactFile::IsOpenAt(const PelmUnicodeString& path) const {
  return m_bOpened && Io::IsPathOf(path, m_strPath, *m_file);
}

void ZrCompactFile::SetIdentity(const PelmUnicodeString& path, const PelmUnicodeString& password,
                                ZrOpenMode mode) {
  m_strAbsolutePath = ZrFile::GetAbsolute(path);
  m_strPassword = password;
  m_xorString = Format::MakeXorString(password.GetBuffer());
  m_nOpenMode = mode;
  const std::lock_guard state(m_stateMutex);
  m_strPath = path;
}

// Locks and loads the file that the members name.
unsigned int ZrCompactFile::TakeIntoUse() {
  unsigned int result = ZrResult::kNotUsable;
  if (m_bLockHeld || (ProcessLockInit() && WriterLock(0))) {
    result = RefreshIndex();
    if (!m_bLockHeld) WriterUnlock();
  }
  if (result == ZrResult::kOk) {
    const std::lock_guard state(m_stateMutex);
    m_bOpened = true;
    m_pCacheFile = nullptr;
  }
  if (result == ZrResult::kOk && GetSwapData() == nullptr) result = ZrResult::kNotUsable;
  if (result != ZrResult::kOk) TearDown();
  return result;
}

bool ZrCompactFile::Close() {
  const std::lock_guard lock(m_mutex);
  if (m_pCacheFile != nullptr) return m_pCacheFile->Close();
  if (!m_bOpened) return true;
  m_mapSwapData.erase(ZrThread::GetCurrentThreadId());
  if (m_mapSwapData.empty() || m_bLockHeld) TearDown();
  return true;
}

// Lets go of the file, in whatever state the object is: after this it is as good as new, except
// that it keeps its path, and what SetMaxSize gave it while nothing was open.
void ZrCompactFile::TearDown() {
  const std::lock_guard drained(m_readers);  // lookups under way end first
  if (!m_bLockHeld) {
    ProcessLockRelease();
    m_mapSwapData.clear();
  }
  const std::lock_guard state(m_stateMutex);
  if (m_bOpened) m_dMaxSize1 = m_dMaxSize2 = 0;
  m_file = nullptr;
  m_pIndex = nullptr;
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

void ZrCompactFile::SetMaxSize(double first, double second) {
  const std::lock_guard state(m_stateMutex);
  m_dMaxSize1 = first;
  m_dMaxSize2 = second;
}

}  // namespace Zarn
