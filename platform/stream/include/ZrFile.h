#pragma once

#include <string>

#include "HxPlatformExport.h"
#include "PelmUnicodeString.h"

namespace Zarn {

/// Paths and what lies at them. Only '/' separates components. A path reaches the kernel as UTF-8;
/// an empty one, or one with a NUL inside, names nothing.
class HX_PLATFORM_API ZrFile {
 public:
  /// From the last dot of the last component on, dot included; empty if it has no dot.
  static PelmUnicodeString GetExt(const PelmUnicodeString& path);
  /// Everything up to and including the last '/'; empty for a bare name.
  static PelmUnicodeString GetDir(const PelmUnicodeString& path);
  /// The last component.
  static PelmUnicodeString GetName(const PelmUnicodeString& path);

  /// The path from the root on. A relative one is taken from the working directory; empty if that
  /// is deleted, or its name is not UTF-8.
  static PelmUnicodeString GetAbsolute(const PelmUnicodeString& path);

  /// The file that a symbolic link leads to; any other path, and one that leads nowhere, as it is.
  /// Empty if the path of that file is not UTF-8.
  static PelmUnicodeString FollowLink(const PelmUnicodeString& path);

  /// Whether a file is reached through the mount that its folder is in. A single file may be
  /// mounted by itself: what lies beside it here does not lie beside it elsewhere. Where the system
  /// does not tell mounts apart, the devices are compared.
  static bool IsOnMountOfFolder(const PelmUnicodeString& path);

  /// Whether anything is at the path; a link counts for what it leads to.
  static bool IsExist(const PelmUnicodeString& path);
  /// Makes a directory and its missing parents; what exists already is fine.
  static bool MkDirEx(const PelmUnicodeString& path);
  /// Removes a file of any kind but never a directory.
  static bool Delete(const PelmUnicodeString& path);
  /// Gives a file another path on the same file system, in one step; what had that path is gone.
  static bool Rename(const PelmUnicodeString& from, const PelmUnicodeString& to);
  /// Waits until the names in the directory of `path` would survive a loss of power; true, too,
  /// where the file system has no such promise to make.
  static bool SyncDir(const PelmUnicodeString& path);

  /// The path as the kernel takes it; false for one that names nothing.
  static bool ToNative(const PelmUnicodeString& path, std::string& native);
};

}  // namespace Zarn
