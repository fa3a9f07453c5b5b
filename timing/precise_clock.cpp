// The precise clock. Where the system's finest wall clock is already as fine as the counter
// (platform::FineWallTimeIsPrecise: Linux, Windows 8 and later), a read is that clock, and the
// clock's thread only waits for the stop event: nothing ticks while the machine idles. Elsewhere a
// calibration thread at time-critical priority arms a 1 ms periodic timer; the first callback
// after each system clock tick takes a new baseline (system time, counter), and a read adds the
// counter ticks elapsed since the baseline to the baseline time.
//
// The tick runs from the start until the first measurement that asked for it is over
// (PreciseClockNeed), and from then on only while a measurement needs sub-tick time (an NTP
// exchange, the agent's check): 1,000 wake-ups a second cost an idle machine more than the clock is
// worth between checks. While it is paused, reads are the plain system time (a baseline left to
// age would drift with the counter's frequency error and the system clock's slewing); a
// measurement that asks for it waits for the tick's second baseline, the first one taken on a
// clock tick, before it reads.
#include "timing/precise_clock.h"

#include <array>
#include <cstring>
#include <mutex>

#include "config/defaults.h"
#include "platform/thread.h"
#include "platform/os.h"
#include "platform/tick_timer.h"

std::atomic<bool> g_nt_family{platform::IsNtFamily()};

namespace {

PreciseClockState g_state{};
// The baseline pair (baseline_counter, baseline_time) is written under g_baseline_lock (the tick
// callback and the start take turns) and read without it: the writer makes g_baseline_seq odd
// while it writes, and a reader that sees it odd or changed reads again. A read costs two loads of
// one cache line instead of a lock's two atomic read-modify-writes.
std::mutex g_baseline_lock;
std::atomic<std::uint32_t> g_baseline_seq{0};
platform::TickTimerHandle g_timer = nullptr;   // none until start creates it; reset when the thread ends
platform::EventHandle g_stop_event = nullptr;  // the caller's, or g_own_stop_event
platform::UniqueEvent g_own_stop_event;
std::atomic<std::uint32_t> g_thread_count{0};
std::atomic<bool> g_fine{false};   // reads take the system's fine wall clock; no calibration timer
std::atomic<std::uint32_t> g_need{0};     // measurements under way that need the tick
std::atomic<bool> g_paused{false};        // the tick is paused: reads are the system time
std::atomic<std::uint32_t> g_baselines{0};   // baselines taken by ticks
std::atomic<std::uint32_t> g_resume_at{0};   // the tick baseline (count) that ends a pause
platform::UniqueEvent g_need_event;       // tells the calibration thread that g_need went to or from 0

// Fields written by one thread and read by others without the lock.
template <typename T>
T LoadRelaxed(T& field) { return std::atomic_ref<T>(field).load(std::memory_order_relaxed); }
template <typename T>
void StoreRelaxed(T& field, T value) { std::atomic_ref<T>(field).store(value, std::memory_order_relaxed); }

// Writes the baseline pair (the writers' side of the sequence lock). No fences: each field is
// stored with release, so a reader whose acquire load sees a new field also sees the odd count
// stored before it (the form ThreadSanitizer understands; on x86 these are plain moves).
void StoreBaseline(std::int64_t counter, std::uint64_t time) {
  std::lock_guard lock(g_baseline_lock);
  const std::uint32_t seq = g_baseline_seq.load(std::memory_order_relaxed);
  g_baseline_seq.store(seq + 1, std::memory_order_relaxed);
  std::atomic_ref<std::int64_t>(g_state.baseline_counter).store(counter, std::memory_order_release);
  std::atomic_ref<std::uint64_t>(g_state.baseline_time).store(time, std::memory_order_release);
  g_baseline_seq.store(seq + 2, std::memory_order_release);
}

// Reads the baseline pair as one consistent copy: the fields' acquire loads keep the second load
// of the count after them.
void LoadBaseline(std::uint64_t& counter, std::uint64_t& time) {
  for (;;) {
    const std::uint32_t seq = g_baseline_seq.load(std::memory_order_acquire);
    counter = static_cast<std::uint64_t>(std::atomic_ref<std::int64_t>(g_state.baseline_counter).load(std::memory_order_acquire));
    time = std::atomic_ref<std::uint64_t>(g_state.baseline_time).load(std::memory_order_acquire);
    if ((seq & 1) == 0 && g_baseline_seq.load(std::memory_order_relaxed) == seq) return;
  }
}

void TakeBaseline() {
  std::uint64_t time = platform::SystemTimeAsFileTime();
  std::int64_t counter = 0;
  platform::PerformanceCounter(counter);
  StoreBaseline(counter, time);
}

// Counted from its creation (not from its first instruction), so that a stop that comes before
// the thread runs still waits for it.
void CalibrationThread(void*) {
  if (g_fine.load()) {   // nothing to calibrate: running until the stop event
    g_state.running.store(1);
    while (platform::WaitForEventAlertable(g_stop_event, platform::kInfinite) != platform::kWaitObject0) {
    }
    g_state.running.store(0);
  } else if (g_timer && platform::ArmTickTimer(g_timer, defaults::kPreciseClockTickMs, PreciseClockTick)) {
    TakeBaseline();
    g_state.running.store(1);
    bool armed = true;
    const platform::EventHandle events[] = {g_stop_event, g_need_event.get()};
    while (platform::WaitForEventsAlertable(events, 2, platform::kInfinite) != platform::kWaitObject0) {
      const bool wanted = g_need.load() != 0 || !g_paused.load();
      if (wanted == armed) continue;
      if (wanted) armed = platform::ArmTickTimer(g_timer, defaults::kPreciseClockTickMs, PreciseClockTick);
      else platform::CancelTickTimer(g_timer), armed = false;
    }
    g_state.running.store(0);
    if (armed) platform::CancelTickTimer(g_timer);
  }
  platform::CloseTickTimer(g_timer);
  g_timer = nullptr;
  g_thread_count.fetch_sub(1);
}

// Per-thread nesting of the priority boost: (thread id, count); id 0 is a free slot.
struct BoostSlot {
  std::uint32_t thread_id;
  std::uint32_t count;
};
std::array<BoostSlot, 10> g_boost_slots{};

}  // namespace

