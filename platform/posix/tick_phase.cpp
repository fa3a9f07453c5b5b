// The tick timer's lead after the kernel's clock tick: choice and watch (see tick_phase.h).
#include "platform/posix/tick_phase.h"

#include <algorithm>
#include <array>

namespace platform::posix {

long long TickLeadFromLags(std::span<const long long> lags_ns, long long period_ns) {
  if (lags_ns.empty()) return std::min(kTickLeadFallbackNs, period_ns / 2);
  (void)period_ns;
  std::array<long long, kTickLagSamples> sorted{};
  const std::size_t n = std::min(lags_ns.size(), sorted.size());
  std::copy_n(lags_ns.begin(), n, sorted.begin());
  std::sort(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(n));
  const long long lag = std::max(0LL, sorted[n >= 2 ? n - 2 : 0]);
  return std::clamp(lag + kTickLeadMarginNs, kTickLeadMinNs, kTickLeadMaxNs);
}

long long CoarseLagFromLags(std::span<const long long> lags_ns) {
  if (lags_ns.empty()) return 0;
  std::array<long long, kTickLagSamples> sorted{};
  const std::size_t n = std::min(lags_ns.size(), sorted.size());
  std::copy_n(lags_ns.begin(), n, sorted.begin());
  std::sort(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(n));
  return std::max(0LL, sorted[(n - 1) / 2]);
}

void TickPhaseWatch::Reset(long long lead_ns, long long period_ns) {
  *this = TickPhaseWatch{};
  lead_ns_ = lead_ns;
  period_ns_ = period_ns;
}

TickPhaseWatch::Verdict TickPhaseWatch::Observe(long long fine_ns, long long coarse_ns) {
  const bool stepped = last_coarse_ >= 0 && coarse_ns != last_coarse_;
  last_coarse_ = coarse_ns;
  if (!stepped) return kKeep;
  // The first expiry after a visible step is due at the lead; one a whole period later means the
  // expiry at the lead still saw the old time.
  if (fine_ns - coarse_ns > lead_ns_ + period_ns_ / 2) ++missed_;
  if (++steps_ < kTickWatchWindow) return kKeep;
  const bool late = missed_ * 100 > steps_;
  steps_ = missed_ = 0;
  if (late) return windows_ = 0, kLate;
  if (++windows_ >= kTickWatchRefreshWindows) return windows_ = 0, kRefresh;
  return kKeep;
}

}  // namespace platform::posix
