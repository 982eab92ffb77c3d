#pragma once

#include <bit>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace Support {

using Bytes = std::vector<unsigned char>;

/// Bytes from hexadecimal pairs; white space between them is free. "xN" behind a pair repeats it:
/// "00x37" is 37 zero bytes.
inline Bytes Hex(std::string_view text) {
  Bytes bytes;
  const std::string copy(text);
  for (const char* p = copy.c_str(); *p != 0;) {
    if (*p == ' ' || *p == '\n') {
      ++p;
      continue;
    }
    const std::string pair(p, 2);
    p += 2;
    std::size_t times = 1;
    if (*p == 'x') {
      char* end = nullptr;
      times = std::strtoul(p + 1, &end, 10);
      p = end;
    }
    bytes.insert(bytes.end(), times,
                 static_cast<unsigned char>(std::strtoul(pair.c_str(), nullptr, 16)));
  }
  return bytes;
}

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

}  // namespace Support
