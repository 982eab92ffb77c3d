#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "HttpServer.h"
#include "Limit.h"
#include "ServedFile.h"

namespace Serve {

/// What is asked of a tile beside its address.
struct TileQuery {
  std::optional<hx::Stamp> stamp;  ///< the version of this stamp, not the newest
  std::string fileName;            ///< to be stored under this name; its extension is added
};

/// How tiles are answered.
struct TileRules {
  int missingStatus = 204;
  std::string cacheControl;
  Limit* large = nullptr;  ///< of answers that are decompressed and large
};

/// Answers with a tile: 200, or 304 if the client has it. False if it is not there, and then that
/// is the answer. Throws Refusal if it cannot be read.
bool AnswerTile(const ServedFile& file, const Address& address, const TileQuery& query,
                const TileRules& rules, const HttpRequest& request, HttpAnswer& answer);

/// The value of Cache-Control for what may be used for so many seconds without asking again.
std::string CacheControlOf(std::uint32_t maxAge);

}  // namespace Serve
