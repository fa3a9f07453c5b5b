// chronwarden history: lists a drift history file's records, or appends one as the provider does.
#include <charconv>
#include <cstdio>
#include <string>

#include "cli/commands.h"
#include "cli/drift_list.h"
#include "drift/drift_file.h"
#include "drift/drift_log.h"
#include "platform/clock.h"
#include "platform/error_text.h"
#include "timing/format.h"
#include "timing/precise_clock.h"

bool LoadDriftFileForCli(const char* command, const std::string& file, bool local, DriftLog& log);

namespace {

constexpr const char* kHelp =
    "Usage: chronwarden history FILE [--csv|--json]\n"
    "       chronwarden history append FILE --variance MS [--reason CODE] [--source NAME] [--time SECS]\n"
    "                                       [--set] [--machine-type CODE]\n\n"
    "Lists the records of the drift history file FILE, oldest first: check time, time source, whether\n"
    "the check set the clock, phase adjustment, check reason, machine type and variance in ms.\n"
    "The file is read and checked as the Control Panel reads it. FILE may also be drift.kr.1 beside\n"
    "drift.kr: the history that the last KR2 clear (command 129) emptied.\n\n"
    "Options:\n"
    "  --csv    comma-separated values with a header line\n"
    "  --json   one JSON document: {\"file\", \"records\": [{\"check_time\", \"check_time_utc\", \"source\",\n"
    "           \"address\", \"clock_set\", \"phase_adjustment\" (null before version 41), \"reason\",\n"
    "           \"reason_code\", \"machine_type\", \"machine_type_code\", \"variance_ms\", \"version\"}...]}\n\n"
    "Run 'chronwarden history append --help' for appending.\n";

constexpr const char* kAppendHelp =
    "Usage: chronwarden history append FILE --variance MS [--reason CODE] [--source NAME] [--time SECS]\n"
    "                                       [--set] [--machine-type CODE]\n\n"
    "Appends one drift record to FILE exactly as the time provider does (created when missing, trimmed\n"
    "to its newest 8,192 records at 16,384, flushed to disk before the command ends). A torn tail left\n"
    "by a crash (a size that is not a multiple of 20 bytes) is first cut back to the last whole record.\n"
    "The append waits (up to 10 s) while another process, the time provider too, changes FILE, so that\n"
    "no record is lost.\n\n"
    "Options:\n"
    "  --variance MS        reference minus local clock in ms (negative: the local clock was fast)\n"
    "  --reason CODE        check reason 0..255 (default 1, Scheduled; 255 Startup, 254 Power resume)\n"
    "  --source NAME        dotted address, host name or \"Averaged Time\" (default \"Averaged Time\")\n"
    "  --time SECS          check time in seconds since 1970 (default: now)\n"
    "  --set                the check corrected the clock\n"
    "  --machine-type CODE  0..127 (default 7, Chronwarden)\n";

std::string CsvField(std::string_view s) {
  if (s.find_first_of(",\"\r\n") == std::string_view::npos) return std::string(s);
  std::string out = "\"";
  for (char c : s) out += c == '"' ? std::string("\"\"") : std::string(1, c);
  return out + "\"";
}

std::string Dotted(std::uint32_t address) {
  const auto* b = reinterpret_cast<const unsigned char*>(&address);
  char buf[16];
  std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
  return buf;
}

int Append(CommandArgs args) {
  std::string file, source = "Averaged Time";
  std::int64_t variance = 0;
  bool have_variance = false, set = false;
  unsigned reason = kReasonScheduled, machine = kMachineChronwarden;
  std::uint32_t when = 0;
  bool have_time = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const auto a = args[i];
    if (IsHelp(a)) return std::fputs(kAppendHelp, stdout), kExitOk;
    const bool takes_value = a == "--variance" || a == "--reason" || a == "--source" || a == "--time" ||
                             a == "--machine-type";
    if (takes_value && i + 1 == args.size()) return UsageError("history append", std::string(a) + " needs a value");
    if (a == "--variance") {
      if (!ParseNumber(args[++i], variance)) return UsageError("history append", "--variance takes whole milliseconds");
      have_variance = true;
    } else if (a == "--reason") {
      if (!ParseNumber(args[++i], reason) || reason > 255) return UsageError("history append", "--reason takes 0..255");
    } else if (a == "--machine-type") {
      if (!ParseNumber(args[++i], machine) || machine > 127)
        return UsageError("history append", "--machine-type takes 0..127");
    } else if (a == "--source") {
      source = std::string(args[++i]);
    } else if (a == "--time") {
      if (!ParseNumber(args[++i], when)) return UsageError("history append", "--time takes seconds since 1970 (0..4294967295)");
      have_time = true;
    } else if (a == "--set") {
      set = true;
    } else if (!a.empty() && a[0] == '-') {
      return UsageError("history append", "unknown option '" + std::string(a) + "'");
    } else if (file.empty()) {
      file = std::string(a);
    } else {
      return UsageError("history append", "only one FILE can be appended to");
    }
  }
  if (file.empty()) return UsageError("history append", "FILE is missing");
  if (!have_variance) return UsageError("history append", "--variance is required");
  if (!have_time) {
    when = std::max(1u, ClampUnixSeconds(FileTimeToUnixSeconds(platform::SystemTimeAsFileTime())));
  }
  // The failure's own code, taken at once: SystemErrorText(0, ...) words message 0 ("The operation
  // completed successfully"), not the last error.
  const auto fail = [&](const char* what) {
    const std::uint32_t error = platform::LastError();
    DriftFileClose();
    char text[129] = {};
    std::fprintf(stderr, "chronwarden history append: %s %s; %s\n", what, file.c_str(),
                 SystemErrorText(error ? error : platform::kErrorGenFailure, text, sizeof text));
    return kExitFailed;
  };
  if (!DriftFileOpenPath(file)) return fail("could not open");
  if (!DriftFileAppend(variance, when, set ? 1 : 0, static_cast<std::uint8_t>(reason), source.c_str(),
                       static_cast<std::uint8_t>(machine)))
    return fail("could not write the record to");
  DriftFileClose();
  return kExitOk;
}

}  // namespace

