#include "Cause.h"
#include "LookUp.h"

// What is answered without the locks of an operation: a reference to the open file is taken under
// the state mutex, and used without it.
namespace Zarn::Engine {

std::shared_ptr<OpenFile> Engine::GetFile() const {
  const Guard state(m_stateMutex);
  return m_state.file;
}

// For an object that has one.
unsigned int Engine::AskCacheFile(const std::function<unsigned int(ZrCacheFile&)>& ask) const {
  std::shared_ptr<ZrCacheFile> cache;  // another thread may let go of it
  {
    const Guard state(m_stateMutex);
    cache = m_pCacheFile;
  }
  return cache != nullptr ? ask(*cache) : Io::Fail(ZrCause::kNotOpen, +ZrResult::kNotOpen);
}

bool Engine::IsOpen() const {
  if (m_bHasCacheFile)
    return AskCacheFile([](ZrCacheFile& cache) { return cache.IsOpen() ? 1 : 0; }) == 1;
  return GetFile() != nullptr;
}

bool Engine::Flush() {
  struct Flushing {
    std::atomic<std::uint32_t>& count;
    ~Flushing() {
      --count;
      count.notify_all();
    }
  };
  ++m_flushes;
  const Flushing flushing{m_flushes};
  const auto file = GetFile();
  return file != nullptr ? file->GetStream()->Sync() : Io::Fail(ZrCause::kNotOpen);
}

PelmUnicodeString Engine::GetFullPath() const {
  if (m_bHasCacheFile) {
    PelmUnicodeString path;
    AskCacheFile([&](ZrCacheFile& cache) { return path = cache.GetFullPath(), 0; });
    return path;
  }
  const Guard state(m_stateMutex);
  return m_strPath;
}

bool Engine::IsVersionEnabled() const {
  const auto file = GetFile();
  return file != nullptr && file->HasVersions();
}

unsigned int Engine::GetIndexInfo(unsigned int& first, unsigned int& second) const {
  if (m_bHasCacheFile) {
    constexpr unsigned int kCacheFileKind = 3;
    ZrCacheFileStatus status;
    AskCacheFile([&](ZrCacheFile& cache) { return cache.GetStatus(status, 0); });
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

bool Engine::GetGridIdxValue(unsigned int row, unsigned int col, unsigned long long& value) {
  bool isRead = false;
  TileEntry entry;
  const auto read = [&](OpenFile& file, View& view, ZrByteArray*) {
    isRead = file.Cells() != nullptr && file.Cells()->Read(row, col, entry, &view);
    return true;
  };
  const auto tell = [&](OpenFile&, ZrByteArray*) {
    if (isRead) value = entry.stored;
  };
  constexpr bool kUsesBuffer = false;
  return LookUp(read, tell, kUsesBuffer) && isRead;
}

}  // namespace Zarn::Engine
