#pragma once

#include <hx/bytes.h>

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "ServedFile.h"

namespace Serve {

/// How a payload is compressed.
enum class Encoding { kNone, kGzip, kBrotli, kZstd };
/// As HTTP names it: "gzip", "br", "zstd"; empty for kNone.
const char* NameOf(Encoding encoding);
/// Whether a client takes it, by its field Accept-Encoding.
bool Accepts(std::string_view acceptEncoding, Encoding encoding);
/// The contents; nothing if the bytes are damaged, hold more than `most`, or are compressed by
/// zstd.
std::optional<std::string> Decompress(std::string_view bytes, Encoding encoding, std::size_t most);

/// What a payload is.
struct Media {
  std::string type;  ///< MIME type
  std::string extension;
  Encoding encoding = Encoding::kNone;
};
/// Tells it by the first bytes; and where they do not tell, by the metadata of a pyramid and by the
/// extension of a name.
Media LookAtPayload(hx::Bytes payload, const ServedFile& file, const Address& address);

/// The time that a stamp is, if it is a plausible one: seconds since 1970, or thousandths,
/// millionths or billionths of them, from 2000 to tomorrow.
std::optional<std::time_t> TimeOf(hx::Stamp stamp);

}  // namespace Serve
