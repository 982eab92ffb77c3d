#include "PelmUnicodeString.h"

#include <algorithm>

#include "PelmCharsetCodec.h"
#include "Utf8.h"

namespace {

char16_t FoldAscii(char16_t unit) {
  return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + (u'a' - u'A')) : unit;
}

}  // namespace

PelmUnicodeString PelmUnicodeString::FromUtf8(std::string_view text) {
  std::u16string units;
  units.reserve(text.size());
  Utf8::Decode(text, Utf8::OnBadByte::kEscape, units);
  return PelmUnicodeString(std::move(units));
}

std::string PelmUnicodeString::ToUtf8() const { return Utf8::Encode(m_units); }

bool PelmUnicodeString::ToStd(PelmMBString& target) const {
  PelmCharsetCodec codec(target.GetCharset());
  std::string bytes;
  if (!codec.Encode(m_units, bytes)) return false;
  target = PelmMBString(bytes, codec.GetCharset());
  return true;
}

bool PelmUnicodeString::FromMBString(const PelmMBString& text, PelmUnicodeString& target) {
  PelmCharsetCodec codec(text.GetCharset());
  return codec.Decode(text.GetBytes(), target.m_units);
}

std::ptrdiff_t PelmUnicodeString::AcharToWchar(char16_t* target, std::size_t limit,
                                               const char* source, std::size_t length) {
  PelmCharsetCodec codec(PELMCharset::kDefault);
  std::u16string units;
  if (!codec.Decode({source, length}, units) || units.size() > limit) return -1;
  std::copy(units.begin(), units.end(), target);
  return static_cast<std::ptrdiff_t>(units.size());
}

int PelmUnicodeString::CompareNoCase(const PelmUnicodeString& other) const {
  const std::size_t shared = std::min(m_units.size(), other.m_units.size());
  for (std::size_t i = 0; i < shared; ++i) {
    const int difference = FoldAscii(m_units[i]) - FoldAscii(other.m_units[i]);
    if (difference != 0) return difference;
  }
  if (m_units.size() == other.m_units.size()) return 0;
  return m_units.size() < other.m_units.size() ? -1 : 1;
}