PreciseClockState& PreciseClockStateRef() { return g_state; }
std::uint32_t PreciseClockThreadCount() { return g_thread_count.load(); }

void PreciseClockStop() {
  if (g_stop_event) platform::SetEvent(g_stop_event);
  while (g_thread_count.load() != 0) platform::Sleep(1);
}

int PreciseClockStart(platform::EventHandle stop_event) {
  if (g_state.running.load() == 1) return 1;
  if (!g_nt_family.load()) return 0;

  g_state.magic = kPreciseClockMagic;
  g_state.last_tick_stamp = 0;
  g_state.running.store(0);
  g_state.skip_count.store(0);
  g_state.time_increment = 0;
  g_state.backward_correction = 0;
  g_state.counter_frequency = 0;
  g_state.baseline_counter = 0;
  g_state.baseline_time = 0;

  std::uint32_t adjustment = 0, increment = 0;
  bool disabled = false;
  if (!platform::SystemTimeAdjustment(adjustment, increment, disabled)) return 0;
  g_state.time_increment = increment;
  if (!platform::PerformanceFrequency(g_state.counter_frequency)) return 0;

  g_fine.store(platform::FineWallTimeIsPrecise());
  g_paused.store(false);
  if (!g_fine.load()) {
    g_need_event.reset(platform::CreateSyncEvent(false, false));
    g_timer = g_need_event ? platform::CreateTickTimer() : nullptr;
    if (!g_timer) return 1;  // no timer: every read takes the fallback path
  }

  if (stop_event) {
    g_stop_event = stop_event;
  } else {
    g_own_stop_event.reset(platform::CreateSyncEvent(false, false));
    g_stop_event = g_own_stop_event.get();
  }
  TakeBaseline();
  g_thread_count.fetch_add(1);
  platform::ThreadHandle thread = platform::CreateThreadSuspended(CalibrationThread, nullptr);
  if (!thread) {
    g_thread_count.fetch_sub(1);
    return 1;
  }
  platform::SetThreadPriority(thread, platform::kPriorityTimeCritical);
  TakeBaseline();
  platform::ResumeThread(thread);
  platform::CloseThread(thread);
  if (g_fine.load()) {   // no baseline to settle: running as soon as the thread waits
    while (g_state.running.load() == 0 && g_thread_count.load() != 0) platform::Sleep(1);
    return 1;
  }
  platform::Sleep(defaults::kPreciseClockSettleMs);
  return 1;
}

