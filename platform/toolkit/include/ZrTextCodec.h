#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "HxPlatformExport.h"
#include "PelmCharsetCodec.h"

namespace Zarn {

/// Converts text from one charset into another, as a whole or not at all. An object is used by one
/// thread at a time.
class HX_PLATFORM_API ZrTextCodec {
 public:
  /// False if either number has no encoding.
  bool Open(PELMCharset::Charset from, PELMCharset::Charset to);

  /// Replaces `output` by `input` converted. False, and `output` is left, if the codec is not
  /// open, the bytes are not text of the source charset, or a character has no place in the other.
  bool Convert(std::string_view input, std::string& output);

 private:
  std::unique_ptr<PelmCharsetCodec> m_source;
  std::unique_ptr<PelmCharsetCodec> m_target;
};

}  // namespace Zarn
