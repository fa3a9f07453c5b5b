// The precise clock: cost of a read, and its error against the fine wall clock.
//   build/linux/bench/precise_clock_bench
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <vector>

#include "platform/clock.h"
#include "platform/sync.h"
#include "timing/precise_clock.h"

namespace {

// Runs the precise clock over the given system clock for the life of the object.
class RunningClock {
 public:
  explicit RunningClock(platform::WallClock mode) : stop_(platform::CreateSyncEvent(true, false)) {
    platform::SetWallClockMode(mode);
    PreciseClockStart(stop_.get());
  }
  ~RunningClock() {
    PreciseClockStop();
    platform::SetWallClockMode(platform::WallClock::Fine);
  }

 private:
  platform::UniqueEvent stop_;
};

// The plain C library read of CLOCK_REALTIME (glibc's timespec_get is clock_gettime(CLOCK_REALTIME)):
// the yardstick for the precise clock's cost.
void BM_PlainClockRealtime(benchmark::State& state) {
  std::timespec ts{};
  for (auto _ : state) {
    std::timespec_get(&ts, TIME_UTC);
    benchmark::DoNotOptimize(ts);
  }
}
BENCHMARK(BM_PlainClockRealtime);

void BM_FineWallClockRead(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(platform::FineWallTimeAsFileTime());
}
BENCHMARK(BM_FineWallClockRead);

void BM_PreciseClockNow(benchmark::State& state) {
  RunningClock clock(platform::WallClock::Fine);
  for (auto _ : state) benchmark::DoNotOptimize(PreciseClockNow());
}
BENCHMARK(BM_PreciseClockNow);

void BM_PreciseClockNowCoarse(benchmark::State& state) {
  RunningClock clock(platform::WallClock::Coarse);
  for (auto _ : state) benchmark::DoNotOptimize(PreciseClockNow());
}
BENCHMARK(BM_PreciseClockNowCoarse);

double Percentile(std::vector<std::int64_t>& v, double p) {
  std::sort(v.begin(), v.end());
  return static_cast<double>(v[static_cast<std::size_t>(p * static_cast<double>(v.size() - 1))]) / 10.0;  // us
}

// 10^5 reads spread over about 3 s: |precise - fine| and |system - fine|, median and p99, in us.
// Each clock is read between two fine reads and compared with their midpoint; a read whose two
// fine reads lie more than 5 us apart was interrupted (this thread preempted on a loaded machine)
// and is not counted: it measures the scheduler, not the clock ("interrupted" counts them).
void ErrorAgainstFineClock(benchmark::State& state, platform::WallClock mode) {
  constexpr int kReads = 100'000;
  constexpr std::uint64_t kSpacing = 300;     // 30 us between reads
  constexpr std::uint64_t kAdjacent = 50;     // 5 us
  for (auto _ : state) {
    RunningClock clock(mode);
    std::vector<std::int64_t> precise_err, system_err;
    precise_err.reserve(kReads);
    system_err.reserve(kReads);
    int interrupted = 0;
    // The midpoint of the fine reads around `read`, minus the value read; false when interrupted.
    const auto error_of = [&](auto read, std::vector<std::int64_t>& into) {
      const auto before = platform::FineWallTimeAsFileTime();
      const auto value = read();
      const auto after = platform::FineWallTimeAsFileTime();
      if (after - before > kAdjacent) return ++interrupted, false;
      into.push_back(AbsInt64(static_cast<std::int64_t>(value - (before + (after - before) / 2))));
      return true;
    };
    for (int i = 0; i < kReads; ++i) {
      const auto start = platform::FineWallTimeAsFileTime();
      error_of(PreciseClockNow, precise_err);
      error_of(platform::SystemTimeAsFileTime, system_err);
      while (platform::FineWallTimeAsFileTime() < start + kSpacing) {
      }
    }
    state.counters["precise_median_us"] = Percentile(precise_err, 0.5);
    state.counters["precise_p99_us"] = Percentile(precise_err, 0.99);
    state.counters["system_median_us"] = Percentile(system_err, 0.5);
    state.counters["system_p99_us"] = Percentile(system_err, 0.99);
    state.counters["interrupted"] = interrupted;
  }
}
BENCHMARK_CAPTURE(ErrorAgainstFineClock, fine, platform::WallClock::Fine)->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(ErrorAgainstFineClock, coarse, platform::WallClock::Coarse)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
