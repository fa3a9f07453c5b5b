// chronwarden status [--machine NAME] [--json] [--watch [--count N]]: the Client page's clock
// status check, run on an in-memory Client page filled with the machine's servers: each server's
// stratum and variance against the target machine, the verdict and the current time source,
// exactly the texts the page shows.
#include <cstdio>
#include <string>

#include "applet/applet.h"
#include "applet/clock_status.h"
#include "cli/commands.h"
#include "cli/status_page.h"
#include "config/defaults.h"
#include "config/registry.h"
#include "config/w32time.h"
#include "platform/dialog_memory.h"
#include "platform/error_text.h"
#include "platform/sync.h"
#include "resources/resource_ids.h"
#include "resources/resources.h"

namespace {

constexpr int kServerIds[] = {IDC_SERVER1, IDC_SERVER2, IDC_SERVER3, IDC_SERVER4, IDC_SERVER5, IDC_SERVER6};
constexpr int kStratumIds[] = {IDC_STRATUM1, IDC_STRATUM2, IDC_STRATUM3, IDC_STRATUM4, IDC_STRATUM5, IDC_STRATUM6};
constexpr int kVarianceIds[] = {IDC_VARIANCE1, IDC_VARIANCE2, IDC_VARIANCE3, IDC_VARIANCE4, IDC_VARIANCE5, IDC_VARIANCE6};

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

void Print(const platform::MemoryDialog& page, bool json) {
  if (json) {
    std::string out = "{\"machine\": " + JsonString(StatusPageMachine()) +
                      ", \"servers\": [";
    bool first = true;
    for (int i = 0; i < 6; ++i) {
      const std::string name = page.Text(kServerIds[i]);
      if (name.empty()) continue;
      out += std::string(first ? "" : ", ") + "{\"row\": " + std::to_string(i + 1) + ", \"name\": " + JsonString(name) +
             ", \"stratum\": " + JsonString(page.Text(kStratumIds[i])) + ", \"variance\": " +
             JsonString(page.Text(kVarianceIds[i])) + "}";
      first = false;
    }
    out += "], \"icon\": " + std::to_string(page.Icon(IDC_STATUS_ICON)) + ", \"status\": " +
           JsonString(page.Text(IDC_STATUS_TEXT)) + ", \"time_source\": " + JsonString(page.Text(IDC_TIME_SOURCE)) + "}";
    std::printf("%s\n", out.c_str());
  } else {
    std::printf("%-3s %-40s %-8s %s\n", "#", "Server", "Stratum", "Variance");
    for (int i = 0; i < 6; ++i) {
      const std::string name = page.Text(kServerIds[i]);
      if (!name.empty())
        std::printf("%-3d %-40s %-8s %s\n", i + 1, name.c_str(), page.Text(kStratumIds[i]).c_str(),
                    page.Text(kVarianceIds[i]).c_str());
    }
    std::printf("%s\nCurrently selected time source: %s\n", page.Text(IDC_STATUS_TEXT).c_str(),
                page.Text(IDC_TIME_SOURCE).c_str());
  }
  std::fflush(stdout);
}

}  // namespace

std::unique_ptr<platform::MemoryDialog> OpenStatusPage(std::string_view command, const std::string& machine) {
  static platform::DialogLogic plain;
  applet_entry(nullptr, kCplInit, 0, 0);
  if (!applet_open_target(machine.c_str())) {
    std::fprintf(stderr, "chronwarden %s: cannot reach the registry of %s\n", std::string(command).c_str(),
                 machine.c_str());
    return nullptr;
  }
  if (const std::uint32_t st = w32t_load(g_applet.reg, g_applet.settings)) {
    char text[512];
    std::fprintf(stderr, "chronwarden %s: %s\n", std::string(command).c_str(), SystemErrorText(st, text, sizeof text));
    return nullptr;
  }
  resources::RegisterDialogs();
  platform::UseMemoryDialogs(true);
  auto page = std::make_unique<platform::MemoryDialog>(*platform::FindDialogDescription(IDD_CLIENT), plain);
  for (int i = 0; i < 6; ++i) page->SetText(kServerIds[i], g_applet.settings.servers[i].name);
  return page;
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
  const auto page = OpenStatusPage("status", machine);
  if (!page) return kExitFailed;
  int icon = 0;
  for (std::uint32_t n = 0; !watch || !count || n < count; ++n) {
    if (n) platform::Sleep(defaults::kStatusCheckPeriodMs);
    CheckClockStatus(*page, kStatusAllAtOnce);
    UpdateSyncNowButton(*page);
    ShowCurrentTimeSource(*page);
    Print(*page, json);
    icon = page->Icon(IDC_STATUS_ICON);
    if (!watch) break;
  }
  return icon == IDI_STATUS_SYNCED ? kExitOk : kExitFailed;
}
