#pragma once

#include <string>
#include <string_view>

#include "HxPlatformExport.h"
#include "PELMCharset.h"

/// Text as bytes together with the charset that the bytes are in.
class HX_PLATFORM_API PelmMBString {
 public:
  /// Empty, in the current charset.
  PelmMBString() : PelmMBString(std::string_view(), PELMCharset::kDefault) {}

  /// `charset` kDefault is resolved to the current charset here, so that a later change of the
  /// current charset does not reinterpret the bytes.
  explicit PelmMBString(std::string_view bytes,
                        PELMCharset::Charset charset = PELMCharset::kDefault)
      : m_bytes(bytes), m_charset(PELMCharset::Resolve(charset)) {}

  /// The charset of the bytes, never kDefault.
  PELMCharset::Charset GetCharset() const { return m_charset; }
  /// Length in bytes, without the terminator.
  std::size_t GetLength() const { return m_bytes.size(); }
  /// NUL-terminated.
  const char* GetBuffer() const { return m_bytes.c_str(); }
  /// The bytes, which may hold zeros.
  std::string_view GetBytes() const { return m_bytes; }

 private:
  std::string m_bytes;
  PELMCharset::Charset m_charset;
};
