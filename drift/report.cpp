// The synchronization summary report.
#include "drift/report.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "config/defaults.h"
#include "config/registry.h"
#include "platform/clock.h"
#include "platform/error.h"
#include "platform/error_text.h"
#include "platform/file.h"
#include "platform/paths.h"
#include "platform/timezone.h"
#include "timing/format.h"
#include "timing/precise_clock.h"

namespace {

// Reason counters in report order; the last counter takes every other code.
constexpr std::uint8_t kReasonOrder[12] = {1, 2, 3, 4, 5, 8, 9, 255, 253, 254, 7, 6};
constexpr std::uint32_t kBucketLimits[6] = {100, 250, 500, 1000, 5000, 4294967295u};
constexpr const char* kBucketLabels[6] = {"under 100 ms (1/10 second)", "100-249 ms", "250-499 ms",
                                          "500-999 ms", "1000-4999 ms", "5 seconds or more"};

// The report goes to its sink in pieces of about this many bytes (and at the end of each section).
constexpr std::size_t kReportChunk = 32 * 1024;

// The three banner lines that open every report.
constexpr const char* kBanner =
    "Chronwarden - Windows Time provider and drift history\r\n"
    "Keeps this machine's clock honest: every check against a time source is recorded here.\r\n"
    "Raw Data report of the drift history file";

__attribute__((format(printf, 2, 3))) void Appendf(std::string& out, const char* fmt, ...) {
  char buf[1024];
  va_list ap;
  va_start(ap, fmt);
  const int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  if (n > 0) out.append(buf, std::min<std::size_t>(static_cast<std::size_t>(n), sizeof buf - 1));
}

int PrintedLength(const char* fmt, long long v) { return std::snprintf(nullptr, 0, fmt, v); }

std::int32_t SaturatedAverage(std::int64_t sum, std::uint32_t count) {
  if (count == 0) return 0;
  const double avg = static_cast<double>(sum) / static_cast<double>(count);
  if (avg <= -2147483648.0) return INT32_MIN;
  if (avg >= 2147483647.0) return INT32_MAX;
  return static_cast<std::int32_t>(avg);
}

double Percent(std::uint32_t count, std::uint32_t total) {
  return total == 0 ? 0.0 : static_cast<double>(count) / static_cast<double>(total) * 100.0;
}

const char* FastOrSlow(std::int32_t v) { return v < 0 ? "fast" : "slow"; }

std::string DurationText(std::int64_t ms) {
  char buf[256];
  FormatDurationMs(ms, buf, sizeof buf);
  return buf;
}

// The source column: "Averaged Time", "Self" (when self_name is set) or the dotted address.
// The phase adjustment column: empty before version 41, else "+5", "0", "-3".
std::string PhaseText(const DriftRecord& r) {
  if (r.version < kDriftRecordVersion) return "";
  const std::int32_t v = DriftPhaseAdjustment(r);
  char buf[16];
  std::snprintf(buf, sizeof buf, "%s%d", v > 0 ? "+" : "", v);
  return buf;
}

std::uint32_t NowUnixSeconds() {
  return ClampUnixSeconds(FileTimeToUnixSeconds(platform::SystemTimeAsFileTime()));
}

// A report file being written and the first failure of its writes (after which nothing more is written).
struct ReportFile {
  platform::FileHandle file = nullptr;
  std::uint32_t error = 0;
};

// The code a failed write or flush left, never 0.
std::uint32_t WriteFailure() { return platform::LastError() ? platform::LastError() : platform::kErrorWriteFault; }

void FileSink(void* context, const char* text, std::size_t length) {
  auto& out = *static_cast<ReportFile*>(context);
  std::uint32_t done = 0;
  if (!out.error && !platform::FileWrite(out.file, text, static_cast<std::uint32_t>(length), done))
    out.error = WriteFailure();
}

// The report's record lines, written without the C library's formatting (a full file has 16,384 of
// them): the same bytes as "%24s  %15s  %s  %5s  %13s  %s%s" with the check time as FormatUtcDate
// (its " UTC" left out) or FormatLocalDate gives it, the source as DriftSourceName (with "Self"), the phase as
// PhaseText and the seconds as "%*.3f" (exact: a whole number of milliseconds over 1000 is printed
// from its digits). UTC dates are reckoned here, the day's part once per day.
class RecordLines {
 public:
  RecordLines(const DriftLog& log, int seconds_width) : log_(log), seconds_width_(seconds_width) {}

