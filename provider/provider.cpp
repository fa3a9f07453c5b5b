// Provider entry points, start-up and shut-down.
#include "provider/provider.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <thread>
#include <cstring>
#include <string>

#include "config/os_identify.h"
#include "config/defaults.h"
#include "config/registry.h"
#include "drift/drift_file.h"
#include "platform/clock.h"
#include "platform/error.h"
#include "platform/net.h"
#include "platform/text.h"
#include "provider/agent.h"
#include "provider/event_log.h"
#include "platform/error_text.h"
#include "timing/precise_clock.h"

ProviderGlobals g_provider{};

namespace {

constexpr std::uint32_t kErrorTextSize = 128;   // the last error's text in start-up events
constexpr std::uint32_t kStopLookMs = 10;       // shut-down looks at its deadline this often while it waits (ms)

// lstrcmpiW for the provider's name: case ignored for the ASCII letters.
bool SameNameIgnoringCase(const char16_t* wide, const char* narrow) {
  auto fold = [](char32_t c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; };
  for (; *wide && *narrow; ++wide, ++narrow)
    if (fold(*wide) != fold(static_cast<unsigned char>(*narrow))) return false;
  return *wide == 0 && *narrow == 0;
}

const char* LastErrorText(char (&buf)[kErrorTextSize]) {
  return SystemErrorText(platform::LastError(), buf, kErrorTextSize);
}

// Steps 7 to 10: an event that exists is kept; a failure writes the event named.
bool MakeEvent(platform::EventHandle& event, bool manual_reset, const char* what) {
  if (event) return true;
  event = platform::CreateSyncEvent(manual_reset, false);
  if (event) return true;
  char text[kErrorTextSize];
  LogEvent(kProviderName, platform::kEventLogError, "Could not create %s; %s", what, LastErrorText(text));
  return false;
}

void CloseHandleOf(platform::EventHandle& event) {
  platform::CloseEvent(event);
  event = nullptr;
}

}  // namespace

W32tSettings ProviderSettings() {
  std::lock_guard hold(g_provider.lock);
  return g_provider.settings;
}

void ProviderPublishSettings(const W32tSettings& settings) {
  std::lock_guard hold(g_provider.lock);
  g_provider.settings = settings;
}

void ProviderPublishSample(const platform::TimeSample& sample, bool available) {
  std::lock_guard hold(g_provider.lock);
  g_provider.current_sample = sample;
  g_provider.sample_available = available;
}

bool ProviderCurrentSample(platform::TimeSample& out) {
  std::lock_guard hold(g_provider.lock);
  if (!g_provider.sample_available) return false;
  out = g_provider.current_sample;
  return true;
}

void ProviderUseCallbacks(const platform::TimeProvSysCallbacks& callbacks) {
  std::memcpy(&g_provider.callbacks, &callbacks, sizeof g_provider.callbacks);
  SetEventLogWriter(g_provider.callbacks.pfnLogTimeProvEvent);
}

