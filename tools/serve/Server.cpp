#include "Server.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <exception>
#include <iterator>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>

#include "Assets.h"
#include "Encoding.h"
#include "Facts.h"
#include "HttpServer.h"
#include "Limit.h"
#include "Metrics.h"
#include "TileAnswer.h"
#include "Url.h"

namespace Serve {
namespace {

constexpr const char* kMethods = "GET, HEAD, OPTIONS";
// A page that is shown may not load or send anything elsewhere.
constexpr const char* kPolicy =
    "default-src 'self'; img-src 'self' data: blob:; "
    "style-src 'self' 'unsafe-inline'";

// Files, sets of grids, and what a folder has of both.
struct Found {
  std::filesystem::path path;
  bool isNamed;  // itself, not its folder
};
std::vector<Found> FindFiles(const std::vector<std::filesystem::path>& paths) {
  std::error_code ignored;
  const auto isSet = [&](const std::filesystem::path& path) {
    return std::filesystem::exists(path / "tileset.json", ignored);
  };
  std::vector<Found> files;
  for (const auto& path : paths) {
    if (!std::filesystem::is_directory(path, ignored) || isSet(path)) {
      files.push_back({path, true});
      continue;
    }
    std::set<std::filesystem::path> inFolder;
    for (const auto& entry : std::filesystem::directory_iterator(path))
      if (entry.is_directory(ignored)
              ? isSet(entry.path())
              : entry.is_regular_file(ignored) && entry.path().extension() == ".cf" &&
                    !entry.path().filename().string().starts_with('.'))
        inFolder.insert(entry.path());
    for (const auto& file : inFolder)
      files.push_back({file, false});
  }
  return files;
}

// As a part of a file name that every system takes.
std::string Tidy(std::string text) {
  for (char& c : text)
    if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '.' && c != '-') c = '_';
  return text;
}

}  // namespace

class Server::Site {
 public:
  explicit Site(const Options& options);
  ~Site() {
    m_isStopping = true;
    m_http.Stop();
  }

  const Options m_options;
  std::vector<std::unique_ptr<ServedFile>> m_files;
  std::vector<std::string> m_leftOut;
  int m_port = 0;
  std::string m_address;

 private:
  using Walk = Json (*)(const ServedFile&, const Url&, const std::atomic<bool>&);

  void Answer(const HttpRequest& request, HttpAnswer& answer);
  void Route(const HttpRequest& request, HttpAnswer& answer);
  void RouteInFile(const ServedFile& file, const Url& url, const HttpRequest& request,
                   HttpAnswer& answer);
  void AnswerOptions(HttpAnswer& answer) const;
  void AnswerHealth(HttpAnswer& answer) const;
  void AnswerWalk(const ServedFile& file, const Url& url, Walk walk, HttpAnswer& answer);
  void AnswerAddressed(const ServedFile& file, const Address& address, const std::string& text,
                       const Url& url, const HttpRequest& request, HttpAnswer& answer);
  const ServedFile* Find(std::string_view name) const;
  std::string NameFor(const std::filesystem::path& path) const;
  std::string BaseFor(const HttpRequest& request) const;

  Limit m_walks;  // some threads are kept for what does not take long
  Limit m_large{8};
  const TileRules m_rules;
  std::atomic<bool> m_isStopping = false;
  Metrics m_metrics;
  HttpServer m_http;  // the last one: it calls for the others
};

namespace {

void AnswerText(HttpAnswer& answer, int status, std::string text) {
  answer.status = status;
  answer.text = std::move(text);
  answer.Set("Content-Type", "text/plain; charset=utf-8");
  answer.Set("Cache-Control", "no-store");
}

void AnswerJson(HttpAnswer& answer, const Json& json) {
  answer.text = json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  answer.Set("Content-Type", "application/json");
  answer.Set("Cache-Control", "no-cache");
}

void AnswerAsset(std::string_view name, const HttpRequest& request, HttpAnswer& answer) {
  const Asset* const asset = FindAsset(name);
  if (asset == nullptr) throw Refusal(404, "there is no such page");
  answer.Set("Content-Type", asset->type);
  answer.Set("Cache-Control", "no-cache");
  answer.Set("Content-Security-Policy", kPolicy);
  answer.Set("Vary", "Accept-Encoding");
  if (Accepts(request.acceptEncoding, Encoding::kGzip)) {
    answer.Set("Content-Encoding", NameOf(Encoding::kGzip));
    answer.constant = asset->gzip;
  } else {
    answer.text = Decompress(asset->gzip, Encoding::kGzip, SIZE_MAX - 1).value();
  }
}

// What a client may call the server; nothing that could mean anything else.
bool IsHost(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return std::isalnum(c) != 0 || c == '.' || c == '-' || c == ':' || c == '[' || c == ']';
  });
}

}  // namespace

