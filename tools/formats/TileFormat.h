#pragma once

#include <string_view>

#include <hx/bytes.h>

namespace Formats {

/// What the payload of a tile is.
enum class TileFormat { kUnknown, kPng, kJpg, kWebp, kAvif, kGif, kPbf };

/// Tells it by the first bytes. What is compressed by gzip counts as a vector tile: images are not.
TileFormat DetectFormat(hx::Bytes payload);
/// Tells it by an extension without the dot, or the value of "format" in the metadata, which may be
/// a MIME type.
TileFormat FormatOfName(std::string_view name);
/// As extension and in the metadata: "png". Empty for kUnknown.
const char* NameOf(TileFormat format);
/// "image/png"; for kUnknown that of any bytes.
const char* MimeTypeOf(TileFormat format);
/// Whether the payload is compressed by gzip, as a server has to say beside the type.
bool IsGzip(hx::Bytes payload);

}  // namespace Formats
