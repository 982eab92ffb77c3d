#include "PmMetadata.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

#include "TileFormat.h"

namespace Formats {
namespace {

using Json = nlohmann::json;

// The key for how tiles are compressed, where their first bytes do not tell it.
constexpr const char* kCompression = "compression";
constexpr std::pair<PmCompression, const char*> kCompressions[] = {{PmCompression::kBrotli, "br"},
                                                                   {PmCompression::kZstd, "zstd"}};
constexpr std::pair<PmTileType, const char*> kTypes[] = {
    {PmTileType::kMvt, "pbf"},   {PmTileType::kPng, "png"},   {PmTileType::kJpg, "jpg"},
    {PmTileType::kWebp, "webp"}, {PmTileType::kAvif, "avif"}, {PmTileType::kMlt, "mlt"}};

constexpr double kUnitsPerDegree = 1e7;

double ToDegrees(std::int32_t units) { return units / kUnitsPerDegree; }

// To the range of a field; a number that is none becomes 0.
template <typename Field>
Field ToField(double number) {
  constexpr double kMin = std::numeric_limits<Field>::min(),
                   kMax = std::numeric_limits<Field>::max();
  return std::isnan(number) ? Field{0} : static_cast<Field>(std::clamp(number, kMin, kMax));
}

PmPosition ToPosition(double longitude, double latitude) {
  const auto units = [](double degrees) {
    return ToField<std::int32_t>(std::round(degrees * kUnitsPerDegree));
  };
  return {units(longitude), units(latitude)};
}

// Writing and destroying take the stack for each level, so there is a limit.
std::optional<Json> Parse(std::string_view text) {
  constexpr int kDeepest = 100;
  bool isTooDeep = false;
  Json parsed = Json::parse(
      text,
      [&](int depth, Json::parse_event_t, Json&) {
        isTooDeep |= depth > kDeepest;
        return !isTooDeep;
      },
      false);
  if (isTooDeep || !parsed.is_object()) return std::nullopt;
  return parsed;
}

std::string Dump(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void ReadHeader(const PmHeader& header, hx::Metadata& metadata) {
  for (const auto& [type, name] : kTypes)
    if (type == header.tileType) metadata.set("format", name);
  for (const auto& [compression, name] : kCompressions)
    if (compression == header.tileCompression) metadata.set(kCompression, name);
  metadata.set_zooms(header.minZoom, header.maxZoom);
  metadata.set_bounds({ToDegrees(header.southWest.longitude), ToDegrees(header.southWest.latitude),
                       ToDegrees(header.northEast.longitude),
                       ToDegrees(header.northEast.latitude)});
  metadata.set_center(
      {ToDegrees(header.center.longitude), ToDegrees(header.center.latitude), header.centerZoom});
}

// Takes out of the metadata what the header says, and leaves what it cannot say.
void WriteHeader(hx::Metadata& metadata, PmHeader& header) {
  const std::string format = metadata.get("format");
  const TileFormat known = FormatOfName(format);
  for (const auto& [type, name] : kTypes) {
    if (name != (known == TileFormat::kUnknown ? format : NameOf(known))) continue;
    header.tileType = type;
    metadata.erase("format");
  }
  for (const auto& [compression, name] : kCompressions) {
    if (metadata.get(kCompression) != name) continue;
    header.tileCompression = compression;
    metadata.erase(kCompression);
  }
  header.minZoom = ToField<std::uint8_t>(metadata.min_zoom().value_or(0));
  header.maxZoom = ToField<std::uint8_t>(metadata.max_zoom().value_or(header.minZoom));
  const hx::Bounds bounds = metadata.bounds().value_or(hx::Bounds());
  header.southWest = ToPosition(bounds.west, bounds.south);
  header.northEast = ToPosition(bounds.east, bounds.north);
  const hx::Center center = metadata.center().value_or(hx::Center{
      (bounds.west + bounds.east) / 2, (bounds.south + bounds.north) / 2, header.minZoom});
  header.center = ToPosition(center.longitude, center.latitude);
  header.centerZoom = ToField<std::uint8_t>(center.zoom);
  for (const char* const key : {"minzoom", "maxzoom", "bounds", "center"})
    metadata.erase(key);
}

}  // namespace

std::optional<hx::Metadata> ReadPmMetadata(const PmHeader& header, std::string_view json) {
  const auto parsed = Parse(json);
  if (!parsed) return std::nullopt;
  hx::Metadata metadata;
  Json others = Json::object();
  for (const auto& [key, value] : parsed->items())
    if (value.is_string())
      metadata.set(key, value.get_ref<const std::string&>());
    else
      others[key] = value;
  if (!others.empty()) metadata.set("json", Dump(others));
  ReadHeader(header, metadata);
  return metadata;
}

std::string WritePmMetadata(const hx::Metadata& metadata, PmHeader& header) {
  hx::Metadata left = metadata;
  WriteHeader(left, header);
  auto object = Parse(left.get("json"));
  if (object)
    left.erase("json");
  else
    object = Json::object();
  for (const auto& [key, value] : left.values())
    (*object)[key] = value;
  return Dump(*object);
}

}  // namespace Formats
