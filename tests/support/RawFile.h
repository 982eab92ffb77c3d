#pragma once

#include <bit>
#include <fstream>
#include <iterator>
#include <string_view>
#include <vector>

#include "PelmUnicodeString.h"

/// Bytes, and those of a file, for tests that look at them or damage them.
namespace Support {

using Bytes = std::vector<unsigned char>;

/// A number as bytes, independent of the code under test.
inline Bytes Number(unsigned long long value, std::size_t width, bool bigEndian) {
  Bytes bytes(width);
  for (std::size_t i = 0; i < width; ++i)
    bytes[bigEndian ? width - 1 - i : i] = static_cast<unsigned char>(value >> 8 * i);
  return bytes;
}

/// A number in this host's byte order.
inline Bytes Native(unsigned long long value, std::size_t width = 8) {
  return Number(value, width, std::endian::native == std::endian::big);
}

inline Bytes Text(std::string_view text) { return Bytes(text.begin(), text.end()); }

inline Bytes operator+(Bytes head, const Bytes& tail) {
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}

inline Bytes ReadFile(const PelmUnicodeString& path) {
  std::ifstream file(path.ToUtf8(), std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

/// Overwrites bytes of an existing file.
inline void Poke(const PelmUnicodeString& path, std::size_t offset, const Bytes& bytes) {
  std::fstream file(path.ToUtf8(), std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(offset));
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

inline void WriteFile(const PelmUnicodeString& path, const Bytes& bytes) {
  std::ofstream(path.ToUtf8(), std::ios::binary | std::ios::trunc).close();
  Poke(path, 0, bytes);
}

}  // namespace Support
