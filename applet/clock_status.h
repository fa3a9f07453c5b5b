// The clock status check behind the Client page: the status worker, which checks at start-up, on
// request and every 8 seconds, measures the target machine's clock, asks each server row by NTP and
// writes per-row variance and stratum texts, a status icon and line (the verdict), the current time
// source and the state of "&Sync Now" into the page's controls.
#pragma once
#include <atomic>
#include <cstdint>
#include <string>

#include "config/defaults.h"
#include "platform/dialog.h"

// The page the status worker writes to (the Client page sets it while it exists; nullptr: none).
extern std::atomic<platform::Dialog*> g_status_page;

// The status worker (the launch creates it suspended, the Client page resumes it): waits up to
// 8,000 ms for the stop or the check-now event of g_applet and checks, until the stop event.
std::uint32_t StatusThread();
void StatusThreadEntry(void*);

// How a check paces itself. The page asks the target, then each row in turn, and pauses after
// each answered row so that its result stays readable while the next is asked; the command line
// asks the target and every row at once and writes the same texts without pausing.
struct StatusPacing {
  bool all_at_once = false;
  std::uint32_t row_pause_ms = defaults::kStatusRowPauseMs;   // after each answered row
};
inline constexpr StatusPacing kStatusAllAtOnce{true, 0};

// What one check found: each row's stratum and variance texts as the page shows them, and the
// verdict. Every face (the Client page, `chronwarden status`, `chronwarden server test`, the Cockpit
// page through the sheet) draws this record; none reads it back from a page's controls.
struct ClockStatusRow {
  std::string server;     // the row's server, trimmed; "" for an empty row
  bool asked = false;     // false: the row is empty or disabled, its texts are left as they were
  std::string stratum;    // "3", or "-" without an answer
  std::string variance;   // "+0.012 secs" (" ???" added when the target's time is unknown), "Timed out", ...
};
struct ClockStatusResult {
  ClockStatusRow rows[6];
  int icon = 0;           // IDI_STATUS_SYNCED, _OFF, _BAD or _UNKNOWN
  std::string line;       // "Clock synchronized to within 1 second", ...
  bool stopped = false;   // the stop event ended the check before its verdict
};
// The rows to ask: each server name (trimmed here), and whether the row may be asked at all.
struct ClockStatusQuestion {
  std::string servers[6];
  bool enabled[6] = {true, true, true, true, true, true};
};
// Told of a check's progress, so that a page can show each row as it is asked and answered.
struct ClockStatusProgress {
  virtual ~ClockStatusProgress() = default;
  virtual void Started() {}
  virtual void RowAsked(int /*row 0-5*/, const ClockStatusRow&) {}
  virtual void RowAnswered(int /*row 0-5*/, const ClockStatusRow&) {}
};
// One check of the six rows against g_applet's target and the verdict; polls the stop event
// between blocking steps (result.stopped when it ended the check).
ClockStatusResult CheckClockStatusOf(const ClockStatusQuestion& question, const StatusPacing& pacing = {},
                                     ClockStatusProgress* progress = nullptr);
// The same check drawn on the Client page: the rows' servers and enabled states come from the page,
// each row is marked while it is asked, and the texts, icon and line are written as they come.
// Returns 1.
int CheckClockStatus(platform::Dialog& page, const StatusPacing& pacing = {});
// "&Sync Now" enabled only when the time service runs on the target, the mode is neither Disabled
// nor NoSync and the time source text is not a "checking"/"..." one.
void UpdateSyncNowButton(platform::Dialog& page);
// The agent's current time source (the provider's "Current Inbound Time Partner", or why there is
// none) for g_applet's target.
std::string CurrentTimeSourceText();
// The same on the page, set only when it changed.
void ShowCurrentTimeSource(platform::Dialog& page);
// The target's clock minus this machine's (100-ns units) by its network time-of-day service, or
// where the system has none, by its KR2 responder's UTC time; half the round trip is taken off.
// 1 on success, 0 on failure.
int RemoteTimeOffset(const char* machine, std::int64_t& offset);
// 1 if the control's text (128 characters), trimmed, is not empty.
int WindowHasText(const platform::Dialog& page, int id);
