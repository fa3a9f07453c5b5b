// The exporter: probes, metrics and the HTTP endpoints.
#include "exporter/exporter.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstring>
#include <thread>

#include "config/defaults.h"
#include "platform/machine.h"
#include "timing/ntp_client.h"

namespace {

using Clock = std::chrono::steady_clock;

// Probe metrics.
constexpr MetricDef kUp{"chronwarden_up", MetricType::Gauge, "",
                        "1 when the machine's KR2 responder answered the status request, else 0."};
constexpr MetricDef kProbeDuration{"chronwarden_probe_duration_seconds", MetricType::Gauge, "seconds",
                                   "How long the probe took: name look-up and KR2 replies."};
constexpr MetricDef kOffset{"chronwarden_last_offset_seconds", MetricType::Gauge, "seconds",
                            "The clock's last measured offset, reference minus local (negative: the clock was fast)."};
constexpr MetricDef kLastCheck{"chronwarden_last_check_timestamp_seconds", MetricType::Gauge, "seconds",
                               "When the agent last checked the clock successfully (0: not since it started)."};
constexpr MetricDef kAgentStart{"chronwarden_agent_start_timestamp_seconds", MetricType::Gauge, "seconds",
                                "When the agent started (0: the agent is stopped)."};
constexpr MetricDef kPartnerTime{"chronwarden_partner_taken_timestamp_seconds", MetricType::Gauge, "seconds",
                                 "When the current time partner was taken."};
constexpr MetricDef kCounterReset{"chronwarden_counters_reset_timestamp_seconds", MetricType::Gauge, "seconds",
                                  "When the counters were last reset: at the agent's start, or when the history "
                                  "was cleared."};
constexpr MetricDef kChecking{"chronwarden_checking_sources", MetricType::Gauge, "",
                              "1 while the agent looks for a verdict on its time sources."};
constexpr MetricDef kPartner{"chronwarden_partner", MetricType::Info, "",
                             "The machine's current time partner (or what it is doing instead)."};
constexpr MetricDef kSuccesses{"chronwarden_sync_successes", MetricType::Counter, "",
                               "Synchronization successes: time partners taken."};
constexpr MetricDef kFailures{"chronwarden_sync_failures", MetricType::Counter, "", "Synchronization failures."};
constexpr MetricDef kVerdicts{"chronwarden_sync_verdicts", MetricType::Counter, "",
                              "Synchronization verdicts, successes and failures."};
constexpr MetricDef kReplies{"chronwarden_replies_sent", MetricType::Counter, "", "KR2 replies the machine sent."};
constexpr MetricDef kFailedReceives{"chronwarden_failed_receives", MetricType::Counter, "",
                                    "KR2 receives that failed on the machine."};
constexpr MetricDef kReceivedBytes{"chronwarden_received_bytes", MetricType::Counter, "bytes",
                                   "KR2 request bytes the machine received."};
constexpr MetricDef kSentBytes{"chronwarden_sent_bytes", MetricType::Counter, "bytes", "KR2 reply bytes the machine sent."};
constexpr MetricDef kInfo{"chronwarden", MetricType::Info, "", "The machine's computer name, version and product code."};
constexpr MetricDef kFirstStart{"chronwarden_first_start_timestamp_seconds", MetricType::Gauge, "seconds",
                                "When the provider first started on the machine."};
constexpr MetricDef kProduct{"chronwarden_product_installed", MetricType::Gauge, "",
                             "1 for each product of the family installed on the machine (with products=1)."};
// The local sync status block.
constexpr MetricDef kBlock{"chronwarden_local_status_block", MetricType::Gauge, "",
                           "1 when this machine's sync status block exists (a process of the family made it), else 0."};
constexpr MetricDef kOwnerActive{"chronwarden_local_owner_active", MetricType::Gauge, "",
                                 "1 while a time service of the family announces itself in the sync status block "
                                 "(the local provider then leaves KR2 to it)."};
constexpr MetricDef kOwnerClosed{"chronwarden_local_owner_closed", MetricType::Gauge, "",
                                 "The block's closed mark: 1 once written by an owner."};
constexpr MetricDef kOwner{"chronwarden_local_owner", MetricType::Info, "",
                           "The block's owner: product code, version and build date."};
// The exporter itself.
constexpr MetricDef kBuild{"chronwarden_exporter_build", MetricType::Info, "", "The exporter's version."};
constexpr MetricDef kProbes{"chronwarden_exporter_probes", MetricType::Counter, "",
                            "Probes run, by whether the machine answered."};
constexpr MetricDef kInFlight{"chronwarden_exporter_probes_in_flight", MetricType::Gauge, "", "Probes running now."};
constexpr MetricDef kRejected{"chronwarden_exporter_probes_rejected", MetricType::Counter, "",
                              "Probes refused with 503 because too many were in flight."};
constexpr MetricDef kBadRequests{"chronwarden_exporter_bad_requests", MetricType::Counter, "",
                                 "Requests answered with 400, 404 or 405."};
constexpr MetricDef kCpu{"process_cpu_seconds", MetricType::Counter, "seconds", "User and system CPU time spent."};
constexpr MetricDef kResident{"process_resident_memory_bytes", MetricType::Gauge, "bytes", "Resident memory size."};
constexpr MetricDef kVirtual{"process_virtual_memory_bytes", MetricType::Gauge, "bytes", "Virtual memory size."};
constexpr MetricDef kStart{"process_start_time_seconds", MetricType::Gauge, "seconds",
                           "Start time of the process since 1970."};
constexpr MetricDef kOpenFds{"process_open_fds", MetricType::Gauge, "", "Open file descriptors."};
constexpr MetricDef kMaxFds{"process_max_fds", MetricType::Gauge, "", "The limit of open file descriptors."};

template <std::size_t N>
std::string Text(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}

template <typename T>
bool ParseWhole(std::string_view text, T& out, T min, T max) {
  T v{};
  const auto [p, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (text.empty() || ec != std::errc{} || p != text.data() + text.size() || v < min || v > max) return false;
  out = v;
  return true;
}

// A value as it may be shown in a reply: cut to 64 bytes, anything but printable ASCII as \xNN.
std::string Shown(std::string_view text) {
  std::string out;
  for (const char ch : text.substr(0, 64)) {
    const auto c = static_cast<unsigned char>(ch);
    if (c >= 0x20 && c < 0x7F) {
      out += ch;
    } else {
      char esc[5];
      std::snprintf(esc, sizeof esc, "\\x%02X", c);
      out += esc;
    }
  }
  return text.size() > 64 ? out + "..." : out;
}

bool IsHostName(std::string_view host) {
  constexpr std::size_t kMaxHostName = 253;
  if (host.empty() || host.size() > kMaxHostName) return false;
  return std::all_of(host.begin(), host.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_';
  });
}

std::string VersionText() {
  const std::uint64_t v = platform::ThisFileVersion();
  return std::to_string(v >> 48) + "." + std::to_string((v >> 32) & 0xFFFF) + "." + std::to_string((v >> 16) & 0xFFFF) +
         "." + std::to_string(v & 0xFFFF);
}

platform::HttpResponse Reply(int status, std::string body) {
  return {status, "text/plain; charset=utf-8", std::move(body) + "\n", {}};
}

std::string_view Header(const platform::HttpPairs& headers, std::string_view name) {
  for (const auto& [k, v] : headers)
    if (k == name) return v;
  return {};
}

constexpr const char* kLandingPage =
    "<html><head><title>Chronwarden exporter</title></head><body>\n"
    "<h1>Chronwarden exporter</h1>\n"
    "<p>KR2 responders as Prometheus metrics.</p>\n"
    "<ul><li><a href=\"/probe?target=localhost\">/probe?target=HOST[:PORT][&amp;products=1]</a>: one machine</li>\n"
    "<li><a href=\"/metrics\">/metrics</a>: this exporter and this machine's sync status block</li></ul>\n"
    "</body></html>\n";

void Finish(Exporter& e) {
  std::lock_guard<std::mutex> hold(e.lock);
  if (--e.in_flight == 0) e.idle.notify_all();
}

}  // namespace

