#include "HttpServer.h"

#include <httplib.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <exception>
#include <stdexcept>

#include "Connections.h"
#include "HttpDate.h"

namespace Serve {
namespace {

/// A request that was received, and the head of the answer to it.
class HeadStream : public httplib::Stream {
 public:
  HeadStream(std::string_view request, std::string& answer)
      : m_request(request), m_answer(answer) {}

  bool is_readable() const override { return !m_request.empty(); }
  bool is_writable() const override { return true; }
  ssize_t read(char* target, std::size_t size) override {
    const std::size_t count = m_request.copy(target, size);
    m_request.remove_prefix(count);
    return static_cast<ssize_t>(count);
  }
  ssize_t write(const char* bytes, std::size_t size) override {
    m_answer.append(bytes, size);
    return static_cast<ssize_t>(size);
  }
  void get_remote_ip_and_port(std::string&, int&) const override {}
  void get_local_ip_and_port(std::string&, int&) const override {}
  socket_t socket() const override { return INVALID_SOCKET; }

 private:
  std::string_view m_request;
  std::string& m_answer;
};

// The request that a thread is about.
struct Exchange {
  HttpRequest request;
  HttpAnswer answer;
  bool isAnswered = false;  // else the request could not be read
  bool isLast = false;
  std::size_t bodyLength = 0;  // of the request
};
thread_local Exchange t_exchange;

std::string Field(const httplib::Request& request, const char* name) {
  const auto found = request.headers.find(name);
  return found != request.headers.end() ? found->second : std::string();
}

// Why a request was not given to the handler.
const char* SentenceOf(int status) {
  switch (status) {
    case 414:
      return "the URL is too long\n";
    case 416:
      return "there is no such range\n";
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
  status = 200;
  fields.clear();
  text.clear();
  constant = {};
  hasPayload = false;
}

// Of the library it uses what binds an address, reads a request and writes the head of an answer.
// It has threads of its own, but one for each connection, and no limit to what it reads into
// memory.
class HttpServer::Engine : private httplib::Server {
 public:
  Engine(HttpServer::Handler handler, Observer observer);

  int Start(const std::string& host, int port, unsigned int threads);
  void Stop() { m_connections.Stop(); }

 private:
  void Answer(std::string_view head, Connections::Reply& reply);
  void Handle(const httplib::Request& request, httplib::Response& response);
  static void LookAtBody(const httplib::Request& request);
  static void Refuse(const httplib::Request& request, const httplib::Response& response);
  static void RefuseLong(std::string_view head, std::string& answer);
  static void Complete(httplib::Response& response);

  const HttpServer::Handler m_handler;
  const Observer m_observer;
  Connections m_connections;
};

HttpServer::Engine::Engine(HttpServer::Handler handler, Observer observer)
    : m_handler(std::move(handler)),
      m_observer(std::move(observer)),
      m_connections(
          [this](std::string_view head, Connections::Reply& reply) { Answer(head, reply); }) {
  set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
    Handle(request, response);
    return HandlerResponse::Handled;
  });
  set_error_handler([](const httplib::Request& request, httplib::Response& response) {
    if (!t_exchange.isAnswered) Refuse(request, response);
  });
  set_post_routing_handler(
      [](const httplib::Request&, httplib::Response& response) { Complete(response); });
  // Nobody wants a body, and 0 keeps the library from saying anything else.
  set_expect_100_continue_handler([](const httplib::Request&, httplib::Response& response) {
    response.status = 417;
    return 0;
  });
  // Without this, two servers would share a port.
  set_socket_options([](socket_t socket) {
    const int on = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  });
}

int HttpServer::Engine::Start(const std::string& host, int port, unsigned int threads) {
  errno = 0;
  const bool isBound = port == 0 ? (port = bind_to_any_port(host)) > 0 : bind_to_port(host, port);
  if (!isBound)
    throw std::runtime_error("cannot listen at " + host + ":" + std::to_string(port) +
                             (errno != 0 ? ": " + std::generic_category().message(errno) : ""));
  m_connections.Start(svr_sock_.exchange(INVALID_SOCKET), threads);
  return port;
}

void HttpServer::Engine::Answer(std::string_view head, Connections::Reply& reply) {
  const auto begin = std::chrono::steady_clock::now();
  Exchange& exchange = t_exchange;
  exchange.answer.Reset();
  exchange.isAnswered = false;
  exchange.isLast = false;
  exchange.bodyLength = 0;

  HeadStream stream(head, reply.head);
  bool isClosed = false;
  if (head.ends_with("\n\r\n"))
    process_request(stream, false, isClosed, [](httplib::Request& request) {
      request.ranges.clear();  // nothing is given in parts
      LookAtBody(request);
    });
  else
    RefuseLong(head, reply.head);
  reply.isLast = isClosed || exchange.isLast;
  reply.skip = exchange.bodyLength;
  if (exchange.request.method != "HEAD") reply.body = exchange.answer.Body();
  m_observer({exchange.answer.status, reply.body.size(), std::chrono::steady_clock::now() - begin});
}

// How many bytes follow the head. Of those that nobody counts there may be any number.
void HttpServer::Engine::LookAtBody(const httplib::Request& request) {
  Exchange& exchange = t_exchange;
  const std::string length = Field(request, "Content-Length");
  const char* const end = length.data() + length.size();
  const auto read = std::from_chars(length.data(), end, exchange.bodyLength);
  const bool isCounted = length.empty() || (read.ec == std::errc() && read.ptr == end &&
                                            exchange.bodyLength <= kLongestBody &&
                                            request.headers.count("Content-Length") == 1);
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
  asked.host = Field(request, "Host");
  asked.acceptEncoding = Field(request, "Accept-Encoding");
  asked.ifNoneMatch = Field(request, "If-None-Match");
  asked.ifModifiedSince = Field(request, "If-Modified-Since");
  m_handler(asked, exchange.answer);
  response.status = exchange.answer.status;
}

// What cannot be understood ends the connection: nobody knows where the next request begins.
void HttpServer::Engine::Refuse(const httplib::Request& request,
                                const httplib::Response& response) {
  Exchange& exchange = t_exchange;
  exchange.isLast = true;
  exchange.request.method = request.method;
  exchange.answer.status = response.status;
  exchange.answer.text = SentenceOf(response.status);
  exchange.answer.Set("Content-Type", "text/plain; charset=utf-8");
  exchange.answer.Set("Cache-Control", "no-store");
}

// The library would read it for what it has of it.
void HttpServer::Engine::RefuseLong(std::string_view head, std::string& answer) {
  HttpAnswer& refusal = t_exchange.answer;
  t_exchange.isLast = true;
  t_exchange.request.method.clear();
  refusal.status = head.find('\n') == head.npos ? 414 : 431;
  refusal.text = SentenceOf(refusal.status);
  answer = "HTTP/1.1 " + std::to_string(refusal.status) + " " +
           (refusal.status == 414 ? "URI Too Long" : "Request Header Fields Too Large") +
           "\r\nConnection: close\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: " +
           std::to_string(refusal.text.size()) + "\r\n\r\n";
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
