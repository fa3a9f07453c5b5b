// chronwarden exporter: KR2 responders as Prometheus metrics, over HTTP.
#include <cstdio>
#include <string>

#include "cli/commands.h"
#include "config/defaults.h"
#include "exporter/exporter.h"
#include "platform/error.h"
#include "platform/error_text.h"
#include "platform/net.h"
#include "timing/ntp_client.h"

namespace {

constexpr const char* kHelp =
    "Usage: chronwarden exporter [--listen [ADDRESS]:PORT] [--timeout MS] [--max-probes N]\n"
    "                            [--max-connections N]\n\n"
    "Serves the KR2 status of other machines to Prometheus, in its multi-target exporter pattern (as\n"
    "the blackbox and SNMP exporters do), until SIGTERM or Ctrl-C. Linux only.\n\n"
    "Endpoints:\n"
    "  /probe?target=HOST[:PORT][&port=N][&products=1]\n"
    "                one machine: asks its KR2 responder for status (128) and identity (4), and its\n"
    "                installed products (200) with products=1; chronwarden_up 0 when it is silent\n"
    "  /metrics      the exporter's own process and this machine's sync status block\n"
    "  /             a page that links both\n\n"
    "Options:\n"
    "  --listen [ADDRESS]:PORT  where to serve (default 127.0.0.1:9909; ':9909' for every address)\n"
    "  --timeout MS             longest KR2 wait of one probe (default 1000); Prometheus' scrape\n"
    "                           time-out less 500 ms shortens it\n"
    "  --max-probes N           probes in flight at once (default 1000); more get 503 and Retry-After\n"
    "  --max-connections N      HTTP connections at once (default 16384, at most the open-file limit)\n\n"
    "A bad request gets a one-line reason: 400 (no or malformed target, port or products, unknown\n"
    "parameter), 404 (another path), 405 (a method other than GET and HEAD).\n"
    "Exit codes: 0 stopped by a signal, 1 could not serve, 2 the command line was wrong.\n";

struct Listen {
  std::uint32_t address = 0;
  std::uint16_t port = 0;
};

bool ParseListen(std::string_view text, Listen& out) {
  const auto colon = text.rfind(':');
  const std::string host(colon == std::string_view::npos ? std::string_view{} : text.substr(0, colon));
  const std::string_view port = colon == std::string_view::npos ? text : text.substr(colon + 1);
  if (!ParseNumber(port, out.port, std::uint16_t{1})) return false;
  if (host.empty()) return out.address = 0, true;
  platform::SocketAddressV4 a{};
  if (!ResolveHostPort(host.c_str(), a, nullptr, out.port, platform::kSocketStream)) return false;
  out.address = a.address;
  return true;
}

}  // namespace

int CmdExporter(CommandArgs args) {
  Listen listen{platform::HostToNet32(0x7F000001), defaults::kExporterPort};
  std::string listen_text = "127.0.0.1:" + std::to_string(defaults::kExporterPort);
  Exporter exporter;
  platform::HttpServerOptions http;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const auto a = args[i];
    if (IsHelp(a)) return std::fputs(kHelp, stdout), kExitOk;
    if (a != "--listen" && a != "--timeout" && a != "--max-probes" && a != "--max-connections")
      return UsageError("exporter", (a.starts_with("-") ? "unknown option '" : "unexpected argument '") + std::string(a) + "'");
    if (i + 1 == args.size()) return UsageError("exporter", std::string(a) + " needs a value");
    const auto v = args[++i];
    if (a == "--listen") {
      if (!ParseListen(v, listen)) return UsageError("exporter", "--listen takes [ADDRESS]:PORT, not '" + std::string(v) + "'");
      listen_text = std::string(v);
    } else if (a == "--timeout" && !ParseNumber(v, exporter.options.timeout_ms, 1u, 600'000u)) {
      return UsageError("exporter", "--timeout takes 1..600000 ms");
    } else if (a == "--max-probes" && !ParseNumber(v, exporter.options.max_probes, 1u, 100'000u)) {
      return UsageError("exporter", "--max-probes takes 1..100000");
    } else if (a == "--max-connections" && !ParseNumber(v, http.max_connections, 1u, 1'000'000u)) {
      return UsageError("exporter", "--max-connections takes 1..1000000");
    }
  }
  http.address = listen.address;
  http.port = listen.port;
  if (const int error = platform::NetStartup()) {
    std::fprintf(stderr, "chronwarden exporter: no network: error %d\n", error);
    return kExitFailed;
  }
  // Taken over before any thread starts, so that only the wait below sees the signals.
  platform::CatchTerminationRequest();
  platform::HttpServer* server = platform::HttpStart(
      http, [&exporter](const platform::HttpRequest& r, platform::HttpRespond respond) {
        ExporterHandle(exporter, r, std::move(respond));
      });
  if (!server) {
    std::fprintf(stderr, "chronwarden exporter: cannot serve HTTP on %s: %s\n", listen_text.c_str(),
                 platform::LastError() == platform::kErrorNotSupported ? "not available on this system (Linux only)"
                                                                       : LastSocketErrorText());
    platform::NetCleanup();
    return kExitFailed;
  }
  std::printf("chronwarden exporter: serving http://%s/ on port %u (probe time-out %u ms, at most %u probes and %u "
              "connections at once)\n",
              listen_text.c_str(), platform::HttpBoundPort(server), exporter.options.timeout_ms,
              exporter.options.max_probes, platform::HttpMaxConnections(server));
  std::fflush(stdout);
  platform::WaitTerminationRequest();
  std::printf("chronwarden exporter: stopping\n");
  platform::HttpStop(server);   // no new probe starts; every probe's reply is given
  ExporterDrain(exporter);      // and every probe is done with the exporter
  platform::NetCleanup();
  return kExitOk;
}
