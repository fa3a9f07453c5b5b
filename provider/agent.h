// The agent check cycle: the provider's one worker thread. Once a second it asks the time service
// (through its callbacks) whether the clock is synchronized and to whom, publishes the answer as
// "Current Inbound Time Partner" and in the local sync status record, and whenever the service
// newly synchronizes (and again at the check interval) it checks the clock against a reference
// NTP server: a drift record, the source history "Last Used Time Source", a time sample for the
// service, and an event-log alert when the clock is off by more than the threshold. The same
// thread answers KR2 requests (provider/kr2_responder.h) and demand resyncs.
//
// The thread works on the provider's process-wide state (provider/provider.h: callbacks, events,
// settings, the current sample) and the responder's (provider/kr2_responder.h: the listen socket,
// the local status record); start-up fills them before it creates the thread. The settings are
// copied whole for each use and each sample is built aside, then published (the time service's
// threads reload the one and copy the other meanwhile). The pieces of one pass (AgentStart, AgentWake,
// AgentStop) are exposed so that tests drive the cycle one poll at a time without a thread.
//
// Two warning texts are deliberately swapped: when no source answered, the warning says "no time
// sources specified ..." if at least one source was tried and "all specified or auto-discovered
// time sources failed" if none was. Kept so for compatibility with existing event-log watchers.
#pragma once
#include <cstdint>

#include "drift/drift_record.h"

inline constexpr std::uint32_t kAgentPollMs = 1000;   // the agent polls the time service this often (ms)

// The demand resync the agent asks for when the sync event fires: a hard resync of the local time
// service, not waited for; 0 when the service accepted it. Tests put a script of their own here.
extern std::uint32_t (*g_demand_resync)();

// The cycle's own state (one per agent thread).
struct AgentCycle {
  bool previous_synchronized = false;
  std::uint32_t unsynchronized_polls = 0;
  std::uint8_t next_reason = kReasonScheduled;   // the drift record's reason code of the next check
  std::uint32_t last_reference_id = 0xFFFFFFFF;
  std::uint32_t last_check_time = 0;             // seconds since 1970: the base of scheduled checks
};

// The thread procedure; returns 0.
std::uint32_t AgentThreadMain();
void AgentThreadEntry(void*);      // the thread function handed to the platform
// Thread start: registers with the service, marks the status record, the first partner text, the
// start-up check (reason 255) and the listen socket's binding.
void AgentStart(AgentCycle& cycle);
// One wake-up of the main loop: wait_result is the index of the event (0 shutdown ... 4 status
// notify, as platform::kWaitObject0 + i) or platform::kWaitTimeout for a poll. False on shutdown.
bool AgentWake(AgentCycle& cycle, std::uint32_t wait_result);
// One poll of the time service (what a time-out does).
void AgentPoll(AgentCycle& cycle);
// Thread end: "Unknown - Agent stopped", unbinds the socket, clears the running fields.
void AgentStop();

// Checks the reference sources in order (the reference clock, the last-used sources newest first,
// the configured servers); true when one answered. when: seconds since 1970 to record (0: now).
bool CheckAgainstSources(std::uint32_t when, std::uint8_t reason, std::uint32_t triggered);
// One agent check against server (a host name or dotted address); true when it answered.
bool CheckOneSource(const char* server, std::uint32_t when, std::uint8_t reason, std::uint32_t triggered);
// Appends (reference id in network order, seconds since 1970) to "Last Used Time Source".
void RememberTimeSource(std::uint32_t reference_id, std::uint32_t when);
// Writes "Current Inbound Time Partner"; the "Unknown - ..." and "Checking ..." texts (not
// "Unknown - Agent stopped") become "N/A - Windows Time not managing the clock" when the time
// service does not manage the clock.
void WritePartnerText(const char* text);