  void Append(std::string& out, const DriftRecord& r) {
    char line[192];
    char* p = line;
    char when[64];
    p = Right(p, DateOf(r.check_time, when), 24);
    p = Put(p, "  ");
    char source[16];
    p = Right(p, SourceOf(r.address, source), 15);
    p = Put(p, DriftClockSet(r) ? "   Y   " : "   N   ");
    char phase[16] = "";
    if (r.version >= kDriftRecordVersion) PutInt(phase, DriftPhaseAdjustment(r), true);
    p = Right(p, phase, 5);
    p = Put(p, "  ");
    p = Right(p, CheckReasonName(r.reason), 13);
    p = Put(p, "  ");
    const std::int64_t v = r.variance_ms;
    *p++ = v < 0 ? '-' : v == 0 ? ' ' : '+';
    out.append(line, static_cast<std::size_t>(p - line));
    AppendSeconds(out, v < 0 ? static_cast<std::uint64_t>(-v) : static_cast<std::uint64_t>(v));
    const std::uint8_t type = DriftMachineType(r);
    if (type != last_type_) {
      out += " (";
      out += MachineTypeName(type);
      out += ')';
      last_type_ = type;
    }
    out += "\r\n";
  }

 private:
  static char* Put(char* p, std::string_view text) { return std::copy(text.begin(), text.end(), p); }
  static char* Right(char* p, std::string_view text, std::size_t width) {
    if (text.size() < width) p = std::fill_n(p, width - text.size(), ' ');
    return Put(p, text);
  }
  // "%d" (with plus: "+" before a positive number), terminated; returns the end.
  static char* PutInt(char* p, std::int64_t v, bool plus) {
    char digits[24];
    int n = 0;
    std::uint64_t u = v < 0 ? 0 - static_cast<std::uint64_t>(v) : static_cast<std::uint64_t>(v);
    do digits[n++] = static_cast<char>('0' + u % 10); while ((u /= 10) != 0);
    if (v < 0) *p++ = '-';
    else if (plus && v > 0) *p++ = '+';
    while (n) *p++ = digits[--n];
    *p = '\0';
    return p;
  }
  static void Two(char* p, unsigned v) { p[0] = static_cast<char>('0' + v / 10 % 10), p[1] = static_cast<char>('0' + v % 10); }