void PreciseClockTick(std::uint32_t time_low, std::uint32_t time_high) {
  if (time_low == LoadRelaxed(g_state.last_tick_stamp)) return;  // the system clock has not moved
  std::int64_t counter = 0;
  platform::PerformanceCounter(counter);
  StoreRelaxed(g_state.last_tick_stamp, time_low);
  const std::int64_t baseline = LoadRelaxed(g_state.baseline_counter);
  if (counter < baseline) {
    const std::int64_t per_interrupt =
        static_cast<std::int64_t>(g_state.time_increment) * g_state.counter_frequency / 10'000'000;
    StoreRelaxed(g_state.backward_correction, per_interrupt - counter + baseline);
  }
  StoreBaseline(counter, (static_cast<std::uint64_t>(time_high) << 32) | time_low);
  const std::uint32_t taken = g_baselines.fetch_add(1) + 1;
  if (g_paused.load(std::memory_order_relaxed) && g_need.load() != 0 && taken - g_resume_at.load() < 0x80000000u)
    g_paused.store(false);
}

void PreciseClockNeed(int need) {
  const bool ticking_clock = !g_fine.load() && g_state.running.load() == 1;
  if (!need) {
    if (g_need.load() == 0) return;
    if (g_need.fetch_sub(1) == 1 && ticking_clock) {
      g_paused.store(true);
      platform::SetEvent(g_need_event.get());
    }
    return;
  }
  if (g_need.fetch_add(1) != 0 || !ticking_clock || !g_paused.load()) return;
  // The first baseline after arming may fall anywhere in a clock tick; the second follows a tick,
  // and the tick callback that takes it ends the pause. Waited for in 1 ms sleeps, at most as long
  // as the start's settling; a tick that does not come leaves reads on the system time.
  g_resume_at.store(g_baselines.load() + 2);
  platform::SetEvent(g_need_event.get());
  for (std::uint32_t slept = 0; slept < defaults::kPreciseClockSettleMs; ++slept) {
    if (!g_paused.load() || g_state.running.load() != 1) break;
    platform::Sleep(1);
  }
}

// The system time is read only on the paths that return it (a pending skip, a failed counter
// read): the interpolating path, the one every caller takes, reads the counter alone.
std::uint64_t PreciseClockNow() {
  if (!g_nt_family.load(std::memory_order_relaxed) || g_state.running.load(std::memory_order_relaxed) == 0 ||
      g_paused.load(std::memory_order_relaxed))
    return platform::SystemTimeAsFileTime();
  const auto early_baseline = static_cast<std::uint64_t>(LoadRelaxed(g_state.baseline_counter));
  for (std::uint32_t skip = g_state.skip_count.load(std::memory_order_relaxed); skip != 0;) {
    const std::uint64_t system_time = platform::SystemTimeAsFileTime();
    if (g_state.skip_count.compare_exchange_weak(skip, skip - 1)) return system_time;
  }
  if (g_fine.load(std::memory_order_relaxed)) return platform::FineWallTimeAsFileTime();
  std::int64_t counter_signed = 0;
  if (!platform::PerformanceCounter(counter_signed)) return platform::SystemTimeAsFileTime();

  std::uint64_t baseline_counter, baseline_time;
  LoadBaseline(baseline_counter, baseline_time);
  const auto counter = static_cast<std::uint64_t>(counter_signed);
  std::uint64_t elapsed;
  if (counter >= baseline_counter) {
    elapsed = counter - baseline_counter;
  } else if (baseline_counter > early_baseline) {
    elapsed = 0;  // a tick moved the baseline while this read was under way
  } else {
    elapsed = counter + (static_cast<std::uint64_t>(LoadRelaxed(g_state.backward_correction)) - baseline_counter);
  }
  // Cut to 32 bits on purpose: the interpolation is bounded to about +-214.7 s.
  const auto units = static_cast<std::int64_t>(elapsed * 10'000'000ULL) / g_state.counter_frequency;
  const auto cut = static_cast<std::int32_t>(units);
  return baseline_time + static_cast<std::uint64_t>(static_cast<std::int64_t>(cut));
}

