#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "HxPlatformExport.h"
#include "PelmMBString.h"

/// String of 16-bit code units (UTF-16 that may hold lone surrogates), ordered by unsigned code
/// unit. A value type: copies are independent, and one object is used by one thread at a time.
class HX_PLATFORM_API PelmUnicodeString {
 public:
  PelmUnicodeString() = default;
  /// A NUL-terminated string; null gives the empty string.
  PelmUnicodeString(const char16_t* text) {  // NOLINT: literals convert
    if (text != nullptr) m_units = text;
  }
  /// `length` units, which may hold zeros.
  PelmUnicodeString(const char16_t* text, std::size_t length) : m_units(text, length) {}
  /// Takes over the units.
  explicit PelmUnicodeString(std::u16string units) : m_units(std::move(units)) {}

  /// UTF-8 in. Lone surrogates in three-byte form are taken as they are; a byte that is not part
  /// of a well-formed sequence becomes the lone surrogate 0xDC00 + byte, so nothing is dropped.
  static PelmUnicodeString FromUtf8(std::string_view text);

  /// UTF-8 out; lone surrogates in three-byte form.
  std::string ToUtf8() const;

  /// Converts into the charset of `target`. False, and `target` keeps its text, if some character
  /// has no representation there.
  bool ToStd(PelmMBString& target) const;

  /// Converts `text` from its own charset. False, and `target` is left, for bytes that are not
  /// text of that charset.
  static bool FromMBString(const PelmMBString& text, PelmUnicodeString& target);

  /// Decodes `length` bytes of the current charset into `target`, which has room for `limit`
  /// units. Returns the number of units written (no terminator), or -1 if the bytes are not text
  /// of that charset or do not fit.
  static std::ptrdiff_t AcharToWchar(char16_t* target, std::size_t limit, const char* source,
                                     std::size_t length);

  /// Length in code units, without the terminator.
  std::size_t GetLength() const { return m_units.size(); }
  /// Whether the length is 0.
  bool IsEmpty() const { return m_units.empty(); }
  /// NUL-terminated.
  const char16_t* GetBuffer() const { return m_units.c_str(); }
  /// The units, which may hold zeros.
  std::u16string_view GetUnits() const { return m_units; }

  /// Below, equal to or above 0, as this string sorts against `other`.
  int Compare(const PelmUnicodeString& other) const { return m_units.compare(other.m_units); }
  /// The same with the letters A to Z folded; no other character has a case here.
  int CompareNoCase(const PelmUnicodeString& other) const;

  /// Appends `tail`.
  PelmUnicodeString& operator+=(const PelmUnicodeString& tail) {
    m_units += tail.m_units;
    return *this;
  }
  /// Both, one after the other.
  friend PelmUnicodeString operator+(PelmUnicodeString head, const PelmUnicodeString& tail) {
    head += tail;
    return head;
  }

  /// Unit by unit.
  friend bool operator==(const PelmUnicodeString& a, const PelmUnicodeString& b) {
    return a.m_units == b.m_units;
  }
  /// Unit by unit.
  friend bool operator!=(const PelmUnicodeString& a, const PelmUnicodeString& b) {
    return !(a == b);
  }
  /// As Compare.
  friend bool operator<(const PelmUnicodeString& a, const PelmUnicodeString& b) {
    return a.m_units < b.m_units;
  }

 private:
  std::u16string m_units;
};
