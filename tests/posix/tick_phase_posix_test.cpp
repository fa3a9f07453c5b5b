#include "platform/posix/tick_phase.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using namespace platform::posix;
constexpr long long kMs = 1'000'000;
constexpr long long kUs = 1'000;

TEST(TickLead, SecondLargestLagPlusTheMargin) {
  // One sample preempted to 900 us is not trusted; the next largest decides.
  const std::vector<long long> lags{40 * kUs, 55 * kUs, 900 * kUs, 60 * kUs, 42 * kUs, 38 * kUs, 41 * kUs, 47 * kUs};
  EXPECT_EQ(TickLeadFromLags(lags, kMs), 60 * kUs + kTickLeadMarginNs);
}

TEST(TickLead, KeepsALagBeyondThePeriodAndStaysAboveTheMinimum) {
  // A coarse clock whose steps show an instant 3.1 ms past: the lead keeps it (its phase places
  // the 1 ms expiries) and the usual (median) lag is the clock's own lateness.
  const std::vector<long long> late{3'090 * kUs, 3'110 * kUs, 3'100 * kUs, 400 * kUs, 3'087 * kUs};
  EXPECT_EQ(TickLeadFromLags(late, kMs), 3'100 * kUs + kTickLeadMarginNs);
  EXPECT_EQ(CoarseLagFromLags(late), 3'090 * kUs);   // one step seen early does not move it
  EXPECT_EQ(CoarseLagFromLags({}), 0);
  const std::vector<long long> absurd{90 * kMs, 90 * kMs};
  EXPECT_EQ(TickLeadFromLags(absurd, kMs), kTickLeadMaxNs);
  const std::vector<long long> early{0, 0, 0};
  EXPECT_EQ(TickLeadFromLags(early, kMs), std::max(kTickLeadMinNs, kTickLeadMarginNs));
  const std::vector<long long> one{100 * kUs};
  EXPECT_EQ(TickLeadFromLags(one, kMs), 100 * kUs + kTickLeadMarginNs);
  EXPECT_EQ(TickLeadFromLags({}, kMs), kTickLeadFallbackNs);
}

// Steps at 4 ms (HZ 250) seen by expiries every 1 ms at the lead after each tick.
TickPhaseWatch::Verdict last_verdict = TickPhaseWatch::kKeep;

void Feed(TickPhaseWatch& w, int ticks, long long lead, int late_every, bool& asked) {
  static long long tick = 1'000 * kMs;
  for (int i = 0; i < ticks; ++i) {
    tick += 4 * kMs;
    const bool late = late_every && i % late_every == 0;
    for (int k = 0; k < 4; ++k) {
      const long long at = tick + lead + k * kMs;
      const long long coarse = (late && k == 0) ? tick - 4 * kMs : tick;   // the step not yet visible
      const auto verdict = w.Observe(at, coarse);
      if (verdict != TickPhaseWatch::kKeep) asked = true, last_verdict = verdict;
    }
  }
}

TEST(TickPhaseWatch, StepsSeenAtTheLeadNeedNoNewMeasurementUntilTheRefresh) {
  TickPhaseWatch w;
  w.Reset(100 * kUs, kMs);
  bool asked = false;
  Feed(w, kTickWatchWindow * (kTickWatchRefreshWindows - 1), 100 * kUs, 0, asked);
  EXPECT_FALSE(asked);
  Feed(w, kTickWatchWindow + 1, 100 * kUs, 0, asked);
  EXPECT_TRUE(asked);
  EXPECT_EQ(last_verdict, TickPhaseWatch::kRefresh);
}

TEST(TickPhaseWatch, StepsSeenAnExpiryLateAskForANewMeasurement) {
  TickPhaseWatch w;
  w.Reset(100 * kUs, kMs);
  bool asked = false;
  Feed(w, kTickWatchWindow + 1, 100 * kUs, 50, asked);   // 2 % of the steps late
  EXPECT_TRUE(asked);
  EXPECT_EQ(last_verdict, TickPhaseWatch::kLate);
  TickPhaseWatch quiet;
  quiet.Reset(100 * kUs, kMs);
  asked = false;
  Feed(quiet, kTickWatchWindow + 1, 100 * kUs, 200, asked);   // under 1 %: no
  EXPECT_FALSE(asked);
}

}  // namespace
