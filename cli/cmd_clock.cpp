// chronwarden clock: shows the precise clock tracking the fine wall clock.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "platform/clock.h"
#include "platform/sync.h"
#include "timing/precise_clock.h"

namespace {

constexpr const char* kHelp =
    "Usage: chronwarden clock [--samples N] [--coarse] [--json]\n\n"
    "Starts the precise clock and prints N samples (default 10), one every ~0.37 ms, of:\n"
    "  precise   the precise clock (system time interpolated with the counter)\n"
    "  system    the system time the precise clock is built on (the coarse tick-stepped clock with\n"
    "            --coarse; the fine wall clock otherwise)\n"
    "  fine      the finest wall clock (Linux CLOCK_REALTIME, Windows GetSystemTimePreciseAsFileTime)\n"
    "  error     precise - fine, and system - fine, in microseconds\n"
    "then the median and largest |error| of both, the clock-interrupt interval and the adjustment.\n\n"
    "Options:\n"
    "  --samples N  number of samples, 1..100000\n"
    "  --coarse     build on the coarse system clock (Linux CLOCK_REALTIME_COARSE), which steps once\n"
    "               per clock interrupt as the Windows system time does\n"
    "  --json       print one JSON document instead:\n"
    "               {\"mode\": \"fine\"|\"coarse\", \"samples\": [{\"precise_100ns\", \"system_100ns\",\n"
    "                \"fine_100ns\", \"error_100ns\", \"system_error_100ns\"}...],\n"
    "                \"summary\": {\"precise_median_abs_error_us\", \"precise_max_abs_error_us\",\n"
    "                \"system_median_abs_error_us\", \"system_max_abs_error_us\"},\n"
    "                \"clock_interrupt_100ns\", \"adjustment_100ns\", \"adjustment_disabled\"}\n"
    "               (times are file times: 100-ns units since 1601-01-01 UTC)\n";

struct Sample {
  std::uint64_t precise, system, fine;
};

std::string Iso(std::uint64_t ft) {
  platform::SystemTime st{};
  if (!platform::FileTimeToSystemTime(ft, st)) return "out of range";
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04u-%02u-%02uT%02u:%02u:%02u.%07uZ", st.year, st.month, st.day, st.hour, st.minute,
                st.second, static_cast<unsigned>(ft % 10'000'000));
  return buf;
}

double Us(std::int64_t units) { return static_cast<double>(units) / 10.0; }

// Median and largest of |values|, in microseconds.
std::pair<double, double> Spread(std::vector<std::int64_t> v) {
  for (auto& x : v) x = AbsInt64(x);
  std::sort(v.begin(), v.end());
  return {Us(v[v.size() / 2]), Us(v.back())};
}

}  // namespace

int CmdClock(CommandArgs args) {
  long samples = 10;
  bool json = false, coarse = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const auto a = args[i];
    if (IsHelp(a)) return std::fputs(kHelp, stdout), kExitOk;
    if (a == "--json") json = true;
    else if (a == "--coarse") coarse = true;
    else if (a == "--samples") {
      if (++i == args.size()) return UsageError("clock", "--samples needs a number");
      if (!ParseNumber(args[i], samples, 1L, 100000L))
        return UsageError("clock", "--samples takes a whole number from 1 to 100000");
    } else {
      return UsageError("clock", "unknown option '" + std::string(a) + "'");
    }
  }

  platform::SetWallClockMode(coarse ? platform::WallClock::Coarse : platform::WallClock::Fine);
  platform::UniqueEvent stop(platform::CreateSyncEvent(true, false));
  if (!stop || !PreciseClockStart(stop.get())) {
    std::fprintf(stderr, "chronwarden clock: the precise clock could not be started\n");
    return kExitFailed;
  }
  const bool interpolating = PreciseClockStateRef().running.load() == 1;

  std::vector<Sample> taken;
  taken.reserve(static_cast<std::size_t>(samples));
  for (long i = 0; i < samples; ++i) {
    Sample s;
    s.fine = platform::FineWallTimeAsFileTime();
    s.precise = PreciseClockNow();
    s.system = platform::SystemTimeAsFileTime();
    taken.push_back(s);
    // Spread the samples over the clock ticks: ~0.37 ms apart.
    const std::uint64_t until = platform::FineWallTimeAsFileTime() + 3'700;
    while (platform::FineWallTimeAsFileTime() < until) {
    }
  }
  PreciseClockStop();

  std::uint32_t adjustment = 0, increment = 0;
  bool disabled = false;
  platform::SystemTimeAdjustment(adjustment, increment, disabled);

  std::vector<std::int64_t> precise_err, system_err;
  for (const auto& s : taken) {
    precise_err.push_back(static_cast<std::int64_t>(s.precise - s.fine));
    system_err.push_back(static_cast<std::int64_t>(s.system - s.fine));
  }
  const auto [pmed, pmax] = Spread(precise_err);
  const auto [smed, smax] = Spread(system_err);
  const char* mode = coarse ? "coarse" : "fine";

  if (json) {
    std::printf("{\"mode\": \"%s\", \"interpolating\": %s, \"samples\": [", mode, interpolating ? "true" : "false");
    for (std::size_t i = 0; i < taken.size(); ++i) {
      const auto& s = taken[i];
      std::printf("%s\n  {\"precise_100ns\": %llu, \"system_100ns\": %llu, \"fine_100ns\": %llu, \"error_100ns\": %lld, "
                  "\"system_error_100ns\": %lld}",
                  i ? "," : "", static_cast<unsigned long long>(s.precise), static_cast<unsigned long long>(s.system),
                  static_cast<unsigned long long>(s.fine), static_cast<long long>(precise_err[i]),
                  static_cast<long long>(system_err[i]));
    }
    std::printf("],\n \"summary\": {\"precise_median_abs_error_us\": %.1f, \"precise_max_abs_error_us\": %.1f, "
                "\"system_median_abs_error_us\": %.1f, \"system_max_abs_error_us\": %.1f},\n"
                " \"clock_interrupt_100ns\": %u, \"adjustment_100ns\": %u, \"adjustment_disabled\": %s}\n",
                pmed, pmax, smed, smax, increment, adjustment, disabled ? "true" : "false");
    return kExitOk;
  }

  std::printf("Precise clock over the %s system clock%s\n", mode, interpolating ? "" : " (not interpolating: fallback)");
  std::printf("%-30s %-30s %-30s %12s %12s\n", "precise", "system", "fine", "error us", "sys err us");
  for (std::size_t i = 0; i < taken.size(); ++i) {
    const auto& s = taken[i];
    std::printf("%-30s %-30s %-30s %12.1f %12.1f\n", Iso(s.precise).c_str(), Iso(s.system).c_str(), Iso(s.fine).c_str(),
                Us(precise_err[i]), Us(system_err[i]));
  }
  std::printf("\n|error| median %.1f us, max %.1f us (system clock: median %.1f us, max %.1f us)\n", pmed, pmax, smed, smax);
  std::printf("Clock interrupt interval: %.4f ms (%u x 100 ns)\n", increment / 10'000.0, increment);
  std::printf("Adjustment per interrupt: %u x 100 ns%s\n", adjustment, disabled ? " (system adjustment disabled)" : "");
  return kExitOk;
}
