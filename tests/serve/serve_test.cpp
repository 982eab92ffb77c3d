// The server from inside: what curl cannot send, and its parts.

#include "Server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <hx/tiles.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "Encoding.h"
#include "Gzip.h"
#include "Kept.h"
#include "Survey.h"
#include "Url.h"
#include "support/TemporaryFolder.h"

using namespace std::string_literals;

namespace {

/// A client that says what it likes.
class Client {
 public:
  explicit Client(int port) { EXPECT_EQ(Connect(port), 0); }
  ~Client() { ::close(m_socket); }
  /// Whether a server listens.
  static bool IsHeard(int port) {
    Client client;
    return client.Connect(port) == 0;
  }

  /// The server may have answered and gone before all is sent.
  void Send(std::string_view text) {
    while (!text.empty()) {
      const ssize_t sent = ::send(m_socket, text.data(), text.size(), MSG_NOSIGNAL);
      if (sent <= 0) return;
      text.remove_prefix(static_cast<std::size_t>(sent));
    }
  }
  void AwaitAnswer() {
    char first;
    EXPECT_EQ(::recv(m_socket, &first, 1, MSG_PEEK), 1);
  }
  /// All that comes until the server closes.
  std::string ReadAll() {
    ::shutdown(m_socket, SHUT_WR);
    std::string all;
    std::array<char, 65536> part;
    for (ssize_t count; (count = ::recv(m_socket, part.data(), part.size(), 0)) > 0;)
      all.append(part.data(), static_cast<std::size_t>(count));
    return all;
  }

 private:
  Client() = default;
  int Connect(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return ::connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address);
  }

  const int m_socket = ::socket(AF_INET, SOCK_STREAM, 0);
};

class ServeTest : public ::testing::Test {
 protected:
  ServeTest() {
    auto tiles = hx::Tileset::create(m_path);
    tiles.put({0, 0, 0}, "tile");
    tiles.put({1, 0, 0}, m_large);
    m_options.paths = {m_path};
    m_options.port = 0;
    m_server.emplace(m_options);
  }

  std::string Ask(std::string_view text) const {
    Client client(m_server->Port());
    client.Send(text);
    return client.ReadAll();
  }
  // The statuses of several answers, and the bodies of those that are texts of their own.
  static std::string StatusesOf(const std::string& answers) {
    std::string statuses;
    for (std::size_t at = 0; (at = answers.find("HTTP/1.1 ", at)) != answers.npos; at += 9)
      statuses += answers.substr(at + 9, 3) + " ";
    return statuses;
  }
  const TemporaryFolder m_folder;
  const std::filesystem::path m_path = m_folder.GetFolder() / "a.cf";
  const std::string m_large = std::string(16 << 20, 'x');
  Serve::Options m_options;
  std::optional<Serve::Server> m_server;
};

constexpr char kGood[] = "GET /a/0/0/0 HTTP/1.1\r\nHost: x\r\n\r\n";

TEST_F(ServeTest, SeparatesRequests) {
  const std::string good = kGood, large = "GET /a/1/0/0 HTTP/1.1\r\n\r\n", end = " HTTP/1.1\r\n";
  const std::tuple<std::string, std::string> cases[] = {
      {good + good + good, "200 200 200 "},
      {"HEAD /a/0/0/0" + end + "\r\n" + good, "200 200 "},
      {"GET /a/5/5/5" + end + "\r\n" + good, "204 200 "},
      {"POST /a/0/0/0" + end + "Content-Length: 5\r\n\r\nGET /" + good, "405 200 "},
      {"GET /a/0/0/0" + end + "Content-Length: " + std::to_string(good.size()) + "\r\n\r\n" + good +
           good,
       "200 200 "},
      {"GET /a/0/0/0" + end + "Connection: close\r\n\r\n" + good, "200 "},
      {"GET http://x/a/0/0/0" + end + "\r\n", "200 "},
      {"GET HTTPS://x/a/0/0/0" + end + "\r\n", "200 "},
      {"GET /a/0/0/0" + end + "Range: bytes=0-1\r\n\r\n" + good, "200 200 "},
      {"GET /a/0/0/0" + end + "Range: nonsense\r\nContent-Length: 2\r\n\r\nxx" + good, "200 200 "},
      {"GET /a/0/0/0 HTTP/1.0\r\n\r\n" + good, "200 "},
      // Nobody knows where the next one begins.
      {"POST /" + end + "Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n" + good, "405 "},
      {"POST /" + end + "Content-Length: 99999999\r\n\r\n" + good, "405 "},
      {"POST /" + end + "Content-Length: 1\r\nContent-Length: 0\r\n\r\n" + good, "405 "},
      {"POST /" + end + "Content-Length: -1\r\n\r\n" + good, "405 "},
      {"POST /" + end + "Expect: 100-continue\r\nContent-Length: 5\r\n\r\n", "417 "},
      {"nonsense\r\n\r\n" + good, "400 "},
      {"GET /a/0/0/0\0x"s + end + "\r\n" + good, "400 "},
      {std::string(17 << 10, 'x'), "414 "},
      {"GET /" + end + "X: " + std::string(17 << 10, 'x'), "431 "},
      {"GET /a/0/0/0" + end, "400 "},
  };
  for (const auto& [text, statuses] : cases)
    EXPECT_EQ(StatusesOf(Ask(text)), statuses) << text.substr(0, 60);
  const std::string answers = Ask("HEAD /a/0/0/0" + end + "\r\n" + good);
  EXPECT_EQ(answers.find("tile"), answers.rfind("tile")) << "a body of HEAD";

  Client slow(m_server->Port());
  for (const char c : good) {
    slow.Send({&c, 1});
    EXPECT_EQ(StatusesOf(Ask(kGood)), "200 ") << "another client waits";
  }
  EXPECT_EQ(StatusesOf(slow.ReadAll()), "200 ");
}

