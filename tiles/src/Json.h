#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

namespace hx {

/// Nothing for what is no JSON, or nested so deeply that to write or to destroy it would take too
/// much of the stack.
std::optional<nlohmann::json> ParseJson(std::string_view text);

}  // namespace hx
