#pragma once

#include <string>

#include "ZrFile.h"

/// What a path means to this library.
namespace Zarn::Format {

/// The path with ".cf" appended if it has no extension.
inline PelmUnicodeString CompletePath(const PelmUnicodeString& path) {
  return ZrFile::GetExt(path).IsEmpty() ? path + u".cf" : path;
}

/// The path of an older cache file: its extension is ".sc", in any case.
inline bool IsCachePath(const PelmUnicodeString& path) {
  return ZrFile::GetExt(path).CompareNoCase(u".sc") == 0;
}

/// The path of the redo image of the container at `path`: its name with ".$" before it, in the same
/// folder.
inline PelmUnicodeString TemporaryPath(const PelmUnicodeString& path) {
  return ZrFile::GetDir(path) + u".$" + ZrFile::GetName(path);
}

/// Whether the path can name a file at all: not empty, and no NUL inside.
inline bool IsUsablePath(const PelmUnicodeString& path) {
  std::string native;
  return ZrFile::ToNative(path, native);
}

}  // namespace Zarn::Format
