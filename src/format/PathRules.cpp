#include "PathRules.h"

#include "ZrFile.h"

namespace Zarn::Format {

PelmUnicodeString CompletePath(const PelmUnicodeString& path) {
  return ZrFile::GetExt(path).IsEmpty() ? path + u".cf" : path;
}

bool IsCachePath(const PelmUnicodeString& path) {
  return ZrFile::GetExt(path).CompareNoCase(u".sc") == 0;
}

PelmUnicodeString TemporaryPath(const PelmUnicodeString& path) {
  return ZrFile::GetDir(path) + u".$" + ZrFile::GetName(path);
}

bool IsUsablePath(const PelmUnicodeString& path) {
  std::string native;
  return ZrFile::ToNative(path, native);
}

}  // namespace Zarn::Format