Server::Site::Site(const Options& options)
    : m_options(options),
      m_walks(std::max(1U, options.threads / 2)),
      m_rules{options.missingStatus, CacheControlOf(options.maxAge), &m_large},
      m_http([this](const HttpRequest& request, HttpAnswer& answer) { Answer(request, answer); },
             [this](const HttpRecord& record) {
               m_metrics.Count(record.status, record.bytes, record.time);
             }) {
  hx::Options how;
  how.read_only = true;
  how.password = options.password;
  for (const auto& [path, isNamed] : FindFiles(options.paths)) {
    try {
      m_files.push_back(std::make_unique<ServedFile>(NameFor(path), path, how));
    } catch (const hx::Error& error) {
      if (isNamed) throw;
      m_leftOut.push_back(error.what());
    }
  }
  if (m_files.empty())
    throw std::runtime_error(m_leftOut.empty() ? "there are no files to serve" : m_leftOut[0]);
  m_port = m_http.Start(options.host, options.port, options.threads);
  const bool isIpv6 = options.host.find(':') != std::string::npos;
  m_address = "http://" + (isIpv6 ? "[" + options.host + "]" : options.host) + ":" +
              std::to_string(m_port) + "/";
}

// Without the extension. What paths of the server's own begin with, and names that another file
// has, get something behind them.
std::string Server::Site::NameFor(const std::filesystem::path& path) const {
  const std::filesystem::path file = path.has_filename() ? path : path.parent_path();
  std::string name = file.extension() == ".cf" ? file.stem() : file.filename();
  for (const char* const reserved : {"health", "metrics", "index", "_", "", ".", ".."})
    if (name == reserved) {
      name += "-file";
      break;
    }
  std::string free = name;
  for (int i = 2; Find(free) != nullptr; ++i)
    free = name + "-" + std::to_string(i);
  return free;
}

const ServedFile* Server::Site::Find(std::string_view name) const {
  for (const auto& file : m_files)
    if (file->Name() == name) return file.get();
  return nullptr;
}

std::string Server::Site::BaseFor(const HttpRequest& request) const {
  if (m_options.publicUrl.empty())
    return IsHost(request.host) ? "http://" + request.host + "/" : m_address;
  return m_options.publicUrl + (m_options.publicUrl.ends_with('/') ? "" : "/");
}

void Server::Site::Answer(const HttpRequest& request, HttpAnswer& answer) {
  const auto fail = [&](int status, const std::string& sentence) {
    answer.Reset();
    AnswerText(answer, status, sentence + "\n");
    if (status == 503) answer.Set("Retry-After", "1");
    if (status == 405) answer.Set("Allow", kMethods);
  };
  try {
    if (request.method == "OPTIONS")
      AnswerOptions(answer);
    else if (request.method == "GET" || request.method == "HEAD")
      Route(request, answer);
    else
      fail(405, "only GET, HEAD and OPTIONS are answered");
  } catch (const Refusal& refusal) {
    fail(refusal.Status(), refusal.what());
  } catch (const hx::Error& error) {
    fail(StatusOf(error.cause()), error.what());
  } catch (const std::bad_alloc&) {
    fail(503, "memory is short");
  } catch (const std::exception& error) {
    fail(500, error.what());
  }
  if (!m_options.cors.empty()) answer.Set("Access-Control-Allow-Origin", m_options.cors);
  answer.Set("X-Content-Type-Options", "nosniff");
}

void Server::Site::AnswerOptions(HttpAnswer& answer) const {
  answer.status = 204;
  answer.Set("Allow", kMethods);
  if (m_options.cors.empty()) return;
  answer.Set("Access-Control-Allow-Methods", kMethods);
  answer.Set("Access-Control-Allow-Headers", "*");
  answer.Set("Access-Control-Max-Age", "86400");
}

