// chronwarden kr2 / monitor: the KR2 client on the command line, for one machine or a fleet.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cli/commands.h"
#include "cli/drift_list.h"
#include "config/defaults.h"
#include "platform/error.h"
#include "platform/machine.h"
#include "applet/kr2_client.h"
#include "exporter/exporter.h"
#include "platform/error_text.h"
#include "timing/format.h"
#include "timing/ntp_client.h"
#include "timing/precise_clock.h"

namespace {

constexpr const char* kHelp =
    "Usage: chronwarden kr2 HOST COMMAND [--port N] [--timeout MS] [--json]\n\n"
    "Asks the KR2 responder of HOST (a name or dotted address; HOST:PORT also works) and prints the\n"
    "reply's fields. Commands:\n"
    "  identity            product, version, first start and computer name (command 4)\n"
    "  status              the local sync status record: partner, offsets, counters (command 128)\n"
    "  time                the machine's UTC time (command 2)\n"
    "  localtime           the machine's local time (command 7)\n"
    "  timezone            its time zone (command 6)\n"
    "  products            machine flags and the family's products installed there (command 200)\n"
    "  history [--after SECS] [--csv]\n"
    "                      the drift records later than SECS (default 0), fetched one by one with\n"
    "                      command 160 until none is later, listed as 'chronwarden history' lists\n"
    "  clear               empties its drift history and source list, resets its counters (129)\n"
    "  resync              asks it to synchronise its clock now (command 3)\n\n"
    "Options:\n"
    "  --port N      UDP port (default: the \"kaironsync\" service, else 9909)\n"
    "  --timeout MS  wait for each reply (default 1000)\n"
    "  --json        one JSON document\n\n"
    "A command the machine refuses (\"Prohibited KR2 Commands\") is not answered: like a machine\n"
    "that is down, it ends with 'no reply' and exit code 1.\n";

constexpr const char* kMonitorHelp =
    "Usage: chronwarden monitor HOST... [--interval S] [--count N] [--port N] [--timeout MS]\n"
    "                           [--json | --openmetrics [-o FILE]]\n\n"
    "Polls the KR2 status and identity of many machines at once (one socket, every request in flight\n"
    "together) and prints one line per machine: its time partner, last measured offset, last check\n"
    "and how long its agent has been running. HOST may be HOST:PORT.\n\n"
    "Options:\n"
    "  --interval S  poll again every S seconds until interrupted (default: once)\n"
    "  --count N     with --interval, stop after N sweeps\n"
    "  --port N      UDP port (default: the \"kaironsync\" service, else 9909)\n"
    "  --timeout MS  how long a sweep waits for replies (default 1000)\n"
    "  --json        one JSON object per sweep: {\"machines\": [...], \"answered\", \"sweep_ms\"}\n"
    "  --openmetrics the sweep as metrics, each machine's labelled target=\"HOST\": the metrics of\n"
    "                'chronwarden exporter' in Prometheus' text format, as node_exporter's textfile\n"
    "                collector reads them\n"
    "  -o FILE       with --openmetrics: replace FILE (e.g. .../textfile/chronwarden.prom) after\n"
    "                each sweep, whole (written aside, then renamed), instead of printing\n\n"
    "Exit code 1 when a machine did not answer in the last sweep.\n";

// Splits "HOST:PORT"; the port stays 0 without a numeric suffix.
std::pair<std::string, std::uint16_t> SplitHostPort(std::string_view text) {
  const auto colon = text.rfind(':');
  std::uint16_t port = 0;
  if (colon != std::string_view::npos && ParseNumber(text.substr(colon + 1), port, std::uint16_t{1}))
    return {std::string(text.substr(0, colon)), port};
  return {std::string(text), 0};
}

std::string Dotted(std::uint32_t address) {
  char buf[16];
  const auto* b = reinterpret_cast<const unsigned char*>(&address);
  std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
  return buf;
}

std::string DateText(std::uint32_t seconds) { return seconds ? FormatUtcDate(seconds) : "never"; }

template <std::size_t N>
std::string FieldText(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}

std::string SystemTimeText(const Kr2SystemTime& t) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04u-%02u-%02u %02u:%02u:%02u.%03u", t.year, t.month, t.day, t.hour, t.minute,
                t.second, t.milliseconds);
  return buf;
}

