// chronwarden report: the synchronization summary report of a drift history file.
#include <cstdio>
#include <string>

#include "cli/commands.h"
#include "drift/drift_log.h"
#include "drift/report.h"
#include "platform/file.h"
#include "platform/clock.h"
#include "platform/error_text.h"
#include "timing/precise_clock.h"

namespace {

constexpr const char* kHelp =
    "Usage: chronwarden report FILE [--utc|--local] [-o OUT]\n\n"
    "Writes the synchronization summary report of the drift history file FILE (any copy of a\n"
    "machine's drift.kr): statistics over all records and one line per record.\n\n"
    "Options:\n"
    "  --local   times in local time (the default, as the Control Panel shows them)\n"
    "  --utc     times in UTC\n"
    "  -o OUT    write the report to OUT instead of FILE with its extension replaced by \".txt\";\n"
    "            \"-o -\" writes it to standard output\n\n"
    "Exit codes: 0 written, 1 the file could not be read or the report not written, 2 usage.\n";

void StdoutSink(void*, const char* text, std::size_t length) { std::fwrite(text, 1, length, stdout); }

}  // namespace

// Loads a drift history file as the applet does; on failure prints why and returns false.
bool LoadDriftFileForCli(const char* command, const std::string& file, bool local, DriftLog& log) {
  DriftLogSetPath(log, file.c_str());
  log.local_time = local;
  if (DriftLogLoad(nullptr, log)) return true;
  char reason[129] = {};
  DriftLogErrorText(log.last_error, reason, sizeof reason);
  std::fprintf(stderr, "chronwarden %s: could not load file %s; %s\n", command, file.c_str(), reason);
  return false;
}

int CmdReport(CommandArgs args) {
  std::string file, out;
  bool local = true, have_out = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const auto a = args[i];
    if (IsHelp(a)) return std::fputs(kHelp, stdout), kExitOk;
    if (a == "--utc") local = false;
    else if (a == "--local") local = true;
    else if (a == "-o" || a == "--output") {
      if (++i == args.size()) return UsageError("report", "-o needs a file name (or - for standard output)");
      out = std::string(args[i]);
      have_out = true;
    } else if (!a.empty() && a[0] == '-' && a != "-") {
      return UsageError("report", "unknown option '" + std::string(a) + "'");
    } else if (file.empty()) {
      file = std::string(a);
    } else {
      return UsageError("report", "only one FILE can be reported");
    }
  }
  if (file.empty()) return UsageError("report", "FILE is missing");
  if (file.size() > kDriftPathMax) return UsageError("report", "FILE is longer than 260 characters");

  DriftLog log;
  if (!LoadDriftFileForCli("report", file, local, log)) return kExitFailed;
  char zone[128];
  ReportTimeZoneText(local, zone, sizeof zone);
  if (have_out && out == "-") {
    platform::SetStdoutBinary();
    RenderDriftReport(log, zone, ClampUnixSeconds(FileTimeToUnixSeconds(platform::SystemTimeAsFileTime())), StdoutSink,
                      nullptr);
    std::fflush(stdout);
    return kExitOk;
  }
  const std::string target = have_out ? out : DriftReportPathFor(log.path);
  const std::uint32_t error =
      have_out ? WriteDriftReportFile(log, target.c_str(), zone) : WriteDriftReport(nullptr, log, zone);
  if (error) {
    char text[129] = {};
    SystemErrorText(error, text, 129);
    std::fprintf(stderr, "chronwarden report: could not create file %s for output of raw drift data; %s\n",
                 target.c_str(), text);
    return kExitFailed;
  }
  std::printf("Report of %u records written to %s\n", log.record_count, target.c_str());
  return kExitOk;
}
