#include "Assets.h"

#include <algorithm>

namespace Serve {

const Asset* FindAsset(std::string_view name) {
  const auto found = std::find_if(kAssets.begin(), kAssets.end(),
                                  [&](const Asset& asset) { return asset.name == name; });
  return found != kAssets.end() ? &*found : nullptr;
}

}  // namespace Serve
