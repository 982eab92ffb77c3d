#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include <hx/bytes.h>
#include "NewFolder.h"
#include "TileSource.h"

namespace Formats {

/// Any folder of files, by name: the path of a file relative to the folder, with slashes.

/// Visits all regular files below the folder, in the order of names in each folder. Links to
/// folders are not followed. Files that are empty, have names that are no UTF-8, or cannot be read
/// are reported. `visit` answers false to end the walk; the bytes are valid during the call.
void VisitNamedFiles(const std::filesystem::path& folder,
                     const std::function<bool(std::string_view name, hx::Bytes)>& visit,
                     const Report& report = {});

/// A folder of such files in the making. Names that would lead out of it throw FormatError.
using NamedFilesSink = NewFolder;

}  // namespace Formats
