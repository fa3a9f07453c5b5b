// Test fixture pieces for the fake clock and the precise clock's calibration thread.
#pragma once
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "platform/testing/fake.h"
#include "platform/os.h"
#include "platform/sync.h"
#include "timing/precise_clock.h"

// Waits (without moving any clock) until cond holds; fails the test after 30 s of real time.
template <typename Cond>
bool WaitUntil(Cond cond) {
  const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!cond()) {
    if (std::chrono::steady_clock::now() > give_up) return false;
    std::this_thread::yield();
  }
  return true;
}

class FakeClockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::fake::Enable();
    g_nt_family = true;
    stop_ = platform::CreateSyncEvent(true, false);
  }
  void TearDown() override {
    StopClock();
    platform::CloseEvent(stop_);
    platform::fake::Disable();
    g_nt_family = platform::IsNtFamily();
  }
  // Starts the clock and waits until its calibration thread has armed the (fake) timer.
  void StartRunning() {
    ASSERT_EQ(PreciseClockStart(stop_), 1);
    ASSERT_TRUE(WaitUntil([] { return PreciseClockStateRef().running.load() == 1; }));
  }
  // Starts the clock and lets a first measurement end, which pauses a coarse clock's tick.
  void StartPaused() {
    StartRunning();
    PreciseClockNeed(1);
    PreciseClockNeed(0);
    ASSERT_TRUE(WaitUntil([] { return !platform::fake::TimerArmed(); }));
  }
  void StopClock() {
    platform::SetEvent(stop_);
    ASSERT_TRUE(WaitUntil([] { return PreciseClockThreadCount() == 0; }));
  }
  platform::EventHandle stop_ = nullptr;
};
