#pragma once

#include <cstdint>

#include "HxPlatformExport.h"

/// Charset numbers as they are stored in files: the usual numbers of font charsets, and three for
/// Unicode encodings above them.
class HX_PLATFORM_API PELMCharset {
 public:
  /// A charset by its number.
  enum Charset : std::uint32_t {
    kAnsi = 0,           ///< Western European, code page 1252
    kDefault = 1,        ///< whatever the process's current charset is
    kMac = 77,           ///< Macintosh Roman
    kShiftJis = 128,     ///< Japanese, code page 932
    kHangul = 129,       ///< Korean, code page 949
    kJohab = 130,        ///< Korean, code page 1361
    kGb2312 = 134,       ///< Simplified Chinese, code page 936
    kChineseBig5 = 136,  ///< Traditional Chinese, code page 950
    kGreek = 161,        ///< code page 1253
    kTurkish = 162,      ///< code page 1254
    kVietnamese = 163,   ///< code page 1258
    kHebrew = 177,       ///< code page 1255
    kArabic = 178,       ///< code page 1256
    kBaltic = 186,       ///< code page 1257
    kRussian = 204,      ///< Cyrillic, code page 1251
    kThai = 222,         ///< code page 874
    kEastEurope = 238,   ///< Central European, code page 1250
    kUtf8 = 250,         ///< bytes
    kUtf16Le = 251,      ///< 16-bit units, the low byte first
    kUtf16Be = 252,      ///< 16-bit units, the high byte first
  };

  /// The process's current charset; UTF-8 until SetCurrent. Safe from any thread.
  static Charset GetCurrent();

  /// Makes `charset` the current one. False, and nothing changes, for kDefault or a number that
  /// has no encoding.
  static bool SetCurrent(Charset charset);

  /// `charset` itself, or the current charset for kDefault.
  static Charset Resolve(Charset charset);

  /// Name of the encoding as iconv knows it; null for a number that has none.
  static const char* GetEncodingName(Charset charset);
};