bool ProviderStartup() {
  ProviderGlobals& p = g_provider;
  char text[kErrorTextSize];
  w32t_secure_keys(reg_local());                                   // 1
  w32t_environment_init(reg_local());                              // 2
  // The responder answers for this system: its OS level and family (the installed-product
  // record's bits, the time-zone value's name, resync refused on Windows 2000).
  p.kr2.SetSystem({.nt_family = g_os.version.platform_id == 2,
                    .win9x_family = g_os.version.platform_id == 1,
                    .os_level = g_w32t_env.level});
  W32tSettings settings{};
  if (const std::uint32_t st = w32t_load(reg_local(), settings)) {   // 3: a damaged store is no set of defaults
    LogEvent(kProviderName, platform::kEventLogError, "Could not read the time service settings; %s",
             SystemErrorText(st, text, sizeof text));
    return false;
  }
  ProviderPublishSettings(settings);
  reg_set_string(reg_local(), kProviderKey, "Current Version", defaults::kProductVersion);   // 4
  reg_set_bool(reg_local(), kProviderKey, "Service Running", 0);
  if (w32t_forced_disable(reg_local())) return false;              // 5: a product of the family takes over, silently
  if (!p.winsock_started) {                             // 6
    const int code = platform::NetStartup();
    if (code != 0) {
      LogEvent(kProviderName, platform::kEventLogError, "Could not initialize winsock subsystem; %s",
               SocketErrorText(static_cast<std::uint32_t>(code), text, sizeof text));
      return false;
    }
    p.winsock_started = true;
  }
  if (!MakeEvent(p.shutdown_event, true, "shutdown event") ||                  // 7
      !MakeEvent(p.sync_event, false, "sync event") ||                         // 8
      !MakeEvent(p.time_jump_event, false, "timejump notification event") ||   // 9
      !MakeEvent(p.client_event, false, "client event"))                       // 10
    return false;
  platform::SetProcessPriorityNormal();                 // 11
  PreciseClockStart(p.shutdown_event);                  // 12
  p.kr2.InitLocalStatusRecord();                        // 13
  p.kr2.BuildIdentityRecord();                          // 14
  OpenActivityMap();                                    // 15
  p.kr2.BuildProhibited();                              // 16
  // 17: the installed-product record is built by the responder when it answers.
  platform::EventHandle notify = nullptr;
  p.status_block = OpenSyncStatus(0, &notify);          // 18
  // 19; a second start-up keeps the socket the running agent serves (a new one would leave it deaf).
  if (!p.responder_active)
    p.responder_active = p.status_block && p.status_block->owner_active == 0 && p.kr2.CreateListenSocket();
  if (notify) {                                         // 20
    p.status_notify_event = notify;
  } else if (!p.status_notify_event) {
    p.status_notify_event = platform::CreateSyncEvent(false, false);
    p.status_notify_private = true;
  }
  const std::string drift_path = std::string(g_w32t_env.system_dir) + defaults::kDriftFileName;   // 21
  if (!DriftFileOpenPath(drift_path))
    LogEvent(kProviderName, platform::kEventLogWarning,
             "Unable to open %s%s to collect drift records; the service will continue running, but historical "
             "drift data will not be available. Error: %s",
             g_w32t_env.system_dir, defaults::kDriftFileName, LastErrorText(text));
  if (!p.agent_thread) {                                // 22
    p.agent_thread = platform::CreateThreadSuspended(AgentThreadEntry, nullptr);
    if (!p.agent_thread) {
      LogEvent(kProviderName, platform::kEventLogError, "Could not create client thread; %s", LastErrorText(text));
      return false;
    }
    platform::ResumeThread(p.agent_thread);
  }
  reg_set_bool(reg_local(), kProviderKey, "Service Running", 1);     // 23
  return true;
}

