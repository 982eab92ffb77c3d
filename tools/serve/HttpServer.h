#pragma once

#include <hx/bytes.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Serve {

/// A request: what of it can change an answer.
struct HttpRequest {
  std::string method;
  std::string target;  ///< path and query as they came, still encoded
  std::string host, acceptEncoding, ifNoneMatch, ifModifiedSince;  ///< header fields, if they came
};

/// What is answered to it.
struct HttpAnswer {
  int status = 200;
  std::vector<std::pair<const char*, std::string>> fields;  ///< of the header
  /// The body is one of these three.
  std::string text;
  hx::Payload payload;
  std::string_view constant;  ///< lives as long as the program
  bool hasPayload = false;
  std::shared_ptr<const void> held;  ///< given back when the answer is sent

  std::string_view Body() const {
    return hasPayload          ? payload.text().substr(0, payload.filled())
           : !constant.empty() ? constant
                               : std::string_view(text);
  }
  void Set(const char* name, std::string value) { fields.emplace_back(name, std::move(value)); }
  /// As new, but for memory that another answer can use, if it is not very much.
  void Reset();
};

/// What was answered, for whoever counts.
struct HttpRecord {
  int status;
  std::size_t bytes;  ///< of the body
  std::chrono::steady_clock::duration time;
};

/// Listens, reads requests and writes answers.
class HttpServer {
 public:
  /// Makes the answer to a request of any method. Many threads call both.
  using Handler = std::function<void(const HttpRequest&, HttpAnswer&)>;
  using Observer = std::function<void(const HttpRecord&)>;

  static constexpr std::size_t kLongestBody = 64 << 10;  ///< of a request; nobody reads it

  HttpServer(Handler handler, Observer observer);
  /// Stops.
  ~HttpServer();

  /// Begins to listen and to answer, and returns the port; 0 chooses a free one. Throws
  /// std::runtime_error if the address cannot be used.
  int Start(const std::string& host, int port, unsigned int threads);
  /// Ends, when the requests that have come are answered; a client that is slow gets two seconds.
  void Stop();

 private:
  class Engine;

  std::unique_ptr<Engine> m_engine;
};

}  // namespace Serve
