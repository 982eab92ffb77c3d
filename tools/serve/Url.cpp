#include "Url.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace Serve {
namespace {

std::optional<std::string> Decode(std::string_view text, bool plusIsSpace) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '+' && plusIsSpace) c = ' ';
    if (c == '%') {
      unsigned int code = 0;
      const char* const digits = text.data() + i + 1;
      if (text.size() - i < 3 || std::from_chars(digits, digits + 2, code, 16).ptr != digits + 2)
        return std::nullopt;
      c = static_cast<char>(code);
      i += 2;
    }
    if (c == '\0') return std::nullopt;
    decoded += c;
  }
  return decoded;
}

// Of letters in any case; `lower` has small ones.
bool IsSame(std::string_view text, std::string_view lower) {
  return std::equal(text.begin(), text.end(), lower.begin(), lower.end(),
                    [](unsigned char a, char b) { return std::tolower(a) == b; });
}

// Calls `take` for each part; false ends it.
template <typename Take>
bool Split(std::string_view text, char separator, Take take) {
  for (;;) {
    const std::size_t end = text.find(separator);
    if (!take(text.substr(0, end))) return false;
    if (end == text.npos) return true;
    text.remove_prefix(end + 1);
  }
}

}  // namespace

std::optional<Url> Url::Parse(std::string_view target) {
  // Proxies may name the server as well.
  for (const std::string_view scheme : {"http://", "https://"})
    if (IsSame(target.substr(0, scheme.size()), scheme)) {
      target.remove_prefix(std::min(target.find('/', scheme.size()), target.size()));
      break;
    }
  if (!target.starts_with('/')) return std::nullopt;
  const std::size_t mark = std::min(target.find('?'), target.size());
  Url url;
  const auto takeSegment = [&](std::string_view part) {
    auto segment = Decode(part, false);
    if (!segment || *segment == "." || *segment == "..") return false;
    url.segments.push_back(std::move(*segment));
    return true;
  };
  const auto takeParameter = [&](std::string_view part) {
    const std::size_t equals = std::min(part.find('='), part.size());
    auto key = Decode(part.substr(0, equals), true);
    auto value = Decode(part.substr(std::min(equals + 1, part.size())), true);
    if (!key || !value) return false;
    url.query.emplace(std::move(*key), std::move(*value));
    return true;
  };
  if (!Split(target.substr(1, mark - 1), '/', takeSegment)) return std::nullopt;
  if (mark < target.size() && !Split(target.substr(mark + 1), '&', takeParameter))
    return std::nullopt;
  return url;
}

std::string_view Url::Get(std::string_view key) const {
  const auto found = query.find(key);
  return found != query.end() ? std::string_view(found->second) : std::string_view();
}

std::string Url::Rest(std::size_t first) const {
  std::string rest;
  for (std::size_t i = first; i < segments.size(); ++i)
    rest += (i == first ? "" : "/") + segments[i];
  return rest;
}

template <typename Number>
std::optional<Number> ParseNumber(std::string_view text) {
  Number number = 0;
  const char* const end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, number);
  if (read.ec != std::errc() || read.ptr != end) return std::nullopt;
  return number;
}

template std::optional<std::uint32_t> ParseNumber(std::string_view);
template std::optional<unsigned long long> ParseNumber(std::string_view);

std::optional<std::string> DecodeSegment(std::string_view text) { return Decode(text, false); }

std::string EncodeSegment(std::string_view text) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string encoded;
  for (const char c : text) {
    const auto code = static_cast<unsigned char>(c);
    if (std::isalnum(code) != 0 || std::string_view("-._~").find(c) != std::string_view::npos) {
      encoded += c;
    } else {
      encoded += '%';
      encoded += kDigits[code >> 4];
      encoded += kDigits[code & 15];
    }
  }
  return encoded;
}

}  // namespace Serve