void Server::Site::Route(const HttpRequest& request, HttpAnswer& answer) {
  const auto url = Url::Parse(request.target);
  if (!url) throw Refusal(400, "the path is malformed");
  const std::vector<std::string>& path = url->segments;
  constexpr std::string_view kJson = ".json";
  if (path.size() > 1 && path[0] == "_") return AnswerAsset(url->Rest(1), request, answer);
  if (path.size() > 1) {
    const ServedFile* const file = Find(path[0]);
    if (file == nullptr) throw Refusal(404, "no file of this name is served");
    return RouteInFile(*file, *url, request, answer);
  }
  if (path[0].empty()) return AnswerAsset("index.html", request, answer);
  if (path[0] == "index.json") return AnswerJson(answer, ListOf(m_files));
  if (path[0] == "health") return AnswerHealth(answer);
  if (path[0] == "metrics") return AnswerText(answer, 200, m_metrics.Print());
  const ServedFile* const file =
      path[0].ends_with(kJson) ? Find(path[0].substr(0, path[0].size() - kJson.size())) : nullptr;
  if (file == nullptr) throw Refusal(404, "no file of this name is served");
  const auto task = m_walks.Take("the server is busy with other walks over files");
  AnswerJson(answer, TileJsonOf(*file, BaseFor(request), m_isStopping));
}

void Server::Site::RouteInFile(const ServedFile& file, const Url& url, const HttpRequest& request,
                               HttpAnswer& answer) {
  const std::vector<std::string>& path = url.segments;
  constexpr std::pair<std::string_view, Walk> kWalks[] = {
      {"info.json",
       [](const ServedFile& f, const Url&, const std::atomic<bool>& s) { return InfoOf(f, s); }},
      {"heat.json", HeatOf},
      {"names.json", NamesOf}};
  if (path.size() == 2) {
    for (const auto& [name, walk] : kWalks)
      if (path[1] == name) return AnswerWalk(file, url, walk, answer);
    if (path[1] == "versions.json") return AnswerJson(answer, VersionsOf(file, url));
  }
  if (path.size() > 2 && path[1] == "name")
    return AnswerAddressed(file, url.Rest(2), path.back(), url, request, answer);
  if (path.size() != 4) throw Refusal(404, "there is no such page");
  if (path[1] == "cell")
    return AnswerAddressed(file, ParseCell(path[2], path[3]), path[2] + "-" + path[3], url, request,
                           answer);
  const std::size_t dot = std::min(path[3].find('.'), path[3].size());
  const hx::Tile tile = ParseTile(path[1], path[2], std::string_view(path[3]).substr(0, dot));
  std::string text = tile.name();
  std::replace(text.begin(), text.end(), '/', '-');
  AnswerAddressed(file, tile, text, url, request, answer);
}

void Server::Site::AnswerWalk(const ServedFile& file, const Url& url, Walk walk,
                              HttpAnswer& answer) {
  const auto task = m_walks.Take("the server is busy with other walks over files");
  AnswerJson(answer, walk(file, url, m_isStopping));
}

void Server::Site::AnswerAddressed(const ServedFile& file, const Address& address,
                                   const std::string& text, const Url& url,
                                   const HttpRequest& request, HttpAnswer& answer) {
  TileQuery query;
  if (const auto stamp = url.Get("stamp"); !stamp.empty()) {
    query.stamp = ParseNumber<unsigned long long>(stamp);
    if (!query.stamp) throw Refusal(400, "a stamp is a number");
  }
  if (!url.Get("download").empty()) query.fileName = Tidy(file.Name() + "-" + text);
  if (!AnswerTile(file, address, query, m_rules, request, answer)) m_metrics.CountMiss();
}

// Whether requests should be sent here: whether all files can be used, be it that a tile is
// damaged.
void Server::Site::AnswerHealth(HttpAnswer& answer) const {
  for (const auto& file : m_files) {
    const hx::Cause cause = file->Check();
    if (cause != hx::Cause::kNone && cause != hx::Cause::kDamagedRecord &&
        cause != hx::Cause::kDamagedEntry && !IsMissing(cause))
      throw Refusal(503, file->Name() + " cannot be used: " + Zarn::ZrCauseText(cause));
  }
  AnswerText(answer, 200, "ok\n");
}

Server::Server(const Options& options) : m_site(std::make_unique<Site>(options)) {}
Server::~Server() = default;
const std::string& Server::Location() const { return m_site->m_address; }
int Server::Port() const { return m_site->m_port; }

const std::vector<std::string>& Server::LeftOut() const { return m_site->m_leftOut; }

std::vector<std::string> Server::Names() const {
  std::vector<std::string> names;
  for (const auto& file : m_site->m_files)
    names.push_back(file->Name());
  return names;
}

}  // namespace Serve
