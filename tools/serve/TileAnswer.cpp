#include "TileAnswer.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <functional>

#include "Encoding.h"
#include "Facts.h"
#include "HttpDate.h"

namespace Serve {
namespace {

constexpr std::size_t kMostContents = 64 << 20;  // of a payload that is decompressed
constexpr std::size_t kLargeContents = 1 << 20;  // few of those at a time

// Of a version: stamp and length, and a hash, for a store under the same stamp may change neither.
// What is sent under another encoding is something else.
std::string TagOf(const hx::Payload& payload, std::string_view bytes, Encoding encoding,
                  bool isDecompressed) {
  std::array<char, 80> text;
  const int length = std::snprintf(
      text.data(), text.size(), "\"%llx-%zx-%zx%s%s%s\"", payload.stamp(), bytes.size(),
      std::hash<std::string_view>()(bytes), encoding != Encoding::kNone ? "-" : "",
      NameOf(encoding), isDecompressed ? "-d" : "");
  return {text.data(), static_cast<std::size_t>(length)};
}

// Whether a tag is one of a list, be it a weak one.
bool Holds(std::string_view list, std::string_view tag) {
  for (std::size_t at = 0; (at = list.find(tag, at)) != list.npos; at += tag.size()) {
    const std::size_t end = at + tag.size();
    if ((at == 0 || std::string_view(" \t,/").find(list[at - 1]) != std::string_view::npos) &&
        (end == list.size() || std::string_view(" \t,").find(list[end]) != std::string_view::npos))
      return true;
  }
  return list == "*";
}

bool IsUnchanged(const HttpRequest& request, std::string_view tag,
                 std::optional<std::time_t> time) {
  if (!request.ifNoneMatch.empty()) return Holds(request.ifNoneMatch, tag);
  // An older time may be that of a newer tile: stamps need not rise.
  return time && request.ifModifiedSince == ToHttpDate(*time);
}

}  // namespace

std::string CacheControlOf(std::uint32_t maxAge) {
  return maxAge == 0 ? "no-cache" : "public, max-age=" + std::to_string(maxAge);
}

bool AnswerTile(const ServedFile& file, const Address& address, const TileQuery& query,
                const TileRules& rules, const HttpRequest& request, HttpAnswer& answer) {
  answer.Set("Cache-Control", rules.cacheControl);
  const hx::Status status = file.Find(address, answer.payload, query.stamp.value_or(hx::kNewest));
  // For a stamp that is not there, a lookup gives the newest version.
  if (!status || (query.stamp && answer.payload.stamp() != *query.stamp)) {
    if (!status && !IsMissing(status.cause()))
      throw Refusal(StatusOf(status.cause()), file.Name() + " cannot be read: " + status.text());
    answer.status = rules.missingStatus;
    if (answer.status != 204) answer.text = "there is no such tile\n";
    return false;
  }

  const std::string_view bytes = answer.payload.text().substr(0, answer.payload.filled());
  const Media media = LookAtPayload(bytes, file, address);
  const bool isEncoded = media.encoding != Encoding::kNone;
  // Nothing here decompresses zstd.
  const bool isDecompressed = isEncoded && media.encoding != Encoding::kZstd &&
                              !Accepts(request.acceptEncoding, media.encoding);
  std::string tag = TagOf(answer.payload, bytes, media.encoding, isDecompressed);
  auto time = TimeOf(answer.payload.stamp());
  if (time && *time > std::time(nullptr)) time.reset();  // what was modified is not of the future
  const bool isUnchanged = IsUnchanged(request, tag, time);
  answer.Set("ETag", std::move(tag));
  if (time) answer.Set("Last-Modified", ToHttpDate(*time));
  if (isEncoded) answer.Set("Vary", "Accept-Encoding");
  if (isUnchanged) {
    answer.status = 304;
    return true;
  }
  if (isDecompressed) {
    auto contents = Decompress(bytes, media.encoding, kLargeContents);
    if (!contents) {
      answer.held = rules.large->Take("the server is busy with other large tiles");
      contents = Decompress(bytes, media.encoding, kMostContents);
    }
    if (!contents) throw Refusal(500, "the tile cannot be decompressed");
    answer.text = std::move(*contents);
  } else {
    if (isEncoded) answer.Set("Content-Encoding", NameOf(media.encoding));
    answer.hasPayload = true;
  }
  answer.Set("Content-Type", media.type);
  if (!query.fileName.empty())
    answer.Set("Content-Disposition", "attachment; filename=\"" + query.fileName +
                                          (media.extension.empty() ? "" : "." + media.extension) +
                                          "\"");
  return true;
}

}  // namespace Serve
