#pragma once

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

}  // namespace Support
