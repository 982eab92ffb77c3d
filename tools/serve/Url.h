#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Serve {

/// The target of a request, taken apart.
struct Url {
  std::vector<std::string> segments;  ///< of the path, decoded: "/a/b%20c" has "a" and "b c"
  std::map<std::string, std::string, std::less<>> query;

  /// Nothing if it is malformed, or has a NUL, or a segment "." or "..", however encoded.
  static std::optional<Url> Parse(std::string_view target);
  /// The value of a key of the query; empty if it is missing.
  std::string_view Get(std::string_view key) const;
  /// The segments from that one on, with slashes between them.
  std::string Rest(std::size_t first) const;
};

/// A whole text that is a number, with nothing else.
template <typename Number>
std::optional<Number> ParseNumber(std::string_view text);
/// As a segment of a path.
std::string EncodeSegment(std::string_view text);
/// Back again; nothing if it is malformed, or has a NUL.
std::optional<std::string> DecodeSegment(std::string_view text);

}  // namespace Serve
