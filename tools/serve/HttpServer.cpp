#include "HttpServer.h"

#include <httplib.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "ClientStream.h"
#include "HttpDate.h"

namespace Serve {
namespace {

// The request that a thread is about.
struct Exchange {
  const ClientStream* stream = nullptr;
  HttpRequest request;
  HttpAnswer answer;
  bool isAnswered = false;  // else the request could not be read
  bool isLast = false;
  std::size_t bodyLength = 0;  // of the request
  std::chrono::steady_clock::time_point begin;

  void Reset(const ClientStream& newStream) {
    stream = &newStream;
    request.method.clear();
    answer.Reset();
    isAnswered = isLast = false;
    bodyLength = 0;
    begin = std::chrono::steady_clock::now();
  }
};
thread_local Exchange t_exchange;

// A field that has come several times is a list.
std::string HeaderField(const httplib::Request& request, const char* name) {
  const auto [first, last] = request.headers.equal_range(name);
  std::string list;
  for (auto field = first; field != last; ++field)
    list += (field == first ? "" : ", ") + field->second;
  return list;
}

// Why a request was not given to the handler.
const char* SentenceOf(int status) {
  switch (status) {
    case 414:
      return "the URL is too long\n";
    case 417:
      return "requests have no body here\n";
    case 431:
      return "the header of the request is too long\n";
    default:
      return "the request cannot be understood\n";
  }
}

}  // namespace

void HttpAnswer::Reset() {
  constexpr std::size_t kMostKept = 1 << 20;
  status = 200;
  fields.clear();
  text.clear();
  if (text.capacity() > kMostKept) text.shrink_to_fit();
  if (payload.text().size() > kMostKept) payload = {};
  held.reset();
  constant = {};
  hasPayload = false;
}

// The library listens, has a thread for each connection, reads requests and writes the heads of
// answers. Its own streams would read a line of any length into memory, and keep a server that ends
// waiting for clients that say nothing.
class HttpServer::Engine : private httplib::Server {
 public:
  Engine(HttpServer::Handler handler, Observer observer);
  ~Engine() override;

  int Start(const std::string& host, int port, unsigned int threads);
  void Stop();

 private:
  bool process_and_close_socket(socket_t socket) override;
  bool IsOver() const { return m_isEnding && std::chrono::steady_clock::now() > m_endTime; }
  bool Answer(ClientStream& stream);
  void Handle(const httplib::Request& request, httplib::Response& response);
  static void LookAtBody(const httplib::Request& request);
  static void Refuse(const httplib::Request& request, httplib::Response& response);
  static void Complete(httplib::Response& response);

  const HttpServer::Handler m_handler;
  const Observer m_observer;
  std::atomic<bool> m_isEnding = false;
  std::chrono::steady_clock::time_point m_endTime;  // if it is ending
  const int m_end = ::eventfd(0, EFD_CLOEXEC);
  std::thread m_listening;
};

HttpServer::Engine::Engine(HttpServer::Handler handler, Observer observer)
    : m_handler(std::move(handler)), m_observer(std::move(observer)) {
  if (m_end < 0) throw std::system_error(errno, std::generic_category(), "cannot listen");
  set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
    Handle(request, response);
    return HandlerResponse::Handled;
  });
  set_error_handler([this](const httplib::Request& request, httplib::Response& response) {
    if (t_exchange.isAnswered) return;
    if (response.status != 416) return Refuse(request, response);
    LookAtBody(request);  // a range that makes no sense is ignored as others are
    Handle(request, response);
  });
  set_post_routing_handler(
      [](const httplib::Request&, httplib::Response& response) { Complete(response); });
  // Nobody wants a body, and 0 keeps the library from saying anything else.
  set_expect_100_continue_handler([](const httplib::Request&, httplib::Response& response) {
    response.status = 417;
    return 0;
  });
  set_tcp_nodelay(true);
  // Without this, two servers would share a port.
  set_socket_options([](socket_t socket) {
    const int on = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  });
}

HttpServer::Engine::~Engine() {
  Stop();
  ::close(m_end);
}

int HttpServer::Engine::Start(const std::string& host, int port, unsigned int threads) {
  errno = 0;
  const std::string wanted = host + ":" + std::to_string(port);
  const bool isBound = port == 0 ? (port = bind_to_any_port(host)) > 0 : bind_to_port(host, port);
  // The library has asked for a queue of five, which is too short when many clients come at once.
  constexpr int kBacklog = 1024;
  if (!isBound || ::listen(svr_sock_, kBacklog) != 0)
    throw std::runtime_error("cannot listen at " + wanted +
                             (errno != 0 ? ": " + std::generic_category().message(errno) : ""));
  new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
  m_listening = std::thread([this, host, port] {
    // It also returns when the system has failed to accept a connection.
    while (!m_isEnding) {
      listen_after_bind();
      if (m_isEnding) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      bind_to_port(host, port);
    }
  });
  while (!is_running())
    std::this_thread::yield();
  return port;
}

