// The agent check cycle.
#include "provider/agent.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/defaults.h"
#include "config/registry.h"
#include "config/service_control.h"
#include "config/w32time.h"
#include "platform/clock.h"
#include "drift/drift_file.h"
#include "drift/drift_record.h"
#include "provider/event_log.h"
#include "provider/kr2_responder.h"
#include "provider/provider.h"
#include "provider/sync_status.h"
#include "platform/error_text.h"
#include "timing/format.h"
#include "timing/ntp_client.h"
#include "timing/precise_clock.h"

namespace {
std::uint32_t LocalHardResync() { return TriggerResync(nullptr, nullptr, 0, kResyncHard); }
}  // namespace
std::uint32_t (*g_demand_resync)() = LocalHardResync;

namespace {

constexpr std::uint64_t kFileTime1900 = 94354848000000000ULL;   // 1900-01-01 00:00 UTC
constexpr std::uint32_t kProviderStratum = 4;
constexpr std::size_t kSourceEntries = 64;
constexpr std::size_t kSourceBytes = kSourceEntries * 8;
constexpr std::uint32_t kEventsWhilePollDue = 32;   // events the agent still takes while its poll is due

constexpr const char* kTextInitializing = "Unknown - Windows Time service initializing";
constexpr const char* kTextChecking = "Checking sources - please wait";
constexpr const char* kTextLost = "Unknown - Windows Time lost synchronization";
constexpr const char* kTextFailed = "Unknown - Windows Time synchronization failed";
constexpr const char* kTextStopped = "Unknown - Agent stopped";
constexpr const char* kTextNotManaging = "N/A - Windows Time not managing the clock";
char16_t kProviderWideName[] = u"Chronwarden";

// The settings as they are now, copied whole: TPC_UpdateConfig may replace them at any time, and
// one use never mixes two versions.
W32tSettings Settings() { return ProviderSettings(); }
Kr2Responder& Responder() { return g_provider.kr2; }
LocalStatusRecord& Status() { return g_provider.kr2.status(); }

bool g_drift_append_failing = false;   // the last check could not be recorded (logged once per run of failures)

// Records a check in the drift history; the first of a run of failures (a full disk) is logged.
void RecordCheck(std::int64_t ms, std::uint32_t at, std::uint32_t triggered, std::uint8_t reason, const char* server) {
  const bool written = DriftFileAppend(ms, at, triggered, reason, server, static_cast<std::uint8_t>(Status().product_code));
  if (!written && !g_drift_append_failing) {
    char text[256];
    SystemErrorText(platform::LastError(), text, sizeof text);
    for (std::size_t n = std::strlen(text); n && (text[n - 1] == ' ' || text[n - 1] == '\r' || text[n - 1] == '\n');) text[--n] = 0;
    LogEvent(kProviderName, platform::kEventLogError,
        "The clock check could not be recorded in the drift history %s: %s Checks go on, and are recorded again "
        "as soon as the file can be written.",
        DriftFilePath("").c_str(), text);
  }
  g_drift_append_failing = !written;
}

template <typename T>
T SysInfo(platform::TimeSysInfo what) {
  T value{};
  if (g_provider.callbacks.pfnGetTimeSysInfo) g_provider.callbacks.pfnGetTimeSysInfo(what, &value);
  return value;
}

std::uint32_t FileTimeSeconds(std::uint64_t file_time) {
  const std::int64_t s = FileTimeToUnixSeconds(file_time);
  return s < 0 ? 0 : s > 0xFFFFFFFFLL ? 0xFFFFFFFFu : static_cast<std::uint32_t>(s);
}

bool ManagesClock() {
  const W32tSettings s = Settings();
  return s.ntp_client_enabled && s.ntp_client_input_provider && s.sync_type != kW32tNoSync;
}

void SetChecking(bool on) {
  if (on) Status().status_flags |= kKr2StatusChecking;
  else Status().status_flags &= static_cast<std::uint8_t>(~kKr2StatusChecking);
}

void BindListenSocket(bool read) {
  const platform::SocketHandle socket = Responder().listen_socket();
  if (socket != platform::kInvalidSocket) platform::SelectSocketEvent(socket, g_provider.client_event, read);
}

void FreeStatusInfo(platform::SetProviderStatusInfo* info) {
  std::free(info->pHr);
  std::free(info->pdwSysStratum);
  std::free(info);
}

void ReportRunning() {
  if (!g_provider.callbacks.pfnSetProviderStatus) return;
  auto* info = static_cast<platform::SetProviderStatusInfo*>(std::calloc(1, sizeof(platform::SetProviderStatusInfo)));
  if (!info) return;
  info->tpsCurrentState = platform::TPS_Running;
  info->dwStratum = kProviderStratum;
  info->wszProvName = kProviderWideName;
  info->hWaitEvent = nullptr;
  info->pfnFree = FreeStatusInfo;
  info->pHr = static_cast<platform::HResult*>(std::calloc(1, sizeof(platform::HResult)));
  info->pdwSysStratum = static_cast<std::uint32_t*>(std::calloc(1, sizeof(std::uint32_t)));
  g_provider.callbacks.pfnSetProviderStatus(info);
}

// The 64 entries of "Last Used Time Source" (missing bytes read as 0).
std::array<std::uint32_t, kSourceEntries * 2> ReadSources() {
  std::array<std::uint32_t, kSourceEntries * 2> words{};
  reg_get_binary(reg_local(), kProviderKey, defaults::kLastUsedTimeSourceValue, words.data(), kSourceBytes);
  return words;
}

// Taking the partner after W32Time (re)synchronized.
void TakePartner(AgentCycle& cycle, std::uint32_t now, std::uint32_t reference_id, std::uint32_t flags) {
  LocalStatusRecord& st = Status();
  SetChecking(false);
  ++st.sync_verdicts;
  ++st.sync_successes;
  st.partner_time = now;
  cycle.last_reference_id = reference_id;
  st.partner_state = kKr2PartnerTaken;

  char name[256] = {};
  if (Settings().dns_lookups_enabled) platform::LookupAddressV4(reference_id, name, sizeof name);
  char dotted[16];
  FormatIPv4(reference_id, dotted);
  std::memset(st.partner_name, 0, sizeof st.partner_name);
  std::memcpy(st.partner_name, name[0] ? name : dotted, std::min(std::strlen(name[0] ? name : dotted), sizeof st.partner_name - 1));

  const char* suffix = flags == platform::TSF_Hardware ? " [hardware]" : flags == platform::TSF_Authenticated ? " [authenticated]" : "";
  char text[400];
  std::snprintf(text, sizeof text, "%s (%s)%s", dotted, name[0] ? name : "no name", suffix);
  WritePartnerText(text);
  RememberTimeSource(reference_id, now);
}

void CheckAfterPartner(AgentCycle& cycle) {
  if (!g_provider.responder_active) return;
  const std::uint32_t when = Status().partner_time;
  if (CheckAgainstSources(when, cycle.next_reason, 1)) cycle.last_check_time = when;
}

void StatusNotified() {
  if (!g_provider.status_block) return;   // no block: the pulses are not the provider's business
  const bool elsewhere = g_provider.status_block && g_provider.status_block->owner_active != 0;
  if (elsewhere && g_provider.responder_active) {
    BindListenSocket(false);
    Responder().CloseListenSocket();
    g_provider.responder_active = false;
  } else if (!elsewhere && !g_provider.responder_active) {
    g_provider.responder_active = Responder().CreateListenSocket();
    BindListenSocket(g_provider.responder_active);
  }
}

}  // namespace

