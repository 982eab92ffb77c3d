#include "ZrCompactFileCollection.h"

#include <atomic>
#include <cstddef>
#include <mutex>
#include <new>

#include "Cause.h"

namespace Zarn {

template <>
ZrCompactFileCollection* ZrSingleton<ZrCompactFileCollection>::m_pSingleton = nullptr;

ZrCompactFileCollection::ZrCompactFileCollection() { Register(this); }

ZrCompactFileCollection::~ZrCompactFileCollection() {
  ZrCompactFileCollection* self = this;
  std::atomic_ref(m_pSingleton).compare_exchange_strong(self, nullptr);
  const std::lock_guard lock(m_mutex);
  for (auto& [path, ref] : m_mapCompactFile)
    ref = nullptr;
}

// Makes `candidate` the instance if there is none; returns the instance.
ZrCompactFileCollection* ZrCompactFileCollection::Register(ZrCompactFileCollection* candidate) {
  ZrCompactFileCollection* instance = nullptr;
  const bool isFirst = std::atomic_ref(m_pSingleton).compare_exchange_strong(instance, candidate);
  return isFirst ? candidate : instance;
}

ZrCompactFileCollection* ZrCompactFileCollection::GetSingletonPtr() {
  if (ZrCompactFileCollection* instance = std::atomic_ref(m_pSingleton).load()) return instance;
  // Never destroyed: at exit other threads may use it, and closing could wait for other processes.
  // In static storage, so it cannot fail for lack of memory.
  alignas(ZrCompactFileCollection) static std::byte storage[sizeof(ZrCompactFileCollection)];
  static ZrCompactFileCollection* const own = new (storage) ZrCompactFileCollection;
  return Register(own);
}

ZrCompactFile* ZrCompactFileCollection::GetCompactFile(const PelmUnicodeString& path) {
  const std::lock_guard lock(m_mutex);
  return Share(path).first;
}

ZrCompactFile* ZrCompactFileCollection::GetCompactFile(const PelmUnicodeString& path,
                                                       unsigned int rows, unsigned int cols) {
  const std::lock_guard lock(m_mutex);
  const auto [file, isNew] = Share(path);
  if (isNew) file->Create(path, rows, cols, u"", ZrCompactFile::kCreateMissing);
  return file;  // deliberately also when nothing was created
}

// Adds a user to the object of this path; returns it, and whether it is new. Null if memory is
// short.
std::pair<ZrCompactFile*, bool> ZrCompactFileCollection::Share(const PelmUnicodeString& path) {
  const Io::PublicCall call("share", path);
  const auto found = m_mapCompactFile.find(path);
  if (found != m_mapCompactFile.end()) {
    found->second->AddRef();
    return {found->second->GetCompactFile(), false};
  }
  try {
    auto file = std::make_unique<ZrCompactFile>();
    auto ref = std::make_unique<ZrCompactFileRef>(file.get());
    ZrCompactFile* const shared = file.release();
    ref->AddRef();
    m_mapCompactFile.emplace(path, std::move(ref));
    return {shared, true};
  } catch (const std::bad_alloc&) {
    call.Answer(Io::Fail(ZrCause::kNoMemory), ZrResult::kNotUsable);
    return {nullptr, false};
  }
}

void ZrCompactFileCollection::DelCompactFile(const PelmUnicodeString& path) {
  const std::lock_guard lock(m_mutex);
  const auto found = m_mapCompactFile.find(path);
  if (found != m_mapCompactFile.end() && found->second->DecRef() < 1) m_mapCompactFile.erase(found);
}

}  // namespace Zarn
