// The exporter's HTTP server is served on Linux only: on Windows starting it fails, plainly.
#include "platform/http.h"

#include "platform/error.h"

namespace platform {

HttpServer* HttpStart(const HttpServerOptions&, HttpHandler) {
  SetLastError(kErrorNotSupported);
  return nullptr;
}
std::uint16_t HttpBoundPort(const HttpServer*) { return 0; }
std::uint32_t HttpMaxConnections(const HttpServer*) { return 0; }
void HttpStop(HttpServer*) {}

}  // namespace platform
