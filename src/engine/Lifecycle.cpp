#include <new>
#include <utility>

#include "Cause.h"
#include "EmptyContainer.h"
#include "Engine.h"
#include "OpenPath.h"
#include "PathRules.h"
#include "PelmTime.h"
#include "StoreArguments.h"
#include "ZrFile.h"
#include "ZrNewFile.h"

namespace Zarn::Engine {

static_assert(ZrCompactFile::kMaxCapacity == Format::kMaxCapacity);

namespace {

/// Writes a whole new container and gives it its path. Without file.Commit() it goes away again
/// with this object.
struct NewContainer {
  /// With a grid's header, or a naming file's.
  template <typename IndexHeader>
  ZrNewFile::Outcome Make(const PelmUnicodeString& path, const Format::XorString& xorString,
                          const IndexHeader& header, bool replace) {
    const PelmUnicodeString folder = ZrFile::GetDir(path);
    if (!folder.IsEmpty()) ZrFile::MkDirEx(folder);
    // The file that it replaces may be kept from other users.
    constexpr unsigned int kOwnerOnly = 0600, kUsual = 0666;
    const unsigned int permissions = replace && ZrFile::IsExist(path) ? kOwnerOnly : kUsual;
    const double now = PelmTime().GetCurTime().GetTime();
    if (!file.Begin(path, permissions) || !WriteEmptyContainer(*stream, xorString, header, now))
      return ZrNewFile::Outcome::kFailed;
    return replace ? file.Replace() : file.Publish();
  }

