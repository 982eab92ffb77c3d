#pragma once

#include <cstdint>

#include "HxCompactFileExport.h"

namespace Zarn {

/// The vocabulary that all classes of a compact file share: the status of a tile, the mode of an
/// open file, and the scrambling of a header by a password.
class HX_COMPACTFILE_API ZrCompactFile {
 public:
  ZrCompactFile() = delete;

  /// State of a cell or of a version. It is stored in one byte, so a damaged file may hold any
  /// value; only kComplete and kPartial mean that a record is there.
  enum ZrStatus : std::uint8_t {
    kEmpty = 0,     ///< no tile
    kComplete = 1,  ///< the last write filled its payload area to the end
    kPartial = 2,   ///< the payload area has room behind the last write
    kUnknown = 4,   ///< answered when a status cannot be read; never stored
  };

  /// A set of the bits below.
  using ZrOpenMode = std::uint32_t;
  static constexpr ZrOpenMode kReplace = 1;        ///< creating replaces an existing file
  static constexpr ZrOpenMode kReadOnly = 2;       ///< open for reading only
  static constexpr ZrOpenMode kCreateMissing = 4;  ///< the mode with which missing files are made
  static constexpr ZrOpenMode kProcessLock = 8;    ///< use the lock between processes

  /// Largest capacity that a store may ask for, in bytes: 2 GiB less 100 bytes.
  static constexpr unsigned long long kMaxCapacity = 0x7FFFFF9C;

  /// @name Header scrambling
  /// A header is scrambled, and unscrambled, by XOR with one byte of a key stream:
  /// GenerateStream(state, GenerateKey(password)), GenerateXorString(xorString, state), then
  /// ReMakeStream(header, 64, xorString). An empty password means an xorString of zeros. This
  /// keeps a file from being opened by mistake; it is no encryption, and tiles are stored plainly.
  /// Pure functions, for any thread.
  /// @{

  /// Exchanges two bytes.
  static void SwapByte(unsigned char& a, unsigned char& b);
  /// The 32-bit key of a NUL-terminated password of 16-bit units; 0 for null. Different passwords
  /// may have the same key, and different keys the same XOR byte.
  static unsigned int GenerateKey(const char16_t* password);
  /// Fills the 256 bytes at `state`.
  static void GenerateStream(unsigned char* state, int key);
  /// Writes 255 bytes to `out`, a buffer of 256, whose last byte is left alone. Changes `state`.
  static void GenerateXorString(unsigned char* out, unsigned char* state);
  /// XORs `length` bytes in place with the one byte xorString[length mod 256]. Does nothing if
  /// `xorString` is null or `length` is not above 0.
  static void ReMakeStream(unsigned char* buffer, int length, unsigned char* xorString);
  /// @}
};

}  // namespace Zarn
