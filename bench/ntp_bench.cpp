// The NTP query client against Debian's `ntpdate -q` (ntpsec), side by side on the loopback.
//
// Both ask the same chronyd -x on 127.0.0.1 (started here with scripts/ntp-peers.sh when nothing
// answers there yet), 200 queries each, interleaved: ours, then ntpdate, and again. The true offset
// on the loopback is 0, so |offset| is the client's own error; the delay is the round trip
// (T4 - T1) - (T3 - T2) from each client's four timestamps (ntpdate's from its -d output), the
// same formula for both. Reported: median and p99 of |offset| and of the delay for each client,
// and ntpdate's figure over ours.
//
// Run: build/linux/bench/ntp_bench   (CW_NTP_BENCH_QUERIES=N changes the 200)
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/net.h"
#include "platform/sync.h"
#include "timing/ntp_client.h"
#include "timing/precise_clock.h"

namespace {

constexpr const char* kServer = "127.0.0.1";

struct Figures {
  double abs_offset_us;
  double delay_us;
  double offset_us;   // signed: server minus local
};

Figures FromTimes(const NtpTimes& t) {
  const double theta = (NtpDifferenceSeconds(t.t2, t.t1) + NtpDifferenceSeconds(t.t3, t.t4)) / 2;
  const double delta = NtpDifferenceSeconds(t.t4, t.t1) - NtpDifferenceSeconds(t.t3, t.t2);
  return {std::fabs(theta) * 1e6, delta * 1e6, theta * 1e6};
}

bool OurQuery(Figures& out) {
  const NtpResult r = NtpQuery({.server = kServer, .timeout_ms = 2000});
  if (!r.valid) return false;
  out = FromTimes(r.times);
  return true;
}

// ntpdate -d prints "org t1: SSSSSSSS.FFFFFFFF rec t2: ..." and "xmt t3: ... dst t4: ..." in hex.
bool NtpdateQuery(Figures& out) {
  FILE* p = popen("ntpdate -d -q 127.0.0.1 2>&1", "r");
  if (!p) return false;
  std::string text;
  char buf[512];
  while (std::fgets(buf, sizeof buf, p)) text += buf;
  pclose(p);
  NtpTimes t{};
  unsigned s1, f1, s2, f2, s3, f3, s4, f4;
  const auto a = text.find("org t1: ");
  const auto b = text.find("xmt t3: ");
  if (a == std::string::npos || b == std::string::npos) return false;
  if (std::sscanf(text.c_str() + a, "org t1: %x.%x rec t2: %x.%x", &s1, &f1, &s2, &f2) != 4) return false;
  if (std::sscanf(text.c_str() + b, "xmt t3: %x.%x dst t4: %x.%x", &s3, &f3, &s4, &f4) != 4) return false;
  auto ts = [](unsigned s, unsigned f) { return (static_cast<std::uint64_t>(s) << 32) | f; };
  t = {ts(s1, f1), ts(s2, f2), ts(s3, f3), ts(s4, f4)};
  out = FromTimes(t);
  return true;
}

double Percentile(std::vector<double> v, double p) {
  if (v.empty()) return NAN;
  std::sort(v.begin(), v.end());
  const auto i = static_cast<std::size_t>(std::ceil(p * static_cast<double>(v.size()))) - 1;
  return v[std::min(i, v.size() - 1)];
}

// Starts the loopback peers when 127.0.0.1 does not answer yet; stops them again at the end.
struct Peers {
  bool started = false;
  std::string dir = "build/ntp-bench-peers";
  Peers() {
    Figures f{};
    if (OurQuery(f)) return;
    const std::string cmd = "sh " CW_SOURCE_DIR "/scripts/ntp-peers.sh start " + dir;
    started = std::system(cmd.c_str()) == 0;
  }
  ~Peers() {
    if (started) std::system(("sh " CW_SOURCE_DIR "/scripts/ntp-peers.sh stop " + dir).c_str());
  }
};

void BM_NtpQueryVsNtpdate(benchmark::State& state) {
  const char* env = std::getenv("CW_NTP_BENCH_QUERIES");
  const int queries = env ? std::max(1, std::atoi(env)) : 200;
  platform::NetStartup();
  platform::UniqueEvent stop(platform::CreateSyncEvent(true, false));
  PreciseClockStart(stop.get());
  Peers peers;

  std::vector<double> our_offset, our_delay, their_offset, their_delay, our_signed, their_signed;
  int our_failures = 0, their_failures = 0;
  for (auto _ : state) {
    for (int i = 0; i < queries; ++i) {
      Figures f{};
      if (OurQuery(f)) {
        our_offset.push_back(f.abs_offset_us);
        our_delay.push_back(f.delay_us);
        our_signed.push_back(f.offset_us);
      } else {
        ++our_failures;
      }
      if (NtpdateQuery(f)) {
        their_offset.push_back(f.abs_offset_us);
        their_delay.push_back(f.delay_us);
        their_signed.push_back(f.offset_us);
      } else {
        ++their_failures;
      }
    }
  }
  PreciseClockStop();
  platform::NetCleanup();

  const double om = Percentile(our_offset, 0.5), op = Percentile(our_offset, 0.99);
  const double dm = Percentile(our_delay, 0.5), dp = Percentile(our_delay, 0.99);
  const double tom = Percentile(their_offset, 0.5), top = Percentile(their_offset, 0.99);
  const double tdm = Percentile(their_delay, 0.5), tdp = Percentile(their_delay, 0.99);
  state.counters["ours_abs_offset_median_us"] = om;
  state.counters["ours_abs_offset_p99_us"] = op;
  state.counters["ours_delay_median_us"] = dm;
  state.counters["ours_delay_p99_us"] = dp;
  state.counters["ntpdate_abs_offset_median_us"] = tom;
  state.counters["ntpdate_abs_offset_p99_us"] = top;
  state.counters["ntpdate_delay_median_us"] = tdm;
  state.counters["ntpdate_delay_p99_us"] = tdp;
  state.counters["failures"] = our_failures + their_failures;

  std::fprintf(stderr,
               "\nNTP query client vs ntpdate -q, %d interleaved queries each against chronyd -x on %s\n"
               "%-22s %14s %14s %14s %14s %9s\n"
               "%-22s %14.1f %14.1f %14.1f %14.1f %9d\n"
               "%-22s %14.1f %14.1f %14.1f %14.1f %9d\n"
               "%-22s %14.1f %14.1f %14.1f %14.1f\n",
               queries, kServer, "client", "|offset| med", "|offset| p99", "delay med", "delay p99", "failed",
               "chronwarden (us)", om, op, dm, dp, our_failures, "ntpdate -q (us)", tom, top, tdm, tdp, their_failures,
               "ntpdate / chronwarden", tom / om, top / op, tdm / dm, tdp / dp);
  std::fprintf(stderr, "signed offset median: chronwarden %+.1f us, ntpdate %+.1f us\n", Percentile(our_signed, 0.5),
               Percentile(their_signed, 0.5));
}

BENCHMARK(BM_NtpQueryVsNtpdate)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