std::optional<ProbeTarget> ParseProbeQuery(const platform::HttpPairs& query, std::string_view scrape_timeout,
                                           std::uint32_t timeout_ms, std::string& error) {
  ProbeTarget t;
  t.timeout_ms = timeout_ms;
  int targets = 0;
  bool port_given = false;
  for (const auto& [key, value] : query) {
    if (key == "target") {
      ++targets;
      t.host = value;
    } else if (key == "port") {
      if (!ParseWhole<std::uint16_t>(value, t.port, 1, 65535))
        return error = "port \"" + Shown(value) + "\" is not a number from 1 to 65535", std::nullopt;
      port_given = true;
    } else if (key == "products") {
      if (value != "1" && value != "0" && value != "true" && value != "false")
        return error = "products takes 1 or 0, not \"" + Shown(value) + "\"", std::nullopt;
      t.products = value == "1" || value == "true";
    } else {
      return error = "unknown parameter \"" + Shown(key) + "\"; /probe takes target, port and products", std::nullopt;
    }
  }
  if (targets == 0 || t.host.empty()) return error = "Target parameter is missing", std::nullopt;
  if (targets > 1) return error = "target is given more than once", std::nullopt;
  const auto colon = t.host.rfind(':');
  if (colon != std::string::npos) {
    std::uint16_t port = 0;
    if (!ParseWhole<std::uint16_t>(std::string_view(t.host).substr(colon + 1), port, 1, 65535))
      return error = "target \"" + Shown(t.host) + "\" does not end in a port from 1 to 65535", std::nullopt;
    if (port_given && port != t.port) return error = "target and port name different ports", std::nullopt;
    t.port = port;
    t.host.resize(colon);
  }
  if (!IsHostName(t.host)) return error = "target \"" + Shown(t.host) + "\" is not a host name or IPv4 address", std::nullopt;
  if (!scrape_timeout.empty()) {
    double seconds = 0;
    const auto [p, ec] = std::from_chars(scrape_timeout.data(), scrape_timeout.data() + scrape_timeout.size(), seconds);
    if (ec == std::errc{} && p == scrape_timeout.data() + scrape_timeout.size() && seconds > 0) {
      const double scrape_ms = seconds * 1000;
      // The probe ends before the scrape does, so that a silent machine still makes a good scrape.
      const double ms = std::max(scrape_ms - defaults::kExporterScrapeMarginMs, scrape_ms / 2);
      t.timeout_ms = static_cast<std::uint32_t>(std::clamp(ms, 1.0, static_cast<double>(timeout_ms)));
    }
  }
  return t;
}

