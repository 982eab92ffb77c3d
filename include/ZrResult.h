#pragma once

#include <cstdint>

namespace Zarn {

/// The codes that operations with an unsigned 32-bit result return. The comment of each operation
/// says which it can return and why.
struct ZrResult {
  /// One code, by name.
  enum Code : std::uint32_t {
    kOk = 0,           ///< Success.
    kNotUsable = 1,    ///< The file could not be taken into use, or is an older ".sc" file.
    kNotCreated = 2,   ///< Creation failed: bad size, the file exists, or it could not be written.
    kWrongFile = 3,    ///< Not a compact file, a wrong password, or the wrong kind of file.
    kNotFound = 5,     ///< No such file; in the engine's lookups, no such tile.
    kNotOpen = 6,      ///< The file could not be opened, or the object has none open.
    kUnknownKind = 8,  ///< The file is neither a grid file nor a naming file.
    kReadFailure = 9,  ///< Header, index entry or record unreadable or damaged.
    kWriteFailure = 10,  ///< Not written, or the arguments of the store are invalid.
  };
};

}  // namespace Zarn