// A reply's named fields, printed as "name  value" lines or as one JSON object.
class Fields {
 public:
  explicit Fields(bool json) : json_(json) {}
  Fields& Num(const char* name, long long value) { return Add(name, std::to_string(value), std::to_string(value)); }
  Fields& Unsigned(const char* name, unsigned long long value) {
    return Add(name, std::to_string(value), std::to_string(value));
  }
  Fields& Text(const char* name, const std::string& value) { return Add(name, JsonString(value), value); }
  Fields& Bool(const char* name, bool value) { return Add(name, value ? "true" : "false", value ? "yes" : "no"); }
  Fields& Time(const char* name, std::uint32_t seconds) {
    Add(name, std::to_string(seconds), DateText(seconds));
    return *this;
  }
  void Print() const {
    if (json_) {
      std::printf("{");
      for (std::size_t i = 0; i < items_.size(); ++i)
        std::printf("%s\"%s\": %s", i ? ", " : "", items_[i].name.c_str(), items_[i].json.c_str());
      std::printf("}\n");
      return;
    }
    for (const auto& item : items_) {
      std::string label = item.name;
      for (auto& c : label) c = c == '_' ? ' ' : c;
      std::printf("%-26s %s\n", (label + ":").c_str(), item.text.c_str());
    }
  }

 private:
  struct Item {
    std::string name, json, text;
  };
  Fields& Add(const char* name, std::string json, std::string text) {
    items_.push_back({name, std::move(json), std::move(text)});
    return *this;
  }
  bool json_;
  std::vector<Item> items_;
};

void PrintIdentity(Fields& f, const IdentityRecord& id) {
  f.Time("first_start", id.ephemerides)
      .Unsigned("product_code", id.product_code)
      .Text("version", FieldText(id.version))
      .Unsigned("major", id.major_version)
      .Unsigned("minor", id.minor_version)
      .Unsigned("build_year", id.build_year)
      .Unsigned("build_month_day", id.build_month_day)
      .Bool("nt_family", id.nt_family != 0)
      .Text("computer_name", FieldText(id.computer_name));
}

void PrintStatus(Fields& f, const LocalStatusRecord& s) {
  f.Unsigned("product_code", s.product_code)
      .Text("version", FieldText(s.version))
      .Time("agent_start", s.agent_start)
      .Time("last_check", s.last_check)
      .Text("partner", FieldText(s.partner_name))
      .Unsigned("partner_state", s.partner_state)
      .Time("partner_time", s.partner_time)
      .Bool("checking_sources", (s.status_flags & kKr2StatusChecking) != 0)
      .Num("last_offset_ms", s.last_offset_ms)
      .Num("offset_sum_ms", s.offset_sum_ms)
      .Text("time_zone", FieldText(s.time_zone))
      .Unsigned("sync_type", s.sync_type)
      .Time("last_status_request", s.last_status_request)
      .Time("last_counter_reset", s.last_counter_reset)
      .Unsigned("replies_sent", s.counters[0])
      .Time("last_reply", s.times[0])
      .Unsigned("failed_receives", s.failed[0])
      .Unsigned("bytes_received", s.bytes_received)
      .Unsigned("bytes_sent", s.bytes_sent)
      .Unsigned("sync_successes", s.sync_successes)
      .Unsigned("sync_verdicts", s.sync_verdicts)
      .Unsigned("sync_failures", s.sync_failures);
}

std::string InstalledText(std::uint16_t bits) {
  std::string out;
  for (const auto& [bit, name] : Kr2InstalledProductNames())
    if (bits & bit) out += (out.empty() ? "" : ", ") + std::string(name);
  return out.empty() ? "none" : out;
}

void PrintProducts(Fields& f, const Kr2Products& p) {
  const std::uint32_t zone = p.machine_flags >> kKr2MachineZoneShift;
  f.Unsigned("machine_flags", p.machine_flags)
      .Unsigned("product_code", p.machine_flags & kKr2MachineProductMask)
      .Bool("nt_family", (p.machine_flags & kKr2MachineNtFamily) != 0)
      .Text("zone_state", zone == 1 ? "daylight" : zone == 2 ? "standard" : "unknown")
      .Unsigned("installed", p.installed)
      .Text("installed_products", InstalledText(p.installed))
      .Unsigned("partner_state", p.partner_state)
      .Text("local_time", SystemTimeText(p.local_time))
      .Text("utc_time", SystemTimeText(p.utc_time))
      .Num("last_offset_ms", p.last_offset_ms)
      .Unsigned("sync_successes", p.sync_successes)
      .Unsigned("sync_verdicts", p.sync_verdicts)
      .Unsigned("sync_failures", p.sync_failures)
      .Time("first_start", p.ephemerides)
      .Time("now", p.now)
      .Time("partner_time", p.partner_time)
      .Time("agent_start", p.agent_start)
      .Text("time_zone", FieldText(p.time_zone))
      .Text("version", FieldText(p.version))
      .Text("partner", FieldText(p.partner))
      .Text("computer_name", FieldText(p.computer_name));
}

