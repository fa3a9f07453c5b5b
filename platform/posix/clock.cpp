// Wall time and the counter on POSIX.
#include "platform/clock.h"

#include <sys/timex.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>

#include "platform/posix/tick_phase.h"
#include "platform/sys.h"

namespace platform {
namespace {

constexpr std::uint64_t kUnixEpochFileTime = 116444736000000000ULL;
std::atomic<WallClock> g_mode{WallClock::Fine};
std::atomic<long long> g_coarse_lag_ns{-1};   // the coarse clock's constant lateness; -1 not measured yet

long long NowNs(clockid_t id) {
  timespec ts{};
  clock_gettime(id, &ts);
  return ts.tv_sec * 1'000'000'000LL + ts.tv_nsec;
}

std::uint64_t Read(clockid_t id) {
  timespec ts{};
  clock_gettime(id, &ts);
  return kUnixEpochFileTime + static_cast<std::uint64_t>(ts.tv_sec) * 10'000'000ULL +
         static_cast<std::uint64_t>(ts.tv_nsec) / 100;
}

}  // namespace

int posix::MeasureCoarseSteps(int steps, std::span<long long> out) {
  int n = 0;
  long long last = NowNs(CLOCK_MONOTONIC_COARSE);
  const long long give_up = NowNs(CLOCK_MONOTONIC) + 100'000'000;
  while (n < steps && static_cast<std::size_t>(n) < out.size()) {
    const long long coarse = NowNs(CLOCK_MONOTONIC_COARSE);
    const long long fine = NowNs(CLOCK_MONOTONIC);
    if (coarse != last) {
      out[static_cast<std::size_t>(n++)] = fine - coarse;
      last = coarse;
    }
    if (fine > give_up) break;
  }
  if (n > 0) SetCoarseClockLag(CoarseLagFromLags(out.first(static_cast<std::size_t>(n))));
  return n;
}

void posix::SetCoarseClockLag(long long lag_ns) { g_coarse_lag_ns.store(lag_ns, std::memory_order_relaxed); }

// Coarse mode makes up the coarse clock's usual lateness (measured once, and again by the tick
// timer), so that the system time steps to the time of each tick as Windows system time does, and
// never beyond the time now.
void SetWallClockMode(WallClock mode) {
  if (mode == WallClock::Coarse && g_coarse_lag_ns.load() < 0) {
    std::array<long long, posix::kTickLagSamples> lags{};
    if (posix::MeasureCoarseSteps(posix::kTickLagSamples, lags) == 0) posix::SetCoarseClockLag(0);
  }
  g_mode.store(mode);
}
WallClock GetWallClockMode() { return g_mode.load(); }
bool sys::FineWallTimeIsPrecise() { return g_mode.load(std::memory_order_relaxed) == WallClock::Fine; }

std::uint64_t sys::SystemTimeAsFileTime() {
  if (g_mode.load(std::memory_order_relaxed) == WallClock::Fine) return Read(CLOCK_REALTIME);
  // A step that became visible sooner than usual (the kernel updates its clocks off the tick too,
  // when a processor leaves idle) would be made up beyond now: a tick clock never shows the future.
  const std::uint64_t made_up =
      Read(CLOCK_REALTIME_COARSE) + static_cast<std::uint64_t>(std::max(0LL, g_coarse_lag_ns.load(std::memory_order_relaxed))) / 100;
  return std::min(made_up, Read(CLOCK_REALTIME));
}
std::uint64_t sys::FineWallTimeAsFileTime() { return Read(CLOCK_REALTIME); }

bool sys::PerformanceCounter(std::int64_t& ticks) {
  timespec ts{};
  if (clock_gettime(CLOCK_MONOTONIC_RAW, &ts) != 0) return false;
  ticks = static_cast<std::int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
  return true;
}
bool sys::PerformanceFrequency(std::int64_t& hz) {
  hz = 1'000'000'000;
  return true;
}

bool sys::SystemTimeAdjustment(std::uint32_t& adjustment, std::uint32_t& increment, bool& disabled) {
  timespec res{};
  if (clock_getres(CLOCK_REALTIME_COARSE, &res) != 0) return false;
  increment = static_cast<std::uint32_t>((res.tv_sec * 1'000'000'000LL + res.tv_nsec) / 100);
  // adjtimex reports the tick length in us per USER_HZ tick and the frequency offset in ppm << 16.
  timex tx{};
  tx.modes = 0;
  const double nominal_tick = 1e6 / static_cast<double>(sysconf(_SC_CLK_TCK));
  if (adjtimex(&tx) < 0) {
    adjustment = increment;
    disabled = true;
    return true;
  }
  const double rate = (static_cast<double>(tx.tick) / nominal_tick) * (1.0 + static_cast<double>(tx.freq) / 65536e6);
  adjustment = static_cast<std::uint32_t>(std::llround(increment * rate));
  disabled = tx.freq == 0 && std::fabs(tx.tick - nominal_tick) < 0.5;
  return true;
}

bool FileTimeToSystemTime(std::uint64_t ft, SystemTime& out) {
  if (ft >= 0x8000000000000000ULL) return false;
  using namespace std::chrono;
  const std::uint64_t units_per_day = 864'000'000'000ULL;
  const auto days_since_1601 = static_cast<std::int64_t>(ft / units_per_day);
  const std::uint64_t rest = ft % units_per_day;
  const sys_days day{days{days_since_1601 - 134774}};  // 1601-01-01 is 134,774 days before 1970-01-01
  const year_month_day ymd{day};
  out.year = static_cast<std::uint16_t>(static_cast<int>(ymd.year()));
  out.month = static_cast<std::uint16_t>(static_cast<unsigned>(ymd.month()));
  out.day = static_cast<std::uint16_t>(static_cast<unsigned>(ymd.day()));
  out.day_of_week = static_cast<std::uint16_t>(weekday{day}.c_encoding());
  out.hour = static_cast<std::uint16_t>(rest / 36'000'000'000ULL);
  out.minute = static_cast<std::uint16_t>(rest / 600'000'000ULL % 60);
  out.second = static_cast<std::uint16_t>(rest / 10'000'000ULL % 60);
  out.milliseconds = static_cast<std::uint16_t>(rest / 10'000ULL % 1000);
  return true;
}

// The zone's offset in force at that instant (Windows applies the current offset instead).
bool FileTimeToLocalFileTime(std::uint64_t utc, std::uint64_t& local) {
  const auto secs = static_cast<time_t>((static_cast<std::int64_t>(utc) - static_cast<std::int64_t>(kUnixEpochFileTime)) / 10'000'000);
  tm parts{};
  if (!localtime_r(&secs, &parts)) return false;
  local = utc + static_cast<std::uint64_t>(static_cast<std::int64_t>(parts.tm_gmtoff) * 10'000'000);
  return true;
}

}  // namespace platform
