// The clock status check behind the Client page: the status worker, which checks at start-up, on
// request and every 8 seconds, measures the target machine's clock, asks each server row by NTP and
// writes per-row variance and stratum texts, a status icon and line (the verdict), the current time
// source and the state of "&Sync Now" into the page's controls.
#pragma once
#include <atomic>
#include <cstdint>

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

// One check of the page's six rows and the verdict; polls the stop event between blocking steps.
// Returns 1.
int CheckClockStatus(platform::Dialog& page, const StatusPacing& pacing = {});
// "&Sync Now" enabled only when the time service runs on the target, the mode is neither Disabled
// nor NoSync and the time source text is not a "checking"/"..." one.
void UpdateSyncNowButton(platform::Dialog& page);
// The agent's current time source (the provider's "Current Inbound Time Partner"), set only when
// it changed.
void ShowCurrentTimeSource(platform::Dialog& page);
// The target's clock minus this machine's (100-ns units) by its network time-of-day service, or
// where the system has none, by its KR2 responder's UTC time; half the round trip is taken off.
// 1 on success, 0 on failure.
int RemoteTimeOffset(const char* machine, std::int64_t& offset);
// 1 if the control's text (128 characters), trimmed, is not empty.
int WindowHasText(const platform::Dialog& page, int id);