// Clients that do not read what they have asked for, at first fewer than there are threads.
TEST_F(ServeTest, WaitsForNobodyWhoReadsNothing) {
  m_options.threads = 4;
  m_server.emplace(m_options);
  std::vector<std::unique_ptr<Client>> clients;
  const auto add = [&](std::size_t end) {
    while (clients.size() < end) {
      clients.push_back(std::make_unique<Client>(m_server->Port()));
      clients.back()->Send("GET /a/1/0/0 HTTP/1.1\r\n\r\n");
      clients.back()->Send(kGood);
    }
  };
  add(3);
  EXPECT_EQ(StatusesOf(Ask(kGood)), "200 ");
  add(12);
  for (std::size_t i = 0; i < 8; ++i) {
    const std::string answers = clients[i]->ReadAll();
    EXPECT_EQ(StatusesOf(answers), "200 200 ");
    EXPECT_NE(answers.find("\r\n\r\n" + m_large + "HTTP/1.1 200"), answers.npos);
  }
  m_server.reset();  // the others are still there
}

// A thread is about the first of two requests when the server is told to end.
TEST_F(ServeTest, AnswersWhatHasComeBeforeItsEnd) {
  const int port = m_server->Port();
  Client client(port);
  client.Send("GET /a/1/0/0 HTTP/1.1\r\n\r\n"s + kGood);
  client.AwaitAnswer();
  std::thread ending([&] { m_server.reset(); });
  while (Client::IsHeard(port))
    std::this_thread::yield();
  EXPECT_EQ(StatusesOf(client.ReadAll()), "200 200 ");
  ending.join();
}

// Of the answers that take much memory, some are given at a time, and the memory is given back.
TEST_F(ServeTest, DecompressesFewLargeTilesAtATime) {
  hx::Tileset::open(m_path).put({2, 0, 0}, Formats::Compress(m_large));
  constexpr char kAsk[] = "GET /a/2/0/0 HTTP/1.1\r\n\r\n";
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 8; ++i) {
    clients.push_back(std::make_unique<Client>(m_server->Port()));
    clients.back()->Send(kAsk);
    clients.back()->AwaitAnswer();
  }
  const std::string refusal = Ask(kAsk);
  EXPECT_EQ(StatusesOf(refusal), "503 ");
  EXPECT_NE(refusal.find("Retry-After: "), refusal.npos);
  for (const auto& client : clients)
    EXPECT_TRUE(client->ReadAll().ends_with("\r\n\r\n" + m_large));
  EXPECT_EQ(StatusesOf(Ask(kAsk)), "200 ");
}

TEST_F(ServeTest, SurvivesGarbage) {
  const std::vector<std::string> seeds = {
      kGood,
      "GET /a/name/a%20b?stamp=1&download=1 HTTP/1.1\r\nHost: a\r\nAccept-Encoding: gzip;q=0\r\n"
      "If-None-Match: \"0-4-1\", *\r\nRange: bytes=0-1,5-\r\n\r\n",
      "GET /a/heat.json?zoom=0&size=4 HTTP/1.1\r\nIf-Modified-Since: Tue, 14 Nov 2023 22:15:00 "
      "GMT\r\n"
      "Connection: close\r\n\r\n",
      "POST /a/versions.json?tile=0/0/0 HTTP/1.1\r\nContent-Length: 3\r\nExpect: "
      "100-continue\r\n\r\nabc",
      "HEAD /a/names.json?after=%00&limit=9 HTTP/1.1\r\nTransfer-Encoding: "
      "chunked\r\n\r\n5\r\nabcde",
      "OPTIONS /_/../a.json HTTP/1.0\r\nHost: \r\nContent-Type: multipart/form-data; "
      "boundary=x\r\n\r\n"};
  const std::string words[] = {"%",   "%00", "..", "/", "\r\n", "\r\n\r\n",
                               "\0"s, "?",   "&",  "=", "\"",   "18446744073709551616",
                               "-1",  " ",   ":",  ",", "\xFF", std::string(5000, 'A')};
  std::mt19937 random(21);
  const auto below = [&](std::size_t end) {
    return std::uniform_int_distribution<std::size_t>(0, end - 1)(random);
  };
  EXPECT_EQ(StatusesOf(Ask(kGood)), "200 ");
  const std::size_t descriptors = CountOpenDescriptors();
  for (int i = 0; i < 10'000; ++i) {
    std::string text = seeds[below(seeds.size())];
    if (i % 10 == 0) text.resize(below(300) + 1, '\r');
    for (std::size_t changes = below(6) + 1; changes != 0; --changes) {
      const std::size_t at = below(text.size());
      switch (below(4)) {
        case 0:
          text[at] = static_cast<char>(below(256));
          break;
        case 1:
          text.insert(at, words[below(std::size(words))]);
          break;
        case 2:
          text.erase(at, std::min(below(10), text.size() - 1));
          break;
        default:
          text += text.substr(at);
      }
    }
    const std::string answer = Ask(text);
    ASSERT_TRUE(answer.empty() || answer.starts_with("HTTP/1.1 ")) << text << "\n" << answer;
    ASSERT_EQ((" " + StatusesOf(answer)).find(" 5"), std::string::npos) << text << "\n" << answer;
  }
  // The last connection is closed by the client at first.
  while (CountOpenDescriptors() > descriptors)
    std::this_thread::yield();
  EXPECT_TRUE(Ask(kGood).ends_with("\r\n\r\ntile"));
}