std::string Utf16Text(const char16_t* s, std::size_t n) {
  std::string out;
  for (std::size_t i = 0; i < n && s[i]; ++i) out += s[i] < 0x80 ? static_cast<char>(s[i]) : '?';
  return out;
}

void PrintTimeZone(Fields& f, const Kr2TimeZoneReply& z) {
  f.Text("zone_state", z.zone_id == 2 ? "daylight" : z.zone_id == 1 ? "standard" : "unknown")
      .Num("bias_minutes", z.info.bias)
      .Text("standard_name", Utf16Text(z.info.standard_name, 32))
      .Num("standard_bias_minutes", z.info.standard_bias)
      .Text("daylight_name", Utf16Text(z.info.daylight_name, 32))
      .Num("daylight_bias_minutes", z.info.daylight_bias)
      .Bool("auto_daylight_disabled", z.daylight_disabled != 0);
}

int NoReply(const std::string& host, std::uint8_t code, std::uint32_t timeout_ms) {
  const char* text = LastSocketErrorText();
  std::fprintf(stderr,
               "chronwarden kr2: no reply from %s to command %u within %u ms (%s); the machine is down, nothing "
               "answers KR2 there, or it refuses the command\n",
               host.c_str(), code, timeout_ms, text);
  return kExitFailed;
}

struct Kr2Options {
  std::uint16_t port = 0;
  std::uint32_t timeout_ms = defaults::kKr2TimeoutMs;
  bool json = false;
};

// Parses one of the options both commands share; returns false when arg is not one of them.
bool SharedOption(const char* command, CommandArgs args, std::size_t& i, Kr2Options& o, int& error) {
  const auto a = args[i];
  if (a == "--json") return o.json = true;
  if (a != "--port" && a != "--timeout") return false;
  if (i + 1 == args.size()) return error = UsageError(command, std::string(a) + " needs a value"), true;
  const auto v = args[++i];
  if (a == "--port" && !ParseNumber(v, o.port, std::uint16_t{1}))
    error = UsageError(command, "--port takes 1..65535");
  if (a == "--timeout" && !ParseNumber(v, o.timeout_ms, 1u, 600'000u))
    error = UsageError(command, "--timeout takes 1..600000 ms");
  return true;
}

int History(Kr2Peer& peer, const std::string& host, std::uint32_t after, DriftListFormat format) {
  std::vector<DriftRecord> records;
  constexpr std::size_t kMaxRecords = 1u << 20;   // far more than a drift file holds: a loop guard
  while (records.size() < kMaxRecords) {
    DriftRecord r{};
    // A machine limits the replies one source gets a second: a long history goes quiet for a
    // moment once the first records are in (sixteen at the defaults), so silence is asked again
    // before it counts.
    int n = -1;
    for (std::uint32_t tries = 0; n < 0 && tries < defaults::kKr2HistoryTries; ++tries) {
      n = Kr2Ask(peer, kKr2DriftAfter, after, &r, sizeof r);
      if (n < 0 && platform::LastSocketError() != platform::kWsaEtimedout) break;
    }
    if (n < 0) return NoReply(host, kKr2DriftAfter, peer.timeout_ms);
    if (n != static_cast<int>(sizeof r) || r.check_time <= after) break;   // none later
    records.push_back(r);
    after = r.check_time;
  }
  PrintDriftRecords(records.data(), static_cast<std::uint32_t>(records.size()), format, "host", host);
  return kExitOk;
}

// One sweep as metrics (the exporter's, each machine labelled target="HOST"), printed or written
// whole over output: aside first, then renamed, so that a reader never sees half a file.
bool WriteSweepMetrics(const std::vector<std::string>& hosts, const std::vector<Kr2SweepEntry>& machines,
                       double sweep_ms, const std::string& output) {
  Exposition out;
  for (std::size_t i = 0; i < machines.size(); ++i) {
    ProbeResult probe;
    probe.resolved = true;
    probe.machine = machines[i];
    probe.duration_s = (machines[i].have_status ? machines[i].reply_ms : sweep_ms) / 1000.0;
    AddProbeMetrics(out, probe, Label("target", hosts[i]));
  }
  const std::string text = Render(out, ExpositionFormat::Text);
  if (output.empty()) return std::fputs(text.c_str(), stdout), true;
  if (!platform::WriteFileWhole(output, text, false)) {
    char reason[256];
    SystemErrorText(platform::LastError(), reason, sizeof reason);
    std::fprintf(stderr, "chronwarden monitor: cannot write %s: %s\n", output.c_str(), reason);
    return false;
  }
  return true;
}

// What the kr2 command line asks for.
struct Kr2Request {
  std::string host, command;
  Kr2Options o;
  std::uint32_t after = 0;
  DriftListFormat format = DriftListFormat::Text;
};

// A parser's verdict that the command goes on (any other value is the exit code to end with).
constexpr int kParsed = -1;

int ParseKr2Args(CommandArgs args, Kr2Request& r) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    const auto a = args[i];
    if (IsHelp(a)) return std::fputs(kHelp, stdout), kExitOk;
    int error = 0;
    if (SharedOption("kr2", args, i, r.o, error)) {
      if (error) return error;
      if (r.o.json) r.format = DriftListFormat::Json;
    } else if (a == "--csv") {
      r.format = DriftListFormat::Csv;
    } else if (a == "--after") {
      if (i + 1 == args.size() || !ParseNumber(args[++i], r.after)) return UsageError("kr2", "--after takes seconds since 1970");
    } else if (!a.empty() && a[0] == '-') {
      return UsageError("kr2", "unknown option '" + std::string(a) + "'");
    } else if (r.host.empty()) {
      r.host = std::string(a);
    } else if (r.command.empty()) {
      r.command = std::string(a);
    } else {
      return UsageError("kr2", "unexpected argument '" + std::string(a) + "'");
    }
  }
  if (r.host.empty()) return UsageError("kr2", "HOST is missing");
  if (r.command.empty()) return UsageError("kr2", "COMMAND is missing");
  return kParsed;
}

