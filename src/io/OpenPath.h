#pragma once

#include "PelmUnicodeString.h"
#include "ZrFileStream.h"

namespace Zarn::Io {

/// Whether `path` means the file that was opened as `openPath` in `stream`: the same path without
/// regard to case, unless the file system holds another file under the other spelling.
bool IsPathOf(const PelmUnicodeString& path, const PelmUnicodeString& openPath,
              const ZrFileStream& stream);

}  // namespace Zarn::Io