void PrintDriftRecords(const DriftRecord* records, std::uint32_t count, DriftListFormat format,
                       std::string_view json_key, std::string_view json_value) {
  if (format == DriftListFormat::Csv)
    std::printf("check_time,check_time_utc,source,address,clock_set,phase_adjustment,reason_code,reason,"
                "machine_type_code,machine_type,variance_ms,version\n");
  else if (format == DriftListFormat::Json)
    std::printf("{%s: %s, \"records\": [", JsonString(json_key).c_str(), JsonString(json_value).c_str());
  else
    std::printf("%-28s  %-15s  %-3s  %6s  %-13s  %-13s  %12s\n", "Check time", "Source", "Set", "PhAdj", "Reason",
                "Machine type", "Variance ms");
  for (std::uint32_t i = 0; i < count; ++i) {
    const DriftRecord& r = records[i];
    const bool phase_known = r.version >= kDriftRecordVersion;
    const std::string phase = phase_known ? std::to_string(DriftPhaseAdjustment(r)) : "";
    const char* reason = CheckReasonName(r.reason);
    const char* machine = MachineTypeName(DriftMachineType(r));
    const std::string source = DriftSourceName(r.address);
    if (format == DriftListFormat::Csv) {
      std::printf("%u,%s,%s,%s,%d,%s,%u,%s,%u,%s,%d,%u\n", r.check_time, FormatUtcDate(r.check_time),
                  CsvField(source).c_str(), Dotted(r.address).c_str(), DriftClockSet(r) ? 1 : 0, phase.c_str(),
                  r.reason, CsvField(reason).c_str(), DriftMachineType(r), CsvField(machine).c_str(), r.variance_ms,
                  r.version);
    } else if (format == DriftListFormat::Json) {
      std::printf("%s\n  {\"check_time\": %u, \"check_time_utc\": %s, \"source\": %s, \"address\": %s, "
                  "\"clock_set\": %s, \"phase_adjustment\": %s, \"reason\": %s, \"reason_code\": %u, "
                  "\"machine_type\": %s, \"machine_type_code\": %u, \"variance_ms\": %d, \"version\": %u}",
                  i ? "," : "", r.check_time, JsonString(FormatUtcDate(r.check_time)).c_str(),
                  JsonString(source).c_str(), JsonString(Dotted(r.address)).c_str(),
                  DriftClockSet(r) ? "true" : "false", phase_known ? phase.c_str() : "null",
                  JsonString(reason).c_str(), r.reason, JsonString(machine).c_str(), DriftMachineType(r),
                  r.variance_ms, r.version);
    } else {
      std::printf("%-28s  %-15s  %-3s  %6s  %-13s  %-13s  %12d\n", FormatUtcDate(r.check_time), source.c_str(),
                  DriftClockSet(r) ? "Y" : "N", phase.c_str(), reason, machine, r.variance_ms);
    }
  }
  if (format == DriftListFormat::Json) std::printf("%s]}\n", count ? "\n" : "");
  else if (format == DriftListFormat::Text) std::printf("%u record%s\n", count, count == 1 ? "" : "s");
}

int CmdHistory(CommandArgs args) {
  if (!args.empty() && args[0] == "append") return Append(args.subspan(1));
  std::string file;
  DriftListFormat format = DriftListFormat::Text;
  for (const auto a : args) {
    if (IsHelp(a)) return std::fputs(kHelp, stdout), kExitOk;
    if (a == "--csv") format = DriftListFormat::Csv;
    else if (a == "--json") format = DriftListFormat::Json;
    else if (!a.empty() && a[0] == '-') return UsageError("history", "unknown option '" + std::string(a) + "'");
    else if (file.empty()) file = std::string(a);
    else return UsageError("history", "only one FILE can be listed");
  }
  if (file.empty()) return UsageError("history", "FILE is missing");
  if (file.size() > kDriftPathMax) return UsageError("history", "FILE is longer than 260 characters");
  DriftLog log;
  if (!LoadDriftFileForCli("history", file, false, log)) return kExitFailed;

  PrintDriftRecords(log.records.get(), log.record_count, format, "file", file);
  return kExitOk;
}
