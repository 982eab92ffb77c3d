#include "ZrCompactFileStub.h"

#include <mutex>
#include <new>
#include <utility>

#include "Cause.h"
#include "OpenPath.h"
#include "PathRules.h"
#include "ZrFile.h"
#include "ZrProcess.h"
#include "ZrThread.h"

namespace Zarn {

// The process lock on one file.
struct Access::FileLock : ZrProcess {
  // If there is no such file, the lock cannot be taken.
  explicit FileLock(const PelmUnicodeString& file) : m_strFile(file) { ProcessLockInit(file); }

  using ZrProcess::IsLockOn;

  const PelmUnicodeString m_strFile;
};

namespace {

constexpr unsigned int kGridSide = 128;
// Each store of the writer has the process lock.
constexpr ZrCompactFile::ZrOpenMode kWriterMode =
    ZrCompactFile::kCreateMissing | ZrCompactFile::kProcessLock;

// The absolute path of the file that `path` means now; empty for an unusable path, or if the
// working directory has no usable path.
PelmUnicodeString FileOf(const PelmUnicodeString& path) {
  if (!Format::IsUsablePath(path)) return {};
  return ZrFile::GetAbsolute(Format::CompletePath(path));
}

struct Unlocking {
  ZrProcess& lock;
  ~Unlocking() { lock.WriterUnlock(); }
};

}  // namespace

ZrCompactFileStub::ZrCompactFileStub()
    : m_pLock(std::make_unique<Access::FileLock>(m_strFile)),
      m_pWriter(std::make_unique<ZrCompactFileWriter>()) {}

ZrCompactFileStub::~ZrCompactFileStub() {
  const std::lock_guard lock(m_mutex);  // a call under way ends first
}

void ZrCompactFileStub::SetPath(PelmUnicodeString path) {
  const std::lock_guard lock(m_mutex);
  const Io::PublicCall call("create", m_strPath);  // whether it succeeds shows later
  m_strPath = std::move(path);
  try {
    PelmUnicodeString file = FileOf(m_strPath);
    if (Io::IsPathOf(file, m_strFile, *m_pWriter)) return;
    m_strFile = std::move(file);
    CreateFile();
  } catch (const std::bad_alloc&) {
    m_strFile = {};  // rather than another file than asked for
  }
}

// Leaves an existing file alone; then the writer is closed.
void ZrCompactFileStub::CreateFile() {
  m_pWriter->Create(m_strFile, kGridSide, kGridSide, u"", kWriterMode);
}

bool ZrCompactFileStub::Write(unsigned int row, unsigned int col, const ZrByteArray& data,
                              unsigned long long capacity, unsigned long long offset,
                              unsigned long long version) {
  const std::lock_guard lock(m_mutex);
  const Io::PublicCall call("store into", m_strFile);
  try {
    if (!LockFile()) return call.Answer(false, ZrResult::kNotUsable);
    const Unlocking unlocking{*m_pLock};
    return call.Answer(RefreshWriter(), ZrResult::kNotUsable) &&
           call.Answer(m_pWriter->SetAt(row, col, data, capacity, offset, version)) ==
               ZrResult::kOk;
  } catch (const std::bad_alloc&) {
    return call.Answer(Io::Fail(ZrCause::kNoMemory), ZrResult::kWriteFailure);
  }
}

// Keeps other processes and other stubs out while this one writes: two writers would append at the
// same position, and one tile would be lost.
bool ZrCompactFileStub::LockFile() {
  if (m_strFile.IsEmpty()) return Io::Fail(ZrCause::kBadPath);
  if (m_pLock->m_strFile == m_strFile && m_pLock->WriterLock(0)) return true;
  CreateFile();  // leaves an existing file alone
  const ZrFailureNote creation = GetFailureNote();
  m_pLock = std::make_unique<Access::FileLock>(m_strFile);
  if (!m_pLock->WriterLock(0)) {
    if (creation.systemError != 0) GetFailureNote() = creation;  // then there is no file to lock
    return false;
  }
  ForgetReaders();
  return true;
}

// Opens the writer on the locked file, unless it is open there.
bool ZrCompactFileStub::RefreshWriter() {
  if (m_pWriter->IsOpen() && m_pLock->IsLockOn(*m_pWriter)) return true;
  m_pWriter->Close();
  const bool opened = m_pWriter->Open(m_strFile, u"", kWriterMode) == ZrResult::kOk &&
                      m_pLock->IsLockOn(*m_pWriter);
  if (opened) ForgetReaders();
  return opened;
}

// Those that are open on another file than the locked one.
void ZrCompactFileStub::ForgetReaders() {
  for (auto& [thread, reader] : m_mapReader)
    if (reader.IsOpen() && !m_pLock->IsLockOn(reader)) reader.m_strOpenedFor = {};
}

bool ZrCompactFileStub::Read(unsigned int row, unsigned int col, ZrByteArray& data,
                             unsigned long long& filledLength, unsigned long long version) {
  const std::lock_guard lock(m_mutex);
  const Io::PublicCall call("read from", m_strFile);
  try {
    return call.Answer(GetReader().Lookup(row, col, data, filledLength, version)) == ZrResult::kOk;
  } catch (const std::bad_alloc&) {
    return call.Answer(Io::Fail(ZrCause::kNoMemory), ZrResult::kReadFailure);
  }
}

// The calling thread's reader. Thread numbers are used again, so the map never holds more readers
// than threads were alive at once.
ZrCompactFileStub::Reader& ZrCompactFileStub::GetReader() {
  Reader& reader = m_mapReader[static_cast<std::int32_t>(ZrThread::GetCurrentThreadId())];
  if (reader.m_strOpenedFor != m_strFile) {
    reader.Close();
    PelmUnicodeString file = m_strFile;
    reader.Open(file, u"", ZrCompactFile::kReadOnly);
    reader.m_strOpenedFor = std::move(file);  // also if that failed: it is not tried again
  }
  return reader;
}

}  // namespace Zarn
