// The local time zone as Windows describes it (GetTimeZoneInformation).
#pragma once
#include <cstdint>
#include <string>

namespace platform {

struct TimeZoneNow {
  std::string name;               // the current standard or daylight name, ANSI ("CET", "Pacific Daylight Time")
  bool daylight = false;          // daylight time is in force now
  std::int32_t bias_minutes = 0;  // the zone's standard bias: UTC = local + bias (west of Greenwich is > 0)
  std::int32_t total_bias_minutes = 0;  // bias plus the daylight or standard bias in force now
};

// False when the zone cannot be read (the result then describes UTC).
bool CurrentTimeZone(TimeZoneNow& out);

}  // namespace platform
