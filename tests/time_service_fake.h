// Test helper: the time service's side of the provider interface, scripted. Events the provider
// logs are kept as (type, source, text) in UTF-8; the system information answers from fields.
#pragma once
#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "platform/text.h"
#include "platform/timeprov.h"

struct LoggedEvent {
  std::uint16_t type;
  std::string source;
  std::string text;
};

struct TimeServiceFake {
  static inline std::mutex mutex;
  static inline std::vector<LoggedEvent> events;
  static inline std::uint64_t tick_count = 123'456'789;
  static inline std::int64_t phase_offset = -4'321;
  static inline std::atomic<int> sys_info_calls{0};   // questions asked so far (the agent's polls among them)

  static platform::HResult GetTimeSysInfo(platform::TimeSysInfo what, void* out) {
    ++sys_info_calls;
    switch (what) {
      case platform::TSI_TickCount: std::memcpy(out, &tick_count, 8); return 0;
      case platform::TSI_PhaseOffset: std::memcpy(out, &phase_offset, 8); return 0;
      default: return static_cast<platform::HResult>(0x80070057);   // E_INVALIDARG
    }
  }
  static platform::HResult LogTimeProvEvent(std::uint16_t type, char16_t* source, char16_t* text) {
    std::lock_guard lock(mutex);
    events.push_back({type, platform::WideToUtf8(source), platform::WideToUtf8(text)});
    return 0;
  }
  static platform::HResult AlertSamplesAvail() { return 0; }
  static platform::HResult SetProviderStatus(platform::SetProviderStatusInfo* info) {
    if (info && info->pfnFree) info->pfnFree(info);
    return 0;
  }
  static platform::TimeProvSysCallbacks Callbacks() {
    return {sizeof(platform::TimeProvSysCallbacks), &GetTimeSysInfo, &LogTimeProvEvent, &AlertSamplesAvail,
            &SetProviderStatus};
  }
  static std::vector<LoggedEvent> Events() {
    std::lock_guard lock(mutex);
    return events;
  }
  // The events other than the agent's "Unable to verify the system clock time" warning, which a
  // provider started without any time source writes at its start-up check.
  static std::vector<LoggedEvent> EventsBesidesUnverified() {
    std::vector<LoggedEvent> out;
    for (auto& e : Events())
      if (e.text.rfind("Unable to verify the system clock time", 0) != 0) out.push_back(e);
    return out;
  }
  static void Clear() {
    std::lock_guard lock(mutex);
    events.clear();
  }
};