void WritePartnerText(const char* text) {
  const bool replaceable = std::strcmp(text, kTextStopped) != 0 &&
                           (std::strncmp(text, "Unknown - ", 10) == 0 || std::strncmp(text, "Checking", 8) == 0);
  reg_set_string(reg_local(), kProviderKey, defaults::kPartnerValue,
                 replaceable && !ManagesClock() ? kTextNotManaging : text);
}

void RememberTimeSource(std::uint32_t reference_id, std::uint32_t when) {
  auto words = ReadSources();
  std::copy(words.begin() + 2, words.end(), words.begin());
  words[words.size() - 2] = reference_id;
  words[words.size() - 1] = when;
  reg_set_binary(reg_local(), kProviderKey, defaults::kLastUsedTimeSourceValue, words.data(), kSourceBytes);
}

bool CheckOneSource(const char* server, std::uint32_t when, std::uint8_t reason, std::uint32_t triggered) {
  const W32tSettings s = Settings();   // one version for the whole check
  BoostThreadPriority(1);
  SetTimerResolution(1);
  const NtpResult reply = NtpQuery({.server = server});
  SetTimerResolution(0);
  BoostThreadPriority(0);
  if (!reply.valid) return false;
  const std::uint32_t delay_ms = reply.delay_ms;
  const std::int64_t offset = reply.offset;

  const std::int64_t ms = offset / 10'000;
  LocalStatusRecord& st = Status();
  st.offset_sum_ms += ms;
  st.last_offset_ms = ms;
  const std::uint32_t at = when ? when : PreciseClockUnixSeconds();
  st.last_check = at;
  if (g_provider.responder_active) RecordCheck(ms, at, triggered, reason, server);

  // Built aside and published whole: the time service may ask for the current sample meanwhile
  // (its callbacks below among the moments it may).
  platform::TimeSample sample{};
  sample.dwSize = sizeof(platform::TimeSample);
  sample.dwRefid = platform::InetAddr(server);
  sample.toOffset = offset;
  sample.toDelay = static_cast<std::int64_t>(delay_ms) * 10'000;
  sample.nSysTickCount = SysInfo<std::uint64_t>(platform::TSI_TickCount);
  sample.nSysPhaseOffset = SysInfo<std::int64_t>(platform::TSI_PhaseOffset);
  sample.nStratum = 2;
  sample.dwTSFlags = platform::TSF_Authenticated;
  for (std::size_t i = 0; i < 255 && server[i]; ++i)
    sample.wszUniqueName[i] = static_cast<char16_t>(static_cast<unsigned char>(server[i]));
  ProviderPublishSample(sample, s.provider_input_provider != 0);

  if (s.alert_if_unsynchronized && s.alert_threshold && AbsInt64(ms) > std::int64_t{s.alert_threshold} * 1000) {
    char duration[128];
    FormatDurationMs(ms, duration, sizeof duration);
    LogEvent(kProviderName, platform::kEventLogError,
        "According to %s, the system clock is wrong by %s. This exceeds the alert threshhold set in the Windows Time "
        "Control Panel applet.",
        server, duration);
  }
  return true;
}

