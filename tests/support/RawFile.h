#pragma once

#include <fstream>
#include <iterator>

#include "PelmUnicodeString.h"
#include "support/Hex.h"

/// The bytes of a file, for tests that look at them or damage them.
namespace Support {

inline Bytes ReadFile(const PelmUnicodeString& path) {
  std::ifstream file(path.ToUtf8(), std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

inline void WriteFile(const PelmUnicodeString& path, const Bytes& bytes) {
  std::ofstream file(path.ToUtf8(), std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

/// Overwrites bytes of an existing file.
inline void Poke(const PelmUnicodeString& path, std::size_t offset, const Bytes& bytes) {
  std::fstream file(path.ToUtf8(), std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(offset));
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

/// A number as bytes, independent of the code under test.
inline Bytes Number(unsigned long long value, std::size_t width, bool bigEndian) {
  Bytes bytes(width);
  for (std::size_t i = 0; i < width; ++i)
    bytes[bigEndian ? width - 1 - i : i] = static_cast<unsigned char>(value >> 8 * i);
  return bytes;
}

inline Bytes operator+(Bytes head, const Bytes& tail) {
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}

}  // namespace Support
