// The Prometheus exporter of KR2 responders, in Prometheus' multi-target pattern (as the blackbox
// and SNMP exporters): /probe?target=HOST[:PORT][&port=N][&products=1] asks one machine's KR2
// responder for its status (128) and identity (4), and its installed products (200) when asked,
// and answers with that machine's metrics; /metrics gives the exporter's own process and this
// machine's sync status block, read from shared memory. A probe runs on a thread of its own while
// its HTTP connection waits suspended, so a slow or silent machine never holds another probe.
//
// A probe that finds nobody answering is still a good scrape (200) with chronwarden_up 0; a
// request the exporter cannot run is an HTTP error with a one-line reason: 400 (no target, a
// malformed target, port or products, an unknown parameter), 404 (another path), 405 (a method
// other than GET and HEAD), 503 with Retry-After (max_probes probes in flight already).
#pragma once
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "applet/kr2_client.h"
#include "config/defaults.h"
#include "exporter/exposition.h"
#include "platform/http.h"
#include "platform/process.h"
#include "provider/sync_status.h"

struct ExporterOptions {
  std::uint32_t timeout_ms = defaults::kExporterTimeoutMs;   // the longest KR2 wait of one probe
  std::uint32_t max_probes = defaults::kExporterMaxProbes;   // probes in flight at once
};

// What one probe asks.
struct ProbeTarget {
  std::string host;                  // name or dotted address
  std::uint16_t port = 0;            // 0: the "kaironsync" service's port, else 9909
  bool products = false;             // also ask for the installed products (200)
  std::uint32_t timeout_ms = defaults::kExporterTimeoutMs;
};

// What one probe learned.
struct ProbeResult {
  bool resolved = false;
  Kr2SweepEntry machine;             // status and identity, as a one-machine sweep gives them
  bool have_products = false;
  Kr2Products products{};
  double duration_s = 0;             // from the start of the look-up to the last reply
};

struct Exporter {
  ExporterOptions options;
  std::atomic<std::uint64_t> probes_answered{0};   // the machine answered the status request
  std::atomic<std::uint64_t> probes_silent{0};     // it did not (or its name did not resolve)
  std::atomic<std::uint64_t> probes_rejected{0};   // 503: too many in flight
  std::atomic<std::uint64_t> bad_requests{0};      // 400, 404, 405
  std::mutex lock;
  std::condition_variable idle;
  std::uint32_t in_flight = 0;
};

// Reads the /probe query; nullopt with the reason in error (the text of the 400 reply).
// scrape_timeout: Prometheus' X-Prometheus-Scrape-Timeout-Seconds header ("" when absent); the
// probe's time-out is timeout_ms, shortened to end 500 ms before the scrape's own.
std::optional<ProbeTarget> ParseProbeQuery(const platform::HttpPairs& query, std::string_view scrape_timeout,
                                           std::uint32_t timeout_ms, std::string& error);
// Runs one probe (blocks for at most about target.timeout_ms after the name look-up).
ProbeResult RunProbe(const ProbeTarget& target);

// The metrics of one probed machine; extra_labels (rendered, "" for none) go on every sample.
void AddProbeMetrics(Exposition& out, const ProbeResult& probe, const std::string& extra_labels);
// The sync status block as this process sees it (nullptr: there is none).
void AddLocalStatusMetrics(Exposition& out, const SyncStatusBlock* block);
void AddProcessMetrics(Exposition& out, const platform::ProcessUsage& usage);
void AddExporterMetrics(Exposition& out, Exporter& exporter);

// Answers one HTTP request; /probe answers later, from the probe's thread.
void ExporterHandle(Exporter& exporter, const platform::HttpRequest& request, platform::HttpRespond respond);
// Waits until no probe is in flight.
void ExporterDrain(Exporter& exporter);
