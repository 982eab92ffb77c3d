#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace Serve {

/// What is served, and how.
struct Options {
  std::vector<std::filesystem::path> paths;  ///< files, sets of grids, and folders of both
  std::string password;                      ///< of all of them
  std::string host = "127.0.0.1";
  int port = 8080;             ///< 0: any free one
  std::string cors;            ///< the origin whose pages may use the answers, or *; empty: none
  std::string publicUrl;       ///< where clients find the server; empty: where they have asked
  int missingStatus = 204;     ///< of a tile that is not there
  std::uint32_t maxAge = 0;    ///< seconds for which caches need not ask again
  unsigned int threads = 128;  ///< each has one connection at a time
};

/// Serves files over HTTP until it is destroyed. Others may write into them meanwhile.
class Server {
 public:
  /// Opens the files and begins to answer. Throws hx::Error if a file that was named cannot be
  /// opened, and std::runtime_error if the address or the options cannot be used.
  explicit Server(const Options& options);
  /// Answers what was asked up to now, and ends.
  ~Server();

  /// "http://127.0.0.1:8080/"
  const std::string& Location() const;
  int Port() const;
  /// Under which names the files are found.
  std::vector<std::string> Names() const;
  /// Why files of folders cannot be opened, in a sentence each. They are not served.
  const std::vector<std::string>& LeftOut() const;

 private:
  class Site;

  std::unique_ptr<Site> m_site;
};

}  // namespace Serve
