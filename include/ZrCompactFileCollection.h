#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <utility>

#include "HxCompactFileExport.h"
#include "PelmUnicodeString.h"
#include "ZrCompactFile.h"
#include "ZrMutex.h"
#include "ZrSingleton.h"

namespace Zarn {

/// A shared ZrCompactFile and the number of its users. It takes no lock; ZrCompactFileCollection
/// calls it under its own.
class HX_COMPACTFILE_API ZrCompactFileRef {
 public:
  /// Takes over `file`, which was made by new, or is null; without users at first.
  explicit ZrCompactFileRef(ZrCompactFile* file) noexcept : m_pCompactFile(file) {}
  /// Destroys the file object, which closes the file.
  ~ZrCompactFileRef() = default;
  ZrCompactFileRef(const ZrCompactFileRef&) = delete;
  ZrCompactFileRef& operator=(const ZrCompactFileRef&) = delete;

  /// One user more. Returns how many there are now.
  int AddRef() { return ++m_nRefCount; }
  /// One user fewer. Returns how many there are now.
  int DecRef() { return --m_nRefCount; }
  /// The shared object, which stays this one's.
  ZrCompactFile* GetCompactFile() const { return m_pCompactFile.get(); }

 private:
  std::unique_ptr<ZrCompactFile> m_pCompactFile;
  std::int32_t m_nRefCount = 0;
};

class ZrCompactFileCollection;
/// The registered instance. Read and changed atomically.
template <>
ZrCompactFileCollection* ZrSingleton<ZrCompactFileCollection>::m_pSingleton;

/// The process's register of shared files: one ZrCompactFile per path, for all its users.
///
/// Use: GetCompactFile, then Open on the object that it gives; when done, Close and DelCompactFile
/// with the same path. The last DelCompactFile destroys the object and so closes the file, whatever
/// threads had it open; none may be inside a call.
///
/// A path is the string exactly as given: "t" and "t.cf", or "t" and "T", are different entries,
/// and so different objects, even where they lead to one file. Such objects share a file only if
/// both open it with ZrCompactFile::kProcessLock.
///
/// Threads. All operations may be called from any thread. Each holds the collection's lock for its
/// whole run, the creation or the closing of a file included.
///
/// Processes. Each has its own collection. A child of fork() must not touch one in which its parent
/// had a file open.
///
/// Nothing is thrown. The instance lives until the process has ended; files that are still
/// registered then are closed by the kernel, with everything stored that was acknowledged.
class HX_COMPACTFILE_API ZrCompactFileCollection : public ZrSingleton<ZrCompactFileCollection> {
 public:
  /// Becomes the instance if there is none.
  ZrCompactFileCollection();
  /// Destroys all its file objects, in the order of their paths. If it is the instance, there is
  /// none afterwards, and the next request makes one.
  ~ZrCompactFileCollection();
  ZrCompactFileCollection(const ZrCompactFileCollection&) = delete;
  ZrCompactFileCollection& operator=(const ZrCompactFileCollection&) = delete;

  /// The instance, made when it is first asked for.
  static ZrCompactFileCollection& GetSingleton() { return *GetSingletonPtr(); }
  /// The same as a pointer, never null.
  static ZrCompactFileCollection* GetSingletonPtr();

  /// The object of this path, with one user more. A new one is not opened. Null if memory is short;
  /// then nothing has changed.
  ZrCompactFile* GetCompactFile(const PelmUnicodeString& path);

  /// The same; a new object creates a grid file at once, without a password, in mode
  /// ZrCompactFile::kCreateMissing. The object is registered and returned even if that fails:
  /// IsOpen tells whether it succeeded. An object that is registered already is returned as it is,
  /// whatever `rows` and `cols` say.
  ZrCompactFile* GetCompactFile(const PelmUnicodeString& path, unsigned int rows,
                                unsigned int cols);

  /// Gives one use back; the last one destroys the object. Does nothing for a path that is not
  /// registered.
  void DelCompactFile(const PelmUnicodeString& path);

 private:
  static ZrCompactFileCollection* Register(ZrCompactFileCollection* candidate);
  std::pair<ZrCompactFile*, bool> Share(const PelmUnicodeString& path);

  /// Guarded by m_mutex, as are the counts.
  std::map<PelmUnicodeString, std::unique_ptr<ZrCompactFileRef>> m_mapCompactFile;
  ZrMutex m_mutex{1};
};

}  // namespace Zarn
