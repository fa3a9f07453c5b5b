#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/clock.h"
#include "platform/testing/fake.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "platform/tick_timer.h"

namespace {

TEST(Events, ManualResetStaysSetAutoResetIsConsumed) {
  platform::UniqueEvent manual(platform::CreateSyncEvent(true, false));
  platform::UniqueEvent automatic(platform::CreateSyncEvent(false, true));
  ASSERT_TRUE(manual && automatic);
  EXPECT_EQ(platform::WaitForEvent(manual.get(), 0), platform::kWaitTimeout);
  platform::SetEvent(manual.get());
  EXPECT_EQ(platform::WaitForEvent(manual.get(), 0), platform::kWaitObject0);
  EXPECT_EQ(platform::WaitForEvent(manual.get(), 0), platform::kWaitObject0);
  platform::ResetEvent(manual.get());
  EXPECT_EQ(platform::WaitForEvent(manual.get(), 0), platform::kWaitTimeout);
  EXPECT_EQ(platform::WaitForEvent(automatic.get(), 0), platform::kWaitObject0);
  EXPECT_EQ(platform::WaitForEvent(automatic.get(), 0), platform::kWaitTimeout);
}

TEST(Events, WaitForAnyReturnsTheFirstSetIndex) {
  platform::UniqueEvent a(platform::CreateSyncEvent(false, false)), b(platform::CreateSyncEvent(false, false)),
      c(platform::CreateSyncEvent(true, false));
  platform::EventHandle all[] = {a.get(), b.get(), c.get()};
  EXPECT_EQ(platform::WaitForAnyEvent(all, 3, 0), platform::kWaitTimeout);
  platform::SetEvent(c.get());
  platform::SetEvent(b.get());
  EXPECT_EQ(platform::WaitForAnyEvent(all, 3, platform::kInfinite), platform::kWaitObject0 + 1);
  EXPECT_EQ(platform::WaitForAnyEvent(all, 3, platform::kInfinite), platform::kWaitObject0 + 2);
}

TEST(Threads, SuspendedThreadRunsAfterResumeAndCanBeWaitedFor) {
  static std::atomic<int> ran{0};
  ran = 0;
  platform::UniqueEvent go(platform::CreateSyncEvent(true, false));
  struct Arg { platform::EventHandle go; } arg{go.get()};
  platform::ThreadHandle t = platform::CreateThreadSuspended(
      [](void* p) {
        ran = 1;
        platform::WaitForEvent(static_cast<Arg*>(p)->go, platform::kInfinite);
        ran = 2;
      },
      &arg);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(ran.load(), 0);
  EXPECT_TRUE(platform::SetThreadPriority(t, platform::kPriorityNormal));
  ASSERT_TRUE(platform::ResumeThread(t));
  EXPECT_FALSE(platform::WaitForThread(t, 0) && ran.load() == 2);
  platform::SetEvent(go.get());
  EXPECT_TRUE(platform::WaitForThread(t, platform::kInfinite));
  EXPECT_EQ(ran.load(), 2);
  platform::CloseThread(t);
}

TEST(Threads, IdsDifferBetweenThreads) {
  std::uint32_t other = 0;
  platform::ThreadHandle t = platform::CreateThreadSuspended(
      [](void* p) { *static_cast<std::uint32_t*>(p) = platform::CurrentThreadId(); }, &other);
  platform::ResumeThread(t);
  platform::WaitForThread(t, platform::kInfinite);
  platform::CloseThread(t);
  EXPECT_NE(other, 0u);
  EXPECT_NE(other, platform::CurrentThreadId());
  EXPECT_GE(platform::ProcessorCount(), 1u);
}

std::atomic<std::uint64_t> g_tick_time{0};

TEST(TickTimer, RealTimerRunsItsCallbackInTheAlertableWait) {
  platform::TickTimerHandle timer = platform::CreateTickTimer();
  ASSERT_NE(timer, nullptr);
  platform::UniqueEvent never(platform::CreateSyncEvent(true, false));
  ASSERT_TRUE(platform::ArmTickTimer(timer, 1, [](std::uint32_t low, std::uint32_t high) {
    g_tick_time = (static_cast<std::uint64_t>(high) << 32) | low;
  }));
  std::uint32_t result = platform::kWaitTimeout;
  for (int i = 0; i < 10 && result != platform::kWaitIoCompletion; ++i)
    result = platform::WaitForEventAlertable(never.get(), 10'000);
  EXPECT_EQ(result, platform::kWaitIoCompletion);
  const auto now = static_cast<std::int64_t>(platform::SystemTimeAsFileTime());
  EXPECT_LT(std::llabs(now - static_cast<std::int64_t>(g_tick_time.load())), 600'000'000LL);  // within a minute
  platform::SetEvent(never.get());
  EXPECT_EQ(platform::WaitForEventAlertable(never.get(), 0), platform::kWaitObject0);
  platform::CancelTickTimer(timer);
  platform::CloseTickTimer(timer);
}

TEST(Clock, CounterAndAdjustmentAreAvailable) {
  std::int64_t hz = 0, a = 0, b = 0;
  ASSERT_TRUE(platform::PerformanceFrequency(hz));
  EXPECT_GT(hz, 0);
  ASSERT_TRUE(platform::PerformanceCounter(a));
  ASSERT_TRUE(platform::PerformanceCounter(b));
  EXPECT_GE(b, a);
  std::uint32_t adjustment = 0, increment = 0;
  bool disabled = false;
  ASSERT_TRUE(platform::SystemTimeAdjustment(adjustment, increment, disabled));
  EXPECT_GT(increment, 0u);
  EXPECT_GT(adjustment, 0u);
}

TEST(Clock, FileTimeToSystemTimeKnownDates) {
  platform::SystemTime st{};
  ASSERT_TRUE(platform::FileTimeToSystemTime(0, st));
  EXPECT_EQ(st.year, 1601);
  EXPECT_EQ(st.month, 1);
  EXPECT_EQ(st.day, 1);
  EXPECT_EQ(st.day_of_week, 1);  // a Monday
  ASSERT_TRUE(platform::FileTimeToSystemTime(116444736000000000ULL + 951'782'400ULL * 10'000'000ULL + 1'234'567, st));
  EXPECT_EQ(st.year, 2000);  // 2000-02-29 00:00:00.123
  EXPECT_EQ(st.month, 2);
  EXPECT_EQ(st.day, 29);
  EXPECT_EQ(st.day_of_week, 2);
  EXPECT_EQ(st.milliseconds, 123);
  EXPECT_FALSE(platform::FileTimeToSystemTime(0x8000000000000000ULL, st));
}

TEST(FakeClock, TimeMovesOnlyWhenTheTestMovesIt) {
  platform::fake::Enable();
  const std::uint64_t t = platform::SystemTimeAsFileTime();
  std::int64_t c1 = 0, c2 = 0;
  platform::PerformanceCounter(c1);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));   // real time passes, the fake clock stays
  EXPECT_EQ(platform::SystemTimeAsFileTime(), t);
  platform::PerformanceCounter(c2);
  EXPECT_EQ(c1, c2);
  platform::fake::AdvanceSystemTime(10);
  platform::fake::AdvanceCounter(3);
  platform::PerformanceCounter(c2);
  EXPECT_EQ(platform::SystemTimeAsFileTime(), t + 10);
  EXPECT_EQ(c2, c1 + 3);
  platform::fake::Disable();
}

}  // namespace

#include "platform/paths.h"

namespace {

TEST(Paths, SystemDirectoryIsNotEmpty) { EXPECT_FALSE(platform::SystemDirectory().empty()); }

}  // namespace
