// An HTTP/1.1 server for the exporter's few GET endpoints: a library made for it underneath
// (libmicrohttpd on Linux, one internal thread polling every connection with epoll), never a
// hand-written parser. A request is handed to the handler with a reply callback that may be
// called later from any thread: the connection waits, suspended, without holding the server or
// any other connection. Requests pipelined on one connection are answered in their order. Windows:
// not available (HttpStart fails with 50, not supported).
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace platform {

using HttpPairs = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
  std::string method;        // "GET", "HEAD", ...
  std::string path;          // without the query, percent-decoded: "/probe"
  HttpPairs query;           // the query's arguments in order, decoded; a key may repeat
  HttpPairs headers;         // header names in lower case
};

struct HttpResponse {
  int status = 200;
  std::string content_type = "text/plain; charset=utf-8";
  std::string body;
  HttpPairs headers;         // further headers ("Retry-After", "Allow", ...)
};

// Hands the reply to the server; call it exactly once, from any thread.
using HttpRespond = std::function<void(HttpResponse)>;
using HttpHandler = std::function<void(const HttpRequest&, HttpRespond)>;

struct HttpServerOptions {
  std::uint32_t address = 0;                 // IPv4, network order; 0 all addresses
  std::uint16_t port = 0;                    // host order; 0 the system's choice
  std::uint32_t max_connections = 16384;     // more are closed at once; cut to the open-file limit
  std::uint32_t max_connections_per_client = 1024;   // from one client address; more are closed at once
  std::uint32_t idle_timeout_s = 30;         // a connection quiet this long is closed
  // A request not complete (line, headers and any body) this long after its connection's accept,
  // or after the reply before it on the connection, closes the connection unanswered (ms).
  std::uint32_t request_deadline_ms = 10000;
};

struct HttpServer;
// Starts serving: the open-file limit is raised to its hard limit first. nullptr on failure, with
// the last error (a socket error such as 10048 when the port is taken; 50 on Windows).
HttpServer* HttpStart(const HttpServerOptions& options, HttpHandler handler);
std::uint16_t HttpBoundPort(const HttpServer* server);   // host order
std::uint32_t HttpMaxConnections(const HttpServer* server);
// Stops serving and frees the server: requests that come meanwhile get 503 at once, and the stop
// waits (up to 60 s) until every reply owed (a handler's, or such a 503) has been sent or its
// connection is gone; a handler's own work after its reply may still be running when it returns.
void HttpStop(HttpServer* server);

}  // namespace platform
