#include "PmHeader.h"

#include <algorithm>
#include <bit>

#include "ZrByteOrder.h"

namespace Formats {
namespace {

constexpr bool kSwap = std::endian::native == std::endian::big;  // the file is little-endian

/// Calls `field` for every field in the order of the file.
template <typename Header, typename Field>
void VisitFields(Header& header, Field field) {
  for (auto* section : {&header.root, &header.metadata, &header.leaves, &header.tiles})
    field(section->offset), field(section->length);
  field(header.tileCount), field(header.entryCount), field(header.contentCount);
  field(header.isClustered), field(header.internalCompression), field(header.tileCompression);
  field(header.tileType), field(header.minZoom), field(header.maxZoom);
  for (auto* position : {&header.southWest, &header.northEast})
    field(position->longitude), field(position->latitude);
  field(header.centerZoom), field(header.center.longitude), field(header.center.latitude);
}

// Enumerations and flags are stored as one byte.
template <typename T>
using Stored = std::conditional_t<sizeof(T) == 1, std::uint8_t, T>;

static_assert(kPmHeaderSize == kPmMagic.size() + 1 + 11 * 8 + 6 + 4 * 4 + 1 + 2 * 4);

}  // namespace

std::array<char, kPmHeaderSize> EncodeHeader(const PmHeader& header) {
  std::array<char, kPmHeaderSize> bytes;
  char* at = std::copy(kPmMagic.begin(), kPmMagic.end(), bytes.data());
  *at++ = kPmVersion;
  VisitFields(header, [&](const auto& field) {
    Zarn::StoreScalar(at, static_cast<Stored<std::decay_t<decltype(field)>>>(field), kSwap);
    at += sizeof field;
  });
  return bytes;
}

PmHeader DecodeHeader(const char* bytes) {
  PmHeader header;
  const char* at = bytes + kPmMagic.size() + 1;
  VisitFields(header, [&](auto& field) {
    using T = std::decay_t<decltype(field)>;
    field = static_cast<T>(Zarn::LoadScalar<Stored<T>>(at, kSwap));
    at += sizeof field;
  });
  return header;
}

}  // namespace Formats
