#include "ClientStream.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace Serve {

ClientStream::ClientStream(int socket, int end) : m_socket(socket), m_end(end) {
  ::fcntl(m_socket, F_SETFL, O_NONBLOCK);
}

ClientStream::~ClientStream() { ::close(m_socket); }

bool ClientStream::Await() {
  m_left = kLongestHead;
  m_head.clear();
  m_deadline = Clock::now() + kIdleTime;
  if (m_unread.empty() && !Receive()) return false;
  m_deadline = Clock::now() + kRequestTime;
  return true;
}

// Until the socket is ready. False when it is too late.
bool ClientStream::Wait(short events) {
  for (bool isEnding = false;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_deadline - Clock::now());
    pollfd sockets[] = {{m_socket, events, 0}, {m_end, POLLIN, 0}};
    const int ready =
        ::poll(sockets, isEnding ? 1 : 2, static_cast<int>(std::max<long>(left.count(), 0)));
    if (ready == 0 || (ready < 0 && errno != EINTR)) return false;
    if (sockets[0].revents != 0) return true;
    if (sockets[1].revents == 0) continue;
    // Whoever is being answered has a moment more.
    if (events == POLLIN) return false;
    isEnding = true;
    m_deadline = std::min(m_deadline, Clock::now() + kEndTime);
  }
}

bool ClientStream::Receive() {
  for (;;) {
    const ssize_t count = ::recv(m_socket, m_received.data(), m_received.size(), 0);
    if (count > 0) m_unread = {m_received.data(), static_cast<std::size_t>(count)};
    if (count >= 0) return count > 0;
    if (errno != EINTR && (errno != EAGAIN || !Wait(POLLIN))) return false;
  }
}

ssize_t ClientStream::read(char* target, std::size_t size) {
  if (m_left == 0) return 0;  // ends the line, which then makes no sense
  if (m_unread.empty() && !Receive()) return -1;
  const std::size_t count = m_unread.copy(target, std::min(size, m_left));
  m_unread.remove_prefix(count);
  m_left -= count;
  return static_cast<ssize_t>(count);
}

ssize_t ClientStream::write(const char* bytes, std::size_t size) {
  m_head.append(bytes, size);
  return static_cast<ssize_t>(size);
}

bool ClientStream::Skip(std::size_t count) {
  while (count != 0) {
    if (m_unread.empty() && !Receive()) return false;
    const std::size_t skipped = std::min(count, m_unread.size());
    m_unread.remove_prefix(skipped);
    count -= skipped;
  }
  return true;
}

bool ClientStream::Send(std::string_view body) {
  m_deadline = Clock::now() + kAnswerTime;
  std::string_view head = m_head;
  while (!head.empty() || !body.empty()) {
    iovec parts[] = {{const_cast<char*>(head.data()), head.size()},
                     {const_cast<char*>(body.data()), body.size()}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = std::size(parts);
    const ssize_t sent = ::sendmsg(m_socket, &message, MSG_NOSIGNAL);
    if (sent < 0 && errno != EINTR && (errno != EAGAIN || !Wait(POLLOUT))) return false;
    if (sent < 0) continue;
    const std::size_t ofHead = std::min(static_cast<std::size_t>(sent), head.size());
    head.remove_prefix(ofHead);
    body.remove_prefix(static_cast<std::size_t>(sent) - ofHead);
  }
  return true;
}

void ClientStream::Finish() {
  ::shutdown(m_socket, SHUT_WR);
  m_deadline = Clock::now() + kEndTime;
  while (Clock::now() < m_deadline && Receive()) {
  }
}

}  // namespace Serve
