#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <hx/metadata.h>
#include "PmHeader.h"

namespace Formats {

/// PMTiles keep some metadata in the header (bounds, center, zooms, and what the tiles are) and the
/// others in an object of JSON, whose values that are no texts, such as "vector_layers", MBTiles
/// have as an object under "json".

/// Nothing if `json` is no object, or nested too deeply.
std::optional<hx::Metadata> ReadPmMetadata(const PmHeader& header, std::string_view json);
/// Sets those fields of the header, and returns the object. Without a center, the header gets the
/// middle of the bounds.
std::string WritePmMetadata(const hx::Metadata& metadata, PmHeader& header);

}  // namespace Formats
