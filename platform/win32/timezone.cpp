// The local time zone on Windows.
#include <windows.h>

#include "platform/timezone.h"

namespace platform {

bool CurrentTimeZone(TimeZoneNow& out) {
  out = TimeZoneNow{};
  TIME_ZONE_INFORMATION tz{};
  const DWORD id = ::GetTimeZoneInformation(&tz);
  if (id == TIME_ZONE_ID_INVALID) {
    out.name = "UTC";
    return false;
  }
  out.daylight = id == TIME_ZONE_ID_DAYLIGHT;
  const WCHAR* wide = out.daylight ? tz.DaylightName : tz.StandardName;
  char ansi[128] = {};
  ::WideCharToMultiByte(CP_ACP, 0, wide, -1, ansi, 127, nullptr, nullptr);
  out.name = ansi;
  out.bias_minutes = tz.Bias;
  out.total_bias_minutes = tz.Bias + (out.daylight ? tz.DaylightBias : tz.StandardBias);
  return true;
}

}  // namespace platform
