// The HTTP server's stop while replies are still owed: the library may not be stopped with a
// suspended connection (it aborts the process), so the stop waits for the owed replies and answers
// requests that come meanwhile at once.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "platform/http.h"

namespace {

// Sends one GET to 127.0.0.1:port and returns what came back (the connection closes after it).
std::string Get(std::uint16_t port, const char* path) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) return close(fd), "(no connection)";
  const std::string request = std::string("GET ") + path + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
  (void)!write(fd, request.data(), request.size());
  std::string reply;
  char buf[512];
  for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) reply.append(buf, std::size_t(n));
  close(fd);
  return reply;
}

TEST(HttpServerStop, WaitsForTheReplyStillOwed) {
  std::atomic<int> asked{0};
  std::thread late;
  platform::HttpServerOptions options;
  options.address = htonl(INADDR_LOOPBACK);
  platform::HttpServer* server = platform::HttpStart(options, [&](const platform::HttpRequest&, platform::HttpRespond respond) {
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
  std::thread client([&] { first = Get(port, "/slow"); });
  while (asked == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  platform::HttpStop(server);   // with the first reply still owed
  client.join();
  late.join();
  EXPECT_NE(first.find("200"), std::string::npos) << first;
  EXPECT_NE(first.find("later"), std::string::npos) << first;
  EXPECT_EQ(asked, 1);
}

}  // namespace
