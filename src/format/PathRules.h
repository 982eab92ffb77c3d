#pragma once

#include "PelmUnicodeString.h"

/// What a path means to this library.
namespace Zarn::Format {

/// The path with ".cf" appended if it has no extension.
PelmUnicodeString CompletePath(const PelmUnicodeString& path);

/// The path of an older cache file: its extension is ".sc", in any case.
bool IsCachePath(const PelmUnicodeString& path);

/// Where a container is built that is to take the place of the one at `path`: in the same folder,
/// under its name with ".$" before it.
PelmUnicodeString TemporaryPath(const PelmUnicodeString& path);

/// Can name a file at all: not empty, and no NUL inside.
bool IsUsablePath(const PelmUnicodeString& path);

}  // namespace Zarn::Format
