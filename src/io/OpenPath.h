#pragma once

#include "ZrFile.h"
#include "ZrFileStream.h"

namespace Zarn::Io {

/// Whether `path` means the file that was opened as `openPath` in `stream`: the same path without
/// regard to case, unless the file system holds another file under the other spelling.
inline bool IsPathOf(const PelmUnicodeString& path, const PelmUnicodeString& openPath,
                     const ZrFileStream& stream) {
  if (path == openPath) return true;
  return path.CompareNoCase(openPath) == 0 && (!ZrFile::IsExist(path) || stream.IsSameFile(path));
}

}  // namespace Zarn::Io
