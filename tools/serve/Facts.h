#pragma once

#include <atomic>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "Refusal.h"
#include "ServedFile.h"
#include "Url.h"

namespace Serve {

using Json = nlohmann::ordered_json;

// What is told of files as JSON. All throw Refusal and hx::Error; those with `isStopping` walk over
// the whole file, unless somebody has just done so.

Json ListOf(const std::vector<std::unique_ptr<ServedFile>>& files);
/// TileJSON 3.0.0; `base` is the URL of the server, with a slash at its end.
Json TileJsonOf(const ServedFile& file, const std::string& base,
                const std::atomic<bool>& isStopping);
Json InfoOf(const ServedFile& file, const std::atomic<bool>& isStopping);
/// Of the zoom that the query names: the grid, or a `box` of it, made of at most `size` times
/// `size` fields.
Json HeatOf(const ServedFile& file, const Url& url, const std::atomic<bool>& isStopping);
Json NamesOf(const ServedFile& file, const Url& url, const std::atomic<bool>& isStopping);
Json VersionsOf(const ServedFile& file, const Url& url);

/// "z/x/y"; throws Refusal.
hx::Tile ParseTile(std::string_view z, std::string_view x, std::string_view y);
/// Throws Refusal.
hx::Cell ParseCell(std::string_view row, std::string_view col);

}  // namespace Serve