void HttpServer::Engine::Stop() {
  if (!m_listening.joinable()) return;
  m_endTime = std::chrono::steady_clock::now() + ClientStream::kEndTime;
  m_isEnding = true;
  ::eventfd_write(m_end, 1);
  stop();
  m_listening.join();
}

bool HttpServer::Engine::process_and_close_socket(socket_t socket) {
  try {
    ClientStream stream(socket, m_end);
    // What has come before the end is answered.
    while (!IsOver() && stream.Await() && Answer(stream)) {
    }
  } catch (const std::bad_alloc&) {
    return false;  // this client gets no answer; others may
  }
  return true;
}

// False if the connection has come to its end.
bool HttpServer::Engine::Answer(ClientStream& stream) {
  Exchange& exchange = t_exchange;
  exchange.Reset(stream);
  bool isClosed = false;
  if (!process_request(stream, false, isClosed, [](httplib::Request& request) {
        request.ranges.clear();  // nothing is given in parts
        LookAtBody(request);
        t_exchange.begin = std::chrono::steady_clock::now();
      }))
    return false;
  const bool isLast = isClosed || exchange.isLast;
  const std::string_view body =
      exchange.request.method == "HEAD" ? std::string_view() : exchange.answer.Body();
  m_observer(
      {exchange.answer.status, body.size(), std::chrono::steady_clock::now() - exchange.begin});
  const bool isSent = stream.Send(body);
  exchange.answer.Reset();
  if (!isSent) return false;
  if (isLast) stream.Finish();
  return !isLast && stream.Skip(exchange.bodyLength);
}

// How many bytes follow the head. Of those that nobody counts there may be any number.
void HttpServer::Engine::LookAtBody(const httplib::Request& request) {
  Exchange& exchange = t_exchange;
  const std::string length = HeaderField(request, "Content-Length");
  const char* const end = length.data() + length.size();
  const auto read = std::from_chars(length.data(), end, exchange.bodyLength);
  const bool isCounted = length.empty() || (read.ec == std::errc() && read.ptr == end &&
                                            exchange.bodyLength <= kLongestBody);
  if (isCounted && !request.has_header("Transfer-Encoding")) return;
  exchange.bodyLength = 0;
  exchange.isLast = true;
}

void HttpServer::Engine::Handle(const httplib::Request& request, httplib::Response& response) {
  Exchange& exchange = t_exchange;
  exchange.isAnswered = true;
  HttpRequest& asked = exchange.request;
  asked.method = request.method;
  asked.target = request.target;
  asked.host = HeaderField(request, "Host");
  asked.acceptEncoding = HeaderField(request, "Accept-Encoding");
  asked.ifNoneMatch = HeaderField(request, "If-None-Match");
  asked.ifModifiedSince = HeaderField(request, "If-Modified-Since");
  m_handler(asked, exchange.answer);
  response.status = exchange.answer.status;
}

// What cannot be understood ends the connection: nobody knows where the next request begins.
void HttpServer::Engine::Refuse(const httplib::Request& request, httplib::Response& response) {
  Exchange& exchange = t_exchange;
  if (response.status == 400 && exchange.stream->IsTooLong()) response.status = 431;
  exchange.isLast = true;
  exchange.request.method = request.method;
  exchange.answer.status = response.status;
  exchange.answer.text = SentenceOf(response.status);
  exchange.answer.Set("Content-Type", "text/plain; charset=utf-8");
  exchange.answer.Set("Cache-Control", "no-store");
}

// The head has what the library says of a body of its own; this one is sent without a copy.
void HttpServer::Engine::Complete(httplib::Response& response) {
  Exchange& exchange = t_exchange;
  for (const char* const name : {"Keep-Alive", "Accept-Ranges", "Content-Length"})
    response.headers.erase(name);
  if (exchange.isLast) {
    response.headers.erase("Connection");
    response.headers.emplace("Connection", "close");
  }
  response.headers.emplace("Date", NowAsHttpDate());
  for (auto& [name, value] : exchange.answer.fields)
    response.headers.emplace(name, std::move(value));
  const int status = exchange.answer.status;
  if (status != 204 && status != 304)
    response.headers.emplace("Content-Length", std::to_string(exchange.answer.Body().size()));
}

HttpServer::HttpServer(Handler handler, Observer observer)
    : m_engine(std::make_unique<Engine>(std::move(handler), std::move(observer))) {}

HttpServer::~HttpServer() = default;

int HttpServer::Start(const std::string& host, int port, unsigned int threads) {
  return m_engine->Start(host, port, threads);
}

void HttpServer::Stop() { m_engine->Stop(); }

}  // namespace Serve
