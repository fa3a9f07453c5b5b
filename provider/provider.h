// The time provider's face towards the time service: the three entry points, start-up and
// shut-down, and the provider's process-wide state, the KR2 responder among it. Events are written
// through provider/event_log.h.
//
// The provider handle is the constant 1 for a running provider (0 for none); there is no
// per-handle state. Start-up and shut-down run on the service's threads, the agent thread
// (provider/agent.h) does the work in between. The two things both sides touch while the agent
// runs, the settings (reloaded by TPC_UpdateConfig) and the current sample (copied by
// TPC_GetSamples), are built aside and published under one lock: a reader copies them whole, never
// half of one and half of the next.
#pragma once
#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "config/defaults.h"
#include "config/w32time.h"
#include "platform/export.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "platform/timeprov.h"
#include "provider/kr2_responder.h"
#include "provider/sync_status.h"

inline constexpr const char* kProviderName = "Chronwarden";   // the provider's name and event source
// Shut-down waits this long in all for the agent and the precise clock's threads (ms), on the
// performance counter: under the fake clock a test moves it past a thread that does not end.
inline constexpr std::uint32_t kAgentStopWaitMs = 30'000;

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
  std::atomic<bool> responder_active;              // this process owns the KR2 listen socket (an agent left
                                                   // behind by shut-down still reads it)
  Kr2Responder kr2{kProviderName};                // the KR2 responder: built by start-up, then the agent's
  // Under lock only (ProviderSettings, ProviderPublishSettings, ProviderPublishSample,
  // ProviderCurrentSample); a test without an agent thread may touch them directly.
  std::mutex lock;
  platform::TimeSample current_sample;             // the agent's last sample
  bool sample_available;                           // TPC_GetSamples hands current_sample out
  W32tSettings settings;                           // loaded by start-up, reloaded by TPC_UpdateConfig
};
extern ProviderGlobals g_provider;

// The settings in use: a copy taken under the lock (any thread; the agent takes one per use).
W32tSettings ProviderSettings();
void ProviderPublishSettings(const W32tSettings& settings);   // replaces them whole
// Replaces the current sample whole; available: whether TPC_GetSamples hands it out.
void ProviderPublishSample(const platform::TimeSample& sample, bool available);
// Copies the current sample into out; false (out untouched) when none is available.
bool ProviderCurrentSample(platform::TimeSample& out);

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
// Copies the service's callbacks block and hands its event writer to provider/event_log.h.
void ProviderUseCallbacks(const platform::TimeProvSysCallbacks& callbacks);
