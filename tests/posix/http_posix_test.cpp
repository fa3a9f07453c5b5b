// The HTTP server over real TCP on 127.0.0.1, in-process: a stop that waits for the replies still
// owed (the library may not be stopped with a suspended connection, and its stop drops a reply not
// yet sent), the whole-request deadline, the cap of connections per client address, and pipelined
// requests answered in order.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "platform/http.h"

namespace {

// A connection to 127.0.0.1:port; -1 when none. Reads on it give up after 20 s (a hang fails).
int Connect(std::uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) return close(fd), -1;
  const timeval wait{20, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  return fd;
}

// No SIGPIPE when the server has closed the connection already.
void Send(int fd, const std::string& data) { (void)!send(fd, data.data(), data.size(), MSG_NOSIGNAL); }

// Everything read until the server closes the connection; "(no end)" is appended when it did not.
std::string ReadToEnd(int fd) {
  std::string reply;
  char buf[512];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) reply.append(buf, std::size_t(n));
  if (n < 0 && errno != ECONNRESET) reply += "(no end)";
  return reply;
}

std::string Get(const char* path, const char* connection = "close") {
  return std::string("GET ") + path + " HTTP/1.1\r\nHost: x\r\nConnection: " + connection + "\r\n\r\n";
}

// Sends one GET to 127.0.0.1:port and returns what came back (the connection closes after it).
std::string Fetch(std::uint16_t port, const char* path) {
  const int fd = Connect(port);
  if (fd < 0) return "(no connection)";
  Send(fd, Get(path));
  std::string reply = ReadToEnd(fd);
  close(fd);
  return reply;
}

platform::HttpServerOptions Loopback(platform::HttpServerOptions options = {}) {
  options.address = htonl(INADDR_LOOPBACK);
  return options;
}

// A server on 127.0.0.1 that replies with the request's path at once, or 300 ms later from
// another thread for "/later"; stopped when it goes.
struct Echo {
  explicit Echo(const platform::HttpServerOptions& options = {}) {
    server = platform::HttpStart(Loopback(options), [this](const platform::HttpRequest& r, platform::HttpRespond respond) {
      ++asked;
      if (r.path != "/later") return respond({200, "text/plain", r.path + "\n", {}});
      late.emplace_back([respond] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        respond({200, "text/plain", "/later\n", {}});
      });
    });
  }
  ~Echo() {
    platform::HttpStop(server);
    for (auto& t : late) t.join();
  }
  std::uint16_t Port() const { return server ? platform::HttpBoundPort(server) : 0; }
  platform::HttpServer* server = nullptr;
  std::vector<std::thread> late;
  std::atomic<int> asked{0};
};

TEST(HttpServerStop, WaitsForTheReplyStillOwed) {
  std::atomic<int> asked{0};
  std::thread late;
  platform::HttpServer* server = platform::HttpStart(Loopback(), [&](const platform::HttpRequest&, platform::HttpRespond respond) {
    if (asked++ > 0) return respond({200, "text/plain", "at once\n", {}});
    // The first reply comes later from another thread: its connection is suspended meanwhile.
    late = std::thread([respond] {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      respond({200, "text/plain", "later\n", {}});
    });
  });
  ASSERT_NE(server, nullptr);
  const std::uint16_t port = platform::HttpBoundPort(server);
  std::string first;
  std::thread client([&] { first = Fetch(port, "/slow"); });
  while (asked == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  platform::HttpStop(server);   // with the first reply still owed
  client.join();
  late.join();
  EXPECT_NE(first.find("200"), std::string::npos) << first;
  EXPECT_NE(first.find("later"), std::string::npos) << first;
  EXPECT_EQ(asked, 1);
}

// Two requests in one write, the first answered later: both replies come, in order.
TEST(HttpServerPipelining, AnswersTwoRequestsOfOneWriteInOrder) {
  Echo echo;
  const int fd = Connect(echo.Port());
  ASSERT_GE(fd, 0);
  Send(fd, Get("/later", "keep-alive") + Get("/next"));
  const std::string replies = ReadToEnd(fd);
  close(fd);
  const auto first = replies.find("/later\n");
  const auto second = replies.find("/next\n");
  ASSERT_NE(first, std::string::npos) << replies;
  EXPECT_NE(second, std::string::npos) << replies;
  EXPECT_LT(first, second) << replies;
  EXPECT_EQ(replies.find("(no end)"), std::string::npos) << replies;
}

// A request that trickles in, a byte at a time well within the idle time-out, is closed by its
// deadline without a reply (the test gives up after 10 s).
TEST(HttpServerDeadline, ClosesARequestThatTricklesIn) {
  Echo echo({.request_deadline_ms = 300});
  const int fd = Connect(echo.Port());
  ASSERT_GE(fd, 0);
  const std::string request = "GET / HTTP/1.1\r\nHost: x\r\nX-Trickle: " + std::string(4000, 'a');
  bool closed = false;
  for (std::size_t i = 0; i < 500 && !closed; ++i) {
    Send(fd, request.substr(i % request.size(), 1));
    pollfd p{fd, POLLIN, 0};
    closed = poll(&p, 1, 20) == 1;
  }
  EXPECT_TRUE(closed);
  EXPECT_EQ(ReadToEnd(fd), "");
  close(fd);
  EXPECT_EQ(echo.asked, 0);
}

// The deadline is the request's, not the reply's: a reply that comes after it still comes, and
// the connection kept open then has its next request due by the deadline.
TEST(HttpServerDeadline, AReplyLaterThanTheDeadlineStillComes) {
  Echo echo({.request_deadline_ms = 100});
  const int fd = Connect(echo.Port());
  ASSERT_GE(fd, 0);
  Send(fd, Get("/later", "keep-alive"));
  const std::string reply = ReadToEnd(fd);
  close(fd);
  EXPECT_EQ(reply.rfind("HTTP/1.1 200", 0), 0u) << reply;
  EXPECT_NE(reply.find("/later\n"), std::string::npos) << reply;
  EXPECT_EQ(reply.find("(no end)"), std::string::npos) << reply;
}

// One client address may hold 3 connections: the 4th is closed without a reply, the 3 are
// served, and once one has gone another may come.
TEST(HttpServerPerClient, ClosesTheConnectionOverTheCap) {
  Echo echo({.max_connections_per_client = 3});
  const std::uint16_t port = echo.Port();
  int held[3];
  for (int& fd : held) ASSERT_GE(fd = Connect(port), 0);
  // The library accepts in the order of connection: the 3 are in before the 4th.
  EXPECT_EQ(Fetch(port, "/fourth"), "");
  for (int fd : held) {
    Send(fd, Get("/held"));
    const std::string reply = ReadToEnd(fd);
    EXPECT_NE(reply.find("/held\n"), std::string::npos) << reply;
    close(fd);
  }
  EXPECT_NE(Fetch(port, "/after").find("/after\n"), std::string::npos);
  EXPECT_EQ(echo.asked, 4);
}

}  // namespace