  const char* DateOf(std::uint32_t seconds, char* buf) {
    if (log_.local_time) return FormatLocalDate(seconds);
    if (seconds > 0x7FFFFFFFu) return "E";   // "Error" without the four characters of " UTC"
    const std::uint32_t day = seconds / 86'400;
    if (day != day_ || !day_text_[0]) {
      // Days since 1970-01-01 to the civil date (the proleptic Gregorian calendar).
      const std::int64_t z = static_cast<std::int64_t>(day) + 719'468, era = z / 146'097;
      const std::int64_t doe = z - era * 146'097, yoe = (doe - doe / 1460 + doe / 36'524 - doe / 146'096) / 365;
      const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100), mp = (5 * doy + 2) / 153;
      const unsigned d = static_cast<unsigned>(doy - (153 * mp + 2) / 5 + 1);
      const unsigned m = static_cast<unsigned>(mp < 10 ? mp + 3 : mp - 9);
      const unsigned y = static_cast<unsigned>(yoe + era * 400 + (m <= 2));
      static constexpr const char* kWeekdays[] = {"Thu", "Fri", "Sat", "Sun", "Mon", "Tue", "Wed"};
      static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
      char* q = Put(day_text_, kWeekdays[day % 7]);
      *q++ = ' ';
      Two(q, d);
      q[2] = ' ';
      q = Put(q + 3, kMonths[m - 1]);
      *q++ = ' ';
      Two(q, y / 100), Two(q + 2, y);
      q[4] = ' ';
      q[5] = '\0';
      day_ = day;
    }
    const std::uint32_t t = seconds % 86'400;
    std::memcpy(buf, day_text_, 16);
    Two(buf + 16, t / 3600), buf[18] = ':', Two(buf + 19, t / 60 % 60), buf[21] = ':', Two(buf + 22, t % 60);
    buf[24] = '\0';
    return buf;
  }
  static const char* SourceOf(std::uint32_t address, char* buf) {
    if (address == kAddressAveraged) return "Averaged Time";
    if (address == kAddressSelf) return "Self";
    if (address == 0 || address == 0xFFFFFFFFu) return "Unknown";
    unsigned char b[4];
    std::memcpy(b, &address, 4);
    char* p = buf;
    for (int i = 0; i < 4; ++i) {
      if (i) *p++ = '.';
      p = PutInt(p, b[i], false);
    }
    return buf;
  }
  // "%*.3f" of ms / 1000 in seconds_width_, cut and zero-filled as the log asks.
  void AppendSeconds(std::string& out, std::uint64_t ms) {
    char number[48];
    char* p = PutInt(number, static_cast<std::int64_t>(ms / 1000), false);
    *p++ = '.';
    p[0] = static_cast<char>('0' + ms / 100 % 10), p[1] = static_cast<char>('0' + ms / 10 % 10),
    p[2] = static_cast<char>('0' + ms % 10);
    p += 3;
    std::string_view text(number, static_cast<std::size_t>(p - number));
    const std::size_t pad = text.size() < static_cast<std::size_t>(seconds_width_) ? seconds_width_ - text.size() : 0;
    if (!log_.width_limit && !log_.zero_fill) {
      out.append(pad, ' ');
      out.append(text);
      return;
    }
    std::string seconds(pad, ' ');
    seconds += text;
    if (log_.width_limit && seconds.size() > log_.width_limit) {
      for (char& c : seconds)
        if (c != '.') c = '9';
      seconds.erase(0, seconds.size() - log_.width_limit);
    }
    if (log_.zero_fill && !seconds.empty() && seconds[0] == ' ')
      for (std::size_t k = 0; k < seconds.size() && seconds[k] == ' '; ++k) seconds[k] = '0';
    out += seconds;
  }

  const DriftLog& log_;
  int seconds_width_;
  std::uint8_t last_type_ = 0;
  std::uint32_t day_ = 0;
  char day_text_[24] = {};
};

void Notify(const DriftUi* owner, NoticeIcon icon, const char* text) {
  if (owner && owner->notify) owner->notify(*owner, icon, kDriftUiCaption, text);
}

}  // namespace

std::int64_t DriftReportStats::LargestAbs() const {
  return std::max(-static_cast<std::int64_t>(min), static_cast<std::int64_t>(max));
}
std::int32_t DriftReportStats::WorstStartup() const {
  return -static_cast<std::int64_t>(startup_min) > startup_max ? startup_min : startup_max;
}
std::uint32_t DriftReportStats::SpanSeconds() const { return latest > earliest ? latest - earliest : 1; }
std::int32_t DriftReportStats::AverageStartup() const { return SaturatedAverage(startup_sum, startup_count); }
std::int32_t DriftReportStats::AverageAll() const { return SaturatedAverage(sum, total); }

DriftReportStats ComputeDriftReportStats(const DriftRecord* records, std::uint32_t count) {
  DriftReportStats s;
  for (std::uint32_t i = 0; i < count; ++i) {
    const DriftRecord& r = records[i];
    const std::int32_t v = r.variance_ms;
    ++s.total;
    std::size_t slot = 12;
    for (std::size_t k = 0; k < 12; ++k)
      if (kReasonOrder[k] == r.reason) slot = k;
    ++s.reasons[slot];
    if (r.reason == kReasonStartup || r.reason == kReasonPowerResume) {
      ++s.startup_count;
      s.startup_sum += v;
      s.startup_min = std::min(s.startup_min, v);
      s.startup_max = std::max(s.startup_max, v);
    } else {
      ++s.non_startup_count;
      const std::uint32_t magnitude = v < 0 ? 0u - static_cast<std::uint32_t>(v) : static_cast<std::uint32_t>(v);
      for (std::size_t b = 0; b < 6; ++b)
        if (magnitude < kBucketLimits[b]) {
          ++s.buckets[b];
          break;
        }
    }
    s.sum += v;
    s.min = std::min(s.min, v);
    s.max = std::max(s.max, v);
    if (v < 0) ++s.negative;
    if (v > 0) ++s.positive;
    if (DriftClockSet(r)) ++s.set;
    else ++s.not_set;
    if (r.check_time != 0 && (s.earliest == 0 || r.check_time < s.earliest)) s.earliest = r.check_time;
    if (r.check_time > s.latest) s.latest = r.check_time;
  }
  return s;
}