// The KR2 code of a command's name, or -1.
int Kr2CommandCode(const std::string& command) {
  constexpr std::pair<const char*, std::uint8_t> kCodes[] = {
      {"identity", kKr2Identity}, {"status", kKr2Status},     {"time", kKr2Time},         {"localtime", kKr2LocalTime},
      {"timezone", kKr2TimeZone}, {"products", kKr2Products}, {"history", kKr2DriftAfter}, {"clear", kKr2StatusClear},
      {"resync", kKr2Resync}};
  for (const auto& [name, c] : kCodes)
    if (command == name) return c;
  return -1;
}

// Asks one command (any but history) and prints the reply's fields.
int AskAndPrint(Kr2Peer& peer, const std::string& host, std::uint8_t op, const Kr2Options& o) {
  std::uint8_t reply[kKr2RequestMax] = {};
  const int n = Kr2Ask(peer, op, 0, reply, sizeof reply);
  if (n < 0) return NoReply(host, op, o.timeout_ms);
  if (static_cast<std::size_t>(n) != Kr2ReplySize(op)) {
    std::fprintf(stderr, "chronwarden kr2: %s answered command %u with %d bytes instead of %zu\n", host.c_str(), op, n,
                 Kr2ReplySize(op));
    return kExitFailed;
  }
  Fields f(o.json);
  f.Text("host", host);
  switch (op) {
    case kKr2Identity: PrintIdentity(f, *reinterpret_cast<const IdentityRecord*>(reply)); break;
    case kKr2Status:
    case kKr2StatusClear: PrintStatus(f, *reinterpret_cast<const LocalStatusRecord*>(reply)); break;
    case kKr2Time:
    case kKr2LocalTime: {
      const auto& t = *reinterpret_cast<const Kr2SystemTime*>(reply);
      f.Text(op == kKr2Time ? "utc_time" : "local_time", SystemTimeText(t)).Unsigned("day_of_week", t.day_of_week);
      break;
    }
    case kKr2TimeZone: PrintTimeZone(f, *reinterpret_cast<const Kr2TimeZoneReply*>(reply)); break;
    case kKr2Products: PrintProducts(f, *reinterpret_cast<const Kr2Products*>(reply)); break;
    case kKr2Resync: {
      const bool ack = std::memcmp(reply, "ACK", 4) == 0;
      f.Text("reply", std::string(reinterpret_cast<const char*>(reply), strnlen(reinterpret_cast<const char*>(reply), 4)));
      f.Print();
      if (!ack) std::fprintf(stderr, "chronwarden kr2: %s refused the resync\n", host.c_str());
      return ack ? kExitOk : kExitFailed;
    }
  }
  f.Print();
  return kExitOk;
}

