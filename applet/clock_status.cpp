// The clock status check. It runs on the status worker (the page's) or on the command line's thread
// and gives a record; the page's adapter draws it as it comes. The stop event is polled between
// every blocking step, so a closing page ends a check within one query time-out plus the row pause.
#include "applet/clock_status.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <future>
#include <iterator>
#include <string>

#include "applet/applet.h"
#include "config/defaults.h"
#include "config/registry.h"
#include "config/service_control.h"
#include "platform/error.h"
#include "platform/machine.h"
#include "platform/net.h"
#include "platform/sync.h"
#include "applet/kr2_client.h"
#include "resources/resource_ids.h"
#include "platform/error_text.h"
#include "timing/format.h"
#include "timing/ntp_client.h"
#include "timing/precise_clock.h"

std::atomic<platform::Dialog*> g_status_page{nullptr};

namespace {

struct Row {
  int server, stratum, variance;
};
constexpr Row kRows[] = {{IDC_SERVER1, IDC_STRATUM1, IDC_VARIANCE1}, {IDC_SERVER2, IDC_STRATUM2, IDC_VARIANCE2},
                         {IDC_SERVER3, IDC_STRATUM3, IDC_VARIANCE3}, {IDC_SERVER4, IDC_STRATUM4, IDC_VARIANCE4},
                         {IDC_SERVER5, IDC_STRATUM5, IDC_VARIANCE5}, {IDC_SERVER6, IDC_STRATUM6, IDC_VARIANCE6}};

// The marking font of a row being checked.
constexpr platform::FontSpec kFontMarking = platform::kFontBold;

bool Stopped() {
  return g_applet.status_stop && platform::WaitForEvent(g_applet.status_stop, 0) == platform::kWaitObject0;
}

// Waits ms on the stop event; true when it was set.
bool PauseStopped(std::uint32_t ms) {
  if (!g_applet.status_stop) return platform::Sleep(ms), false;
  return platform::WaitForEvent(g_applet.status_stop, ms) == platform::kWaitObject0;
}

// A broken-down UTC time as a file time (100-ns units since 1601).
std::uint64_t FileTimeOf(const platform::SystemTime& t) {
  using namespace std::chrono;
  const sys_days day = year_month_day{year{t.year}, month{t.month}, std::chrono::day{t.day}};
  const auto since_1970 = day.time_since_epoch() + hours{t.hour} + minutes{t.minute} + seconds{t.second} +
                          milliseconds{t.milliseconds};
  return kFileTimeOf1970 + static_cast<std::uint64_t>(duration_cast<microseconds>(since_1970).count()) * 10;
}

// The target's UTC time from its KR2 responder (command 2), for systems without NetRemoteTOD.
bool Kr2TimeOfDay(const char* machine, platform::SystemTime& utc) {
  Kr2Peer peer;
  if (!Kr2Open(peer, machine, 0, defaults::kStatusQueryTimeoutMs)) return false;
  Kr2SystemTime t{};
  const bool ok = Kr2Ask(peer, kKr2Time, 0, &t, sizeof t) == static_cast<int>(sizeof t);
  Kr2Close(peer);
  utc = {t.year, t.month, t.day_of_week, t.day, t.hour, t.minute, t.second, t.milliseconds};
  return ok && t.year >= 1601 && t.month >= 1 && t.month <= 12 && t.day >= 1 && t.day <= 31;
}

}  // namespace

int WindowHasText(const platform::Dialog& page, int id) { return applet_trimmed(page.Text(id), 128).empty() ? 0 : 1; }

int RemoteTimeOffset(const char* machine, std::int64_t& offset) {
  const std::uint64_t first = platform::CounterMilliseconds();
  const std::uint64_t local = platform::SystemTimeAsFileTime();
  platform::SystemTime remote{};
  const std::uint32_t err = platform::RemoteTimeOfDay(machine, remote);
  if (err == platform::kErrorNotSupported ? !Kr2TimeOfDay(machine, remote) : err != 0) return 0;
  const std::uint64_t second = platform::CounterMilliseconds();
  offset = static_cast<std::int64_t>(FileTimeOf(remote)) - static_cast<std::int64_t>((second - first) / 2) * 10'000 -
           static_cast<std::int64_t>(local);
  return 1;
}