void ReportTimeZoneText(bool local, char* out, std::size_t size) {
  if (!out || size == 0) return;
  std::memset(out, 0, size);
  if (!local) {
    std::snprintf(out, size, "%s", "Universal Coordinated Time (GMT+0)");
    return;
  }
  platform::TimeZoneNow tz;
  platform::CurrentTimeZone(tz);
  const std::int32_t total = std::abs(tz.total_bias_minutes);
  std::snprintf(out, size, "%.127s (GMT%c%02d%02d)", tz.name.c_str(), tz.bias_minutes > 0 ? '-' : '+', total / 60,
                total % 60);
}

namespace {

// The report's text on its way to the sink: each section is handed over whole, the record lines in
// pieces of about kReportChunk bytes.
struct ReportOut {
  std::string text;
  ReportSink sink;
  void* context;

  void Flush() {
    sink(context, text.data(), text.size());
    text.clear();
  }
};

// The banner, the report's time zone and date, and the file it is made from.
void AppendHeader(std::string& out, const DriftLog& log, const char* time_zone_text, std::uint32_t now) {
  out += kBanner;
  Appendf(out,
          "\r\n\r\n------------------------------\r\nSYNCHRONIZATION SUMMARY REPORT\r\n------------------------------\r\n\r\n"
          "Report Time and Data Source:\r\n\r\n    Report timezone: %s\r\n",
          time_zone_text ? time_zone_text : "");
  Appendf(out, "        Report date: %s\r\n", FormatDate(now, log.local_time));
  Appendf(out, "      Report source: %s\r\n\r\n", log.path);
}

// How many records, over which span, how far apart.
void AppendPeriod(std::string& out, const DriftLog& log, const DriftReportStats& s, std::uint32_t count) {
  const bool local = log.local_time;
  out += "Report Data Period:\r\n\r\n";
  Appendf(out, "        Data points: %d\r\n", static_cast<int>(s.total));
  Appendf(out, "       Data history: %s\r\n", count ? FormatDurationSeconds(s.SpanSeconds()) : "N/A");
  Appendf(out, "    Earliest record: %s\r\n", s.earliest ? FormatDate(s.earliest, local) : "N/A");
  Appendf(out, "      Latest record: %s\r\n", s.latest ? FormatDate(s.latest, local) : "N/A");
  Appendf(out, "   Average Interval: %s between data points\r\n\r\n",
          count && log.average_interval ? FormatDurationSeconds(log.average_interval) : "No interval");
}

// The worst and average variances, their milliseconds right-aligned to the widest.
void AppendVarianceSummary(std::string& out, const DriftReportStats& s) {
  const std::int32_t worst_startup = s.WorstStartup(), avg_startup = s.AverageStartup(), avg_all = s.AverageAll();
  int width = 1;
  for (std::int32_t v : {s.min, s.max, worst_startup, avg_startup, avg_all})
    width = std::max(width, PrintedLength("%+lld", v));
  out += "Variance Summary:\r\n\r\n";
  Appendf(out, "     Worst negative: %+*d ms (%s fast)\r\n", width, s.min, DurationText(s.min).c_str());
  Appendf(out, "     Worst positive: %+*d ms (%s slow)\r\n", width, s.max, DurationText(s.max).c_str());
  Appendf(out, "      Worst startup: %+*d ms (%s %s at startup)\r\n", width, worst_startup,
          DurationText(worst_startup).c_str(), FastOrSlow(worst_startup));
  Appendf(out, "    Average startup: %+*d ms (%s %s at startup)\r\n", width, avg_startup,
          DurationText(avg_startup).c_str(), FastOrSlow(avg_startup));
  Appendf(out, "     Average of all: %+*d ms (%s %ser than time sources)\r\n\r\n", width, avg_all,
          DurationText(avg_all).c_str(), FastOrSlow(avg_all));
}

// The checks that set the clock and the signs of the variances, in percent and counts.
void AppendCorrections(std::string& out, const DriftReportStats& s) {
  const std::uint32_t counts[5] = {s.set, s.not_set, s.negative, s.positive, s.Zero()};
  const char* labels[5] = {"checks caused clock corrections", "checks did not cause clock corrections",
                           "variances were negative", "variances were positive", "variances were zero"};
  int width = 1;
  for (std::uint32_t c : counts) width = std::max(width, PrintedLength("%lld", c));
  out += "Clock Corrections:\r\n\r\n";
  for (int i = 0; i < 5; ++i)
    Appendf(out, "  % #7.2f%% - %*d %s\r\n", Percent(counts[i], s.total), width, static_cast<int>(counts[i]),
            labels[i]);
  out += "\r\n";
}

// The non-startup variances by size.
void AppendDiscipline(std::string& out, const DriftReportStats& s) {
  Appendf(out, "Clock Discipline (%d non-startup/resume variances summarized):\r\n\r\n",
          static_cast<int>(s.non_startup_count));
  if (s.non_startup_count) {
    for (int b = 0; b < 6; ++b)
      Appendf(out, "  % #7.2f%% - %s\r\n", Percent(s.buckets[b], s.non_startup_count), kBucketLabels[b]);
  } else {
    out += "   Unable to display: all recorded variances were marked as startup/resumes\r\n";
  }
  out += "\r\n";
}

// The reasons that occur, in report order.
void AppendReasons(std::string& out, const DriftReportStats& s) {
  int width = 1;
  for (std::uint32_t c : s.reasons) width = std::max(width, PrintedLength("%lld", c));
  out += "Reason for each Check:\r\n\r\n";
  for (std::size_t k = 0; k < 13; ++k) {
    if (!s.reasons[k]) continue;
    Appendf(out, "  % #7.2f%% - %*d %s\r\n", Percent(s.reasons[k], s.total), width, static_cast<int>(s.reasons[k]),
            k < 12 ? CheckReasonName(kReasonOrder[k]) : "Other");
  }
  out += "\r\n";
}

// The title and column heads of the record list.
void AppendRecordsHeader(std::string& out, const DriftLog& log) {
  out += "\r\n----------------------------------\r\nINDIVIDUAL SYNCHRONIZATION RECORDS\r\n"
         "----------------------------------\r\n\r\n";
  const bool ntp_server = std::strstr(log.path, "NTP Server") != nullptr;
  Appendf(out, "%24s  %15s  %s  %5s  %13s  %s (Report Source)\r\n", "Check Time", "Time Source", "Set", "PhAdj",
          "Check Reason",
          ntp_server ? "Seconds Variance from Reference Clock" : "Seconds Variance from Time Source");
  Appendf(out, "%24s  %15s  %s  %5s  %13s  %s\r\n", std::string(24, '-').c_str(), std::string(15, '-').c_str(), "---",
          "-----", std::string(13, '-').c_str(), std::string(51, '-').c_str());
}

// One line per record, the seconds column as wide as the largest variance (or the width limit).
void WriteRecordLines(ReportOut& out, const DriftLog& log, const DriftReportStats& s, std::uint32_t count) {
  char largest[64];
  std::snprintf(largest, sizeof largest, "%.3f", static_cast<double>(s.LargestAbs()) / 1000.0);
  const int seconds_width = std::max(static_cast<int>(log.width_limit), static_cast<int>(std::strlen(largest)));
  RecordLines lines(log, seconds_width);
  for (std::uint32_t i = 0; i < count; ++i) {
    lines.Append(out.text, log.records[i]);
    if (out.text.size() >= kReportChunk) out.Flush();
  }
  out.Flush();
}

}  // namespace