ProbeResult RunProbe(const ProbeTarget& target) {
  ProbeResult r;
  const auto start = Clock::now();
  std::vector<Kr2SweepEntry> one(1);
  r.resolved = ResolveHostPort(target.host.c_str(), one[0].address, kKr2ServiceName, kKr2DefaultPort,
                               platform::kSocketDatagram) != 0;
  if (r.resolved) {
    if (target.port) one[0].address.port = platform::HostToNet16(target.port);
    Kr2Sweep(one, target.timeout_ms);
    r.machine = one[0];
    const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    if (target.products && r.machine.have_status && spent < target.timeout_ms) {
      Kr2Peer peer;
      peer.address = one[0].address;
      peer.socket = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
      peer.timeout_ms = target.timeout_ms - static_cast<std::uint32_t>(spent);
      peer.tag = static_cast<std::uint32_t>(start.time_since_epoch().count());
      if (peer.socket != platform::kInvalidSocket)
        r.have_products = Kr2Ask(peer, kKr2Products, 0, &r.products, sizeof r.products) ==
                          static_cast<int>(sizeof r.products);
      Kr2Close(peer);
    }
  }
  r.duration_s = std::chrono::duration<double>(Clock::now() - start).count();
  return r;
}

void AddProbeMetrics(Exposition& out, const ProbeResult& probe, const std::string& extra) {
  const Kr2SweepEntry& m = probe.machine;
  AddMetric(out, kUp, m.have_status ? 1 : 0, extra);
  AddMetric(out, kProbeDuration, probe.duration_s, extra);
  if (m.have_status) {
    const LocalStatusRecord& s = m.status;
    AddMetric(out, kOffset, static_cast<double>(s.last_offset_ms) / 1000.0, extra);
    AddMetric(out, kLastCheck, s.last_check, extra);
    AddMetric(out, kAgentStart, s.agent_start, extra);
    AddMetric(out, kPartnerTime, s.partner_time, extra);
    AddMetric(out, kCounterReset, s.last_counter_reset, extra);
    AddMetric(out, kChecking, (s.status_flags & kKr2StatusChecking) ? 1 : 0, extra);
    AddMetric(out, kPartner, 1, Labels({extra, Label("partner", Text(s.partner_name))}));
    AddMetric(out, kSuccesses, static_cast<double>(s.sync_successes), extra);
    AddMetric(out, kFailures, static_cast<double>(s.sync_failures), extra);
    AddMetric(out, kVerdicts, static_cast<double>(s.sync_verdicts), extra);
    AddMetric(out, kReplies, static_cast<double>(s.counters[0]), extra);
    AddMetric(out, kFailedReceives, static_cast<double>(s.failed[0]), extra);
    AddMetric(out, kReceivedBytes, static_cast<double>(s.bytes_received), extra);
    AddMetric(out, kSentBytes, static_cast<double>(s.bytes_sent), extra);
  }
  if (m.have_identity) {
    const IdentityRecord& id = m.identity;
    AddMetric(out, kInfo, 1,
              Labels({extra, Label("computer_name", Text(id.computer_name)), Label("version", Text(id.version)),
                      Label("product_code", std::to_string(id.product_code))}));
    AddMetric(out, kFirstStart, id.ephemerides, extra);
  }
  if (probe.have_products)
    for (const auto& [bit, name] : Kr2InstalledProductNames())
      if (probe.products.installed & bit) AddMetric(out, kProduct, 1, Labels({extra, Label("product", name)}));
}