namespace {

// The target machine's clock against this one's: known, and its offset (100-ns units).
struct TargetClock {
  bool known = true;
  std::int64_t offset = 0;
};
TargetClock MeasureTarget() {
  TargetClock t;
  if (!g_applet.target[0]) return t;
  const NtpResult r = NtpQuery({.server = g_applet.target, .timeout_ms = defaults::kStatusQueryTimeoutMs});
  if (r.valid) t.offset = r.offset;
  else if (!RemoteTimeOffset(g_applet.target, t.offset)) t = {false, 0};
  return t;
}

NtpResult AskRow(const std::string& name) {
  return NtpQuery({.server = name.c_str(), .timeout_ms = defaults::kStatusQueryTimeoutMs});
}

// A row's variance text from its answer; a valid answer counts toward the average.
std::string RowText(const NtpResult& r, const TargetClock& target, std::int64_t& count, std::int64_t& sum) {
  if (r.valid) {
    const std::int64_t variance = r.offset - target.offset;
    std::string text = FormatShortDuration(variance / 10'000);
    ++count;
    sum += variance < 0 ? -variance : variance;
    if (!target.known) text += " ???";
    return text;
  }
  if (r.error == static_cast<std::uint32_t>(platform::kNtpErrorClockNotSet)) return "Clock Not Set";
  if (r.error == platform::kErrorInvalidData) return "Bad Type";
  char buf[64];
  return SocketErrorShortName(r.error, buf, sizeof buf);
}

}  // namespace

ClockStatusResult CheckClockStatusOf(const ClockStatusQuestion& question, const StatusPacing& pacing, ClockStatusProgress* progress) {
  ClockStatusProgress quiet;
  ClockStatusProgress& tell = progress ? *progress : quiet;
  ClockStatusResult result;
  for (std::size_t i = 0; i < std::size(result.rows); ++i) {
    result.rows[i].server = applet_trimmed(question.servers[i], 255);
    result.rows[i].asked = question.enabled[i];
  }
  tell.Started();
  // All at once: the target and every row are asked together, each on a thread of its own, and
  // the rows are written in order when all have answered.
  std::future<TargetClock> target_future;
  std::future<NtpResult> row_futures[std::size(result.rows)];
  if (pacing.all_at_once) {
    target_future = std::async(std::launch::async, MeasureTarget);
    for (std::size_t i = 0; i < std::size(result.rows); ++i) {
      const ClockStatusRow& row = result.rows[i];
      if (row.asked && !row.server.empty()) row_futures[i] = std::async(std::launch::async, AskRow, row.server);
    }
  }
  const TargetClock target = pacing.all_at_once ? target_future.get() : MeasureTarget();
  std::int64_t count = 0, sum = 0;
  for (std::size_t i = 0; i < std::size(result.rows); ++i) {
    ClockStatusRow& row = result.rows[i];
    if (Stopped()) return result.stopped = true, result;
    if (!row.asked) continue;
    if (!row.server.empty()) row.variance = "Checking", row.stratum.assign(1, '?');   // assign: GCC 12 at -O3 misreads = "?"
    tell.RowAsked(int(i), row);
    if (!row.server.empty()) {
      if (Stopped()) return result.stopped = true, result;
      const NtpResult r = row_futures[i].valid() ? row_futures[i].get() : AskRow(row.server);
      if (Stopped()) return result.stopped = true, result;
      const std::string text = RowText(r, target, count, sum);
      if (pacing.row_pause_ms && PauseStopped(pacing.row_pause_ms)) return result.stopped = true, result;
      row.variance = text;
      row.stratum = r.valid ? std::to_string(r.stratum) : "-";
    }
    tell.RowAnswered(int(i), row);
  }
  result.icon = IDI_STATUS_UNKNOWN;
  result.line = "Clock synchronization status unknown";
  if (count) {
    const std::int64_t average_ms = (sum / count) / 10'000;
    if (average_ms >= 2001)
      result.icon = IDI_STATUS_BAD, result.line = "Clock is NOT synchronized";
    else if (average_ms < 1001)
      result.icon = IDI_STATUS_SYNCED,
      result.line = target.known ? "Clock synchronized to within 1 second" : "Not able to determine time at machine";
    else
      result.icon = IDI_STATUS_OFF, result.line = "Clock is NOT synchronized to within 1 second";
  }
  return result;
}

namespace {

// The Client page as a check's progress: a row in the marking font while it is asked.
struct PageProgress : ClockStatusProgress {
  explicit PageProgress(platform::Dialog& p) : page(p) {}
  void Started() override { page.SetText(IDC_STATUS_TEXT, "Checking synchronization status...."); }
  void RowAsked(int i, const ClockStatusRow& row) override {
    page.SetText(kRows[i].variance, row.variance);
    page.SetText(kRows[i].stratum, row.stratum);
    page.SetFont(kRows[i].variance, kFontMarking);
    page.SetFont(kRows[i].stratum, kFontMarking);
  }
  void RowAnswered(int i, const ClockStatusRow& row) override {
    if (!row.server.empty()) {
      page.SetText(kRows[i].variance, row.variance);
      page.SetText(kRows[i].stratum, row.stratum);
    }
    page.SetFont(kRows[i].variance, platform::kFontDialog);
    page.SetFont(kRows[i].stratum, platform::kFontDialog);
  }
  platform::Dialog& page;
};

}   // namespace

int CheckClockStatus(platform::Dialog& page, const StatusPacing& pacing) {
  ClockStatusQuestion question;
  for (std::size_t i = 0; i < std::size(kRows); ++i) {
    question.servers[i] = page.Text(kRows[i].server);
    question.enabled[i] = page.Enabled(kRows[i].variance);
  }
  PageProgress progress(page);
  const ClockStatusResult result = CheckClockStatusOf(question, pacing, &progress);
  if (result.stopped) return 1;
  page.SetIcon(IDC_STATUS_ICON, result.icon, 16);
  page.SetText(IDC_STATUS_TEXT, result.line);
  return 1;
}

void UpdateSyncNowButton(platform::Dialog& page) {
  std::string source = page.Text(IDC_TIME_SOURCE).substr(0, 128);
  std::transform(source.begin(), source.end(), source.begin(), [](unsigned char c) { return char(std::tolower(c)); });
  const bool enable = g_applet_services.control(nullptr, g_applet.target, kServiceOpQuery, 0) &&
                      !page.Checked(IDC_SYNC_DISABLED) && !page.Checked(IDC_SYNC_NOSYNC) &&
                      source.find("checking") == std::string::npos && source.find("...") == std::string::npos;
  page.Enable(IDC_SYNC_NOW, enable);
}

std::string CurrentTimeSourceText() {
  // The agent applet is part of this module, so it is always present; "not installed" and
  // "disabled" come from the provider's registration.
  std::string text = "Unknown - Agent applet not present";
  const W32tSettings& s = g_applet.settings;
  if (!s.service_installed) {
    text = "Unknown - Agent applet not installed";
  } else if (s.provider_enabled) {
    char partner[256];
    reg_get_string(g_applet.reg, defaults::kProviderKey, defaults::kPartnerValue, partner, sizeof partner, "Unknown: no record");
    text = partner;
  } else {
    text = "Unknown - Agent disabled";
  }
  return text;
}

void ShowCurrentTimeSource(platform::Dialog& page) {
  const std::string text = CurrentTimeSourceText();
  if (page.Text(IDC_TIME_SOURCE) != text) page.SetText(IDC_TIME_SOURCE, text);
}

std::uint32_t StatusThread() {
  const platform::EventHandle events[] = {g_applet.status_stop, g_applet.status_check};
  for (;;) {
    const std::uint32_t r = platform::WaitForAnyEvent(events, 2, defaults::kStatusCheckPeriodMs);
    if (r == platform::kWaitObject0) break;
    platform::Dialog* page = g_status_page.load();
    if (!page) continue;
    CheckClockStatus(*page);
    UpdateSyncNowButton(*page);
    if (g_w32t_env.level > 2048) ShowCurrentTimeSource(*page);
  }
  return 0;
}

void StatusThreadEntry(void*) { StatusThread(); }