// What the monitor command line asks for.
struct MonitorRequest {
  Kr2Options o;
  std::uint32_t interval = 0, count = 0;
  std::vector<std::string> hosts;
  bool openmetrics = false;
  std::string output;
};

int ParseMonitorArgs(CommandArgs args, MonitorRequest& r) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    const auto a = args[i];
    if (IsHelp(a)) return std::fputs(kMonitorHelp, stdout), kExitOk;
    int error = 0;
    if (SharedOption("monitor", args, i, r.o, error)) {
      if (error) return error;
    } else if (a == "--openmetrics") {
      r.openmetrics = true;
    } else if (a == "-o" || a == "--output") {
      if (i + 1 == args.size() || args[i + 1].empty()) return UsageError("monitor", "-o needs a file name");
      r.output = std::string(args[++i]);
    } else if (a == "--interval") {
      if (i + 1 == args.size() || !ParseNumber(args[++i], r.interval, 1u, 86'400u))
        return UsageError("monitor", "--interval takes 1..86400 seconds");
    } else if (a == "--count") {
      if (i + 1 == args.size() || !ParseNumber(args[++i], r.count, 1u)) return UsageError("monitor", "--count takes 1 or more");
    } else if (!a.empty() && a[0] == '-') {
      return UsageError("monitor", "unknown option '" + std::string(a) + "'");
    } else {
      r.hosts.emplace_back(a);
    }
  }
  if (r.hosts.empty()) return UsageError("monitor", "HOST is missing");
  if (r.openmetrics && r.o.json) return UsageError("monitor", "--json and --openmetrics exclude each other");
  if (!r.output.empty() && !r.openmetrics) return UsageError("monitor", "-o belongs to --openmetrics");
  return kParsed;
}

// Each host's address (its own port, else --port, else the KR2 service's); false after saying
// which one could not be resolved.
bool ResolveMachines(const MonitorRequest& r, std::vector<Kr2SweepEntry>& machines) {
  machines.assign(r.hosts.size(), Kr2SweepEntry{});
  for (std::size_t i = 0; i < r.hosts.size(); ++i) {
    const auto [name, port] = SplitHostPort(r.hosts[i]);
    if (!ResolveHostPort(name.c_str(), machines[i].address, kKr2ServiceName, kKr2DefaultPort, platform::kSocketDatagram)) {
      std::fprintf(stderr, "chronwarden monitor: cannot resolve %s\n", r.hosts[i].c_str());
      return false;
    }
    if (port || r.o.port) machines[i].address.port = platform::HostToNet16(port ? port : r.o.port);
  }
  return true;
}

// One machine of a sweep as an object of the JSON "machines" list.
void PrintMachineJson(const std::string& host, const Kr2SweepEntry& m, std::uint32_t now, bool first) {
  const bool up = m.have_status;
  std::printf("%s\n  {\"host\": %s, \"address\": \"%s\", \"answered\": %s", first ? "" : ",", JsonString(host).c_str(),
              Dotted(m.address.address).c_str(), up ? "true" : "false");
  if (up) {
    const std::uint32_t start_s = m.status.agent_start;
    std::printf(", \"partner\": %s, \"last_offset_ms\": %lld, \"last_check\": %u, \"agent_start\": %u, "
                "\"agent_seconds\": %u, \"checking_sources\": %s, \"reply_ms\": %.3f",
                JsonString(FieldText(m.status.partner_name)).c_str(), static_cast<long long>(m.status.last_offset_ms),
                m.status.last_check, start_s, start_s && now > start_s ? now - start_s : 0,
                (m.status.status_flags & kKr2StatusChecking) ? "true" : "false", m.reply_ms);
  }
  if (m.have_identity)
    std::printf(", \"computer_name\": %s, \"version\": %s", JsonString(FieldText(m.identity.computer_name)).c_str(),
                JsonString(FieldText(m.identity.version)).c_str());
  std::printf("}");
}