TEST(ServeParts, TakeUrlsApart) {
  const std::tuple<const char*, const char*> cases[] = {{"/", ""},
                                                        {"/a/b%2Fc/", "a|b/c|"},
                                                        {"/a?b=1+2&c", "a?b=1 2?c="},
                                                        {"/%E4?", "\xE4?="},
                                                        {"", nullptr},
                                                        {"a", nullptr},
                                                        {"/%", nullptr},
                                                        {"/%1", nullptr},
                                                        {"/%1g", nullptr},
                                                        {"/%-1", nullptr},
                                                        {"/a/..", nullptr},
                                                        {"/%2e%2E/", nullptr},
                                                        {"/./a", nullptr},
                                                        {"/a%00", nullptr},
                                                        {"/?%00", nullptr},
                                                        {"http://x", nullptr}};
  for (const auto& [target, expected] : cases) {
    const auto url = Serve::Url::Parse(target);
    ASSERT_EQ(url.has_value(), expected != nullptr) << target;
    if (!url) continue;
    std::string parts;
    for (const std::string& segment : url->segments)
      parts += (&segment == url->segments.data() ? "" : "|") + segment;
    for (const auto& [key, value] : url->query)
      parts += "?" + key + "=" + value;
    EXPECT_EQ(parts, expected) << target;
  }
}

TEST(ServeParts, KnowTimes) {
  constexpr hx::Stamp kTime = 1'700'000'000;
  for (const hx::Stamp unit : {1ULL, 1'000ULL, 1'000'000ULL, 1'000'000'000ULL})
    EXPECT_EQ(Serve::TimeOf(kTime * unit + unit / 2), static_cast<std::time_t>(kTime));
  for (const hx::Stamp stamp :
       std::vector<hx::Stamp>{0, 7, 20231114, 946'684'799, 99'999'999'999, UINT64_MAX})
    EXPECT_FALSE(Serve::TimeOf(stamp)) << stamp;
}

TEST(ServeParts, DrawAnyNumberOfTiles) {
  Serve::HeatMap heat;
  constexpr std::uint32_t kSide = 600, kFirst = 5'000;
  for (std::uint32_t i = 0; i < kSide * kSide; ++i)
    heat.Add(kFirst + i / kSide, i % kSide, {1, 2, 3});
  for (const std::uint32_t size : {1U, 7U, 128U, 512U}) {
    const auto picture = heat.Draw(size);
    EXPECT_LE(std::max(picture.rows, picture.cols), size);
    EXPECT_EQ(picture.fields.size(), std::size_t{picture.rows} * picture.cols);
    EXPECT_LE(picture.firstRow, kFirst);
    EXPECT_GE(picture.firstRow + picture.rows * picture.step, kFirst + kSide);
    Serve::Field sum;
    for (const Serve::Field& field : picture.fields)
      sum.Add(field);
    EXPECT_EQ(std::tie(sum.tiles, sum.versions, sum.bytes),
              std::make_tuple(kSide * kSide, 2 * kSide * kSide, 3 * kSide * kSide));
  }
}

TEST(ServeParts, DrawTheLargestGrid) {
  Serve::HeatMap heat;
  for (const std::uint32_t corner : {0U, UINT32_MAX})
    heat.Add(corner, corner, {1, 2, 3});
  for (const std::uint32_t size : {1U, 2U}) {
    const auto picture = heat.Draw(size);
    EXPECT_EQ(picture.step, (std::uint64_t{1} << 32) / size);
    EXPECT_EQ(picture.fields.size(), std::size_t{size} * size);
    EXPECT_EQ(picture.fields.back().tiles, 2 / size);
  }
}

TEST(ServeParts, MakeWhatIsKeptOnce) {
  Serve::Kept<int> kept(std::chrono::hours(1));
  std::atomic<int> made = 0;
  EXPECT_THROW(kept.Get([]() -> int { throw std::runtime_error("not yet"); }), std::runtime_error);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i)
    threads.emplace_back([&] { EXPECT_EQ(*kept.Get([&] { return ++made; }), 1); });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(made, 1);
}

}  // namespace
