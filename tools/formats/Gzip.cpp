#include "Gzip.h"

#include <zlib.h>

#include <algorithm>
#include <new>

namespace Formats {
namespace {

constexpr int kGzip = 15 + 16;  // the largest window, and a gzip header

Bytef* ToZlib(const char* bytes) { return reinterpret_cast<Bytef*>(const_cast<char*>(bytes)); }

/// A stream of zlib, which `end` frees.
struct Stream {
  explicit Stream(int (*stop)(z_streamp)) : end(stop) {}
  ~Stream() { end(&state); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  z_stream state = {};
  int (*end)(z_streamp);
};

}  // namespace

std::string Compress(std::string_view bytes) {
  Stream stream(deflateEnd);
  if (deflateInit2(&stream.state, Z_BEST_COMPRESSION, Z_DEFLATED, kGzip, 9, Z_DEFAULT_STRATEGY) !=
      Z_OK)
    throw std::bad_alloc();
  std::string result(deflateBound(&stream.state, bytes.size()), '\0');
  stream.state.next_in = ToZlib(bytes.data());
  stream.state.avail_in = static_cast<uInt>(bytes.size());
  stream.state.next_out = ToZlib(result.data());
  stream.state.avail_out = static_cast<uInt>(result.size());
  deflate(&stream.state, Z_FINISH);
  result.resize(result.size() - stream.state.avail_out);
  return result;
}

std::optional<std::string> Inflate(std::string_view bytes, std::size_t most) {
  Stream stream(inflateEnd);
  if (inflateInit2(&stream.state, kGzip) != Z_OK) throw std::bad_alloc();
  stream.state.next_in = ToZlib(bytes.data());
  stream.state.avail_in = static_cast<uInt>(bytes.size());
  std::string result;
  std::size_t length = 0;
  // A byte more than allowed shows that there is too much.
  for (int state = Z_OK; state == Z_OK;) {
    if (length == result.size()) {
      if (length > most) return std::nullopt;
      result.resize(std::min(std::max(4 * bytes.size(), 2 * length), most + 1));
    }
    stream.state.next_out = ToZlib(result.data() + length);
    stream.state.avail_out = static_cast<uInt>(result.size() - length);
    state = inflate(&stream.state, Z_NO_FLUSH);
    length = result.size() - stream.state.avail_out;
    if (state == Z_STREAM_END && stream.state.avail_in == 0 && length <= most) {
      result.resize(length);
      return result;
    }
  }
  return std::nullopt;
}

}  // namespace Formats
