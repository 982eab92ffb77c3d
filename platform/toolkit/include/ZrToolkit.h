#pragma once

#include "HxPlatformExport.h"
#include "PELMCharset.h"

namespace Zarn {

/// Settings of the process.
class HX_PLATFORM_API ZrToolkit {
 public:
  /// Number of the current charset: UTF-8's unless the host has set another.
  static PELMCharset::Charset GetCurCharset() { return PELMCharset::GetCurrent(); }
  /// False, and nothing changes, for a number that is no charset of its own.
  static bool SetCurCharset(PELMCharset::Charset charset) {
    return PELMCharset::SetCurrent(charset);
  }
};

}  // namespace Zarn
