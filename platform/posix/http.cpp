// The HTTP server over libmicrohttpd: one internal thread polls the listening socket and every
// connection with epoll; a request whose reply comes later is suspended (it costs neither a thread
// nor a poll slot) and resumed by its reply callback. A watcher thread of its own closes the
// connections whose request is not complete by its deadline.
#include "platform/http.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "platform/error.h"

namespace platform {

using Clock = std::chrono::steady_clock;

struct HttpServer {
  MHD_Daemon* daemon = nullptr;
  HttpHandler handler;
  std::uint32_t max_connections = 0;
  std::chrono::milliseconds request_deadline{0};
  // The library may not be stopped while a connection is suspended (it aborts the process), and
  // its stop closes every connection at once, dropping a reply queued but not yet sent: once
  // stopping, new requests are answered at once, and the stop waits until the library is done
  // with every request answered or handed to the handler (its reply sent, or its connection gone).
  std::mutex lock;
  std::condition_variable settled;
  std::uint32_t owed = 0;   // requests answered or handed to the handler whose reply is not yet sent
  bool stopping = false;
  // The request deadlines. Every connection is known from its accept until the library closes it
  // (it tells before it closes the socket, so a shutdown under the lock never hits a reused one); it
  // has a deadline while a request is still coming. A deadline is always now + request_deadline,
  // so the queue is in time order; an entry whose connection has since been re-armed, disarmed or
  // closed is stale (its number no longer the connection's).
  struct Watched {
    int fd = -1;
    std::uint64_t armed = 0;   // the number of the entry in force; 0 none
  };
  struct Due {
    Clock::time_point at;
    MHD_Connection* connection;
    std::uint64_t number;
  };
  std::unordered_map<MHD_Connection*, Watched> connections;
  std::deque<Due> due;
  std::uint64_t next_number = 1;
  std::condition_variable armed;
  bool closing = false;
  std::thread watcher;
};

namespace {

// One request between its arrival and its reply. The reply may come before the handler returns
// (it is then queued at once) or later from another thread (the connection is suspended until it
// comes). The lock orders the suspension before the resumption.
struct Pending {
  std::mutex lock;
  MHD_Connection* connection = nullptr;
  bool started = false;      // answered or handed to the handler: counted in the server's owed replies
  bool done = false;
  bool suspended = false;
  HttpResponse response;
};
using PendingRef = std::shared_ptr<Pending>;

MHD_Result Collect(void* cls, MHD_ValueKind kind, const char* key, const char* value) {
  auto* pairs = static_cast<HttpPairs*>(cls);
  std::string name = key ? key : "";
  if (kind == MHD_HEADER_KIND)
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
  pairs->emplace_back(std::move(name), value ? value : "");
  return MHD_YES;
}

MHD_Result Queue(MHD_Connection* connection, const HttpResponse& r) {
  MHD_Response* response =
      MHD_create_response_from_buffer(r.body.size(), const_cast<char*>(r.body.data()), MHD_RESPMEM_MUST_COPY);
  if (!response) return MHD_NO;
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, r.content_type.c_str());
  for (const auto& [name, value] : r.headers) MHD_add_response_header(response, name.c_str(), value.c_str());
  const MHD_Result result = MHD_queue_response(connection, static_cast<unsigned>(r.status), response);
  MHD_destroy_response(response);
  return result;
}

// The connection's next request is due by the deadline from now (server's lock held).
void Arm(HttpServer& server, MHD_Connection* connection) {
  const auto found = server.connections.find(connection);
  if (found == server.connections.end()) return;
  found->second.armed = server.next_number++;
  server.due.push_back({Clock::now() + server.request_deadline, connection, found->second.armed});
  if (server.due.size() == 1) server.armed.notify_one();
}

// Closes the connections whose request is not complete by its deadline, until the server stops.
void Watch(HttpServer& server) {
  std::unique_lock<std::mutex> hold(server.lock);
  while (!server.closing) {
    if (server.due.empty()) {
      server.armed.wait(hold);
      continue;
    }
    const HttpServer::Due next = server.due.front();
    if (Clock::now() < next.at) {
      server.armed.wait_until(hold, next.at);
      continue;
    }
    server.due.pop_front();
    const auto found = server.connections.find(next.connection);
    if (found == server.connections.end() || found->second.armed != next.number) continue;
    found->second.armed = 0;
    // The library sees the end of the stream and closes the connection in its own thread.
    shutdown(found->second.fd, SHUT_RDWR);
  }
}

void StopWatcher(HttpServer& server) {
  {
    std::lock_guard<std::mutex> hold(server.lock);
    server.closing = true;
  }
  server.armed.notify_one();
  server.watcher.join();
}

void Connection(void* cls, MHD_Connection* connection, void**, MHD_ConnectionNotificationCode code) {
  auto& server = *static_cast<HttpServer*>(cls);
  std::lock_guard<std::mutex> hold(server.lock);
  if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
    server.connections.erase(connection);
    return;
  }
  const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  if (!info) return;
  server.connections[connection].fd = info->connect_fd;
  Arm(server, connection);
}

// The request is complete: a reply is owed from now on. False when stopping (the request is then
// answered at once).
bool Owe(HttpServer& server, MHD_Connection* connection) {
  std::lock_guard<std::mutex> hold(server.lock);
  ++server.owed;
  const auto found = server.connections.find(connection);
  if (found != server.connections.end()) found->second.armed = 0;
  return !server.stopping;
}

