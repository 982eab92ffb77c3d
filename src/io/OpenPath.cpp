#include "OpenPath.h"

#include "ZrFile.h"

namespace Zarn::Io {

bool IsPathOf(const PelmUnicodeString& path, const PelmUnicodeString& openPath,
              const ZrFileStream& stream) {
  if (path == openPath) return true;
  if (path.CompareNoCase(openPath) != 0) return false;
  return !ZrFile::IsExist(path) || stream.IsSameFile(path);
}

}  // namespace Zarn::Io
