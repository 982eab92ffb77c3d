#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Formats {

/// Appends a number in groups of seven bits, the lowest first; all but the last have the top bit.
inline void AppendVarint(std::string& text, std::uint64_t number) {
  for (; number >= 0x80; number >>= 7)
    text += static_cast<char>(number | 0x80);
  text += static_cast<char>(number);
}

/// Reads such numbers from bytes that somebody else keeps.
class VarintReader {
 public:
  VarintReader() = default;
  explicit VarintReader(std::string_view bytes) : m_bytes(bytes) {}

  /// False at the end of the bytes, or for a number of more than 64 bits.
  bool Read(std::uint64_t& number) {
    number = 0;
    for (unsigned int shift = 0; shift < 64 && m_at < m_bytes.size(); shift += 7) {
      const std::uint64_t group = static_cast<unsigned char>(m_bytes[m_at++]);
      if (shift == 63 && group > 1) return false;
      number |= (group & 0x7F) << shift;
      if (group < 0x80) return true;
    }
    return false;
  }
  /// Passes over so many numbers.
  bool Skip(std::uint64_t count) {
    for (; count > 0 && m_at < m_bytes.size(); ++m_at)
      if (static_cast<unsigned char>(m_bytes[m_at]) < 0x80) --count;
    return count == 0;
  }
  /// What was not read yet.
  std::string_view Rest() const { return m_bytes.substr(m_at); }

 private:
  std::string_view m_bytes;
  std::size_t m_at = 0;
};

}  // namespace Formats