bool CheckAgainstSources(std::uint32_t when, std::uint8_t reason, std::uint32_t triggered) {
  const PreciseClockNeeded clock;   // the tick runs through the whole check, not per source
  const W32tSettings s = Settings();
  bool tried = false;
  if (s.reference_clock[0]) {
    if (CheckOneSource(s.reference_clock, when, reason, triggered)) return true;
    tried = true;
  }
  const auto words = ReadSources();
  std::array<std::uint32_t, kSourceEntries> checked{};
  std::size_t checked_count = 0;
  for (std::size_t i = kSourceEntries; i-- > 0;) {
    const std::uint32_t address = words[i * 2], time = words[i * 2 + 1];
    if (address == 0 || time == 0) continue;
    if (std::find(checked.begin(), checked.begin() + checked_count, address) != checked.begin() + checked_count) continue;
    char dotted[16];
    FormatIPv4(address, dotted);
    if (CheckOneSource(dotted, when, reason, triggered)) return true;
    tried = true;
    checked[checked_count++] = address;
  }
  for (std::uint32_t i = 0; i < s.server_count && i < kW32tMaxServers; ++i) {
    if (!s.servers[i].name[0]) continue;
    if (CheckOneSource(s.servers[i].name, when, reason, triggered)) return true;
    tried = true;
  }
  if (s.alert_if_unverified)
    LogEvent(kProviderName, platform::kEventLogWarning, "Unable to verify the system clock time; %s.",
        tried ? "no time sources specified in the Windows Time Control Panel applet, and none discovered by the "
                "Windows Time Service"
              : "all specified or auto-discovered time sources failed");
  return false;
}

void AgentStart(AgentCycle& cycle) {
  cycle = AgentCycle{};
  g_drift_append_failing = false;
  if (Settings().provider_input_provider) ReportRunning();
  LocalStatusRecord& st = Status();
  SetChecking(true);
  st.agent_start = PreciseClockUnixSeconds();
  st.last_check = 0;
  st.partner_state = kKr2PartnerStarting;
  WritePartnerText(kTextInitializing);
  if (g_provider.responder_active) {
    const bool ok = CheckAgainstSources(0, kReasonStartup, 0);
    cycle.last_check_time = ok ? PreciseClockUnixSeconds() : 0;
    BindListenSocket(true);
  }
}

