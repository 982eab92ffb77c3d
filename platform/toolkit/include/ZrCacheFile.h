#pragma once

#include <cstdint>
#include <memory>

#include "HxPlatformExport.h"
#include "PelmArray.h"
#include "PelmUnicodeString.h"
#include "ZrByteArray.h"

namespace Zarn {

/// The first two fields of an older cache file's status.
struct ZrCacheFileStatus {
  std::uint32_t first = 0;   ///< one of them
  std::uint32_t second = 0;  ///< the other
};

/// An older cache file (extension ".sc"). This library does not read its format: a host that has such files
/// derives a class and registers a function that makes its objects. The operations of this class
/// itself touch no file and answer failure: 1, but for Close (true: nothing is open) and
/// SetPassword.
///
/// Results are codes with 0 for success, unless they are bool.
class HX_PLATFORM_API ZrCacheFile {
 public:
  /// Makes an object of the host's class; null if it cannot.
  using Factory = std::unique_ptr<ZrCacheFile> (*)();

  ZrCacheFile() = default;
  virtual ~ZrCacheFile() = default;
  ZrCacheFile(const ZrCacheFile&) = delete;
  ZrCacheFile& operator=(const ZrCacheFile&) = delete;

  /// Sets the function that Make calls; null takes it back. Safe from any thread.
  static void Register(Factory factory);
  /// A new object of the registered kind; of this class if none is registered or none was made.
  static std::unique_ptr<ZrCacheFile> Make();

  /// `direction`: 2 read, 3 read and write.
  virtual std::uint32_t Open(const PelmUnicodeString& path, const PelmUnicodeString& password,
                             unsigned int direction);
  /// False if the file could not be closed.
  virtual bool Close();
  /// Whether a file is open.
  virtual bool IsOpen() const;
  /// The path of the open file.
  virtual PelmUnicodeString GetFullPath() const;
  /// `flag` is always 0.
  virtual std::uint32_t GetStatus(ZrCacheFileStatus& status, std::uint32_t flag);
  /// 1 for success, 0 for failure.
  virtual std::uint32_t SetPassword(const PelmUnicodeString& password);
  /// Rebuilds the file without its dead space.
  virtual std::uint32_t Reconstruction();
  /// Appends the names of all tiles.
  virtual std::uint32_t ListFiles(PelmArray<PelmUnicodeString>& names);
  /// Stores a tile under a name.
  virtual std::uint32_t AddFile(const ZrByteArray& data, const PelmUnicodeString& name);
  /// Stores the contents of the file at `filePath`.
  virtual std::uint32_t AddFile(const PelmUnicodeString& filePath, const PelmUnicodeString& name);
  /// Reads a tile into `data`.
  virtual std::uint32_t ReadFile(const PelmUnicodeString& name, ZrByteArray& data);
  /// Removes a tile. `fileType` and `flag` are always 0.
  virtual std::uint32_t RemoveFile(const PelmUnicodeString& name, std::uint32_t fileType,
                                   std::uint32_t flag);
};

}  // namespace Zarn
