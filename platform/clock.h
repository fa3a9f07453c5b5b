// Wall time, the monotonic counter and the clock-interrupt facts, in Windows terms.
// File time: unsigned 64-bit count of 100-ns units since 1601-01-01 00:00 UTC.
#pragma once
#include <cstdint>

namespace platform {

// Broken-down time, field for field the Win32 SYSTEMTIME.
struct SystemTime {
  std::uint16_t year, month, day_of_week, day, hour, minute, second, milliseconds;
};

// Which wall clock SystemTimeAsFileTime reads on POSIX. Fine: CLOCK_REALTIME (the default);
// Coarse: CLOCK_REALTIME_COARSE, which steps once per clock interrupt as Windows system time does.
// Windows always reads GetSystemTimeAsFileTime and ignores the mode.
enum class WallClock { Fine, Coarse };
void SetWallClockMode(WallClock mode);
WallClock GetWallClockMode();

std::uint64_t SystemTimeAsFileTime();        // the system time as GetSystemTimeAsFileTime reports it (100-ns units since 1601)
std::uint64_t FineWallTimeAsFileTime();      // the finest wall clock (GetSystemTimePreciseAsFileTime / CLOCK_REALTIME), 100-ns since 1601
// Whether the finest wall clock is already as fine as the counter, so that nothing needs to
// interpolate between clock ticks: Windows 8 and later (GetSystemTimePreciseAsFileTime); POSIX in
// the Fine wall clock mode (in Coarse mode the system is taken to lack one, as older Windows do).
// The tests' fake clock: false unless a test says otherwise (platform/testing/fake.h).
bool FineWallTimeIsPrecise();
bool PerformanceCounter(std::int64_t& ticks);     // monotonic counter (QueryPerformanceCounter / CLOCK_MONOTONIC_RAW ns); false on failure
bool PerformanceFrequency(std::int64_t& hz);      // counter ticks per second (10^9 on POSIX); false on failure
// The performance counter in milliseconds (monotonic, for intervals; 0 when it cannot be read).
inline std::uint64_t CounterMilliseconds() {
  std::int64_t ticks = 0, hz = 0;
  if (!PerformanceCounter(ticks) || !PerformanceFrequency(hz) || hz < 1000) return 0;
  return static_cast<std::uint64_t>(ticks / (hz / 1000));
}

// GetSystemTimeAdjustment: adjustment added per clock interrupt and the interrupt interval, both in
// 100-ns units; disabled is true when the system applies no adjustment of its own. False on failure.
// POSIX: increment from clock_getres(CLOCK_REALTIME_COARSE); adjustment scaled from adjtimex()'s tick
// and freq; disabled when both are nominal.
bool SystemTimeAdjustment(std::uint32_t& adjustment, std::uint32_t& increment, bool& disabled);

bool FileTimeToSystemTime(std::uint64_t file_time, SystemTime& out);          // UTC file time -> broken down; false when out of range
bool FileTimeToLocalFileTime(std::uint64_t utc, std::uint64_t& local);         // shifts by the local zone's offset at that time
void GetSystemTimeNow(SystemTime& out);      // current UTC broken down (GetSystemTime)
void GetLocalTimeNow(SystemTime& out);       // current local time broken down (GetLocalTime)

}  // namespace platform
