#pragma once

#include <map>
#include <memory>

#include "HxCompactFileExport.h"
#include "PelmUnicodeString.h"
#include "ZrCompactFileStub.h"
#include "ZrMutex.h"

namespace Zarn {

/// Hands out stubs by key: a few grid files that are in use, of many.
///
/// Use: LookUp, then SetPath on the stub if it is new, then Write and Read. There are never more
/// than four stubs; asking for a fifth key destroys the stub with the smallest key, compared by
/// unsigned code unit, not the one that was used least recently. Its file stays.
///
/// A pointer to a stub is good until some LookUp makes a new one, which may destroy it. A key that
/// comes again after that gets a stub without a path.
///
/// Threads. GetInstance and GetKey may be called from any thread, LookUp by one thread at a time.
/// The stubs themselves are for any number of threads, as long as no LookUp destroys them.
///
/// Processes. Each has its own manager.
///
/// Nothing is thrown. The manager and the stubs that it has then live until the process has ended.
class HX_COMPACTFILE_API ZrCompactFileManager {
 public:
  virtual ~ZrCompactFileManager();
  ZrCompactFileManager(const ZrCompactFileManager&) = delete;
  ZrCompactFileManager& operator=(const ZrCompactFileManager&) = delete;

  /// The one manager, made when it is first asked for; never null.
  static ZrCompactFileManager* GetInstance();

  /// The key of a tile set: the scale as printf's "%.15f" gives it in the "C" locale, then row and
  /// column as "%d", with "_" in between: 0.500000000000000_3_7. Empty if memory is short.
  static PelmUnicodeString GetKey(double scale, int row, int col);

  /// The stub of a key, compared with the letters A to Z folded; a new one has no path. Null if
  /// memory is short; then nothing has changed.
  ZrCompactFileStub* LookUp(PelmUnicodeString key);
  /// The same for GetKey(scale, row, col).
  ZrCompactFileStub* LookUp(double scale, int row, int col);

 private:
  ZrCompactFileManager();

  std::map<PelmUnicodeString, std::unique_ptr<ZrCompactFileStub>> m_mapStub;
  ZrMutex m_mutex{0};  ///< deliberately never locked: a lock could not keep a stub alive
};

}  // namespace Zarn
