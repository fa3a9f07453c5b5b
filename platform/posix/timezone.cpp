// The local time zone on POSIX: the C library's zone (TZ), in Windows terms.
#include "platform/timezone.h"

#include <ctime>

namespace platform {

bool CurrentTimeZone(TimeZoneNow& out) {
  out = TimeZoneNow{};
  ::tzset();
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  if (!::localtime_r(&now, &tm)) {
    out.name = "UTC";
    return false;
  }
  out.name = tm.tm_zone ? tm.tm_zone : "";
  out.daylight = tm.tm_isdst > 0;
  out.total_bias_minutes = static_cast<std::int32_t>(-tm.tm_gmtoff / 60);
  // timezone: the standard offset, seconds west of UTC.
  out.bias_minutes = static_cast<std::int32_t>(::timezone / 60);
  return true;
}

}  // namespace platform
