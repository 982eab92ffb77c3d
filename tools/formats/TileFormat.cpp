#include "TileFormat.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string>

#include "Varint.h"

namespace Formats {
namespace {

using namespace std::string_view_literals;

struct Names {
  TileFormat format;
  const char* name;
  std::string_view other;  // name that also means it
  const char* mimeType;
};
constexpr Names kNames[] = {
    {TileFormat::kPng, "png", "png", "image/png"},
    {TileFormat::kJpg, "jpg", "jpeg", "image/jpeg"},
    {TileFormat::kWebp, "webp", "webp", "image/webp"},
    {TileFormat::kAvif, "avif", "avif", "image/avif"},
    {TileFormat::kGif, "gif", "gif", "image/gif"},
    {TileFormat::kPbf, "pbf", "mvt", "application/vnd.mapbox-vector-tile"},
    {TileFormat::kUnknown, "", "", "application/octet-stream"},
};

const Names& Find(TileFormat format) {
  return *std::find_if(std::begin(kNames), std::end(kNames) - 1,
                       [&](const Names& names) { return names.format == format; });
}

// A box of the kind "ftyp" whose first or further brands are those of AVIF. The word behind the
// first brand is a version.
bool IsAvif(std::string_view text) {
  if (text.size() < 16 || text.substr(4, 4) != "ftyp") return false;
  constexpr std::size_t kMostBrands = 16;
  const std::size_t end = std::min(
      {text.size(), 8 + 4 * kMostBrands, std::size_t{static_cast<unsigned char>(text[3])}});
  for (std::size_t at = 8; at + 4 <= end; at += 4)
    if (const auto brand = text.substr(at, 4); brand == "avif" || brand == "avis") return true;
  return false;
}

// A layer, which is field 3, at the beginning; and in it one of its own fields.
bool IsRawVectorTile(std::string_view text) {
  if (text.empty() || text[0] != '\x1A') return false;
  VarintReader reader(text.substr(1));
  std::uint64_t length;
  return reader.Read(length) && length > 0 && length <= reader.Rest().size() &&
         "\x0A\x12\x1A\x22\x28\x78"sv.find(reader.Rest()[0]) != std::string_view::npos;
}

}  // namespace

bool IsGzip(hx::Bytes payload) { return payload.text().substr(0, 3) == "\x1F\x8B\x08"; }

TileFormat DetectFormat(hx::Bytes payload) {
  const std::string_view text = payload.text();
  const auto begins = [&](std::string_view magic) { return text.substr(0, magic.size()) == magic; };
  if (begins("\x89PNG\r\n\x1A\n")) return TileFormat::kPng;
  if (begins("\xFF\xD8\xFF")) return TileFormat::kJpg;
  if (begins("RIFF") && text.size() >= 12 && text.substr(8, 4) == "WEBP") return TileFormat::kWebp;
  if (begins("GIF87a") || begins("GIF89a")) return TileFormat::kGif;
  if (IsAvif(text)) return TileFormat::kAvif;
  return IsGzip(payload) || IsRawVectorTile(text) ? TileFormat::kPbf : TileFormat::kUnknown;
}

TileFormat FormatOfName(std::string_view name) {
  std::string lower(name);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const Names& names : kNames)
    if (lower == names.name || lower == names.other || lower == names.mimeType) return names.format;
  return TileFormat::kUnknown;
}

const char* NameOf(TileFormat format) { return Find(format).name; }
const char* MimeTypeOf(TileFormat format) { return Find(format).mimeType; }

}  // namespace Formats