void AddLocalStatusMetrics(Exposition& out, const SyncStatusBlock* block) {
  AddMetric(out, kBlock, block ? 1 : 0);
  if (!block) return;
  AddMetric(out, kOwnerActive, block->owner_active);
  AddMetric(out, kOwnerClosed, block->closed_mark);
  if (block->size == sizeof(SyncStatusBlock))
    AddMetric(out, kOwner, 1,
              Labels({Label("product_code", std::to_string(block->owner_product)),
                      Label("version", std::to_string(block->major_version) + "." + std::to_string(block->minor_version)),
                      Label("build", std::to_string(block->build_year * 10000 + block->build_month_day))}));
}

void AddProcessMetrics(Exposition& out, const platform::ProcessUsage& u) {
  AddMetric(out, kCpu, u.cpu_seconds);
  AddMetric(out, kResident, static_cast<double>(u.resident_bytes));
  AddMetric(out, kVirtual, static_cast<double>(u.virtual_bytes));
  AddMetric(out, kStart, u.start_time_unix);
  AddMetric(out, kOpenFds, static_cast<double>(u.open_files));
  if (u.max_files) AddMetric(out, kMaxFds, static_cast<double>(u.max_files));
}

void AddExporterMetrics(Exposition& out, Exporter& e) {
  AddMetric(out, kBuild, 1, Label("version", VersionText()));
  AddMetric(out, kProbes, static_cast<double>(e.probes_answered.load()), Label("result", "answered"));
  AddMetric(out, kProbes, static_cast<double>(e.probes_silent.load()), Label("result", "silent"));
  {
    std::lock_guard<std::mutex> hold(e.lock);
    AddMetric(out, kInFlight, e.in_flight);
  }
  AddMetric(out, kRejected, static_cast<double>(e.probes_rejected.load()));
  AddMetric(out, kBadRequests, static_cast<double>(e.bad_requests.load()));
}

void ExporterHandle(Exporter& e, const platform::HttpRequest& request, platform::HttpRespond respond) {
  auto bad = [&](int status, std::string text) {
    ++e.bad_requests;
    respond(Reply(status, std::move(text)));
  };
  if (request.method != "GET" && request.method != "HEAD") {
    ++e.bad_requests;
    platform::HttpResponse r = Reply(405, "method " + Shown(request.method) + " is not allowed; use GET");
    r.headers.emplace_back("Allow", "GET, HEAD");
    return respond(std::move(r));
  }
  const ExpositionFormat format = NegotiateFormat(Header(request.headers, "accept"));
  if (request.path == "/") return respond({200, "text/html; charset=utf-8", kLandingPage, {}});
  if (request.path == "/metrics") {
    if (!request.query.empty()) return bad(400, "/metrics takes no parameters");
    Exposition out;
    AddExporterMetrics(out, e);
    platform::ProcessUsage usage;
    if (platform::ReadProcessUsage(usage)) AddProcessMetrics(out, usage);
    SyncStatusBlock block{};
    AddLocalStatusMetrics(out, ReadSyncStatus(block) ? &block : nullptr);
    return respond({200, ContentType(format), Render(out, format), {}});
  }
  if (request.path != "/probe")
    return bad(404, "no page " + Shown(request.path) + "; this exporter serves /probe?target=HOST[:PORT] and /metrics");
  std::string error;
  const auto target = ParseProbeQuery(request.query, Header(request.headers, "x-prometheus-scrape-timeout-seconds"),
                                      e.options.timeout_ms, error);
  if (!target) return bad(400, error);
  {
    std::lock_guard<std::mutex> hold(e.lock);
    if (e.in_flight >= e.options.max_probes) {
      ++e.probes_rejected;
      platform::HttpResponse r =
          Reply(503, "too many probes in flight (" + std::to_string(e.options.max_probes) + "); try again later");
      r.headers.emplace_back("Retry-After", "1");
      return respond(std::move(r));
    }
    ++e.in_flight;
  }
  try {
    std::thread([&e, t = *target, format, respond] {
      const ProbeResult probe = RunProbe(t);
      ++(probe.machine.have_status ? e.probes_answered : e.probes_silent);
      Exposition out;
      AddProbeMetrics(out, probe, {});
      respond({200, ContentType(format), Render(out, format), {}});
      Finish(e);
    }).detach();
  } catch (const std::system_error&) {   // no thread to be had: as busy as too many probes
    Finish(e);
    ++e.probes_rejected;
    platform::HttpResponse r = Reply(503, "no thread for the probe; try again later");
    r.headers.emplace_back("Retry-After", "1");
    respond(std::move(r));
  }
}

void ExporterDrain(Exporter& e) {
  std::unique_lock<std::mutex> hold(e.lock);
  e.idle.wait(hold, [&] { return e.in_flight == 0; });
}
