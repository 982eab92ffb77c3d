#pragma once

#include <bit>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Support {

using Bytes = std::vector<unsigned char>;

/// Bytes from hexadecimal pairs; white space is free. "xN" behind a pair repeats it: "00x37" is 37
/// zero bytes.
inline Bytes Hex(const std::string& text) {
  Bytes bytes;
  std::istringstream in(text);
  for (char pair[3] = {}; in >> pair[0] >> pair[1];) {
    std::size_t times = 1;
    if (in.peek() == 'x') in.ignore() >> times;
    bytes.insert(bytes.end(), times, static_cast<unsigned char>(std::strtoul(pair, nullptr, 16)));
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
