#pragma once

#include <string_view>
#include <vector>

namespace Serve {

/// A file of the page, which lies in the program.
struct Asset {
  std::string_view name;
  const char* type;  ///< MIME type
  std::string_view gzip;
};

/// All of them. EmbedAssets.cmake makes this table.
extern const std::vector<Asset> kAssets;

/// Null if there is none of this name.
const Asset* FindAsset(std::string_view name);

}  // namespace Serve
