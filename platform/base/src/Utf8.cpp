#include "Utf8.h"

#include <cstdint>

namespace Utf8 {
namespace {

constexpr char32_t kBad = 0xFFFFFFFF;

bool IsHighSurrogate(char32_t code) { return code >= 0xD800 && code <= 0xDBFF; }
bool IsLowSurrogate(char32_t code) { return code >= 0xDC00 && code <= 0xDFFF; }

void AppendBytes(std::string& target, char32_t code) {
  const auto put = [&target](char32_t byte) { target.push_back(static_cast<char>(byte)); };
  const auto tail = [&](int shift) { put(0x80 | (code >> shift & 0x3F)); };
  if (code < 0x80) {
    put(code);
  } else if (code < 0x800) {
    put(0xC0 | code >> 6);
    tail(0);
  } else if (code < 0x10000) {
    put(0xE0 | code >> 12);
    tail(6);
    tail(0);
  } else {
    put(0xF0 | code >> 18);
    tail(12);
    tail(6);
    tail(0);
  }
}

void AppendUnits(std::u16string& target, char32_t code) {
  if (code < 0x10000) {
    target.push_back(static_cast<char16_t>(code));
    return;
  }
  target.push_back(static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10)));
  target.push_back(static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF)));
}

struct Sequence {
  std::size_t length;  // bytes in the sequence; 0 for a byte that cannot lead one
  char32_t leadBits;   // what the lead byte contributes
  char32_t smallest;   // anything below is an over-long form
};

Sequence SequenceOf(unsigned char lead) {
  if (lead < 0x80) return {1, lead, 0};
  if (lead >= 0xC2 && lead < 0xE0) return {2, lead & 0x1FU, 0x80};
  if (lead >= 0xE0 && lead < 0xF0) return {3, lead & 0x0FU, 0x800};
  if (lead >= 0xF0 && lead < 0xF5) return {4, lead & 0x07U, 0x10000};
  return {0, 0, 0};
}

// The code point at the start of `bytes`, or kBad.
char32_t DecodeOne(std::string_view bytes, const Sequence& sequence) {
  if (sequence.length == 0 || bytes.size() < sequence.length) return kBad;
  char32_t code = sequence.leadBits;
  for (std::size_t i = 1; i < sequence.length; ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    if ((byte & 0xC0) != 0x80) return kBad;
    code = code << 6 | (byte & 0x3F);
  }
  return code < sequence.smallest || code > 0x10FFFF ? kBad : code;
}

}  // namespace

std::string Encode(std::u16string_view units) {
  std::string bytes;
  bytes.reserve(units.size());
  for (std::size_t i = 0; i < units.size(); ++i) {
    char32_t code = units[i];
    if (IsHighSurrogate(code) && i + 1 < units.size() && IsLowSurrogate(units[i + 1]))
      code = 0x10000 + ((code - 0xD800) << 10) + (units[++i] - 0xDC00U);
    AppendBytes(bytes, code);
  }
  return bytes;
}

bool Decode(std::string_view bytes, OnBadByte onBadByte, std::u16string& target) {
  while (!bytes.empty()) {
    const auto lead = static_cast<unsigned char>(bytes.front());
    const Sequence sequence = SequenceOf(lead);
    const char32_t code = DecodeOne(bytes, sequence);
    if (code != kBad) {
      AppendUnits(target, code);
      bytes.remove_prefix(sequence.length);
    } else if (onBadByte == OnBadByte::kEscape) {
      target.push_back(static_cast<char16_t>(0xDC00 + lead));
      bytes.remove_prefix(1);
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace Utf8