int PreciseClockGetSystemTime(platform::SystemTime& out) {
  if (g_nt_family.load() && g_state.running.load() == 1) return platform::FileTimeToSystemTime(PreciseClockNow(), out) ? 1 : 0;
  platform::GetSystemTimeNow(out);
  return 1;
}

int PreciseClockGetLocalTime(platform::SystemTime& out) {
  if (g_nt_family.load() && g_state.running.load() == 1) {
    std::uint64_t local = 0;
    platform::FileTimeToLocalFileTime(PreciseClockNow(), local);
    return platform::FileTimeToSystemTime(local, out) ? 1 : 0;
  }
  platform::GetLocalTimeNow(out);
  return 1;
}

std::uint32_t PreciseClockUnixSeconds() {
  const std::uint64_t seconds = (PreciseClockNow() - kFileTimeOf1970) / 10'000'000ULL;
  return seconds > 0xFFFFFFFFULL ? 0x7FFFFFFFu : static_cast<std::uint32_t>(seconds);
}

std::int64_t FileTimeToUnixSeconds(std::uint64_t file_time) {
  return static_cast<std::int64_t>(file_time - kFileTimeOf1970) / 10'000'000;
}

std::int64_t UnixSecondsToFileTime(std::uint32_t seconds) {
  return (static_cast<std::int64_t>(seconds) + 11'644'473'600LL) * 10'000'000LL;
}

std::uint32_t ClampUnixSeconds(std::int64_t seconds) {
  return seconds < 0 ? 0u : seconds > 0x7FFFFFFF ? 0x7FFFFFFFu : static_cast<std::uint32_t>(seconds);
}

std::int32_t ClampToInt32(std::int64_t value) {
  if (value < INT32_MIN) return INT32_MIN;
  if (value > INT32_MAX) return INT32_MAX;
  return static_cast<std::int32_t>(value);
}

std::int64_t AbsInt64(std::int64_t value) {
  return value < 0 ? static_cast<std::int64_t>(0 - static_cast<std::uint64_t>(value)) : value;
}

void BoostThreadPriority(int raise) {
  const int current = platform::GetCurrentThreadPriority();
  const std::uint32_t id = platform::CurrentThreadId();
  BoostSlot* slot = nullptr;
  for (auto& s : g_boost_slots)
    if (std::atomic_ref(s.thread_id).load(std::memory_order_relaxed) == id) { slot = &s; break; }
  if (!slot) {
    for (auto& s : g_boost_slots) {
      std::uint32_t free_id = 0;
      if (std::atomic_ref(s.thread_id).compare_exchange_strong(free_id, id)) {
        slot = &s;
        std::atomic_ref(s.count).store(0, std::memory_order_relaxed);
        break;
      }
    }
  }
  std::uint32_t count = slot ? std::atomic_ref(slot->count).load(std::memory_order_relaxed) : 0;
  if (raise) ++count;
  else if (count != 0) --count;
  const int wanted = count != 0 ? platform::kPriorityTimeCritical : platform::kPriorityNormal;
  if (slot) {
    std::atomic_ref(slot->count).store(count, std::memory_order_relaxed);
    if (count == 0) std::atomic_ref(slot->thread_id).store(0, std::memory_order_relaxed);
  }
  if (wanted != current) platform::SetCurrentThreadPriority(wanted);
}

void SetTimerResolutionWith(int begin, std::uint32_t resolution_ms) {
  if (resolution_ms == 0) return;
  if (begin) platform::TimeBeginPeriod(resolution_ms);
  else platform::TimeEndPeriod(resolution_ms);
}

void PinThreadAffinityWith(int pin, std::uint64_t affinity_mask) {
  if (affinity_mask == 0 || platform::ProcessorCount() < 2) return;
  std::uint64_t process_mask = 0;
  if (!platform::GetProcessAffinityMask(process_mask)) return;
  platform::SetCurrentThreadAffinityMask(pin ? (affinity_mask & process_mask) : process_mask);
  platform::Sleep(0);
}

void SetTimerResolution(int begin) { SetTimerResolutionWith(begin, defaults::kTimerResolutionMs); }
void PinThreadAffinity(int pin) { PinThreadAffinityWith(pin, defaults::kAffinityMask); }
