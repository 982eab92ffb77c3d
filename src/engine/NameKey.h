#pragma once

#include <cstdint>
#include <string>

#include "IndexShape.h"
#include "PelmUnicodeString.h"
#include "RecordHead.h"

namespace Zarn::Engine {

/// The units of a name that is stored in UTF-16.
std::u16string UnitsOf(std::string_view stored, bool swap);
/// The units of a name in an older file, in the current charset, whatever that of its record is.
/// Empty if it is no text.
std::u16string UnitsOfOlder(std::string_view stored);

/// A name as a file of some format version stores it and finds it.
class NameKey {
 public:
  /// Longest name that is stored, in units.
  static constexpr std::size_t kMaxUnits = 128;

  /// Whether a tile may be stored under the name at all.
  static bool IsUsable(const PelmUnicodeString& name) {
    return !name.IsEmpty() && name.GetLength() <= kMaxUnits;
  }

  /// `name` must outlive this object.
  NameKey(const PelmUnicodeString& name, const Format::RecordShape& shape);

  /// Whether the file can hold the name: not in a file of an unknown version, and in an older file
  /// only if it survives the way into the current charset and back.
  bool IsStorable() const { return m_storable; }
  /// The code with ordinal 0.
  std::uint64_t GetHashCode() const { return m_code; }
  /// Whether these bytes of a record are this name.
  bool Matches(const unsigned char* stored, std::uint64_t length) const;
  std::uint64_t GetStoredLength() const;

  /// The name for a record: its bytes are those of the name itself, or made in `scratch`.
  Format::StoredName GetStoredName(std::string& scratch) const;

 private:
  const PelmUnicodeString& m_name;
  bool m_swap;
  bool m_isUtf16;  // and in this host's byte order, if not m_swap
  bool m_storable = true;
  std::uint64_t m_code;
  std::uint32_t m_charset;
  std::string m_keyBufA;  // the bytes of the name in an older file
};

}  // namespace Zarn::Engine
