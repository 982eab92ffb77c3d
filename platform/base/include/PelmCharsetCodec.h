#pragma once

#include <string>
#include <string_view>

#include "HxPlatformExport.h"
#include "PELMCharset.h"

/// Converts text between one charset and UTF-16 in host order. A conversion fails as a whole when
/// any part of the text cannot be represented; nothing is dropped or replaced.
///
/// The three Unicode encodings carry lone surrogates through (in UTF-8 as three bytes), so that
/// distinct strings stay distinct. An object is used by one thread at a time.
class HX_PLATFORM_API PelmCharsetCodec {
 public:
  /// kDefault is resolved to the current charset here.
  explicit PelmCharsetCodec(PELMCharset::Charset charset);
  ~PelmCharsetCodec();
  PelmCharsetCodec(const PelmCharsetCodec&) = delete;
  PelmCharsetCodec& operator=(const PelmCharsetCodec&) = delete;

  /// The charset in use, never kDefault.
  PELMCharset::Charset GetCharset() const { return m_charset; }

  /// False if the charset number has no encoding.
  bool IsUsable() const;

  /// Bytes to units. Replaces `target`, or leaves it as it was and answers false.
  bool Decode(std::string_view bytes, std::u16string& target);
  /// Units to bytes, likewise.
  bool Encode(std::u16string_view units, std::string& target);

 private:
  using Handle = void*;  // iconv_t
  bool Convert(Handle& handle, const char* to, const char* from, std::string_view input,
               std::string& output);

  PELMCharset::Charset m_charset;
  Handle m_decoder;
  Handle m_encoder;
};
