#pragma once

#include <httplib.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

namespace Serve {

/// The socket of a client, as the library reads requests from it and writes answers. Unlike the
/// library's own, it has limits for the head of a request, knows when the server ends, and sends an
/// answer in one piece.
class ClientStream : public httplib::Stream {
 public:
  static constexpr std::size_t kLongestHead = 16 << 10;
  static constexpr std::chrono::seconds kIdleTime{15};     ///< between requests
  static constexpr std::chrono::seconds kRequestTime{10};  ///< for a request to come
  static constexpr std::chrono::seconds kAnswerTime{30};   ///< for an answer to go
  static constexpr std::chrono::seconds kEndTime{2};       ///< the same when the server ends

  /// Takes over the socket. `end` can be read when the server ends.
  ClientStream(int socket, int end);
  ~ClientStream() override;
  ClientStream(const ClientStream&) = delete;
  ClientStream& operator=(const ClientStream&) = delete;

  /// Waits for the next request. False if none comes.
  bool Await();
  /// Whether the request had more bytes than it may have.
  bool IsTooLong() const { return m_left == 0; }
  /// Passes over bytes behind the head of a request. False if they do not come.
  bool Skip(std::size_t count);
  /// Sends what was written, and the body behind it. False if the client does not take it.
  bool Send(std::string_view body);
  /// Waits for the client to close the connection. Else it might lose the answer if it has sent
  /// what nobody has read.
  void Finish();

  bool is_readable() const override { return true; }
  bool is_writable() const override { return true; }
  ssize_t read(char* target, std::size_t size) override;
  ssize_t write(const char* bytes, std::size_t size) override;
  void get_remote_ip_and_port(std::string&, int&) const override {}
  void get_local_ip_and_port(std::string&, int&) const override {}
  socket_t socket() const override { return m_socket; }

 private:
  using Clock = std::chrono::steady_clock;

  bool Wait(short events);
  bool Receive();

  const int m_socket, m_end;
  std::array<char, 4096> m_received;
  std::string_view m_unread;  // of it
  std::size_t m_left = kLongestHead;
  Clock::time_point m_deadline;
  std::string m_head;
};

}  // namespace Serve