void AgentPoll(AgentCycle& cycle) {
  const std::uint64_t current = SysInfo<std::uint64_t>(platform::TSI_CurrentTime);
  const std::uint64_t last_sync = SysInfo<std::uint64_t>(platform::TSI_LastSyncTime);
  const std::uint32_t flags = SysInfo<std::uint32_t>(platform::TSI_TSFlags);
  const std::uint32_t reference_id = SysInfo<std::uint32_t>(platform::TSI_ReferenceIdentifier);
  const std::uint8_t stratum = SysInfo<std::uint8_t>(platform::TSI_Stratum);
  (void)SysInfo<std::int8_t>(platform::TSI_PollInterval);
  const std::uint32_t now = FileTimeSeconds(current);
  const bool synchronized = last_sync > kFileTime1900 && stratum >= 2;

  if (synchronized == cycle.previous_synchronized) {
    if (!synchronized) {
      if (cycle.unsynchronized_polls++ == 18) {
        SetChecking(false);
        ++Status().sync_verdicts;
        ++Status().sync_failures;
        WritePartnerText(kTextFailed);
      }
      return;
    }
    if (reference_id != cycle.last_reference_id) {
      TakePartner(cycle, now, reference_id, flags);
      CheckAfterPartner(cycle);
    }
    const std::uint32_t interval = Settings().check_interval;
    if (g_provider.responder_active && interval && std::uint64_t{now} >= std::uint64_t{cycle.last_check_time} + interval) {
      cycle.last_check_time = now;
      CheckAgainstSources(now, kReasonSyncCheck, 0);
    }
    return;
  }
  if (synchronized) {
    TakePartner(cycle, now, reference_id, flags);
    CheckAfterPartner(cycle);
  } else {
    WritePartnerText(kTextLost);
  }
  cycle.unsynchronized_polls = 0;
  cycle.previous_synchronized = synchronized;
  cycle.next_reason = kReasonScheduled;
}

bool AgentWake(AgentCycle& cycle, std::uint32_t wait_result) {
  switch (wait_result) {
    case platform::kWaitObject0:   // shutdown
      return false;
    case platform::kWaitObject0 + 1:   // sync: a demand resync
      if (g_demand_resync && g_demand_resync() == 0) cycle.next_reason = kReasonControlPanel;
      else LogEvent(kProviderName, platform::kEventLogError, "Attempt to trigger a demand clock sync failed");
      break;
    case platform::kWaitObject0 + 2:   // the clock was stepped
      WritePartnerText(kTextChecking);
      SetChecking(true);
      cycle.unsynchronized_polls = 0;
      cycle.previous_synchronized = false;
      cycle.next_reason = kReasonTriggered;
      break;
    case platform::kWaitObject0 + 3:   // a KR2 request
      if (g_provider.responder_active) {
        Responder().HandleRequest(Responder().listen_socket(), Settings(), g_provider.sync_event);
        BindListenSocket(true);
      }
      break;
    case platform::kWaitObject0 + 4:
      StatusNotified();
      break;
    case platform::kWaitTimeout:
      AgentPoll(cycle);
      break;
    default:   // an I/O completion: wait again
      break;
  }
  return true;
}

void AgentStop() {
  WritePartnerText(kTextStopped);
  if (g_provider.responder_active) BindListenSocket(false);
  LocalStatusRecord& st = Status();
  SetChecking(false);
  st.agent_start = 0;
  st.last_check = 0;
  st.last_status_request = 0;
}

std::uint32_t AgentThreadMain() {
  AgentCycle cycle;
  AgentStart(cycle);
  const platform::EventHandle events[] = {g_provider.shutdown_event, g_provider.sync_event, g_provider.time_jump_event, g_provider.client_event,
                                          g_provider.status_notify_event};
  // The poll keeps its one-second pace however often requests wake the agent: the wait runs to the
  // next poll's time, not a full second from each wake-up, and a poll that is due comes after at
  // most kEventsWhilePollDue events, those already waiting. They keep checks longer than the poll's
  // pace (a silent server, a check every second) from starving the requests and the shutdown.
  // The status block's notify event wakes the agent once per poll at most: after it did, the agent
  // waits without it until the next poll. A pulse meanwhile is kept for then; a notify word left
  // set (a family program killed mid-pulse) costs one wake-up a poll instead of a busy loop.
  std::uint64_t next_poll = platform::CounterMilliseconds() + kAgentPollMs;
  std::uint32_t events_while_due = 0;
  bool notified = false;
  for (;;) {
    const std::uint64_t now = platform::CounterMilliseconds();
    const auto left = static_cast<std::uint32_t>(next_poll > now ? std::min<std::uint64_t>(next_poll - now, kAgentPollMs) : 0);
    std::uint32_t result = platform::kWaitTimeout;
    if (left || events_while_due < kEventsWhilePollDue) result = platform::WaitForAnyEvent(events, notified ? 4 : 5, left);
    if (!left) ++events_while_due;
    if (result == platform::kWaitFailed) {   // a missing event: keep polling at the same pace
      platform::Sleep(left);
      result = platform::kWaitTimeout;
    }
    if (result == platform::kWaitTimeout) {
      next_poll = platform::CounterMilliseconds() + kAgentPollMs;
      events_while_due = 0;
      notified = false;
    }
    if (result == platform::kWaitObject0 + 4) notified = true;
    if (!AgentWake(cycle, result)) break;
  }
  AgentStop();
  return 0;
}

void AgentThreadEntry(void*) { AgentThreadMain(); }
