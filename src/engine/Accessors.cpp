#include <new>

#include "Engine.h"

// What is answered without the locks of an operation: a reference to the open file is taken under
// the state mutex, and used without it.
namespace Zarn::Engine {

std::shared_ptr<OpenFile> Engine::GetFile() const {
  const Guard state(m_stateMutex);
  return m_file;
}

std::shared_ptr<ZrCacheFile> Engine::GetCacheFile() const {
  if (!m_bHasCacheFile) return nullptr;
  const Guard state(m_stateMutex);
  return m_pCacheFile;
}

bool Engine::IsOpen() const {
  if (const auto cache = GetCacheFile()) return cache->IsOpen();
  return GetFile() != nullptr;
}

bool Engine::Flush() {
  const auto file = GetFile();
  return file != nullptr && file->GetStream()->Sync();
}

PelmUnicodeString Engine::GetFullPath() const {
  if (const auto cache = GetCacheFile()) return cache->GetFullPath();
  const Guard state(m_stateMutex);
  return m_strPath;
}

bool Engine::IsVersionEnabled() const {
  const auto file = GetFile();
  return file != nullptr && file->HasVersions();
}

unsigned int Engine::GetIndexInfo(unsigned int& first, unsigned int& second) const {
  if (const auto cache = GetCacheFile()) {
    constexpr unsigned int kCacheFileKind = 3;
    ZrCacheFileStatus status;
    cache->GetStatus(status, 0);
    first = status.first;
    second = status.second;
    return kCacheFileKind;
  }
  const auto file = GetFile();
  if (file == nullptr) {
    first = second = 0;
    return Format::kGridFile;
  }
  if (const CellIndex* cells = file->Cells()) {
    first = cells->GetRowCount();
    second = cells->GetColCount();
  } else if (const NameIndex* names = file->Names()) {
    first = static_cast<unsigned int>(names->GetCapacity());
    second = static_cast<unsigned int>(names->GetCount());
  }
  return file->GetKind();
}

// With the process lock, another process may have compacted the file, or be doing so, or another
// file has the path, or none. Then the answer is that of the new file, under the lock of a lookup.
bool Engine::GetGridIdxValue(unsigned int row, unsigned int col, unsigned long long& value) {
  std::shared_ptr<OpenFile> file;
  bool isThere = false;
  try {
    PelmUnicodeString path;
    {
      const Guard state(m_stateMutex);
      if (m_locks.IsCurrent()) file = m_file;
      if (!m_locks.GetProcessLock().IsDisabled()) path = m_strAbsolutePath;
    }
    if (file == nullptr || file->Cells() == nullptr || !file->Cells()->Contains(row, col))
      return false;
    isThere = path.IsEmpty() || file->GetStream()->IsSameFile(path);
  } catch (const std::bad_alloc&) {
    // The lock knows whether it is.
  }
  std::uint64_t stored;
  if (isThere && file->Cells()->ReadUnlocked(row, col, file->GetHeader().GetBytes(), stored)) {
    value = stored;
    return true;
  }
  if (m_locks.GetProcessLock().IsDisabled()) return false;
  const ReadOperation operation(m_locks, m_buffers);
  TileEntry entry;
  if (!operation.IsUsable() || File().Cells() == nullptr ||
      !File().Cells()->ReadForLookup(row, col, File().Map(), entry))
    return false;
  value = entry.stored;
  return true;
}

}  // namespace Zarn::Engine