// One machine of a sweep as a line of the table.
void PrintMachineLine(const std::string& host, const Kr2SweepEntry& m, std::uint32_t now) {
  const bool up = m.have_status;
  const std::string partner = up ? FieldText(m.status.partner_name) : "";
  const std::uint32_t start_s = up ? m.status.agent_start : 0;
  const std::string age = !up ? "no reply" : start_s == 0 ? "stopped" : FormatDurationSeconds(now > start_s ? now - start_s : 0);
  std::string shown = host;
  if (m.have_identity) shown = FieldText(m.identity.computer_name) + " (" + host + ")";
  std::printf("%-21s %-30s %12s  %-28s  %s\n", shown.c_str(), up ? partner.c_str() : "-",
              up ? std::to_string(m.status.last_offset_ms).c_str() : "-", up ? DateText(m.status.last_check).c_str() : "-",
              age.c_str());
}

// One sweep as the table or the JSON object on stdout.
void PrintSweep(const std::vector<std::string>& hosts, const std::vector<Kr2SweepEntry>& machines, bool json,
                std::size_t answered, double sweep_ms) {
  const std::uint32_t now = PreciseClockUnixSeconds();
  if (json) std::printf("{\"machines\": [");
  else std::printf("%-21s %-30s %12s  %-28s  %s\n", "Host", "Partner", "Offset ms", "Last check", "Agent running");
  for (std::size_t i = 0; i < machines.size(); ++i) {
    if (json) PrintMachineJson(hosts[i], machines[i], now, i == 0);
    else PrintMachineLine(hosts[i], machines[i], now);
  }
  if (json) std::printf("\n], \"answered\": %zu, \"sweep_ms\": %.3f}\n", answered, sweep_ms);
  else std::printf("%zu of %zu machines answered in %.1f ms\n", answered, machines.size(), sweep_ms);
}

}  // namespace

int CmdKr2(CommandArgs args) {
  Kr2Request r;
  if (const int parsed = ParseKr2Args(args, r); parsed != kParsed) return parsed;
  const int code = Kr2CommandCode(r.command);
  if (code < 0) return UsageError("kr2", "unknown command '" + r.command + "'");
  if (code != kKr2DriftAfter && (r.after || r.format == DriftListFormat::Csv))
    return UsageError("kr2", "--after and --csv belong to the history command");

  const auto [name, port] = SplitHostPort(r.host);
  Kr2Peer peer;
  if (!Kr2Open(peer, name.c_str(), port ? port : r.o.port, r.o.timeout_ms)) {
    std::fprintf(stderr, "chronwarden kr2: cannot reach %s: %s\n", r.host.c_str(), LastSocketErrorText());
    return kExitFailed;
  }
  struct Closer {
    Kr2Peer& p;
    ~Closer() { Kr2Close(p); }
  } closer{peer};
  const auto op = static_cast<std::uint8_t>(code);
  if (op == kKr2DriftAfter) return History(peer, r.host, r.after, r.format);
  return AskAndPrint(peer, r.host, op, r.o);
}

int CmdMonitor(CommandArgs args) {
  MonitorRequest r;
  if (const int parsed = ParseMonitorArgs(args, r); parsed != kParsed) return parsed;
  std::vector<Kr2SweepEntry> machines;
  if (!ResolveMachines(r, machines)) return kExitFailed;
  int result = kExitOk;
  for (std::uint32_t sweep = 1;; ++sweep) {
    for (auto& m : machines) m = Kr2SweepEntry{m.address};
    const auto start = std::chrono::steady_clock::now();
    if (!Kr2Sweep(machines, r.o.timeout_ms)) {
      std::fprintf(stderr, "chronwarden monitor: no socket: error %d\n", platform::LastSocketError());
      return kExitFailed;
    }
    const double sweep_ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    std::size_t answered = 0;
    for (const auto& m : machines) answered += m.have_status;
    if (!r.openmetrics) PrintSweep(r.hosts, machines, r.o.json, answered, sweep_ms);
    else if (!WriteSweepMetrics(r.hosts, machines, sweep_ms, r.output)) return kExitFailed;
    std::fflush(stdout);
    result = answered == machines.size() ? kExitOk : kExitFailed;
    if (!r.interval || (r.count && sweep >= r.count)) break;
    std::this_thread::sleep_for(std::chrono::seconds(r.interval));
  }
  return result;
}
