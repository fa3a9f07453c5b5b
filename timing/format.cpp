// Formatters for addresses, dates and durations.
//
// Dates follow the 32-bit C library routines (gmtime/localtime + asctime) on every target: a time
// is valid from 0 to 0x7FFFFFFF seconds (2038-01-19 03:14:07 UTC) and anything beyond, which the
// 32-bit routines see as negative, gives "Error". The pieces are built here rather than by the C
// library so that both targets print the same English names.
#include "timing/format.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/clock.h"
#include "timing/precise_clock.h"

namespace {

constexpr const char* kWeekdays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

const char* Plural(std::int64_t n) { return n == 1 ? "" : "s"; }

// weekday, day, month, year, time + suffix; false when the 32-bit routines would reject the time.
bool DateText(std::uint32_t seconds, bool local, char* out, std::size_t size) {
  if (seconds > 0x7FFFFFFFu) return false;
  std::uint64_t ft = static_cast<std::uint64_t>(UnixSecondsToFileTime(seconds));
  if (local && !platform::FileTimeToLocalFileTime(ft, ft)) return false;
  platform::SystemTime st{};
  if (!platform::FileTimeToSystemTime(ft, st)) return false;
  std::snprintf(out, size, "%s %02u %s %04u %02u:%02u:%02u%s", kWeekdays[st.day_of_week % 7], st.day,
                kMonths[(st.month + 11) % 12], st.year, st.hour, st.minute, st.second, local ? "" : " UTC");
  return true;
}

// Appends "<, >%d <unit><s>" to text.
void AppendUnit(std::string& text, std::int64_t n, const char* unit) {
  char piece[48];
  std::snprintf(piece, sizeof piece, "%s%lld %s%s", text.empty() ? "" : ", ", static_cast<long long>(n), unit, Plural(n));
  text += piece;
}

struct Split {
  std::int64_t days, hours, minutes, seconds, ms;
};
Split SplitMs(std::int64_t ms) {
  const auto abs = static_cast<std::uint64_t>(AbsInt64(ms));
  return {static_cast<std::int64_t>(abs / 86'400'000), static_cast<std::int64_t>(abs / 3'600'000 % 24),
          static_cast<std::int64_t>(abs / 60'000 % 60), static_cast<std::int64_t>(abs / 1'000 % 60),
          static_cast<std::int64_t>(abs % 1'000)};
}

}  // namespace

char* FormatIPv4(std::uint32_t address, char* out) {
  if (address == 0 || address == 0xFFFFFFFFu) {
    std::strcpy(out, "Unknown");
    return out;
  }
  std::array<unsigned char, 4> b;
  std::memcpy(b.data(), &address, 4);
  std::snprintf(out, 16, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
  return out;
}

const char* FormatUtcDate(std::uint32_t seconds) {
  static char text[64];
  return DateText(seconds, false, text, sizeof text) ? text : "Error";
}

const char* FormatLocalDate(std::uint32_t seconds) {
  static char text[64];
  return DateText(seconds, true, text, sizeof text) ? text : "Error";
}

const char* FormatDate(std::uint32_t seconds, bool local) { return local ? FormatLocalDate(seconds) : FormatUtcDate(seconds); }

const char* FormatDurationSeconds(std::uint32_t seconds) {
  static char text[128];
  const std::int64_t days = seconds / 86'400, hours = seconds / 3'600 % 24, minutes = seconds / 60 % 60, rest = seconds % 60;
  std::string s;
  if (days > 0) AppendUnit(s, days, "day");
  if (days > 0 || hours > 0 || minutes > 0) {
    if (days > 0 || hours > 0) AppendUnit(s, hours, "hour");
    AppendUnit(s, minutes, "minute");
  }
  if (rest > 0) AppendUnit(s, rest, "second");
  if (s.empty()) AppendUnit(s, 0, "second");
  std::snprintf(text, sizeof text, "%s", s.c_str());
  return text;
}

char* FormatDurationMs(std::int64_t ms, char* out, std::uint32_t size) {
  if (!out || size == 0) return out;
  std::memset(out, 0, size);
  const Split p = SplitMs(ms);
  const std::int64_t units[] = {p.days, p.hours, p.minutes, p.seconds, p.ms};
  constexpr const char* names[] = {"day", "hour", "minute", "second", "millisecond"};
  std::string s;
  const auto first = std::find_if(std::begin(units), std::end(units), [](std::int64_t u) { return u != 0; });
  for (auto it = first; it != std::end(units); ++it) AppendUnit(s, *it, names[it - std::begin(units)]);
  if (s.empty()) AppendUnit(s, 0, "millisecond");
  s.resize(std::min<std::size_t>(s.size(), 255));  // the work buffer holds 256 bytes
  std::memcpy(out, s.data(), std::min<std::size_t>(s.size(), size - 1));
  return out;
}

const char* FormatShortDuration(std::int64_t ms) {
  static char text[48];
  const char* sign = ms < 0 ? "-" : "+";
  const Split p = SplitMs(ms);
  if (p.days > 0) std::snprintf(text, sizeof text, "%s%lld day%s", sign, static_cast<long long>(p.days), Plural(p.days));
  else if (p.hours > 0) std::snprintf(text, sizeof text, "%s%lld hr%s", sign, static_cast<long long>(p.hours), Plural(p.hours));
  else if (p.minutes > 0) std::snprintf(text, sizeof text, "%s%lld min%s", sign, static_cast<long long>(p.minutes), Plural(p.minutes));
  else std::snprintf(text, sizeof text, "%s%lld.%03lld secs", sign, static_cast<long long>(p.seconds), static_cast<long long>(p.ms));
  return text;
}
