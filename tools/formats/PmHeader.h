#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include <hx/metadata.h>

namespace Formats {

constexpr std::string_view kPmMagic = "PMTiles";
constexpr std::size_t kPmHeaderSize = 127;
/// Header and root directory must lie in so many bytes, which readers fetch at once.
constexpr std::size_t kPmStartSize = 16384;

/// Compression of directories and metadata, and of tiles.
enum class PmCompression : std::uint8_t { kUnknown, kNone, kGzip, kBrotli, kZstd };

/// What tiles are.
enum class PmTileType : std::uint8_t { kUnknown, kMvt, kPng, kJpg, kWebp, kAvif, kMlt };

/// A part of the file.
struct PmSection {
  std::uint64_t offset = 0, length = 0;

  bool LiesWithin(std::uint64_t fileLength) const {
    return offset <= fileLength && length <= fileLength - offset;
  }
};

/// Longitudes and latitudes in the header: ten millionths of a degree.
struct PmPosition {
  std::int32_t longitude = 0, latitude = 0;
};

/// The fields at the beginning of a PMTiles file.
struct PmHeader {
  PmSection root, metadata, leaves, tiles;
  std::uint64_t tileCount = 0, entryCount = 0, contentCount = 0;  // 0: unknown
  bool isClustered = false;  // tiles lie in the order of their ids
  PmCompression internalCompression = PmCompression::kGzip;
  PmCompression tileCompression = PmCompression::kUnknown;
  PmTileType tileType = PmTileType::kUnknown;
  std::uint8_t minZoom = 0, maxZoom = 0, centerZoom = 0;
  PmPosition southWest, northEast, center;
};

std::array<char, kPmHeaderSize> EncodeHeader(const PmHeader& header);
/// Of kPmHeaderSize bytes with the magic in front and the right version. What they say is not
/// checked.
PmHeader DecodeHeader(const char* bytes);
/// The version of the format, in the byte behind the magic.
constexpr std::uint8_t kPmVersion = 3;

}  // namespace Formats
