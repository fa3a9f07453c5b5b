// The precise clock: UTC as a file time, interpolated between system clock ticks with the
// performance counter, plus the time conversions and the real-time brackets around measurements.
// File time: unsigned 100-ns units since 1601-01-01 00:00 UTC. Unix seconds: since 1970-01-01 UTC.
#pragma once
#include <atomic>
#include <cstdint>

#include "platform/clock.h"
#include "platform/sync.h"

// The clock state, zero-filled at start; fields in this order.
struct PreciseClockState {
  std::uint32_t magic;               // 0x20081003 once started; nothing reads it
  std::uint32_t last_tick_stamp;     // low half of the system time the last tick callback was given
  std::atomic<std::uint32_t> running;     // 1 while the calibration thread runs with its timer armed
  std::atomic<std::uint32_t> skip_count;  // reads that must still return the plain system time
  std::uint32_t time_increment;      // clock interrupt interval, 100-ns units
  std::int64_t backward_correction;  // counter ticks added when the counter is found below the baseline
  std::int64_t counter_frequency;    // counter ticks per second
  std::int64_t baseline_counter;     // counter at the baseline
  std::uint64_t baseline_time;       // file time at the baseline
};

inline constexpr std::uint32_t kPreciseClockMagic = 0x20081003;
inline constexpr std::uint64_t kFileTimeOf1970 = 116444736000000000ULL;  // file time of 1970-01-01 00:00 UTC

// True on an NT-family system; when false the clock is never used and reads fall back to the
// system time. Set from the platform at load (tests may set it).
extern std::atomic<bool> g_nt_family;

int PreciseClockStart(platform::EventHandle stop_event);  // nonzero on success; stop_event may be nullptr (own auto-reset event)
void PreciseClockStop();                                  // sets the stop event and returns once the calibration thread has ended
std::uint64_t PreciseClockNow();                          // current UTC file time (100-ns since 1601)
int PreciseClockGetSystemTime(platform::SystemTime& out); // precise UTC broken down; 1 on the fallback path
int PreciseClockGetLocalTime(platform::SystemTime& out);  // precise local time broken down; 1 on the fallback path
std::uint32_t PreciseClockUnixSeconds();                  // seconds since 1970; 0x7FFFFFFF before 1970 or past 2106
std::int64_t FileTimeToUnixSeconds(std::uint64_t file_time);    // seconds since 1970, truncated toward zero
std::int64_t UnixSecondsToFileTime(std::uint32_t seconds);      // file time (100-ns since 1601) of seconds since 1970
std::uint32_t ClampUnixSeconds(std::int64_t seconds);     // seconds since 1970 kept within 0..0x7FFFFFFF (2038-01-19 03:14:07)
std::int32_t ClampToInt32(std::int64_t value);            // saturates to [-2^31, 2^31-1]
std::int64_t AbsInt64(std::int64_t value);                // |value|; the most negative value stays as it is

// 1: a measurement needs sub-tick time: the calibration tick runs (again) and the call returns once
// it has re-baselined on a clock tick (nested, any thread); 0: that measurement is done, and when
// none is left the tick pauses and reads are the system time. Nothing where the clock needs no tick.
void PreciseClockNeed(int need);
// PreciseClockNeed(1) for the lifetime of a measurement.
struct PreciseClockNeeded {
  PreciseClockNeeded() { PreciseClockNeed(1); }
  ~PreciseClockNeeded() { PreciseClockNeed(0); }
  PreciseClockNeeded(const PreciseClockNeeded&) = delete;
  PreciseClockNeeded& operator=(const PreciseClockNeeded&) = delete;
};
void BoostThreadPriority(int raise);   // 1: raise to time critical (nested per thread); 0: lower
void SetTimerResolution(int begin);    // 1: timeBeginPeriod(setting); 0: timeEndPeriod; nothing when the setting is 0
void PinThreadAffinity(int pin);       // 1: pin to the affinity setting; 0: release; nothing when the setting is 0

// The same brackets with an explicit setting (the two above pass the product's fixed settings).
void SetTimerResolutionWith(int begin, std::uint32_t resolution_ms);
void PinThreadAffinityWith(int pin, std::uint64_t affinity_mask);

// The clock's tick callback (run by the calibration timer; exposed for tests): the system time the
// timer fired at, in 32-bit halves.
void PreciseClockTick(std::uint32_t time_low, std::uint32_t time_high);
// The live state, for tests and diagnostics.
PreciseClockState& PreciseClockStateRef();
// Number of calibration threads still running (0 once a stop has fully taken effect).
std::uint32_t PreciseClockThreadCount();
