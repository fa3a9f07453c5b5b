// The time service's part for providers loaded into chronwarden-host: the service callbacks
// (system information from chronyd's tracking state, falling back to the kernel clock; events to
// the system log), and loading, commanding and closing the enabled providers of the store's
// ...\W32Time\TimeProviders key.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "config/defaults.h"
#include "platform/module.h"
#include "platform/timeprov.h"

inline constexpr const char* kHostIdent = "chronwarden-host";   // the host's own system-log identifier
inline constexpr std::uint32_t kTrackingCacheMs = 500;          // one chronyd exchange serves this long (ms)
using defaults::kTimeProvidersKey;

void HostSetChronySocket(const std::string& path);   // chronyd's command socket
platform::TimeProvSysCallbacks HostCallbacks();      // the 40-byte block handed to TimeProvOpen
// pfnGetTimeSysInfo: 0 and the value in *out (its type per TimeSysInfo), or E_INVALIDARG.
platform::HResult HostGetTimeSysInfo(platform::TimeSysInfo what, void* out);
bool HostChronyAnswered();                           // the last information came from chronyd

struct LoadedProvider {
  std::string name;                        // the provider's key name
  std::string path;                        // the module file
  platform::ModuleHandle module = nullptr;
  platform::TimeProvCommandFunc* command = nullptr;
  platform::TimeProvCloseFunc* close = nullptr;
  platform::TimeProvHandle handle = nullptr;
};

// Loads and opens every provider whose "Enabled" is non-zero, by its "DllName" (a bare file name is
// looked for in the system directory). Providers that cannot be loaded or decline are logged and left out.
std::vector<LoadedProvider> HostLoadProviders();
void HostCommand(std::vector<LoadedProvider>& providers, platform::TimeProvCmd command, void* args);
void HostPollSamples(std::vector<LoadedProvider>& providers);   // TPC_GetSamples of each, logged
void HostCloseProviders(std::vector<LoadedProvider>& providers);
void HostLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));   // as the host
