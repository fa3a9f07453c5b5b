// chronwarden ntp query: asks an NTP server for its time, as the agent and the applet do.
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <string>

#include "cli/commands.h"
#include "platform/error_text.h"
#include "platform/net.h"
#include "platform/sync.h"
#include "timing/ntp_client.h"
#include "timing/precise_clock.h"

namespace {

constexpr const char* kHelp =
    "Usage: chronwarden ntp query HOST [--timeout MS] [--count N] [--json]\n\n"
    "Commands:\n"
    "  query   ask an NTP server for its time and show the local clock's offset from it\n\n"
    "Run 'chronwarden ntp query --help' for its options.\n";

constexpr const char* kQueryHelp =
    "Usage: chronwarden ntp query HOST [--timeout MS] [--count N] [--json]\n\n"
    "Sends N SNTP requests to HOST (a name or dotted IPv4 address; a \":port\" suffix is ignored,\n"
    "the \"ntp\" service port is used) one after the other, and prints one line per reply:\n"
    "  server, valid or invalid, offset (server minus local, 100-ns units and seconds; positive when\n"
    "  the local clock is behind), delay (ms, and us), stratum, reference identifier, leap indicator,\n"
    "  and for a failed query the error text.\n\n"
    "Options:\n"
    "  --timeout MS  receive time-out per query in ms, 0..600000 (default 0, which means 2000)\n"
    "  --count N     number of queries, 1..100000 (default 1)\n"
    "  --json        print one JSON document instead:\n"
    "                {\"server\": HOST, \"samples\": [{\"server\", \"valid\", \"offset_100ns\", \"offset_s\",\n"
    "                 \"delay_ms\", \"delay_us\", \"stratum\", \"refid\", \"leap\", \"error\", \"error_text\"}...],\n"
    "                 \"valid_count\"}\n"
    "                (stratum, refid and leap are null when no reply came back)\n\n"
    "Exit codes: 0 at least one reply was valid, 1 none was, 2 the command line was wrong.\n";

void PrintLine(const std::string& server, const NtpResult& r) {
  std::printf("%s  %s", server.c_str(), r.valid ? "valid" : "invalid");
  if (r.valid)
    std::printf("  offset %+lld (%+.7f s)  delay %u ms (%.1f us)", static_cast<long long>(r.offset), r.offset / 1e7,
                r.delay_ms, r.delay_seconds * 1e6);
  if (r.replied)
    std::printf("  stratum %u  refid %s  leap %u (%s)", r.stratum, NtpReferenceIdText(r).c_str(), r.leap,
                NtpLeapText(r.leap));
  if (!r.valid) {
    char text[128];
    std::printf("  %s", SocketErrorText(r.error, text, sizeof text));
  }
  std::printf("\n");
}

void PrintJson(const std::string& server, const NtpResult& r, bool first) {
  char text[128];
  SocketErrorText(r.error, text, sizeof text);
  std::printf("%s\n  {\"server\": %s, \"valid\": %s, \"offset_100ns\": %lld, \"offset_s\": %.7f, \"delay_ms\": %u, "
              "\"delay_us\": %.1f, ",
              first ? "" : ",", JsonString(server).c_str(), r.valid ? "true" : "false", static_cast<long long>(r.offset),
              r.offset / 1e7, r.delay_ms, r.delay_seconds * 1e6);
  if (r.replied)
    std::printf("\"stratum\": %u, \"refid\": %s, \"leap\": %u, ", r.stratum, JsonString(NtpReferenceIdText(r)).c_str(),
                r.leap);
  else
    std::printf("\"stratum\": null, \"refid\": null, \"leap\": null, ");
  std::printf("\"error\": %d, \"error_text\": %s}", static_cast<std::int32_t>(r.error), JsonString(text).c_str());
}

int Query(CommandArgs args) {
  long timeout_ms = 0, count = 1;
  bool json = false;
  std::string host;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const auto a = args[i];
    if (IsHelp(a)) return std::fputs(kQueryHelp, stdout), kExitOk;
    if (a == "--json") {
      json = true;
    } else if (a == "--timeout") {
      if (++i == args.size() || !ParseNumber(args[i], timeout_ms, 0L, 600000L))
        return UsageError("ntp query", "--timeout takes a whole number of ms from 0 to 600000");
    } else if (a == "--count") {
      if (++i == args.size() || !ParseNumber(args[i], count, 1L, 100000L))
        return UsageError("ntp query", "--count takes a whole number from 1 to 100000");
    } else if (a.starts_with("-")) {
      return UsageError("ntp query", "unknown option '" + std::string(a) + "'");
    } else if (host.empty()) {
      host = a;
    } else {
      return UsageError("ntp query", "one HOST only ('" + std::string(a) + "' is extra)");
    }
  }
  if (host.empty()) return UsageError("ntp query", "HOST is missing");

  if (const int rc = platform::NetStartup(); rc != 0) {
    char text[128];
    std::fprintf(stderr, "chronwarden ntp query: %s\n", SocketErrorText(static_cast<std::uint32_t>(rc), text, sizeof text));
    return kExitFailed;
  }
  platform::UniqueEvent stop(platform::CreateSyncEvent(true, false));
  const bool clock_started = stop && PreciseClockStart(stop.get());

  if (json) std::printf("{\"server\": %s, \"samples\": [", JsonString(host).c_str());
  long valid_count = 0;
  for (long i = 0; i < count; ++i) {
    NtpQueryOptions options;
    options.server = host.c_str();
    options.timeout_ms = static_cast<std::uint32_t>(timeout_ms);
    const NtpResult r = NtpQuery(options);
    valid_count += r.valid ? 1 : 0;
    if (json) PrintJson(host, r, i == 0);
    else PrintLine(host, r);
    std::fflush(stdout);
  }
  if (json) std::printf("],\n \"valid_count\": %ld}\n", valid_count);

  if (clock_started) PreciseClockStop();
  platform::NetCleanup();
  return valid_count > 0 ? kExitOk : kExitFailed;
}

}  // namespace

int CmdNtp(CommandArgs args) {
  if (args.empty()) return UsageError("ntp", "a subcommand is missing (query)");
  if (IsHelp(args[0])) return std::fputs(kHelp, stdout), kExitOk;
  if (args[0] == "query") return Query(args.subspan(1));
  return UsageError("ntp", "unknown subcommand '" + std::string(args[0]) + "'");
}
