#include <vector>

#include "FileState.h"
#include "IndexHeaders.h"
#include "IndexValue.h"
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
class NewContainer {
 public:
  NewContainer(const PelmUnicodeString& path, const PelmUnicodeString& password, bool replace)
      : m_path(Format::CompletePath(path)), m_password(password), m_replace(replace) {}

  ZrNewFile::Outcome MakeGrid(const Format::GridHeader& header) {
    return Make(Format::kGridFile, Format::EncodeGridHeader(header, false),
                Format::GridDataStart(Format::kHeaderSize, header.rowCount, header.colCount));
  }
  ZrNewFile::Outcome MakeNaming(const Format::NamingHeader& header) {
    return Make(Format::kNamingFile, Format::EncodeNamingHeader(header, false),
                Format::NamingSlotOffset(Format::kHeaderSize, header.capacity));
  }
  /// Without this the file goes away again with this object.
  void Commit() { m_file.Commit(); }

 private:
  template <typename IndexHeaderImage>
  ZrNewFile::Outcome Make(std::uint32_t fileKind, const IndexHeaderImage& indexHeader,
                          std::uint64_t fileLength) {
    const PelmUnicodeString folder = ZrFile::GetDir(m_path);
    if (!folder.IsEmpty()) ZrFile::MkDirEx(folder);
    const Format::HeaderImage header =
        Format::NewHeader(fileKind, PelmTime().GetCurTime().GetTime());
    const Format::XorString xorString = Format::MakeXorString(m_password.GetBuffer());
    if (!m_file.Begin(m_path) || !Io::WriteFileHeader(m_stream, xorString, header, false) ||
        !m_stream.WriteAt(Format::kHeaderSize, indexHeader.data(), indexHeader.size()) ||
        !m_stream.SetLength(fileLength))
      return ZrNewFile::Outcome::kFailed;
    return m_replace ? m_file.Replace() : m_file.Publish();
  }

  const PelmUnicodeString m_path;
  const PelmUnicodeString& m_password;
  const bool m_replace;
  ZrFile64 m_stream;
  ZrNewFile m_file{m_stream};
};

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
  NewContainer container(path, password, (mode & kReplace) != 0);
  if (container.MakeGrid({rows, cols, Format::kVersionsEnabled}) !=
          ZrNewFile::Outcome::kPublished ||
      !TakeNewFile(path, password, mode))
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
  if (container.MakeNaming({capacity, 0, m_dMaxSize1, m_dMaxSize2, Format::kVersionsEnabled}) !=
          ZrNewFile::Outcome::kPublished ||
      !TakeNewFile(path, password, mode))
    return ZrResult::kNotCreated;
  container.Commit();
  return ZrResult::kOk;
}

// Opens what was just created.
bool ZrCompactFile::TakeNewFile(const PelmUnicodeString& path, const PelmUnicodeString& password,
                                ZrOpenMode mode) {
  TearDown();
  SetIdentity(Format::CompletePath(path), password, mode);
  return TakeIntoUse() == ZrResult::kOk;
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
    NewContainer container(completed, password, false);
    // Whoever made it meanwhile: the file is there.
    if (container.MakeNaming({kMissingFileCapacity, 0, m_dMaxSize1, m_dMaxSize2,
                              Format::kVersionsEnabled}) == ZrNewFile::Outcome::kFailed)
      return ZrResult::kNotCreated;
    container.Commit();
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
  } else if (!ZrFile64().Open(m_strAbsolutePath, ZrFile64::kRead)) {
    result = ZrResult::kNotOpen;  // what cannot be opened cannot be locked
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
