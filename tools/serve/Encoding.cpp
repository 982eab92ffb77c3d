#include "Encoding.h"

#include <brotli/decode.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>
#include <new>
#include <utility>

#include "Gzip.h"
#include "TileFormat.h"

namespace Serve {
namespace {

using Formats::TileFormat;

std::string ToLower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
    text.remove_suffix(1);
  return text;
}

std::optional<std::string> DecompressBrotli(std::string_view bytes, std::size_t most) {
  const std::unique_ptr<BrotliDecoderState, decltype(&BrotliDecoderDestroyInstance)> state(
      BrotliDecoderCreateInstance(nullptr, nullptr, nullptr), BrotliDecoderDestroyInstance);
  if (state == nullptr) throw std::bad_alloc();
  std::string contents;
  auto next = reinterpret_cast<const std::uint8_t*>(bytes.data());
  std::size_t left = bytes.size();
  for (auto result = BROTLI_DECODER_RESULT_NEEDS_MORE_OUTPUT;
       result == BROTLI_DECODER_RESULT_NEEDS_MORE_OUTPUT;) {
    std::array<std::uint8_t, 16384> part;
    std::uint8_t* target = part.data();
    std::size_t room = part.size();
    result = BrotliDecoderDecompressStream(state.get(), &left, &next, &room, &target, nullptr);
    contents.append(reinterpret_cast<const char*>(part.data()), part.size() - room);
    if (contents.size() > most) return std::nullopt;
    if (result == BROTLI_DECODER_RESULT_SUCCESS && left == 0) return contents;
  }
  return std::nullopt;
}

// Of names that are no tiles; nothing here makes a browser run what a file holds.
constexpr std::string_view kGzipType = "application/gzip";
constexpr std::pair<std::string_view, std::string_view> kTypes[] = {
    {"geojson", "application/geo+json"},  {"gz", kGzipType},
    {"json", "application/json"},         {"md", "text/plain; charset=utf-8"},
    {"txt", "text/plain; charset=utf-8"}, {"csv", "text/csv; charset=utf-8"},
};

void LookAtName(std::string_view name, Media& media) {
  if (hx::Tile::parse(name)) return;
  const std::size_t dot = name.rfind('.');
  media.extension = dot == name.npos ? "" : ToLower(name.substr(dot + 1));
  media.type = Formats::MimeTypeOf(Formats::FormatOfName(media.extension));
  for (const auto& [extension, type] : kTypes)
    if (extension == media.extension) media.type = type;
  // What is not known to be compressed for the transport only is given as it is.
  const bool isKnown = media.type != Formats::MimeTypeOf(TileFormat::kUnknown);
  if (media.encoding != Encoding::kGzip || (isKnown && media.type != kGzipType)) return;
  media.type = kGzipType;
  media.encoding = Encoding::kNone;
}

// What the metadata say of all tiles.
void LookAtMetadata(const hx::Metadata& metadata, Media& media) {
  const std::string compression = metadata.get("compression");
  const bool isTold = media.encoding != Encoding::kNone;
  if (!isTold && compression == "br") media.encoding = Encoding::kBrotli;
  if (!isTold && compression == "zstd") media.encoding = Encoding::kZstd;
  if (const TileFormat format = Formats::FormatOfName(metadata.get("format"));
      format != TileFormat::kUnknown) {
    media.type = Formats::MimeTypeOf(format);
    media.extension = Formats::NameOf(format);
  }
}

}  // namespace

const char* NameOf(Encoding encoding) {
  switch (encoding) {
    case Encoding::kGzip:
      return "gzip";
    case Encoding::kBrotli:
      return "br";
    case Encoding::kZstd:
      return "zstd";
    default:
      return "";
  }
}

bool Accepts(std::string_view acceptEncoding, Encoding encoding) {
  bool acceptsAny = false;
  while (!acceptEncoding.empty()) {
    const std::size_t comma = std::min(acceptEncoding.find(','), acceptEncoding.size());
    const std::string part = ToLower(acceptEncoding.substr(0, comma));
    acceptEncoding.remove_prefix(std::min(comma + 1, acceptEncoding.size()));
    const std::size_t semicolon = std::min(part.find(';'), part.size());
    const std::string_view name = Trim(std::string_view(part).substr(0, semicolon));
    // "q=0" with any number of zeros refuses it.
    const std::size_t weight = part.find("q=", semicolon);
    const bool isAccepted =
        weight == part.npos || part.find_first_of("123456789", weight) != part.npos;
    if (name == NameOf(encoding)) return isAccepted;
    if (name == "*") acceptsAny = isAccepted;
  }
  return acceptsAny;
}

std::optional<std::string> Decompress(std::string_view bytes, Encoding encoding, std::size_t most) {
  switch (encoding) {
    case Encoding::kNone:
      return std::string(bytes);
    case Encoding::kGzip:
      return Formats::Inflate(bytes, most);
    case Encoding::kBrotli:
      return DecompressBrotli(bytes, most);
    default:
      return std::nullopt;
  }
}

Media LookAtPayload(hx::Bytes payload, const ServedFile& file, const Address& address) {
  const TileFormat format = Formats::DetectFormat(payload);
  const bool isGzip = Formats::IsGzip(payload);
  Media media{Formats::MimeTypeOf(format), Formats::NameOf(format), Encoding::kNone};
  if (format != TileFormat::kUnknown && !isGzip) return media;  // they have told all
  if (isGzip) media.encoding = Encoding::kGzip;
  if (std::holds_alternative<hx::Tile>(address)) {
    // A wrong encoding would stay in caches, so what the bytes do not tell is looked up anew.
    if (isGzip)
      LookAtMetadata(file.GetFacts()->metadata, media);
    else
      LookAtMetadata(*file.GetMetadata(), media);
  }
  if (const auto* const name = std::get_if<std::string>(&address)) LookAtName(*name, media);
  return media;
}

std::optional<std::time_t> TimeOf(hx::Stamp stamp) {
  constexpr hx::Stamp kFirst = 946'684'800, kDay = 86'400;
  const auto last = static_cast<hx::Stamp>(std::time(nullptr)) + kDay;
  for (const hx::Stamp unit : {1ULL, 1'000ULL, 1'000'000ULL, 1'000'000'000ULL})
    if (stamp / unit >= kFirst && stamp / unit <= last)
      return static_cast<std::time_t>(stamp / unit);
  return std::nullopt;
}

}  // namespace Serve
