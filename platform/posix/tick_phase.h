// When the tick timer fires after the kernel's clock tick. The coarse clocks step once per tick,
// but a step becomes visible some time after the instant it shows: interrupt and timekeeping
// latency (microseconds on bare metal, hundreds on a busy virtual machine) plus the phase of the
// kernel's accumulation grid against its tick, which is fixed at boot and can be anything up to a
// tick (3.1 ms of a 4 ms tick on one test VM). The timer must fire just after the step is visible:
// earlier and the callback still sees the old time (the new baseline waits a whole timer period),
// later and the baseline is taken late. So the lag of the steps behind the values they show is
// measured on the machine at hand when the timer is armed, and again while it runs when the
// expiries show that a step came later than the lead, and every so often anyway. The usual lag
// is also the coarse clock's own constant lateness, which the coarse system time makes up
// (platform/posix/clock.cpp), so that it steps to the time of the tick as Windows system time does.
// Pure logic: times are nanoseconds on the monotonic clock.
#pragma once
#include <cstdint>
#include <span>

namespace platform::posix {

inline constexpr int kTickLagSamples = 8;                  // steps timed when the timer is armed
inline constexpr long long kTickLeadMarginNs = 60'000;     // added to the measured lag
inline constexpr long long kTickLeadMinNs = 20'000;
inline constexpr long long kTickLeadFallbackNs = 150'000;  // when no step could be timed
inline constexpr int kTickWatchWindow = 256;               // steps per verdict while running
inline constexpr int kTickWatchRefreshWindows = 16;        // measure again after this many windows anyway

inline constexpr long long kTickLeadMaxNs = 50'000'000;

// The lead after the instant a coarse step shows at which to fire, from the lags (ns after that
// instant) at which steps were seen: the second largest (one preempted sample is not trusted),
// plus the margin, within [kTickLeadMinNs, kTickLeadMaxNs]. The fallback when there are no samples.
// Only the lead modulo the timer period places the expiries.
long long TickLeadFromLags(std::span<const long long> lags_ns, long long period_ns);
// The coarse clock's constant lateness: the lower median of the lags (a step that an idle
// processor's wake-up made visible early, or a late one, does not move it), 0 without samples.
long long CoarseLagFromLags(std::span<const long long> lags_ns);

// The lags of the next `steps` steps of the coarse monotonic clock, timed by spinning (at most
// 100 ms); also made the coarse system time's correction (platform/posix/clock.cpp). Returns the
// number of lags written to out.
int MeasureCoarseSteps(int steps, std::span<long long> out);
void SetCoarseClockLag(long long lag_ns);

// Watches the timer's expiries while it runs and says when the phase should be measured again.
class TickPhaseWatch {
 public:
  enum Verdict { kKeep, kLate, kRefresh };
  void Reset(long long lead_ns, long long period_ns);
  // One expiry: the fine monotonic time and the coarse monotonic clock's value then. kLate when
  // more than 1 in 100 steps of the last window were first seen an expiry too late (the step
  // became visible after the lead): measure again and do not go below the lead plus the margin.
  // kRefresh when the periodic measurement is due (the lead may then shrink); else kKeep.
  Verdict Observe(long long fine_ns, long long coarse_ns);
  int missed() const { return missed_; }

 private:
  long long lead_ns_ = 0, period_ns_ = 0, last_coarse_ = -1;
  int steps_ = 0, missed_ = 0, windows_ = 0;
};

}  // namespace platform::posix
