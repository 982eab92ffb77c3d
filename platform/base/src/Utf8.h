#pragma once

#include <string>
#include <string_view>

/// UTF-8 for strings of 16-bit units that may hold lone surrogates.
namespace Utf8 {

/// Lone surrogates become three bytes each.
std::string Encode(std::u16string_view units);

/// What Decode does with a byte that is not part of a well-formed sequence.
enum class OnBadByte { kFail, kEscape };

/// Appends the decoded units to `target`. kEscape turns a bad byte into the lone surrogate
/// 0xDC00 + byte; kFail makes the call return false at the first one.
bool Decode(std::string_view bytes, OnBadByte onBadByte, std::u16string& target);

}  // namespace Utf8
