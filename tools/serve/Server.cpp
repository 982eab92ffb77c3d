#include "Server.h"

#include "Assets.h"
#include "HttpServer.h"

namespace Serve {

class Server::Site {
 public:
  explicit Site(const Options& options)
      : m_http([this](const HttpRequest& request, HttpAnswer& answer) { Answer(request, answer); },
               [](const HttpRecord&) {}) {
    m_port = m_http.Start(options.host, options.port, options.threads);
    m_address = "http://" + options.host + ":" + std::to_string(m_port) + "/";
  }

  const std::string& Address() const { return m_address; }
  int Port() const { return m_port; }

 private:
  void Answer(const HttpRequest& request, HttpAnswer& answer) {
    constexpr std::string_view kFolder = "/_/";
    const std::string_view target = request.target;
    const Asset* const asset = FindAsset(target == "/"                 ? "index.html"
                                         : target.starts_with(kFolder) ? target.substr(3)
                                                                       : "");
    if (asset == nullptr) {
      answer.status = 404;
      answer.text = "no such page\n";
      return;
    }
    answer.Set("Content-Type", asset->type);
    answer.Set("Content-Encoding", "gzip");
    answer.Set("Content-Security-Policy",
               "default-src 'self'; worker-src 'self' blob:; img-src 'self' data: blob:; style-src "
               "'self' 'unsafe-inline'");
    answer.constant = asset->gzip;
  }

  int m_port = 0;
  std::string m_address;
  HttpServer m_http;
};

Server::Server(const Options& options) : m_site(std::make_unique<Site>(options)) {}
Server::~Server() = default;
const std::string& Server::Address() const { return m_site->Address(); }
int Server::Port() const { return m_site->Port(); }
std::vector<std::string> Server::Names() const { return {}; }

}  // namespace Serve
