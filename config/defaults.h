// The product's fixed settings and defaults, kept in one place.
#pragma once
#include <cstdint>

namespace defaults {

// Real-time brackets around time-critical measurements. Zero leaves the system alone; the brackets
// stay in place around the same call sites so that a build can turn them on.
inline constexpr std::uint32_t kTimerResolutionMs = 0;   // timeBeginPeriod value (ms)
inline constexpr std::uint64_t kAffinityMask = 0;        // processor mask for pinning

inline constexpr std::uint32_t kPreciseClockTickMs = 1;           // calibration timer period (ms)
inline constexpr std::uint32_t kPreciseClockSettleMs = 100;       // start waits this long for the timer to be armed (ms)

}  // namespace defaults
