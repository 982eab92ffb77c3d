#include "Connections.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

namespace Serve {
namespace {

constexpr std::chrono::seconds kSweepTime{1}, kStopTime{2};
constexpr int kBacklog = 1024;
constexpr std::size_t kNoEnd = SIZE_MAX;  // bytes to pass over: all that come

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Behind the empty line that ends a head; npos if there is none yet. Looks on from `from`.
std::size_t FindEnd(std::string_view text, std::size_t from) {
  constexpr std::string_view kEnd = "\n\r\n";
  const std::size_t at = text.find(kEnd, from < kEnd.size() ? 0 : from - kEnd.size());
  return at == text.npos ? at : at + kEnd.size();
}

}  // namespace

// One thread at a time has it: that which was told of its event, until it waits for the next one.
struct Connections::Connection {
  explicit Connection(int s) : socket(s) {}
  ~Connection() { ::close(socket); }

  std::string_view Unread() const { return std::string_view(in).substr(begin); }
  std::size_t Unsent() const { return out.size() - sent; }
  void SetDeadline(std::chrono::seconds time) {
    deadline = (Clock::now() + time).time_since_epoch().count();
  }
  bool Send(std::string_view head, std::string_view body);

  const int socket;
  std::string in, out;
  std::size_t begin = 0;     // of what was received and not used yet
  std::size_t searched = 0;  // how much of that has no end of a head
  std::size_t sent = 0;      // of `out`
  std::size_t skip = 0;
  bool isLast = false;                   // nothing is answered any more
  std::atomic<bool> isIdle = true;       // nothing is under way
  std::atomic<Clock::rep> deadline = 0;  // whoever sweeps reads these two
};

// Sends what the socket takes, and keeps a copy of the rest. False if the client is gone.
bool Connections::Connection::Send(std::string_view head, std::string_view body) {
  std::size_t done = 0;
  if (Unsent() == 0) {
    iovec parts[] = {{const_cast<char*>(head.data()), head.size()},
                     {const_cast<char*>(body.data()), body.size()}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    const ssize_t count = ::sendmsg(socket, &message, MSG_NOSIGNAL);
    if (count < 0 && errno != EAGAIN && errno != EINTR) return false;
    done = count < 0 ? 0 : static_cast<std::size_t>(count);
    if (done == head.size() + body.size()) return true;
  }
  out.append(head.substr(std::min(done, head.size())));
  out.append(body.substr(done - std::min(done, head.size())));
  return true;
}

Connections::Connections(Answer answer) : m_answer(std::move(answer)) {}

Connections::~Connections() { Stop(); }

void Connections::Start(int listener, unsigned int threads) {
  m_listener = listener;
  m_epoll = ::epoll_create1(EPOLL_CLOEXEC);
  m_end = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  // The library has asked for a queue of five.
  if (m_epoll < 0 || m_end < 0 || ::fcntl(listener, F_SETFL, O_NONBLOCK) != 0 ||
      ::listen(listener, kBacklog) != 0)
    Fail("cannot listen");
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.ptr = &m_end;
  if (::epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_end, &event) != 0 || !Listen(EPOLL_CTL_ADD))
    Fail("cannot listen");

  // The files that are served need some as well.
  rlimit limit = {};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  m_mostConnections = std::max<std::size_t>(limit.rlim_cur * 3 / 4, 16);
  for (unsigned int i = 0; i < threads; ++i)
    m_threads.emplace_back([this] { Work(); });
}

void Connections::Stop() {
  if (m_epoll < 0) return;
  {
    std::unique_lock lock(m_mutex);
    m_isStopping = true;
    if (m_listener >= 0) ::shutdown(m_listener, SHUT_RDWR);
    for (auto& [socket, connection] : m_connections)
      if (connection->isIdle) ::shutdown(socket, SHUT_RDWR);
    m_isEmpty.wait_for(lock, kStopTime, [this] { return m_connections.empty(); });
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(m_end, &one, sizeof one);
  for (std::thread& thread : m_threads)
    thread.join();
  m_threads.clear();
  m_connections.clear();
  for (int* const each : {&m_listener, &m_end, &m_epoll})
    if (*each >= 0) ::close(std::exchange(*each, -1));
}

void Connections::Work() {
  for (;;) {
    epoll_event event;
    const int count = ::epoll_wait(m_epoll, &event, 1, 1000);
    if (count < 0 && errno != EINTR) return;
    Sweep();
    if (count <= 0) continue;
    if (event.data.ptr == &m_end) return;
    if (event.data.ptr == &m_listener)
      Accept();
    else
      Serve(*static_cast<Connection*>(event.data.ptr));
  }
}

void Connections::Accept() {
  int socket;
  while ((socket = ::accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0) {
    auto connection = std::make_unique<Connection>(socket);
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    connection->SetDeadline(kRequestTime);
    Connection& added = *connection;
    {
      std::lock_guard lock(m_mutex);
      if (m_isStopping || m_connections.size() >= m_mostConnections) continue;
      m_connections.emplace(socket, std::move(connection));
    }
    Wait(EPOLL_CTL_ADD, added);
  }
  // Without descriptors it is tried again when the next sweep is due, not at once.
  if (!m_isStopping && errno != EMFILE && errno != ENFILE) Listen(EPOLL_CTL_MOD);
}

bool Connections::Listen(int operation) {
  epoll_event event = {};
  event.events = EPOLLIN | EPOLLONESHOT;
  event.data.ptr = &m_listener;
  return ::epoll_ctl(m_epoll, operation, m_listener, &event) == 0;
}

void Connections::Serve(Connection& connection) {
  try {
    if (Continue(connection)) return Wait(EPOLL_CTL_MOD, connection);
  } catch (const std::bad_alloc&) {
  }
  Close(connection);
}

// False if the connection has come to its end.
bool Connections::Continue(Connection& connection) {
  connection.isIdle = false;
  if (connection.Unsent() != 0) {
    std::string rest;
    rest.swap(connection.out);
    const std::size_t sent = std::exchange(connection.sent, 0);
    if (!connection.Send(std::string_view(rest).substr(sent), {})) return false;
    if (connection.Unsent() != 0) return true;
  }
  for (bool isDrained = false;;) {
    if (!AnswerAll(connection)) return false;
    // Whoever takes no answers gets none.
    if (connection.Unsent() != 0 || isDrained) break;
    if (!Receive(connection, isDrained)) return false;
  }
  const bool isIdle = connection.Unread().empty() && connection.Unsent() == 0;
  if (isIdle && !connection.isLast) connection.SetDeadline(kIdleTime);
  connection.isIdle = isIdle;
  return !isIdle || !m_isStopping;
}

// Receives what there is; false if the client has ended.
bool Connections::Receive(Connection& connection, bool& isDrained) {
  std::array<char, 4096> bytes;
  const ssize_t count = ::recv(connection.socket, bytes.data(), bytes.size(), 0);
  if (count == 0) return false;
  if (count < 0) {
    isDrained = true;
    return errno == EAGAIN || errno == EINTR;
  }
  isDrained = static_cast<std::size_t>(count) < bytes.size();
  const std::string_view received(bytes.data(), static_cast<std::size_t>(count));
  const std::size_t skipped = std::min(connection.skip, received.size());
  if (connection.skip != kNoEnd) connection.skip -= skipped;
  if (connection.Unread().empty() && skipped < received.size())
    connection.SetDeadline(kRequestTime);
  connection.in.erase(0, std::exchange(connection.begin, 0));
  connection.in.append(received.substr(skipped));
  return true;
}

// Answers the requests that have come whole.
bool Connections::AnswerAll(Connection& connection) {
  thread_local Reply reply;
  while (connection.Unsent() == 0 && !connection.isLast) {
    std::string_view unread = connection.Unread();
    // Empty lines in front of a request mean nothing.
    while (unread.starts_with("\r\n")) {
      unread.remove_prefix(2);
      connection.begin += 2;
      connection.searched = 0;
    }
    const std::size_t end = std::min(FindEnd(unread, connection.searched), unread.size() + 1);
    connection.searched = unread.size();
    if (end > unread.size() && unread.size() < kLongestHead) return true;

    reply.head.clear();
    reply.body = {};
    reply.skip = 0;
    reply.isLast = false;
    m_answer(unread.substr(0, end), reply);
    connection.SetDeadline(kReplyTime);
    if (!connection.Send(reply.head, reply.body)) return false;
    if (reply.isLast || end > unread.size()) {
      // The end of the connection must not overtake the answer: so the client closes it first.
      connection.isLast = true;
      connection.skip = kNoEnd;
      connection.begin = connection.in.size();
      connection.SetDeadline(kStopTime);
      break;
    }
    const std::size_t skipped = std::min(reply.skip, unread.size() - end);
    connection.begin += end + skipped;
    connection.skip = reply.skip - skipped;
    connection.searched = 0;
  }
  if (connection.isLast && connection.Unsent() == 0) ::shutdown(connection.socket, SHUT_WR);
  return true;
}

void Connections::Wait(int operation, Connection& connection) {
  epoll_event event = {};
  event.events = EPOLLONESHOT | (connection.Unsent() != 0 ? EPOLLOUT : EPOLLIN);
  event.data.ptr = &connection;
  // From here on another thread may have it.
  if (::epoll_ctl(m_epoll, operation, connection.socket, &event) != 0) Close(connection);
}

void Connections::Close(Connection& connection) {
  std::lock_guard lock(m_mutex);
  m_connections.erase(connection.socket);
  if (m_connections.empty()) m_isEmpty.notify_all();
}

// Ends the connections whose time is over. The thread that is told of it closes them.
void Connections::Sweep() {
  const Clock::rep now = Clock::now().time_since_epoch().count();
  Clock::rep next = m_nextSweep;
  if (now < next ||
      !m_nextSweep.compare_exchange_strong(next, now + Clock::duration(kSweepTime).count()))
    return;
  std::lock_guard lock(m_mutex);
  for (auto& [socket, connection] : m_connections)
    if (connection->deadline < now) ::shutdown(socket, SHUT_RDWR);
  if (!m_isStopping) Listen(EPOLL_CTL_MOD);
}

}  // namespace Serve
