// The service callbacks and the providers' lifecycle inside the host.
#include "host/time_service.h"

#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "config/registry.h"
#include "config/service_control.h"
#include "host/chrony.h"
#include "platform/clock.h"
#include "platform/host.h"
#include "platform/net.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/text.h"
#include "timing/precise_clock.h"

namespace {

constexpr platform::HResult kInvalidArg = static_cast<platform::HResult>(0x80070057);   // E_INVALIDARG
constexpr int kLogError = 3, kLogWarning = 4, kLogInfo = 6;

std::mutex g_lock;   // the cache below; providers ask from their own threads
std::string g_chrony_socket;
std::chrono::steady_clock::time_point g_fetched{};
bool g_have = false;
bool g_from_chrony = false;
ChronyTracking g_tracking;
platform::host::KernelClock g_kernel;

// Refreshes the cached state when it is older than the cache time.
void Refresh() {
  const auto now = std::chrono::steady_clock::now();
  if (g_have && now - g_fetched < std::chrono::milliseconds(kTrackingCacheMs)) return;
  g_fetched = now;
  g_have = true;
  g_from_chrony = ChronyQueryTracking(g_chrony_socket.c_str(), g_tracking);
  if (!g_from_chrony) platform::host::ReadKernelClock(g_kernel);
}

template <typename T>
platform::HResult Answer(void* out, T value) {
  std::memcpy(out, &value, sizeof value);
  return 0;
}

std::int64_t To100ns(double seconds) { return std::llround(seconds * 1e7); }

std::int8_t Log2Seconds(double seconds) {
  return seconds > 0 ? static_cast<std::int8_t>(std::lround(std::log2(seconds))) : 0;
}

platform::HResult LogTimeProvEvent(std::uint16_t type, char16_t* source, char16_t* message) {
  std::string text = platform::WideToUtf8(message);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  const int level = type == 1 ? kLogError : type == 2 ? kLogWarning : kLogInfo;
  platform::host::SystemLog(platform::WideToUtf8(source).c_str(), level, text.c_str());
  return 0;
}

platform::HResult AlertSamplesAvail() { return 0; }   // samples are fetched on the host's own poll

platform::HResult SetProviderStatus(platform::SetProviderStatusInfo* info) {
  if (!info) return kInvalidArg;
  HostLog(kLogInfo, "%s reports %s at stratum %u", platform::WideToUtf8(info->wszProvName).c_str(),
          info->tpsCurrentState == platform::TPS_Running ? "running" : "an error", info->dwStratum);
  if (info->pHr) *info->pHr = 0;
  if (info->pdwSysStratum) {
    std::uint8_t stratum = 0;
    HostGetTimeSysInfo(platform::TSI_Stratum, &stratum);
    *info->pdwSysStratum = stratum;
  }
  if (info->pfnFree) info->pfnFree(info);
  return 0;
}

}  // namespace

void HostLog(int level, const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  platform::host::SystemLog(kHostIdent, level, text);
}

void HostSetChronySocket(const std::string& path) {
  std::lock_guard lock(g_lock);
  g_chrony_socket = path;
  g_have = false;
}

bool HostChronyAnswered() {
  std::lock_guard lock(g_lock);
  return g_from_chrony;
}

platform::HResult HostGetTimeSysInfo(platform::TimeSysInfo what, void* out) {
  if (!out) return kInvalidArg;
  std::lock_guard lock(g_lock);
  switch (what) {
    case platform::TSI_TickCount: return Answer<std::uint64_t>(out, platform::host::BootTime100ns());
    case platform::TSI_CurrentTime: return Answer<std::uint64_t>(out, platform::FineWallTimeAsFileTime());
    case platform::TSI_ClockTickSize:
    case platform::TSI_ClockPrecision: {
      std::uint32_t adjustment = 0, increment = 0;
      bool disabled = false;
      platform::SystemTimeAdjustment(adjustment, increment, disabled);
      if (what == platform::TSI_ClockTickSize) return Answer<std::uint64_t>(out, increment);
      return Answer<std::int8_t>(out, Log2Seconds(increment * 1e-7));
    }
    default: break;
  }
  Refresh();
  const ChronyTracking& t = g_tracking;
  const platform::host::KernelClock& k = g_kernel;
  const bool c = g_from_chrony;
  switch (what) {
    case platform::TSI_LastSyncTime: {
      std::uint64_t ft = 0;
      if (c && t.ref_time_s > 0)
        ft = kFileTimeOf1970 + static_cast<std::uint64_t>(t.ref_time_s) * 10'000'000 + t.ref_time_ns / 100;
      else if (!c && k.synchronized)
        ft = platform::FineWallTimeAsFileTime();   // the kernel only says it is synchronized now
      return Answer<std::uint64_t>(out, ft);
    }
    case platform::TSI_PhaseOffset: return Answer<std::int64_t>(out, c ? To100ns(t.current_correction_s) : k.offset_100ns);
    case platform::TSI_LeapFlags: return Answer<std::uint8_t>(out, static_cast<std::uint8_t>(c ? t.leap : k.leap));
    case platform::TSI_Stratum:
      return Answer<std::uint8_t>(out, static_cast<std::uint8_t>(c ? t.stratum : k.synchronized ? 0 : 16));
    case platform::TSI_ReferenceIdentifier:
      return Answer<std::uint32_t>(out, c ? (t.ipv4 ? t.ipv4 : platform::HostToNet32(t.ref_id)) : 0);
    case platform::TSI_PollInterval:
      return Answer<std::int8_t>(out, c ? Log2Seconds(t.last_update_interval_s) : static_cast<std::int8_t>(k.constant + 4));
    case platform::TSI_RootDelay: return Answer<std::int64_t>(out, c ? To100ns(t.root_delay_s) : 0);
    case platform::TSI_RootDispersion:
      return Answer<std::uint64_t>(out, static_cast<std::uint64_t>(c ? To100ns(t.root_dispersion_s) : k.max_error_us * 10LL));
    case platform::TSI_TSFlags: return Answer<std::uint32_t>(out, 0);
    default: return kInvalidArg;
  }
}

