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

}  // namespace Support
