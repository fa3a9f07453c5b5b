// chronwarden server test [--machine NAME] [--json]: the Server page's Test Server. The clock status
// check runs first (as `chronwarden status` runs it) for the verdict the test judges the served
// time by; then the machine's NTP server is asked for the time.
#include <cstdio>
#include <string>

#include "applet/applet.h"
#include "applet/clock_status.h"
#include "applet/server_page.h"
#include "cli/commands.h"
#include "cli/status_page.h"
#include "resources/resource_ids.h"

namespace {

const char kUsage[] =
    "Usage: chronwarden server test [--machine NAME] [--json]\n\n"
    "Tests the NTP server of this machine (or of NAME) as the Server page of the Control Panel applet\n"
    "does: checks the clock's status as the Client page does, then asks the machine's NTP server for\n"
    "the time and judges the answer by that status.\n"
    "  --machine NAME  the machine to test (its settings, clock and NTP server)\n"
    "  --json          one JSON object: machine, clock status, icon, verdict and text\n"
    "Exit code: 0 when the time being served appears relatively accurate, 1 otherwise, 2 for a wrong\n"
    "command line.\n";

const char* Verdict(int icon) {
  switch (icon) {
    case IDI_STATUS_SYNCED: return "accurate";
    case IDI_STATUS_BAD: return "wrong";
    case IDI_STATUS_OFF: return "doubtful";
    default: return "unknown";
  }
}

}  // namespace

int CmdServer(CommandArgs args) {
  if (args.empty()) return UsageError("server", "missing action (test)");
  if (IsHelp(args[0])) return std::fputs(kUsage, stdout), kExitOk;
  if (args[0] != "test") return UsageError("server", "unknown action: " + std::string(args[0]));
  std::string machine;
  bool json = false;
  for (std::size_t i = 1; i < args.size(); ++i) {
    if (IsHelp(args[i])) return std::fputs(kUsage, stdout), kExitOk;
    if (args[i] == "--json") json = true;
    else if (args[i] == "--machine" && i + 1 < args.size()) machine = args[++i];
    else return UsageError("server", "unknown argument: " + std::string(args[i]));
  }
  ClockStatusQuestion question;
  if (!OpenStatusTarget("server", machine, question)) return kExitFailed;
  const ClockStatusResult status = CheckClockStatusOf(question, kStatusAllAtOnce);
  const ServerTestResult r = server_test(g_applet.target, status.icon, 0);
  if (json)
    std::printf("{\"machine\": %s, \"clock_status\": %s, \"icon\": %d, \"verdict\": %s, \"text\": %s}\n",
                JsonString(StatusPageMachine()).c_str(), JsonString(status.line).c_str(), r.icon, JsonString(Verdict(r.icon)).c_str(),
                JsonString(r.text).c_str());
  else
    std::printf("Clock status: %s\n%s\n", status.line.c_str(), r.text.c_str());
  return r.icon == IDI_STATUS_SYNCED ? kExitOk : kExitFailed;
}
