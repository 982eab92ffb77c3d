#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

namespace Serve {

/// The connections of a server: waits for requests, has them answered, and sends the answers. Few
/// threads serve any number of clients, for none of them waits for one that is slow.
class Connections {
 public:
  /// An answer: its head, and its body, which need not live longer than until the thread is given
  /// the next request.
  struct Reply {
    std::string head;
    std::string_view body;
    std::size_t skip = 0;  ///< bytes of the request behind its head, which are passed over
    bool isLast = false;   ///< the connection ends
  };
  /// Answers a request, which is its head with the empty line behind it; or, if that is too long,
  /// its beginning. Several threads call it.
  using Answer = std::function<void(std::string_view head, Reply& reply)>;

  static constexpr std::size_t kLongestHead = 16 << 10;
  static constexpr std::chrono::seconds kRequestTime{10};  ///< for a client to send a request
  static constexpr std::chrono::seconds kReplyTime{60};    ///< for a client to take a reply
  static constexpr std::chrono::seconds kIdleTime{75};     ///< between requests

  explicit Connections(Answer answer);
  /// Stops.
  ~Connections();
  Connections(const Connections&) = delete;
  Connections& operator=(const Connections&) = delete;

  /// Takes over a socket that listens. Throws std::system_error.
  void Start(int listener, unsigned int threads);
  /// Takes no further requests, and ends when all that were read are answered, or after two
  /// seconds.
  void Stop();

 private:
  using Clock = std::chrono::steady_clock;
  struct Connection;

  void Work();
  void Accept();
  bool Listen(int operation);
  void Serve(Connection& connection);
  bool Continue(Connection& connection);
  bool AnswerAll(Connection& connection);
  bool Receive(Connection& connection, bool& isDrained);
  void Wait(int operation, Connection& connection);
  void Close(Connection& connection);
  void Sweep();

  const Answer m_answer;
  int m_epoll = -1, m_listener = -1, m_end = -1;
  std::vector<std::thread> m_threads;
  std::size_t m_mostConnections = 0;
  std::atomic<bool> m_isStopping = false;
  std::atomic<Clock::rep> m_nextSweep = 0;
  std::mutex m_mutex;  // guards the next one
  std::unordered_map<int, std::unique_ptr<Connection>> m_connections;
  std::condition_variable m_isEmpty;
};

}  // namespace Serve
