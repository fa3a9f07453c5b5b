// The time provider's face towards the time service: the three entry points, start-up and
// shut-down, the provider's process-wide state and the one event-log writer of the service side.
//
// The provider handle is the constant 1 for a running provider (0 for none); there is no
// per-handle state. Start-up and shut-down run on the service's threads, the agent thread
// (provider/agent.h) does the work in between.
#pragma once
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdint>

#include "config/defaults.h"
#include "config/w32time.h"
#include "platform/export.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "platform/timeprov.h"
#include "provider/sync_status.h"

inline constexpr const char* kProviderName = "Chronwarden";   // the provider's name and event source
inline constexpr std::uint32_t kKr2CommandCount = 256;
// Shut-down waits this long in all for the agent and the precise clock's threads (ms), on the
// performance counter: under the fake clock a test moves it past a thread that does not end.
inline constexpr std::uint32_t kAgentStopWaitMs = 30'000;
inline constexpr std::uint32_t kEventTextMax = 509;           // event texts are cut to this many characters
inline constexpr std::uint32_t kEventWideMax = 1024;          // wide buffer of an event text (characters)

// Registry paths (absolute, through config/registry.h).
using defaults::kProviderKey;
using defaults::kW32TimeParametersKey;

// The provider's process-wide state: written by start-up and shut-down only, unless stated.
struct ProviderGlobals {
  platform::TimeProvSysCallbacks callbacks;        // the service's block, copied by TimeProvOpen
  bool winsock_started;
  platform::EventHandle shutdown_event;            // manual reset: shut-down; also stops the precise clock
  platform::EventHandle sync_event;                // auto reset: a peer asked for a clock sync
  platform::EventHandle time_jump_event;           // auto reset: TPC_TimeJumped
  platform::EventHandle client_event;              // auto reset: the listen socket has a request
  platform::EventHandle status_notify_event;       // the status block's notify event, or the private one
  bool status_notify_private;                      // status_notify_event is ours to close
  const SyncStatusBlock* status_block;             // read-only view, or nullptr
  platform::ThreadHandle agent_thread;
  bool responder_active;                           // this process owns the KR2 listen socket
  platform::TimeSample current_sample;             // written by the agent, copied by TPC_GetSamples without a lock
  std::atomic<bool> sample_available;
  std::array<std::uint8_t, kKr2CommandCount> prohibited;   // KR2 commands: 0 allowed
  W32tSettings settings;                           // reloaded in place by TPC_UpdateConfig
};
extern ProviderGlobals g_provider;

// The exported entry points (C linkage). Each returns S_OK (0) unless stated.
// Starts the provider when name is "Chronwarden" (case ignored): *handle 1 when it runs, 0 when the
// name is another or start-up failed (then nothing is left behind).
CW_EXPORT platform::HResult TimeProvOpen(char16_t* name, platform::TimeProvSysCallbacks* callbacks,
                                         platform::TimeProvHandle* handle);
// TPC_TimeJumped sets the time-jump event, TPC_UpdateConfig reloads the settings, TPC_GetSamples
// copies the current sample (one or none); 2, 4, 5 and 6 do nothing; other codes give 87.
CW_EXPORT platform::HResult TimeProvCommand(platform::TimeProvHandle handle, platform::TimeProvCmd command, void* args);
// Runs shut-down when handle is 1.
CW_EXPORT platform::HResult TimeProvClose(platform::TimeProvHandle handle);

bool ProviderStartup();    // every start-up step in order; false at the first failing one (event written)
void ProviderShutdown();   // every shut-down step in order; tolerates a start-up that stopped anywhere

// Writes an event through the service: printf-style text cut at 509 characters, "\r\n" appended,
// widened, handed to pfnLogTimeProvEvent with source as the provider name. type: 1 error, 2 warning.
void LogEvent(const char* source, std::uint16_t type, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Builds the KR2 prohibited-command table from "Prohibited KR2 Commands" (W32Time Parameters).
void BuildProhibitedTable(std::array<std::uint8_t, kKr2CommandCount>& table);
bool IsKnownKr2Command(std::uint32_t code);   // one of the 35 commands of the protocol