void ProviderShutdown() {
  ProviderGlobals& p = g_provider;
  // An agent that did not end in time still holds the events it waits on: they are left to it
  // (the shutdown event set, so that it ends when it next waits) rather than closed under it, where
  // its next wait would read freed memory. Their handles are forgotten, never reused.
  bool agent_left = false;
  const auto close_or_leave = [&agent_left](platform::EventHandle& event) {
    if (agent_left) event = nullptr;
    else CloseHandleOf(event);
  };
  if (p.shutdown_event) {                               // 1
    // One 30 s wait in all for the agent and the precise clock's thread, which both end on the
    // shutdown event: shut-down never takes longer. Measured on the performance counter, so that
    // under the fake clock the time passes only when a test moves it (the waits themselves are real).
    const std::uint64_t give_up = platform::CounterMilliseconds() + kAgentStopWaitMs;
    const auto time_left = [give_up] {
      const std::uint64_t now = platform::CounterMilliseconds();
      return now < give_up ? static_cast<std::uint32_t>(give_up - now) : 0u;
    };
    platform::SetEvent(p.shutdown_event);
    if (p.agent_thread) {
      for (std::uint32_t left = time_left();; left = time_left()) {
        if (platform::WaitForThread(p.agent_thread, std::min(left, kStopLookMs))) break;
        if (left == 0) {
          agent_left = true;
          break;
        }
      }
      platform::CloseThread(p.agent_thread);
      p.agent_thread = nullptr;
    }
    while (PreciseClockThreadCount() != 0 && time_left() != 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    // A clock thread still waiting keeps the event: closed under it, the wait would read freed memory.
    if (PreciseClockThreadCount() == 0) close_or_leave(p.shutdown_event);
    else p.shutdown_event = nullptr;
  }
  if (p.status_notify_private) close_or_leave(p.status_notify_event);   // 2
  p.status_notify_event = nullptr;
  p.status_notify_private = false;
  p.kr2.CloseListenSocket();                            // 3
  p.responder_active = false;
  DriftFileClose();                                     // 4
  CloseSyncStatus(false);                               // 5
  p.status_block = nullptr;
  CloseActivityMap();                                   // 6
  close_or_leave(p.sync_event);                         // 7
  close_or_leave(p.time_jump_event);
  close_or_leave(p.client_event);
  if (p.winsock_started) {                              // 8
    platform::NetCleanup();
    p.winsock_started = false;
  }
  reg_set_bool(reg_local(), kProviderKey, "Service Running", 0);     // 9
}

platform::HResult TimeProvOpen(char16_t* name, platform::TimeProvSysCallbacks* callbacks,
                               platform::TimeProvHandle* handle) {
  if (!name || !SameNameIgnoringCase(name, kProviderName)) {
    if (handle) *handle = nullptr;
    return 0;
  }
  if (callbacks) ProviderUseCallbacks(*callbacks);
  const bool started = ProviderStartup();
  if (!started) ProviderShutdown();
  if (handle) *handle = reinterpret_cast<platform::TimeProvHandle>(started ? 1 : 0);
  return 0;
}

platform::HResult TimeProvCommand(platform::TimeProvHandle, platform::TimeProvCmd command, void* args) {
  switch (command) {
    case platform::TPC_TimeJumped:
      platform::SetEvent(g_provider.time_jump_event);
      return 0;
    case platform::TPC_UpdateConfig: {
      // A store that cannot be read keeps the settings last loaded, and says why. They are read
      // aside, then published whole: the agent reads them meanwhile.
      W32tSettings loaded = ProviderSettings();
      if (const std::uint32_t st = w32t_load(reg_local(), loaded)) {
        char text[kErrorTextSize];
        LogEvent(kProviderName, platform::kEventLogError,
                 "Could not read the time service settings; the last ones read stay in use. %s",
                 SystemErrorText(st, text, sizeof text));
      } else {
        ProviderPublishSettings(loaded);
      }
      return 0;
    }
    case platform::TPC_GetSamples: {
      auto* a = static_cast<platform::TpcGetSamplesArgs*>(args);
      if (!a) return 0;
      // The service always offers room for one sample. Copied under the lock the agent publishes
      // under: never a sample the agent is writing.
      platform::TimeSample sample;
      if (ProviderCurrentSample(sample)) {
        a->dwSamplesReturned = a->dwSamplesAvailable = 1;
        std::memcpy(a->pbSampleBuf, &sample, sizeof sample);
      } else {
        a->dwSamplesReturned = a->dwSamplesAvailable = 0;
      }
      return 0;
    }
    case platform::TPC_PollIntervalChanged:
    case platform::TPC_NetTopoChange:
    case platform::TPC_Query:
    case platform::TPC_Shutdown:   // all tearing down happens in TimeProvClose
      return 0;
  }
  return platform::kErrorInvalidParameter;
}

platform::HResult TimeProvClose(platform::TimeProvHandle handle) {
  if (reinterpret_cast<std::uintptr_t>(handle) == 1) ProviderShutdown();
  return 0;
}
