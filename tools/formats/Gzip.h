#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Formats {

/// One gzip stream of the bytes. The same bytes always give the same one.
std::string Compress(std::string_view bytes);
/// The contents of one gzip stream, which ends with the bytes; nothing if they are none, or if it
/// holds more than `most` bytes. The memory grows with what was inflated, which is at most some
/// thousand times as much as the bytes.
std::optional<std::string> Inflate(std::string_view bytes, std::size_t most);

}  // namespace Formats