void RenderDriftReport(const DriftLog& log, const char* time_zone_text, std::uint32_t now, ReportSink sink,
                       void* context) {
  const std::uint32_t count = log.records ? log.record_count : 0;
  const DriftReportStats s = ComputeDriftReportStats(log.records.get(), count);
  ReportOut out{{}, sink, context};
  out.text.reserve(4096);
  AppendHeader(out.text, log, time_zone_text, now);
  out.Flush();
  AppendPeriod(out.text, log, s, count);
  out.Flush();
  if (count) {
    for (void (*section)(std::string&, const DriftReportStats&) :
         {AppendVarianceSummary, AppendCorrections, AppendDiscipline, AppendReasons}) {
      section(out.text, s);
      out.Flush();
    }
  }
  AppendRecordsHeader(out.text, log);
  out.Flush();
  WriteRecordLines(out, log, s, count);
  out.text += "\r\n--End of Report--\r\n";
  out.Flush();
}

std::string DriftReportPathFor(const char* log_path) {
  std::string path = std::string(log_path ? log_path : "").substr(0, 251);
  const auto sep = path.find_last_of("\\/");
  const auto dot = path.rfind('.');
  // Only a "." in the file name itself starts an extension ("logs.d\drift" keeps its folder name).
  if (dot != std::string::npos && (sep == std::string::npos || dot > sep)) path.resize(dot);
  return path + ".txt";
}