MHD_Result Access(void* cls, MHD_Connection* connection, const char* url, const char* method, const char*,
                  const char*, size_t* upload_size, void** con_cls) {
  auto* server = static_cast<HttpServer*>(cls);
  if (!*con_cls) {   // the headers have arrived
    auto* ref = new PendingRef(std::make_shared<Pending>());
    (*ref)->connection = connection;
    *con_cls = ref;
    return MHD_YES;
  }
  if (*upload_size) {   // no endpoint takes a body: drop it
    *upload_size = 0;
    return MHD_YES;
  }
  PendingRef pending = *static_cast<PendingRef*>(*con_cls);
  std::unique_lock<std::mutex> hold(pending->lock);
  if (!pending->started) {
    pending->started = true;
    if (!Owe(*server, connection))
      return Queue(connection, HttpResponse{503, "text/plain; charset=utf-8", "stopping\n", {}});
    HttpRequest request;
    request.method = method ? method : "";
    request.path = url ? url : "";
    MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, Collect, &request.query);
    MHD_get_connection_values(connection, MHD_HEADER_KIND, Collect, &request.headers);
    hold.unlock();
    HttpRespond respond = [pending](HttpResponse response) {
      bool resume = false;
      {
        std::lock_guard<std::mutex> g(pending->lock);
        pending->response = std::move(response);
        pending->done = true;
        resume = pending->suspended;
      }
      if (resume) MHD_resume_connection(pending->connection);
    };
    try {
      server->handler(request, respond);
    } catch (const std::exception& e) {
      respond(HttpResponse{500, "text/plain; charset=utf-8", std::string("internal error: ") + e.what() + "\n", {}});
    }
    hold.lock();
  }
  if (pending->done) return Queue(connection, pending->response);
  pending->suspended = true;
  MHD_suspend_connection(connection);
  return MHD_YES;
}

// The library is done with a request: its reply sent, or its connection gone. A connection kept
// open has its next request due by the deadline.
void Completed(void* cls, MHD_Connection* connection, void** con_cls, MHD_RequestTerminationCode) {
  auto& server = *static_cast<HttpServer*>(cls);
  auto* ref = static_cast<PendingRef*>(*con_cls);
  {
    std::lock_guard<std::mutex> hold(server.lock);
    if (ref && (*ref)->started && --server.owed == 0) server.settled.notify_all();
    Arm(server, connection);
  }
  delete ref;
  *con_cls = nullptr;
}

// The open-file limit raised to its hard limit; returns the soft limit now in force.
rlim_t RaiseOpenFileLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 1024;
  if (limit.rlim_cur < limit.rlim_max) {
    rlimit raised = limit;
    raised.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
  }
  return limit.rlim_cur;
}

}  // namespace

HttpServer* HttpStart(const HttpServerOptions& options, HttpHandler handler) {
  auto server = std::make_unique<HttpServer>();
  server->handler = std::move(handler);
  server->request_deadline = std::chrono::milliseconds(options.request_deadline_ms);
  const rlim_t files = RaiseOpenFileLimit();
  constexpr rlim_t kSpareFiles = 64;   // the process's own files, sockets and pipes
  server->max_connections = static_cast<std::uint32_t>(
      std::min<rlim_t>(options.max_connections, files > 2 * kSpareFiles ? files - kSpareFiles : kSpareFiles));
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(options.port);
  local.sin_addr.s_addr = options.address;
  constexpr unsigned kBacklog = 4096;
  constexpr size_t kConnectionMemory = 16 * 1024;   // a request line and headers; no endpoint takes a body
  server->watcher = std::thread(Watch, std::ref(*server));
  server->daemon = MHD_start_daemon(
      MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, options.port, nullptr, nullptr,
      Access, server.get(), MHD_OPTION_SOCK_ADDR, reinterpret_cast<sockaddr*>(&local), MHD_OPTION_CONNECTION_LIMIT,
      static_cast<unsigned>(server->max_connections), MHD_OPTION_PER_IP_CONNECTION_LIMIT,
      static_cast<unsigned>(options.max_connections_per_client), MHD_OPTION_CONNECTION_TIMEOUT,
      static_cast<unsigned>(options.idle_timeout_s), MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemory,
      MHD_OPTION_LISTEN_BACKLOG_SIZE, kBacklog, MHD_OPTION_NOTIFY_COMPLETED, Completed, server.get(),
      MHD_OPTION_NOTIFY_CONNECTION, Connection, server.get(), MHD_OPTION_END);
  if (!server->daemon) {
    // The library does not say why; a taken port is by far the most common reason.
    const int error = errno;
    StopWatcher(*server);
    SetLastSocketError(error == EADDRINUSE || error == 0 ? kWsaEaddrinuse : kWsaEinval);
    return nullptr;
  }
  return server.release();
}

std::uint16_t HttpBoundPort(const HttpServer* server) {
  const MHD_DaemonInfo* info = MHD_get_daemon_info(server->daemon, MHD_DAEMON_INFO_BIND_PORT);
  return info ? info->port : 0;
}

std::uint32_t HttpMaxConnections(const HttpServer* server) { return server->max_connections; }

void HttpStop(HttpServer* server) {
  if (!server) return;
  {
    std::unique_lock<std::mutex> hold(server->lock);
    server->stopping = true;
    // Replies come within their handlers' own time-outs; a handler that never replies is not waited for forever.
    server->settled.wait_for(hold, std::chrono::seconds(60), [server] { return server->owed == 0; });
  }
  MHD_stop_daemon(server->daemon);
  StopWatcher(*server);
  delete server;
}

}  // namespace platform
