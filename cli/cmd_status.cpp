// chronwarden status [--machine NAME] [--json] [--watch [--count N]]: the Client page's clock
// status check of the machine's servers: each server's stratum and variance against the target
// machine, the verdict and the current time source, exactly the texts the page shows.
#include <cstdio>
#include <string>

#include "applet/applet.h"
#include "applet/clock_status.h"
#include "cli/commands.h"
#include "cli/status_page.h"
#include "config/defaults.h"
#include "config/w32time.h"
#include "platform/error_text.h"
#include "platform/sync.h"
#include "resources/resource_ids.h"

namespace {

const char kUsage[] =
    "Usage: chronwarden status [--machine NAME] [--json] [--watch [--count N]]\n\n"
    "Checks whether the clock of this machine (or of NAME) is synchronized, as the Client page of\n"
    "the Control Panel applet does: asks each configured NTP server for its time, shows its stratum\n"
    "and its variance against the machine's clock, then the verdict and the time source the agent\n"
    "last used. A remote machine's own time comes from NTP, else its time-of-day service (on Linux\n"
    "its KR2 responder); when neither answers, variances end in \" ???\".\n"
    "  --machine NAME  the machine to check (its settings and clock)\n"
    "  --json          one JSON object per check\n"
    "  --watch         check again every 8 seconds until interrupted (--count N: N checks)\n"
    "Exit code: 0 when the last check found the clock synchronized to within 1 second, 1 otherwise\n"
    "(not synchronized, off by more than a second, unknown), 2 for a wrong command line.\n";

void Print(const ClockStatusResult& status, const std::string& time_source, bool json) {
  if (json) {
    std::string out = "{\"machine\": " + JsonString(StatusPageMachine()) + ", \"servers\": [";
    bool first = true;
    for (int i = 0; i < 6; ++i) {
      const ClockStatusRow& row = status.rows[i];
      if (row.server.empty()) continue;
      out += std::string(first ? "" : ", ") + "{\"row\": " + std::to_string(i + 1) + ", \"name\": " + JsonString(row.server) +
             ", \"stratum\": " + JsonString(row.stratum) + ", \"variance\": " + JsonString(row.variance) + "}";
      first = false;
    }
    out += "], \"icon\": " + std::to_string(status.icon) + ", \"status\": " + JsonString(status.line) +
           ", \"time_source\": " + JsonString(time_source) + "}";
    std::printf("%s\n", out.c_str());
  } else {
    std::printf("%-3s %-40s %-8s %s\n", "#", "Server", "Stratum", "Variance");
    for (int i = 0; i < 6; ++i) {
      const ClockStatusRow& row = status.rows[i];
      if (!row.server.empty()) std::printf("%-3d %-40s %-8s %s\n", i + 1, row.server.c_str(), row.stratum.c_str(), row.variance.c_str());
    }
    std::printf("%s\nCurrently selected time source: %s\n", status.line.c_str(), time_source.c_str());
  }
  std::fflush(stdout);
}

}  // namespace

bool OpenStatusTarget(std::string_view command, const std::string& machine, ClockStatusQuestion& question) {
  applet_entry(nullptr, kCplInit, 0, 0);
  if (!applet_open_target(machine.c_str())) {
    std::fprintf(stderr, "chronwarden %s: cannot reach the registry of %s\n", std::string(command).c_str(), machine.c_str());
    return false;
  }
  if (const std::uint32_t st = w32t_load(g_applet.reg, g_applet.settings)) {
    char text[512];
    std::fprintf(stderr, "chronwarden %s: %s\n", std::string(command).c_str(), SystemErrorText(st, text, sizeof text));
    return false;
  }
  for (int i = 0; i < 6; ++i) question.servers[i] = g_applet.settings.servers[i].name;
  return true;
}

const char* StatusPageMachine() { return g_applet.target[0] ? g_applet.target : g_w32t_env.computer_name; }

int CmdStatus(CommandArgs args) {
  std::string machine;
  bool json = false, watch = false;
  std::uint32_t count = 0;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (IsHelp(args[i])) return std::fputs(kUsage, stdout), kExitOk;
    if (args[i] == "--json") json = true;
    else if (args[i] == "--watch") watch = true;
    else if (args[i] == "--machine" && i + 1 < args.size()) machine = args[++i];
    else if (args[i] == "--count" && i + 1 < args.size()) {
      if (!ParseNumber(args[++i], count, 1u, 1'000'000u)) return UsageError("status", "--count needs a number from 1");
    } else {
      return UsageError("status", "unknown argument: " + std::string(args[i]));
    }
  }
  if (count && !watch) return UsageError("status", "--count goes with --watch");
  ClockStatusQuestion question;
  if (!OpenStatusTarget("status", machine, question)) return kExitFailed;
  int icon = 0;
  for (std::uint32_t n = 0; !watch || !count || n < count; ++n) {
    if (n) platform::Sleep(defaults::kStatusCheckPeriodMs);
    const ClockStatusResult status = CheckClockStatusOf(question, kStatusAllAtOnce);
    Print(status, CurrentTimeSourceText(), json);
    icon = status.icon;
    if (!watch) break;
  }
  return icon == IDI_STATUS_SYNCED ? kExitOk : kExitFailed;
}