  // Open for reading and writing once the file is made.
  const std::shared_ptr<ZrFile64> stream = std::make_shared<ZrFile64>();
  ZrNewFile file{*stream};
};

}  // namespace

Engine::~Engine() {
  const Guard lock(m_locks.GetMutex());
  if (m_pCacheFile != nullptr) m_pCacheFile->Close();
  TearDown();
}

unsigned int Engine::Create(const PelmUnicodeString& path, unsigned int rows, unsigned int cols,
                            const PelmUnicodeString& password, Mode mode) {
  const Guard lock(m_locks.GetMutex());
  if (m_locks.IsHeldByCompaction()) return Io::Fail(ZrCause::kInUse, ZrResult::kNotCreated);
  try {
    CloseForThread();
    // In 64 bits: a product that wraps below the limit would ask for more memory than there is.
    const std::uint64_t cells = std::uint64_t{rows} * cols;
    if (cells == 0 || cells > Format::kMaxGridCells)
      return Io::Fail(ZrCause::kOutOfRange, ZrResult::kNotCreated);
    return CreateContainer(Format::GridHeader{rows, cols, Format::kVersionsEnabled}, path, password,
                           mode);
  } catch (const std::bad_alloc&) {
    TearDown();
    return Io::Fail(ZrCause::kNoMemory, ZrResult::kNotCreated);
  }
}

unsigned int Engine::Create(const PelmUnicodeString& path, std::uint64_t capacity,
                            const PelmUnicodeString& password, Mode mode) {
  const Guard lock(m_locks.GetMutex());
  if (m_locks.IsHeldByCompaction()) return Io::Fail(ZrCause::kInUse, ZrResult::kNotCreated);
  try {
    CloseForThread();
    if (capacity == 0 || capacity > Format::kMaxNamingCapacity)
      return Io::Fail(ZrCause::kOutOfRange, ZrResult::kNotCreated);
    return CreateContainer(m_maxSizes.Get().MakeHeader(capacity, 0), path, password, mode);
  } catch (const std::bad_alloc&) {
    TearDown();
    return Io::Fail(ZrCause::kNoMemory, ZrResult::kNotCreated);
  }
}

// The object goes on with the stream that the file was created through, which may write even where
// the mode says read-only, until the first refresh.
template <typename IndexHeader>
unsigned int Engine::CreateContainer(const IndexHeader& header, const PelmUnicodeString& path,
                                     const PelmUnicodeString& password, Mode mode) {
  if (Format::IsCachePath(path)) return Io::Fail(ZrCause::kWrongKind, ZrResult::kNotCreated);
  if (!Format::IsUsablePath(path)) return Io::Fail(ZrCause::kBadPath, ZrResult::kNotCreated);
  Identity identity = {
      Format::CompletePath(path), {}, Format::MakeXorString(password.GetBuffer()), mode};
  identity.absolutePath = ZrFile::GetAbsolute(identity.path);
  NewContainer container;
  if (container.Make(identity.absolutePath, identity.xorString, header,
                     (mode & ZrCompactFile::kReplace) != 0) != ZrNewFile::Outcome::kPublished)
    return ZrResult::kNotCreated;
  TearDown();
  SetIdentity(std::move(identity));
  if (TakeIntoUse(container.stream) != ZrResult::kOk) return ZrResult::kNotCreated;
  container.file.Commit();
  return ZrResult::kOk;
}

unsigned int Engine::Open(const PelmUnicodeString& path, const PelmUnicodeString& password,
                          Mode mode) {
  const Guard lock(m_locks.GetMutex());
  if (m_locks.IsHeldByCompaction()) return Io::Fail(ZrCause::kInUse, ZrResult::kNotUsable);
  try {
    if (Format::IsCachePath(path)) return OpenCacheFile(path, password);
    if (m_pCacheFile == nullptr && IsOpenAt(path)) return Join();
    Close();
    return OpenContainer(path, password, mode);
  } catch (const std::bad_alloc&) {
    TearDown();
    return Io::Fail(ZrCause::kNoMemory, ZrResult::kNotUsable);
  }
}

unsigned int Engine::OpenContainer(const PelmUnicodeString& path, const PelmUnicodeString& password,
                                   Mode mode) {
  // The bit of the mapping takes nothing from "exactly kReadOnly".
  const bool mayCreate = (mode & ZrCompactFile::kMustExist) == 0 &&
                         (mode & ~ZrCompactFile::kMapped) != ZrCompactFile::kReadOnly;
  if (!Format::IsUsablePath(path))
    return Io::Fail(ZrCause::kBadPath, mayCreate ? ZrResult::kNotCreated : ZrResult::kNotFound);
  Identity identity = {
      Format::CompletePath(path), {}, Format::MakeXorString(password.GetBuffer()), mode};
  if (m_pCacheFile == nullptr && IsOpenAt(identity.path)) return Join();  // other threads use it
  identity.absolutePath = ZrFile::GetAbsolute(identity.path);
  if (identity.absolutePath.IsEmpty()) return Io::Fail(ZrCause::kBadPath, ZrResult::kNotFound);
  if (!ZrFile::IsExist(identity.absolutePath)) {
    if (!mayCreate) return ZrResult::kNotFound;
    if (!MakeMissing(identity)) return ZrResult::kNotCreated;
  }
  if (m_state.file != nullptr) {
    // Check that the new file opens before closing the one that other threads use.
    std::shared_ptr<OpenFile> probe;
    MaxSizes ignored;
    const unsigned int result =
        OpenFile::Load({identity.absolutePath, identity.xorString,
                        (mode & ZrCompactFile::kReadOnly) != 0, false, false, nullptr},
                       ignored, nullptr, probe);
    if (result != ZrResult::kOk) return result;
  }
  TearDown();
  SetIdentity(std::move(identity));
  return TakeIntoUse(nullptr);
}

// A naming file. True as well if somebody else makes it meanwhile: the file is there.
bool Engine::MakeMissing(const Identity& identity) {
  constexpr std::uint64_t kCapacity = 128;
  NewContainer container;
  if (container.Make(identity.absolutePath, identity.xorString,
                     m_maxSizes.Get().MakeHeader(kCapacity, 0),
                     false) == ZrNewFile::Outcome::kFailed)
    return false;
  container.file.Commit();
  return true;
}

unsigned int Engine::OpenCacheFile(const PelmUnicodeString& path,
                                   const PelmUnicodeString& password) {
  if (m_pCacheFile == nullptr) {
    std::shared_ptr<ZrCacheFile> made = ZrCacheFile::Make();
    const Guard state(m_stateMutex);
    m_pCacheFile = std::move(made);
    m_bHasCacheFile = m_pCacheFile != nullptr;
  }
  return m_pCacheFile->Open(path, password, ZrFile64::kRead);
}

void Engine::DetachCacheFile() {
  std::shared_ptr<ZrCacheFile> detached;  // destroyed without the mutex
  const Guard state(m_stateMutex);
  detached.swap(m_pCacheFile);
  m_bHasCacheFile = false;
}

unsigned int Engine::Join() {
  if (m_buffers.GetSwapData(m_state.file->GetShape().swap) != nullptr) return ZrResult::kOk;
  Close();
  return ZrResult::kNotUsable;
}

// A file whose index could not be refreshed, perhaps for a password that has changed, is opened
// anew rather than joined.
bool Engine::IsOpenAt(const PelmUnicodeString& path) const {
  return m_state.IsUsable() && Io::IsPathOf(path, m_strPath, *m_state.file->GetStream());
}

void Engine::SetIdentity(Identity identity) {
  m_xorString = identity.xorString;
  m_nOpenMode = identity.mode;
  static std::atomic<std::uint64_t> s_paths{0};
  m_pathNumber = ++s_paths;
  const Guard state(m_stateMutex);
  m_strPath = std::move(identity.path);
  m_strAbsolutePath = std::move(identity.absolutePath);
}

// Without the mode's bit the lock is never touched: it would cost system calls and do nothing.
bool Engine::ProcessLockInit() {
  ProcessLock& lock = m_locks.GetProcessLock();
  lock.SetDisabled((m_nOpenMode & ZrCompactFile::kProcessLock) == 0);
  if (lock.IsDisabled()) return true;
  constexpr unsigned int kLastUsable = 1;
  if (lock.ProcessLockInit(m_strAbsolutePath) <= kLastUsable) return true;
  lock.ProcessLockRelease();
  return false;
}

// Locks and loads the file that the members name; `created`: the stream that it was just created
// through. An older cache file is let go before the container is loaded, even if that fails.
unsigned int Engine::TakeIntoUse(std::shared_ptr<ZrFile64> created) {
  ProcessLock& lock = m_locks.GetProcessLock();
  const bool isHeld = m_locks.IsHeldByCompaction();
  unsigned int result = ZrResult::kNotUsable;
  if (isHeld || (ProcessLockInit() && lock.WriterLock(0))) {
    DetachCacheFile();
    result = RefreshIndex(std::move(created));
    if (!isHeld) lock.WriterUnlock();
  } else if (!ZrFile64().Open(m_strAbsolutePath, ZrFile64::kRead)) {
    // What cannot be opened cannot be locked.
    result = Io::FailUnlessBySystem(ZrCause::kWrongKind, ZrResult::kNotOpen);
  }
  if (result == ZrResult::kOk && m_buffers.GetSwapData(m_state.file->GetShape().swap) == nullptr)
    result = ZrResult::kNotUsable;
  if (result != ZrResult::kOk) TearDown();
  return result;
}

void Engine::Refresh() {
  const Guard lock(m_locks.GetMutex());
  if (m_state.file != nullptr) RefreshIndex(nullptr);
}

// Takes notice of what others have changed in the open file; loads the file that the members name,
// or the one that has taken its place, if it is another one. What was there before stays until
// everything is loaded. If that fails, the index is not current, and every operation tries again
// before it does anything.
unsigned int Engine::RefreshIndex(std::shared_ptr<ZrFile64> created) {
  if (RefreshFile()) return ZrResult::kOk;
  m_locks.GetLookups().Stop();
  std::shared_ptr<OpenFile> loaded;
  unsigned int result = ZrResult::kNotUsable;
  try {
    result = LoadFile(created, loaded);
  } catch (const std::bad_alloc&) {
    Io::Fail(ZrCause::kNoMemory);
  }
  m_state.isCurrent = false;
  if (result == ZrResult::kOk) Publish(std::move(loaded));
  return result;
}

// False if the file must be loaded.
bool Engine::RefreshFile() {
  ProcessLock& lock = m_locks.GetProcessLock();
  OpenFile* const file = m_state.file.get();
  const bool mustReopen = (m_nOpenMode & ZrCompactFile::kReadOnly) != 0 && file != nullptr &&
                          !file->GetStream()->IsReadOnly();
  if (!m_state.IsUsable() || !lock.isLocked() || file->GetLockedFile() != lock.GetLockedFile())
    return false;
  const auto change = file->Refresh(lock.GetLockedLength());
  if (change == OpenFile::Change::kAll || (mustReopen && change != OpenFile::Change::kNone))
    return false;
  if (change == OpenFile::Change::kNames) {
    m_locks.GetLookups().Stop();
    if (!file->Names()->AddNewNames()) return false;
    AdmitLookups();
  }
  lock.Settle(*file);
  return true;
}

void Engine::AdmitLookups() {
  OpenFile* const file = m_state.IsUsable() ? m_state.file.get() : nullptr;
  const bool isPossible =
      file != nullptr && file->HasIndex() && file->GetBoard().GetPlace() != Io::Board::kNowhere;
  m_locks.GetLookups().Admit(isPossible ? file : nullptr);
}

unsigned int Engine::LoadFile(const std::shared_ptr<ZrFile64>& created,
                              std::shared_ptr<OpenFile>& loaded) {
  ProcessLock& lock = m_locks.GetProcessLock();
  const bool isReadOnly = (m_nOpenMode & ZrCompactFile::kReadOnly) != 0 && created == nullptr;
  const bool isMapped = (m_nOpenMode & ZrCompactFile::kMapped) != 0;
  OpenFile* const previous = m_state.file.get();
  const bool isNewFile = previous == nullptr || previous->GetLockedFile() != lock.GetLockedFile();
  const bool isWriter = !isReadOnly && !lock.IsLockReadOnly();
  const bool isEntering = lock.isLocked() && isNewFile;
  if (isEntering &&
      !lock.EnterFile(isWriter   ? isMapped ? Presence::kMapsAndWrites : Presence::kWrites
                      : isMapped ? Presence::kMapsFile
                                 : Presence::kOpen))
    return ZrResult::kNotUsable;
  std::shared_ptr<ZrFile64> stream = created;
  if (stream == nullptr && previous != nullptr &&
      (!isReadOnly || previous->GetStream()->IsReadOnly()))
    stream = previous->GetStream();
  // The lock is always on the file that the path leads to.
  if (!lock.isLocked() || stream == nullptr || !lock.IsLockOn(*stream)) stream = nullptr;
  const unsigned int result =
      OpenFile::Load({m_strAbsolutePath, m_xorString, isReadOnly, isMapped, !lock.IsDisabled(),
                      stream != nullptr ? stream : created},
                     m_maxSizes, previous, loaded);
  if (result != ZrResult::kOk) return result;
  if (isEntering && isWriter && loaded->HasEnd() && !lock.IsAnotherPresent(Presence::kWrites) &&
      !loaded->ForgetEnd())
    return ZrResult::kNotUsable;
  // Since the lock was taken, the path may have come to lead to another file, which this lock does
  // not protect; finishing a replacement does that, too.
  const bool isChecked = stream != nullptr && loaded->GetStream() == stream;
  if (lock.isLocked() && !isChecked && !lock.IsLockOn(*loaded->GetStream()))
    return Io::Fail(ZrCause::kMoved, ZrResult::kNotUsable);
  loaded->SetLockedFile(lock.isLocked() ? lock.GetLockedFile() : 0);
  return ZrResult::kOk;
}

// Without lookups.
void Engine::Publish(std::shared_ptr<OpenFile> file) {
  if (m_state.file == nullptr || m_state.file->GetShape().swap != file->GetShape().swap)
    m_buffers.Invalidate();
  {
    const Guard state(m_stateMutex);
    m_state.file.swap(file);
  }
  m_state.isCurrent = true;
  if (m_locks.GetProcessLock().isLocked()) m_locks.GetProcessLock().Settle(*m_state.file);
  AdmitLookups();
}

unsigned int Engine::SetPassword(const PelmUnicodeString& password) {
  constexpr unsigned int kDone = 1;
  constexpr unsigned int kFailed = 0;
  if (m_bHasCacheFile)
    return AskCacheFile([&](ZrCacheFile& cache) { return cache.SetPassword(password); });
  const WriteOperation operation(m_locks, m_state);
  if (!MayStore(operation)) return kFailed;
  m_locks.AssertMutexHeld();
  const Format::XorString xorString = Format::MakeXorString(password.GetBuffer());
  m_locks.GetLookups().Stop();
  const bool isDone = File().GetBoard().Replaces() &&
                      File().GetHeader().SetPassword(*File().GetStream(), xorString);
  if (isDone) m_xorString = xorString;
  AdmitLookups();
  return isDone ? kDone : kFailed;
}

bool Engine::Close() {
  const Guard lock(m_locks.GetMutex());
  if (m_pCacheFile != nullptr) return m_pCacheFile->Close();
  if (!m_locks.IsHeldByCompaction()) CloseForThread();
  return true;
}

// Operations hold the mutex, lookups are waited for by TearDown, and Flush uses the file without
// either.
bool Engine::CloseAll() {
  {
    const Guard lock(m_locks.GetMutex());
    if (m_locks.IsHeldByCompaction()) return Io::Fail(ZrCause::kInUse);
    if (m_pCacheFile != nullptr) return m_pCacheFile->Close();
    TearDown();
  }
  while (const std::uint32_t flushes = m_flushes)
    m_flushes.wait(flushes);
  return true;
}

// The calling thread no longer uses the file; the last user closes it.
void Engine::CloseForThread() {
  if (m_pCacheFile != nullptr) {
    m_pCacheFile->Close();
    return;
  }
  if (m_state.file == nullptr) return;
  m_buffers.DropOwn();
  if (!m_buffers.HasUsers()) TearDown();
}

// Lets go of the file, in whatever state the object is: after this it is as good as new, except
// that it keeps its path, and what SetMaxSize gave it while nothing was open.
void Engine::TearDown() {
  const Io::KeptNote kept;
  m_locks.GetLookups().Stop();
  if (m_state.file != nullptr) m_maxSizes.Set({});
  m_buffers.Invalidate();
  if (!m_locks.IsHeldByCompaction()) {
    if (m_state.file != nullptr) LeaveFile();
    m_locks.GetProcessLock().ProcessLockRelease();
    m_buffers.DropAll();
  }
  m_mapTextCodec.clear();
  m_state.isCurrent = false;
  std::shared_ptr<OpenFile> file;  // closed only when the accessors can go on
  const Guard state(m_stateMutex);
  file.swap(m_state.file);
}

// The last writer to leave cuts off what is spare, unless somebody maps the file; the last one of
// all makes the words as the format has them.
void Engine::LeaveFile() {
  ProcessLock& lock = m_locks.GetProcessLock();
  OpenFile& file = *m_state.file;
  const bool hasSpare = file.HasSpare();
  if (lock.IsDisabled()) {
    if (hasSpare) file.CutSpare();
    return;
  }
  const bool isLocked = hasSpare && lock.WriterLock(0);
  if (file.GetLockedFile() == lock.GetLockedFile()) {
    const bool isLastWriter =
        isLocked && lock.IsExclusive() && !lock.IsAnotherPresent(Presence::kWrites);
    const bool isLast = lock.LeaveFile();
    if (isLastWriter || isLast) file.CutSpare();
    if (isLast) file.GetBoard().Clear(m_strAbsolutePath);
  }
  if (isLocked) lock.WriterUnlock();
}

}  // namespace Zarn::Engine