platform::TimeProvSysCallbacks HostCallbacks() {
  return {sizeof(platform::TimeProvSysCallbacks), &HostGetTimeSysInfo, &LogTimeProvEvent, &AlertSamplesAvail,
          &SetProviderStatus};
}

std::vector<LoadedProvider> HostLoadProviders() {
  std::vector<LoadedProvider> loaded;
  for (const std::string& n : TimeProviderNames(reg_local())) {
    const std::string provider_key = std::string(kTimeProvidersKey) + "\\" + n;
    if (reg_get_dword(reg_local(), provider_key.c_str(), "Enabled", 0) == 0) continue;
    char dll[260];
    reg_get_string(reg_local(), provider_key.c_str(), "DllName", dll, sizeof dll, "");
    // The time service's built-in providers (NtpClient, NtpServer: no module, or its own
    // w32time.dll) are chronyd's part here.
    if (!HostLoadsProviderModule(dll)) {
      HostLog(kLogInfo, "time provider %s: built into the time service; chronyd plays it", n.c_str());
      continue;
    }
    LoadedProvider p;
    p.name = n;
    const bool bare = !std::strchr(dll, '\\') && !std::strchr(dll, '/');
    p.path = bare ? platform::NativePath(platform::SystemDirectory() + "\\" + dll) : platform::NativePath(dll);
    p.module = platform::LoadModule(p.path.c_str());
    if (!p.module) {
      HostLog(kLogWarning, "time provider %s: cannot load %s: %s", n.c_str(), p.path.c_str(),
              platform::ModuleError().c_str());
      continue;
    }
    auto* open = reinterpret_cast<platform::TimeProvOpenFunc*>(platform::ModuleSymbol(p.module, "TimeProvOpen"));
    p.command = reinterpret_cast<platform::TimeProvCommandFunc*>(platform::ModuleSymbol(p.module, "TimeProvCommand"));
    p.close = reinterpret_cast<platform::TimeProvCloseFunc*>(platform::ModuleSymbol(p.module, "TimeProvClose"));
    if (!open || !p.command || !p.close) {
      HostLog(kLogWarning, "time provider %s: %s lacks the provider entry points", n.c_str(), p.path.c_str());
      platform::UnloadModule(p.module);
      continue;
    }
    std::u16string wide(n.begin(), n.end());
    platform::TimeProvSysCallbacks callbacks = HostCallbacks();
    const platform::HResult hr = open(wide.data(), &callbacks, &p.handle);
    if (hr != 0 || !p.handle) {
      HostLog(kLogWarning, "time provider %s did not start (result 0x%08X)", n.c_str(), static_cast<unsigned>(hr));
      platform::UnloadModule(p.module);
      continue;
    }
    HostLog(kLogInfo, "time provider %s started from %s", n.c_str(), p.path.c_str());
    loaded.push_back(p);
  }
  return loaded;
}

void HostCommand(std::vector<LoadedProvider>& providers, platform::TimeProvCmd command, void* args) {
  for (LoadedProvider& p : providers) p.command(p.handle, command, args);
}

void HostPollSamples(std::vector<LoadedProvider>& providers) {
  for (LoadedProvider& p : providers) {
    platform::TimeSample sample{};
    platform::TpcGetSamplesArgs args{reinterpret_cast<std::uint8_t*>(&sample), sizeof sample, 0, 0};
    const platform::HResult hr = p.command(p.handle, platform::TPC_GetSamples, &args);
    if (hr != 0 || args.dwSamplesReturned == 0) {
      HostLog(kLogInfo, "time provider %s: no sample", p.name.c_str());
      continue;
    }
    HostLog(kLogInfo, "time provider %s: sample from %s offset %lld delay %lld (100 ns) stratum %u flags %u",
            p.name.c_str(), platform::WideToUtf8(sample.wszUniqueName).c_str(),
            static_cast<long long>(sample.toOffset), static_cast<long long>(sample.toDelay), sample.nStratum,
            sample.dwTSFlags);
  }
}

void HostCloseProviders(std::vector<LoadedProvider>& providers) {
  for (LoadedProvider& p : providers) {
    p.close(p.handle);
    platform::UnloadModule(p.module);
    HostLog(kLogInfo, "time provider %s stopped", p.name.c_str());
  }
  providers.clear();
}
