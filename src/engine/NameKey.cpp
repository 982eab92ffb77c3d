#include "NameKey.h"

#include <cstring>
#include <vector>

#include "Layout.h"
#include "NameHash.h"
#include "ZrByteOrder.h"

namespace Zarn::Engine {

std::u16string UnitsOf(std::string_view stored, bool swap) {
  std::u16string units(stored.size() / sizeof(char16_t), u'\0');
  for (std::size_t i = 0; i < units.size(); ++i)
    units[i] = LoadScalar<std::uint16_t>(&stored[i * sizeof(char16_t)], swap);
  return units;
}

std::u16string UnitsOfOlder(std::string_view stored) {
  std::u16string units(stored.size(), u'\0');
  const std::ptrdiff_t count =
      PelmUnicodeString::AcharToWchar(units.data(), units.size(), stored.data(), stored.size());
  units.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return units;
}

NameKey::NameKey(const PelmUnicodeString& name, const Format::RecordShape& shape)
    : m_name(name),
      m_swap(shape.swap),
      m_isUtf16(shape.formatVersion == Format::kCurrentVersion),
      m_code(Format::kHashOfNothing),
      m_charset(Format::kNameCharsetUtf16) {
  if (m_isUtf16) {
    m_code = Format::HashUnits(name.GetUnits());
  } else if (shape.formatVersion == Format::kOlderVersion) {
    PelmMBString text;
    PelmUnicodeString back;
    m_storable = name.ToStd(text) && PelmUnicodeString::FromMBString(text, back) && back == name;
    m_keyBufA = text.GetBytes();
    m_code = Format::HashBytes(m_keyBufA);
    m_charset = text.GetCharset();
  } else {
    m_storable = false;
  }
}

std::uint64_t NameKey::GetStoredLength() const {
  return m_isUtf16 ? 2 * m_name.GetLength() : m_keyBufA.size();
}

bool NameKey::Matches(const unsigned char* stored, std::uint64_t length) const {
  if (!m_storable) return false;
  if (!m_isUtf16) {
    // Decoded, not compared byte by byte: two spellings in bytes may be one name.
    std::vector<char16_t> units(length);
    const std::ptrdiff_t count = PelmUnicodeString::AcharToWchar(
        units.data(), units.size(), reinterpret_cast<const char*>(stored), length);
    return count >= 0 &&
           std::u16string_view(units.data(), static_cast<std::size_t>(count)) == m_name.GetUnits();
  }
  if (length != GetStoredLength()) return false;
  if (!m_swap) return std::memcmp(stored, m_name.GetBuffer(), length) == 0;
  for (const char16_t unit : m_name.GetUnits()) {
    if (LoadScalar<std::uint16_t>(stored, m_swap) != unit) return false;
    stored += sizeof unit;
  }
  return true;
}

Format::StoredName NameKey::GetStoredName(std::string& scratch) const {
  if (!m_isUtf16) return {m_charset, m_keyBufA};
  if (!m_swap)
    return {m_charset, {reinterpret_cast<const char*>(m_name.GetBuffer()), GetStoredLength()}};
  scratch.resize(GetStoredLength());
  std::size_t at = 0;
  for (const char16_t unit : m_name.GetUnits()) {
    StoreScalar<std::uint16_t>(&scratch[at], unit, m_swap);
    at += sizeof unit;
  }
  return {m_charset, scratch};
}

}  // namespace Zarn::Engine