std::uint32_t WriteDriftReportFile(const DriftLog& log, const char* path, const char* time_zone_text) {
  platform::FileHandle file =
      platform::FileCreate(path, platform::kGenericWrite, 0, platform::kCreateAlways, platform::kFlagSequentialScan);
  if (!file) return platform::LastError() ? platform::LastError() : 5;
  ReportFile out{file};
  RenderDriftReport(log, time_zone_text, NowUnixSeconds(), FileSink, &out);
  if (!out.error && !platform::FileFlush(file)) out.error = WriteFailure();
  platform::FileClose(file);
  if (out.error) platform::FileDelete(path);   // no half a report; the failure to tell is the write's
  return out.error;
}

std::uint32_t WriteDriftReport(const DriftUi* owner, DriftLog& log, const char* time_zone_text) {
  char zone[128];
  if (!time_zone_text) {
    ReportTimeZoneText(log.local_time, zone, sizeof zone);
    time_zone_text = zone;
  }
  const std::uint32_t count = log.records ? log.record_count : 0;
  std::string path;
  if (owner && count == 0) {
    Notify(owner, NoticeIcon::Information, "No data points in this record; nothing to display.\r\n");
    return platform::kErrorNoData;
  }
  if (owner) {
    std::string dir = platform::TempDirectory();
    if (dir.empty()) dir = platform::SystemDirectory();
    if (!platform::TempFileName(dir, defaults::kReportTempPrefix, path)) path = dir;   // creation below reports it
  } else {
    path = DriftReportPathFor(log.path);
  }
  const std::uint32_t error = WriteDriftReportFile(log, path.c_str(), time_zone_text);
  if (error) {
    if (owner) {
      char reason[129] = {};
      SystemErrorText(error, reason, 129);
      char text[512];
      std::snprintf(text, sizeof text, "Could not create file %.260s for output of raw drift data; %s", path.c_str(),
                    reason);
      Notify(owner, NoticeIcon::Exclamation, text);
    }
    return error;
  }
  if (owner) OpenInNotepad(owner, path.c_str(), true);
  return 0;
}

bool OpenInNotepad(const DriftUi* owner, const char* path, bool delete_later) {
  int origin[2] = {0, 0};
  const bool placed = owner && platform::WindowOrigin(owner->window, origin[0], origin[1]);
  if (placed) {
    origin[0] += 30;
    origin[1] += 30;
  }
  if (!platform::OpenTextFileForUser(path, placed ? origin : nullptr)) return false;
  if (delete_later) {
    // Value names are numbers; the new one is the largest read so far plus 1. Names longer than 31
    // characters cannot be read and end the enumeration.
    constexpr long long kLargestName = std::numeric_limits<long long>::max() - 1;   // + 1 cannot overflow
    long long largest = 0;
    char name[32];
    for (std::uint32_t i = 0; reg_enum_value(reg_local(), defaults::kNotepadTempKey, name, sizeof name, nullptr, 0, nullptr, i); ++i)
      largest = std::clamp(std::strtoll(name, nullptr, 10), largest, kLargestName);
    reg_set_string(reg_local(), defaults::kNotepadTempKey, std::to_string(largest + 1).c_str(), path);
  }
  return true;
}

