#include "timing/precise_clock.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/thread.h"
#include "tests/fake_clock.h"

namespace {

constexpr std::uint32_t Low(std::uint64_t t) { return static_cast<std::uint32_t>(t); }
constexpr std::uint32_t High(std::uint64_t t) { return static_cast<std::uint32_t>(t >> 32); }
constexpr std::uint64_t kT0 = 134116992000000000ULL;  // 2026-01-01 00:00 UTC

using PreciseClock = FakeClockTest;

// Fires a tick at system time t with the counter at c, the way the calibration timer would.
void Tick(std::uint64_t t, std::int64_t c) {
  platform::fake::SetSystemTime(t);
  platform::fake::SetCounter(c);
  platform::fake::FireTick(Low(t), High(t));
}

TEST_F(PreciseClock, NotNtFamilyStartFailsAndReadsAreTheSystemTime) {
  g_nt_family = false;
  EXPECT_EQ(PreciseClockStart(stop_), 0);
  EXPECT_EQ(PreciseClockThreadCount(), 0u);
  EXPECT_EQ(PreciseClockNow(), platform::SystemTimeAsFileTime());
  platform::fake::AdvanceSystemTime(1234);
  platform::fake::AdvanceCounter(99999);
  EXPECT_EQ(PreciseClockNow(), kT0 + 1234);
}

TEST_F(PreciseClock, StartTakesTheTimeIncrementAndFrequencyAndRuns) {
  platform::fake::SetTimeIncrement(100'144);
  platform::fake::SetFrequency(3'579'545);
  StartRunning();
  const auto& s = PreciseClockStateRef();
  EXPECT_EQ(s.magic, kPreciseClockMagic);
  EXPECT_EQ(s.time_increment, 100'144u);
  EXPECT_EQ(s.counter_frequency, 3'579'545);
  EXPECT_EQ(s.skip_count.load(), 0u);
  EXPECT_TRUE(platform::fake::TimerArmed());
  EXPECT_EQ(PreciseClockThreadCount(), 1u);
  EXPECT_EQ(platform::fake::CallCount("SetThreadPriority"), 1u);  // the calibration thread: time critical
}

TEST_F(PreciseClock, SecondStartWhileRunningReturnsOneAndKeepsTheBaseline) {
  StartRunning();
  Tick(kT0 + 5'000, 2'000'000);
  platform::fake::SetSystemTime(kT0 + 90'000);
  platform::fake::SetCounter(7'000'000);
  EXPECT_EQ(PreciseClockStart(stop_), 1);
  EXPECT_EQ(PreciseClockStateRef().baseline_counter, 2'000'000);
  EXPECT_EQ(PreciseClockStateRef().baseline_time, kT0 + 5'000);
  EXPECT_EQ(PreciseClockThreadCount(), 1u);
}

TEST_F(PreciseClock, ReadInterpolatesWithTheCounter) {
  StartRunning();
  Tick(kT0 + 156'250, 5'000'000);
  platform::fake::AdvanceCounter(12'345);  // 10^7 Hz: one tick is 100 ns
  EXPECT_EQ(PreciseClockNow(), kT0 + 156'250 + 12'345);
}

TEST_F(PreciseClock, ReadScalesByTheCounterFrequency) {
  platform::fake::SetFrequency(3'000'000);
  StartRunning();
  Tick(kT0, 1'000);
  platform::fake::AdvanceCounter(3'000);  // 1 ms
  EXPECT_EQ(PreciseClockNow(), kT0 + 10'000);
}

TEST_F(PreciseClock, TickWithTheSameLowHalfChangesNothing) {
  StartRunning();
  Tick(kT0 + 10, 4'000'000);
  platform::fake::SetCounter(9'000'000);
  platform::fake::FireTick(Low(kT0 + 10), High(kT0 + 10) + 1);
  EXPECT_EQ(PreciseClockStateRef().baseline_counter, 4'000'000);
  EXPECT_EQ(PreciseClockStateRef().baseline_time, kT0 + 10);
  EXPECT_EQ(PreciseClockStateRef().last_tick_stamp, Low(kT0 + 10));
}

TEST_F(PreciseClock, CounterBelowTheBaselineInATickSetsTheCorrection) {
  platform::fake::SetTimeIncrement(156'250);
  platform::fake::SetFrequency(10'000'000);
  StartRunning();
  Tick(kT0 + 100, 8'000'000);
  Tick(kT0 + 156'350, 3'000'000);  // the counter went backwards
  const auto& s = PreciseClockStateRef();
  // ticks per interrupt (156,250 x 10^7 / 10^7) - counter + old baseline
  EXPECT_EQ(s.backward_correction, 156'250 - 3'000'000 + 8'000'000);
  EXPECT_EQ(s.baseline_counter, 3'000'000);
  EXPECT_EQ(s.baseline_time, kT0 + 156'350);
}

TEST_F(PreciseClock, ReadWithCounterBelowAMovedBaselineAddsNothing) {
  StartRunning();
  Tick(kT0, 1'000);
  platform::fake::SetCounter(3'000);
  // During the read, after it noted the baseline, a tick moves the baseline past its counter.
  platform::fake::OnNextCounterRead([] {
    Tick(kT0 + 156'250, 5'000);
    platform::fake::SetCounter(3'000);
  });
  EXPECT_EQ(PreciseClockNow(), kT0 + 156'250);
}

TEST_F(PreciseClock, ReadWithCounterBelowAnUnmovedBaselineUsesTheCorrection) {
  StartRunning();
  Tick(kT0, 8'000'000);
  Tick(kT0 + 156'250, 3'000'000);  // correction = 156,250 - 3,000,000 + 8,000,000
  platform::fake::SetCounter(2'999'000);  // below the baseline, which did not move during the read
  const std::int64_t correction = 156'250 - 3'000'000 + 8'000'000;
  const std::int64_t elapsed = 2'999'000 + (correction - 3'000'000);
  EXPECT_EQ(PreciseClockNow(), kT0 + 156'250 + static_cast<std::uint64_t>(elapsed));
}

TEST_F(PreciseClock, InterpolationBeyond31BitsWrapsThroughTheCut) {
  StartRunning();
  Tick(kT0, 0);
  platform::fake::SetCounter(0x7FFFFFFF);
  EXPECT_EQ(PreciseClockNow(), kT0 + 0x7FFFFFFFULL);
  platform::fake::SetCounter(0x80000000LL);  // 2^31 units: the cut makes it -2^31
  EXPECT_EQ(PreciseClockNow(), kT0 - 0x80000000ULL);
}

TEST_F(PreciseClock, SkipCountReadsReturnTheSystemTime) {
  StartRunning();
  Tick(kT0, 1'000);
  platform::fake::AdvanceCounter(500);
  PreciseClockStateRef().skip_count.store(2);
  EXPECT_EQ(PreciseClockNow(), kT0);
  EXPECT_EQ(PreciseClockNow(), kT0);
  EXPECT_EQ(PreciseClockStateRef().skip_count.load(), 0u);
  EXPECT_EQ(PreciseClockNow(), kT0 + 500);
}

TEST_F(PreciseClock, FailedCounterReadGivesTheSystemTime) {
  StartRunning();
  Tick(kT0, 1'000);
  platform::fake::AdvanceCounter(500);
  platform::fake::AdvanceSystemTime(7);
  platform::fake::FailCounter(true);
  EXPECT_EQ(PreciseClockNow(), kT0 + 7);
}

TEST_F(PreciseClock, StartFailsWhenTheAdjustmentOrFrequencyCannotBeRead) {
  platform::fake::FailAdjustment(true);
  EXPECT_EQ(PreciseClockStart(stop_), 0);
  platform::fake::FailAdjustment(false);
  platform::fake::FailFrequency(true);
  EXPECT_EQ(PreciseClockStart(stop_), 0);
  EXPECT_EQ(PreciseClockThreadCount(), 0u);
}

TEST_F(PreciseClock, NoTimerMeansSuccessInFallbackMode) {
  platform::fake::FailTimerCreate(true);
  EXPECT_EQ(PreciseClockStart(stop_), 1);
  EXPECT_EQ(PreciseClockThreadCount(), 0u);
  EXPECT_EQ(PreciseClockStateRef().running.load(), 0u);
  platform::fake::AdvanceCounter(5'000);
  EXPECT_EQ(PreciseClockNow(), kT0);
}

TEST_F(PreciseClock, NoThreadMeansSuccessInFallbackMode) {
  platform::fake::FailThreadCreate(true);
  EXPECT_EQ(PreciseClockStart(stop_), 1);
  EXPECT_EQ(PreciseClockStateRef().running.load(), 0u);
  EXPECT_EQ(PreciseClockNow(), kT0);
}

TEST_F(PreciseClock, ArmingFailureEndsTheThreadAndLeavesTheFallback) {
  platform::fake::FailTimerArm(true);
  EXPECT_EQ(PreciseClockStart(stop_), 1);
  ASSERT_TRUE(WaitUntil([] { return PreciseClockThreadCount() == 0; }));
  EXPECT_EQ(PreciseClockStateRef().running.load(), 0u);
  EXPECT_FALSE(platform::fake::TimerArmed());
}

TEST_F(PreciseClock, StopEventEndsTheThreadAndReadsFallBack) {
  StartRunning();
  Tick(kT0, 1'000);
  StopClock();
  EXPECT_EQ(PreciseClockStateRef().running.load(), 0u);
  EXPECT_FALSE(platform::fake::TimerArmed());
  platform::fake::AdvanceCounter(777);
  EXPECT_EQ(PreciseClockNow(), kT0);
}

TEST_F(PreciseClock, BrokenDownTimes) {
  platform::SystemTime st{};
  EXPECT_EQ(PreciseClockGetSystemTime(st), 1);  // fallback path
  EXPECT_EQ(st.year, 2026);
  EXPECT_EQ(st.month, 1);
  EXPECT_EQ(st.day, 1);
  StartRunning();
  Tick(kT0 + 36'000'000'000ULL, 0);  // 01:00
  platform::fake::SetCounter(12'345'000);  // + 1.2345 s
  EXPECT_EQ(PreciseClockGetSystemTime(st), 1);
  EXPECT_EQ(st.hour, 1);
  EXPECT_EQ(st.second, 1);
  EXPECT_EQ(st.milliseconds, 234);
  EXPECT_EQ(st.day_of_week, 4);  // a Thursday
  EXPECT_EQ(PreciseClockGetLocalTime(st), 1);
  EXPECT_EQ(st.year, 2026);
}

TEST_F(PreciseClock, UnixSecondsOutOfRangeIs7FFFFFFF) {
  platform::fake::SetSystemTime(kFileTimeOf1970 + 1'234 * 10'000'000ULL);
  EXPECT_EQ(PreciseClockUnixSeconds(), 1'234u);
  platform::fake::SetSystemTime(kFileTimeOf1970 - 1);  // before 1970
  EXPECT_EQ(PreciseClockUnixSeconds(), 0x7FFFFFFFu);
  platform::fake::SetSystemTime(kFileTimeOf1970 + 0xFFFFFFFFULL * 10'000'000ULL);  // 2106-02-07 06:28:15
  EXPECT_EQ(PreciseClockUnixSeconds(), 0xFFFFFFFFu);
  platform::fake::SetSystemTime(kFileTimeOf1970 + 0x100000000ULL * 10'000'000ULL);  // one second later
  EXPECT_EQ(PreciseClockUnixSeconds(), 0x7FFFFFFFu);
}

TEST(TimeConversions, FileTimeAndUnixSeconds) {
  EXPECT_EQ(FileTimeToUnixSeconds(kFileTimeOf1970), 0);
  EXPECT_EQ(FileTimeToUnixSeconds(kFileTimeOf1970 + 19'999'999), 1);   // truncated
  EXPECT_EQ(FileTimeToUnixSeconds(kFileTimeOf1970 - 19'999'999), -1);  // toward zero
  EXPECT_EQ(FileTimeToUnixSeconds(0), -11'644'473'600LL);
  EXPECT_EQ(UnixSecondsToFileTime(0), static_cast<std::int64_t>(kFileTimeOf1970));
  EXPECT_EQ(UnixSecondsToFileTime(0xFFFFFFFFu), (0xFFFFFFFFLL + 11'644'473'600LL) * 10'000'000LL);
  EXPECT_EQ(0x019DB1DED53E8000ULL, kFileTimeOf1970);
}

TEST(TimeConversions, ClampAndAbs) {
  EXPECT_EQ(ClampToInt32(INT64_MIN), INT32_MIN);
  EXPECT_EQ(ClampToInt32(-2'147'483'649LL), INT32_MIN);
  EXPECT_EQ(ClampToInt32(-2'147'483'648LL), INT32_MIN);
  EXPECT_EQ(ClampToInt32(2'147'483'648LL), INT32_MAX);
  EXPECT_EQ(ClampToInt32(-5), -5);
  EXPECT_EQ(AbsInt64(-7), 7);
  EXPECT_EQ(AbsInt64(7), 7);
  EXPECT_EQ(AbsInt64(INT64_MIN), INT64_MIN);
  EXPECT_EQ(ClampUnixSeconds(-1), 0u);
  EXPECT_EQ(ClampUnixSeconds(0), 0u);
  EXPECT_EQ(ClampUnixSeconds(1'700'000'000), 1'700'000'000u);
  EXPECT_EQ(ClampUnixSeconds(0x7FFFFFFF), 0x7FFFFFFFu);
  EXPECT_EQ(ClampUnixSeconds(0x80000000LL), 0x7FFFFFFFu);
  EXPECT_EQ(ClampUnixSeconds(INT64_MIN), 0u);
}

// ---- real-time brackets ----

using Brackets = FakeClockTest;

TEST_F(Brackets, RaiseTwiceLowerOnceStaysTimeCriticalThenFreesTheSlot) {
  BoostThreadPriority(1);
  BoostThreadPriority(1);
  BoostThreadPriority(0);
  EXPECT_EQ(platform::GetCurrentThreadPriority(), platform::kPriorityTimeCritical);
  BoostThreadPriority(0);
  EXPECT_EQ(platform::GetCurrentThreadPriority(), platform::kPriorityNormal);
  BoostThreadPriority(0);  // already at 0: stays 0
  EXPECT_EQ(platform::GetCurrentThreadPriority(), platform::kPriorityNormal);
}

// Keeps `n` other threads holding one boost each until released.
class SlotHolders {
 public:
  explicit SlotHolders(int n) {
    for (int i = 0; i < n; ++i)
      threads_.emplace_back([this] {
        BoostThreadPriority(1);
        std::unique_lock lock(mutex_);
        ++held_;
        cv_.notify_all();
        cv_.wait(lock, [this] { return released_; });
        lock.unlock();
        BoostThreadPriority(0);
      });
    std::unique_lock lock(mutex_);
    cv_.wait(lock, [&] { return held_ == n; });
  }
  ~SlotHolders() {
    {
      std::lock_guard lock(mutex_);
      released_ = true;
    }
    cv_.notify_all();
    for (auto& t : threads_) t.join();
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  int held_ = 0;
  bool released_ = false;
  std::vector<std::thread> threads_;
};

TEST_F(Brackets, WithAllSlotsTakenRaiseAndLowerAreUnnested) {
  SlotHolders others(10);
  BoostThreadPriority(1);
  EXPECT_EQ(platform::GetCurrentThreadPriority(), platform::kPriorityTimeCritical);
  BoostThreadPriority(1);
  BoostThreadPriority(0);  // no slot: the count is 0 and the lower takes effect at once
  EXPECT_EQ(platform::GetCurrentThreadPriority(), platform::kPriorityNormal);
}

TEST_F(Brackets, AFreedSlotCanBeClaimedByAnotherThread) {
  SlotHolders others(9);
  BoostThreadPriority(1);
  BoostThreadPriority(0);  // frees this thread's slot: one is free again
  int after = -1;
  std::thread tenth([&] {
    BoostThreadPriority(1);
    BoostThreadPriority(1);
    BoostThreadPriority(0);
    after = platform::GetCurrentThreadPriority();  // nested: still time critical
    BoostThreadPriority(0);
  });
  tenth.join();
  EXPECT_EQ(after, platform::kPriorityTimeCritical);
}

TEST_F(Brackets, PriorityIsSetOnlyWhenItChanges) {
  BoostThreadPriority(1);
  BoostThreadPriority(1);
  BoostThreadPriority(0);
  EXPECT_EQ(platform::fake::CallCount("SetCurrentThreadPriority"), 1u);
  BoostThreadPriority(0);
  EXPECT_EQ(platform::fake::CallCount("SetCurrentThreadPriority"), 2u);
}

TEST_F(Brackets, ZeroSettingsMakeNoSystemCall) {
  SetTimerResolution(1);
  PinThreadAffinity(1);
  PinThreadAffinity(0);
  SetTimerResolution(0);
  for (const char* name : {"TimeBeginPeriod", "TimeEndPeriod", "ProcessorCount", "GetProcessAffinityMask",
                           "SetCurrentThreadAffinityMask"})
    EXPECT_EQ(platform::fake::CallCount(name), 0u) << name;
}

TEST_F(Brackets, NonZeroSettingsAreWorkingBrackets) {
  SetTimerResolutionWith(1, 1);
  SetTimerResolutionWith(0, 1);
  EXPECT_EQ(platform::fake::CallCount("TimeBeginPeriod"), 1u);
  EXPECT_EQ(platform::fake::CallCount("TimeEndPeriod"), 1u);
  platform::fake::SetProcessAffinity(0xF);
  PinThreadAffinityWith(1, 0x12);
  EXPECT_EQ(platform::fake::CurrentThreadAffinity(), 0x2u);
  PinThreadAffinityWith(0, 0x12);
  EXPECT_EQ(platform::fake::CurrentThreadAffinity(), 0xFu);
}

TEST_F(Brackets, PinningNeedsTwoProcessors) {
  platform::fake::SetProcessorCount(1);
  PinThreadAffinityWith(1, 0x1);
  EXPECT_EQ(platform::fake::CallCount("SetCurrentThreadAffinityMask"), 0u);
  EXPECT_EQ(platform::fake::CallCount("GetProcessAffinityMask"), 0u);
}

// ---- the real clock ----

TEST(PreciseClockReal, StartedClockStaysNearTheWallClock) {
  platform::UniqueEvent stop(platform::CreateSyncEvent(true, false));
  ASSERT_EQ(PreciseClockStart(stop.get()), 1);
  for (int i = 0; i < 100; ++i) {
    const auto fine = static_cast<std::int64_t>(platform::FineWallTimeAsFileTime());
    const auto precise = static_cast<std::int64_t>(PreciseClockNow());
    EXPECT_LT(AbsInt64(precise - fine), 5'000'000) << "precise clock more than 0.5 s off the wall clock";
  }
  platform::SetEvent(stop.get());
  ASSERT_TRUE(WaitUntil([] { return PreciseClockThreadCount() == 0; }));
  EXPECT_EQ(PreciseClockStateRef().running.load(), 0u);
}

}  // namespace

// Where the system's fine wall clock is already precise, the clock needs no calibration: no timer
// is made, nothing ticks, and a read is that clock; the running flag and the stop event keep their
// meaning.
// After the first measurement is done the coarse clock's tick pauses: no timer, reads are the
// system time however far the counter runs (a baseline left to age would drift).
TEST_F(PreciseClock, AfterTheFirstMeasurementTheTickPausesAndReadsAreTheSystemTime) {
  StartRunning();
  Tick(kT0, 1'000);
  PreciseClockNeed(1);   // the tick already runs: returns at once
  EXPECT_TRUE(platform::fake::TimerArmed());
  PreciseClockNeed(0);
  ASSERT_TRUE(WaitUntil([] { return !platform::fake::TimerArmed(); }));
  EXPECT_EQ(PreciseClockStateRef().running.load(), 1u);   // the clock still runs
  platform::fake::AdvanceCounter(50'000'000);
  platform::fake::AdvanceSystemTime(156'250);
  EXPECT_EQ(PreciseClockNow(), kT0 + 156'250);
}

// A measurement arms the tick again and reads only once a tick has re-baselined; nested needs keep
// it until the last is done.
TEST_F(PreciseClock, AMeasurementArmsTheTickAgainAndWaitsForATickedBaseline) {
  StartPaused();
  std::thread measurement([] { PreciseClockNeed(1); });
  ASSERT_TRUE(WaitUntil([] { return platform::fake::TimerArmed(); }));
  Tick(kT0 + 1'000, 5'000'000);       // the first callback after arming
  Tick(kT0 + 156'250, 6'000'000);     // the first on a clock tick
  measurement.join();
  platform::fake::SetCounter(6'000'000 + 12'345);
  EXPECT_EQ(PreciseClockNow(), kT0 + 156'250 + 12'345);
  PreciseClockNeed(1);   // nested
  PreciseClockNeed(0);
  EXPECT_TRUE(platform::fake::TimerArmed());
  EXPECT_EQ(PreciseClockNow(), kT0 + 156'250 + 12'345);
  PreciseClockNeed(0);
  ASSERT_TRUE(WaitUntil([] { return !platform::fake::TimerArmed(); }));
  EXPECT_EQ(PreciseClockNow(), kT0 + 156'250);
}

// With no tick to wait for, a measurement never waits: a paused clock whose tick never comes
// gives up after the settling time and reads the system time.
TEST_F(PreciseClock, AMeasurementThatGetsNoTickStillGoesOn) {
  StartPaused();
  PreciseClockNeed(1);   // the fake's sleeps pass at once; no tick is fired
  platform::fake::AdvanceCounter(777);
  EXPECT_EQ(PreciseClockNow(), kT0);
  PreciseClockNeed(0);
}

TEST_F(PreciseClock, WithAPreciseWallClockNothingTicksAndReadsAreThatClock) {
  platform::fake::SetFineWallTimePrecise(true);
  EXPECT_EQ(PreciseClockStart(stop_), 1);
  ASSERT_TRUE(WaitUntil([] { return PreciseClockStateRef().running.load() == 1; }));
  EXPECT_EQ(PreciseClockThreadCount(), 1u);
  EXPECT_FALSE(platform::fake::TimerArmed());
  EXPECT_EQ(platform::fake::CallCount("CreateTickTimer"), 0u);
  platform::fake::AdvanceSystemTime(12'345);
  platform::fake::AdvanceCounter(99'999'999);   // the counter plays no part
  EXPECT_EQ(PreciseClockNow(), kT0 + 12'345);
  EXPECT_EQ(PreciseClockStart(stop_), 1);       // a second start while running changes nothing
  EXPECT_EQ(PreciseClockThreadCount(), 1u);
  PreciseClockNeed(1);                          // a measurement arms nothing
  EXPECT_FALSE(platform::fake::TimerArmed());
  PreciseClockNeed(0);
  StopClock();
  EXPECT_EQ(PreciseClockStateRef().running.load(), 0u);
  EXPECT_EQ(PreciseClockThreadCount(), 0u);
  EXPECT_EQ(PreciseClockNow(), kT0 + 12'345);
}