namespace {

// The folder part of a path without its trailing separators.
std::string_view FolderOf(std::string_view path) {
  while (!path.empty() && (path.back() == '/' || path.back() == '\\')) path.remove_suffix(1);
  return path;
}

// Whether path is one of the temporary reports this module writes: "KRG<hex>.tmp" directly in the
// temporary folder, or in the system folder where there is none. The list of them lives in the
// registry, which on Linux the host's group may write: any other path a value names is left alone,
// or a planted value would make the next administrator's launch delete whatever it named.
bool IsTemporaryReport(std::string_view path) {
  const auto slash = path.find_last_of("/\\");
  if (slash == std::string_view::npos) return false;
  const std::string_view name = path.substr(slash + 1), prefix = defaults::kReportTempPrefix, suffix = ".tmp";
  if (name.size() <= prefix.size() + suffix.size() || !name.starts_with(prefix) || !name.ends_with(suffix)) return false;
  for (char c : name.substr(prefix.size(), name.size() - prefix.size() - suffix.size()))
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
  const std::string_view folder = FolderOf(path.substr(0, slash + 1));
  const std::string temp = platform::TempDirectory(), system = platform::SystemDirectory();
  return (!temp.empty() && folder == FolderOf(temp)) || (!system.empty() && folder == FolderOf(system));
}

}   // namespace

void DeleteNotepadTemps() {
  // Each string value holds a path; the list ends at the first value that cannot be read (a name
  // or a path too long for the buffers). Files already gone are no error; a path that is not a
  // temporary report is forgotten with the list, never deleted.
  char name[32];
  char path[defaults::kNotepadTempPathSize];
  std::uint32_t type = 0;
  for (std::uint32_t i = 0; reg_enum_value(reg_local(), defaults::kNotepadTempKey, name, sizeof name, path, sizeof path, &type, i); ++i)
    if (type == platform::kRegSz && IsTemporaryReport(path)) platform::FileDelete(path);
  reg_delete_key(reg_local(), defaults::kNotepadTempKey);
}

const char* ProtocolName(std::uint8_t code) {
  switch (code) {
    case 0: return "Kairon II UDP";
    case 1: return "NTP/SNTP (RFC 1769)";
    case 2: return "Kairon I";
    case 3: return "Lan Manager (NetBIOS)";
    case 4: return "TIME/ITP (RFC 868) UDP";
    case 5: return "TIME/ITP (RFC 868) TCP";
    case 6: return "Kairon over HTTP";
    case 7: return "Kairon II TCP";
    case 8: return "Daytime (RFC 867) UDP";
    case 9: return "Daytime (RFC 867) TCP";
    case 10: return "Kairon II Client";
    case 11: return "ICMP Timestamp";
    case 254: return "N/A";
    case 255: return "selected protocol";
    default: return "specified protocol";
  }
}

bool DriftPointText(const DriftLog& log, std::int32_t index, char* out, std::size_t size) {
  if (!out || size == 0 || index < 0 || static_cast<std::uint32_t>(index) >= log.end_shown || !log.records ||
      static_cast<std::uint32_t>(index) >= log.record_count)
    return false;
  const DriftRecord& r = log.records[static_cast<std::uint32_t>(index)];
  const double seconds = r.variance_ms / 1000.0;
  std::string reason = CheckReasonName(r.reason);
  for (char& c : reason) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const std::string phase = r.version == 0 ? "unknown" : PhaseText(r);
  std::memset(out, 0, size);
  std::snprintf(out, size,
                "Check #%d: %s, %s. Variance was %s%0.3f seconds.\r\nTime source: %s. Local clock was%s corrected. "
                "Phase adjust was %s.",
                index + 1, FormatDate(r.check_time, log.local_time), reason.c_str(), seconds > 0 ? "+" : "", seconds,
                DriftSourceName(r.address, false).c_str(), DriftClockSet(r) ? "" : " not", phase.c_str());
  return true;
}
