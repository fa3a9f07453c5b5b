// Service control of W32Time (stop with a bounded wait, query, start as automatic, other controls),
// the restart of any named service, and the resync request.
#include "config/service_control.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "config/chrony_sources.h"
#include "config/defaults.h"
#include "config/registry.h"
#include "platform/error.h"
#include "platform/error_text.h"
#include "platform/service.h"
#include "platform/sync.h"
#include "platform/text.h"

namespace {

using platform::ServiceHandle;
using platform::ServiceStatus;

constexpr std::uint32_t kErrorLeftStopPending = 0xFFFFFFFF;   // -1: left stop pending without stopping

// The manager and service handles of one call, closed at scope exit.
struct Handles {
  ServiceHandle manager = nullptr, service = nullptr;
  ~Handles() {
    platform::CloseServiceHandle(service);
    platform::CloseServiceHandle(manager);
  }
  // Opens both and queries the status; false with the last error on the first failure.
  bool Open(const char* machine, const char* name, ServiceStatus& status) {
    manager = platform::OpenServiceManager(machine, platform::kScManagerAllAccess);
    if (manager) service = platform::OpenNamedService(manager, name, platform::kServiceAllAccess);
    return service && platform::QueryServiceStatus(service, status);
  }
};

// Reads the configuration and makes the service start automatically, everything else unchanged.
bool MakeAutomatic(ServiceHandle service) {
  platform::ServiceConfig config;
  return platform::GetServiceConfig(service, config) &&
         platform::ChangeServiceStartType(service, platform::kServiceAutoStart);
}

// Makes a stopped service automatic (a refused change does not stop the start) and starts it
// without waiting: 0 when the start was accepted, else the error.
std::uint32_t StartAutomatic(ServiceHandle service) {
  platform::ServiceConfig config;
  if (!platform::GetServiceConfig(service, config)) return platform::LastError();
  platform::ChangeServiceStartType(service, platform::kServiceAutoStart);
  return platform::StartNamedService(service) ? 0 : platform::LastError();
}

// Polls up to kRestartPolls times, kRestartPollMs apart, until the state is reached.
bool PollFor(ServiceHandle service, std::uint32_t state) {
  ServiceStatus status;
  for (std::uint32_t i = 0; i < defaults::kRestartPolls; ++i) {
    if (!platform::QueryServiceStatus(service, status)) return false;
    if (status.current_state == state) return true;
    platform::Sleep(defaults::kRestartPollMs);
  }
  return false;
}

// Stops the service and waits: 0 stopped, else the error. status and elapsed keep the last reading.
std::uint32_t StopAndWait(ServiceHandle service, ServiceStatus& status, std::uint32_t& elapsed) {
  if (status.current_state == platform::kServiceStopped) return 0;
  if (!platform::ControlService(service, platform::kServiceControlStop, status)) return platform::LastError();
  platform::Sleep(defaults::kStopFirstSleepMs);
  for (;;) {
    if (!platform::QueryServiceStatus(service, status)) return platform::LastError();
    if (status.current_state == platform::kServiceStopped) return 0;
    if (status.current_state != platform::kServiceStopPending) return kErrorLeftStopPending;
    const std::uint32_t sleep =
        std::clamp(status.wait_hint, defaults::kStopPollMinMs, defaults::kStopPollMaxMs);
    platform::Sleep(sleep);
    elapsed += sleep;
    if (elapsed >= defaults::kStopWaitMs) return platform::kErrorNotStopped;
  }
}

void ShowFailure(const ServiceOwner* owner, std::uint32_t error, const ServiceStatus& status, std::uint32_t elapsed) {
  if (!owner || !owner->message) return;
  char text[512];
  int n = std::snprintf(text, sizeof text, "Service control for W32Time (Windows Time) service failed; ");
  if (error == kErrorLeftStopPending) {
    n += std::snprintf(text + n, sizeof text - n,
                       "the service reported checkpoint %d, current state %d, and would not stop after %d "
                       "milliseconds.",
                       int(status.check_point), int(status.current_state), int(elapsed));
  } else {
    char reason[128];
    n += std::snprintf(text + n, sizeof text - n, "%s", SystemErrorText(error, reason, sizeof reason));
  }
  std::snprintf(text + n, sizeof text - n, "\r\n");
  owner->message(owner->window, text, defaults::kProductName, defaults::kServiceMessageStyle);
}

}  // namespace

int ControlTimeService(const ServiceOwner* owner, const char* machine, std::uint32_t code, std::uint32_t show_error) {
  ServiceStatus status;
  std::uint32_t error = 0, elapsed = 0;
  bool ok = false;
  {
    Handles h;
    if (!h.Open(machine, defaults::kTimeServiceName, status)) {
      error = platform::LastError();
    } else if (code == kServiceOpStop) {
      error = StopAndWait(h.service, status, elapsed);
    } else if (code == kServiceOpQuery) {
      ok = status.current_state == platform::kServiceRunning;
    } else if (code == kServiceOpStart) {
      if (status.current_state != platform::kServiceRunning) error = StartAutomatic(h.service);
    } else if (!platform::ControlService(h.service, code, status)) {
      error = platform::LastError();
    }
  }
  if (code != kServiceOpQuery) ok = error == 0;
  if (error && show_error) ShowFailure(owner, error, status, elapsed);
  platform::SetLastError(error);
  return ok ? 1 : 0;
}

int RestartService(const ServiceOwner*, const char* machine, const char* service) {
  ServiceStatus status;
  bool ok = false;
  std::uint32_t error = 0;
  {
    Handles h;
    if (h.Open(machine, service, status)) {
      // A service already stopping takes no control (it would refuse it, 1061): it is waited for.
      bool stopped;
      if (status.current_state == platform::kServiceStopped)
        stopped = MakeAutomatic(h.service);
      else
        stopped = (status.current_state == platform::kServiceStopPending ||
                   platform::ControlService(h.service, platform::kServiceControlStop, status)) &&
                  PollFor(h.service, platform::kServiceStopped);
      ok = stopped && platform::StartNamedService(h.service) && PollFor(h.service, platform::kServiceRunning);
    }
    // A wait that ran out leaves no code of its own: it reads as the service's request time-out.
    if (!ok) error = platform::LastError() ? platform::LastError() : platform::kErrorServiceTimeout;
  }
  platform::SetLastError(error);
  return ok ? 1 : 0;
}

std::uint32_t TriggerResync(const ServiceOwner*, const char* machine, std::uint32_t wait, std::uint32_t flags) {
  std::uint32_t result = 1;
  if (!platform::TimeSyncNow(machine, chrony_command_socket(machine), wait, flags, result)) return 1;
  return result;
}

int RegisterTimeServiceProgram(const RegTarget& t, const char* program, bool by_install) {
  const char* key = defaults::kW32TimeServiceKey;
  if (!reg_set_string(t, key, "ImagePath", program)) return 0;
  if (reg_get_dword(t, key, "Start", 0) == 0) reg_set_dword(t, key, "Start", 2);
  if (!reg_set_string(t, key, "SystemdUnit", defaults::kHostSystemdUnit)) return 0;
  return by_install ? reg_set_string(t, key, defaults::kHostInstalledMark, defaults::kHostInstalledBy) : 1;
}

bool HostLoadsProviderModule(const char* dll_name) {
  const char* file = dll_name ? dll_name : "";
  for (const char* c = file; *c; ++c)
    if (*c == '\\' || *c == '/') file = c + 1;
  return *file && !platform::EqualsNoCase(file, "w32time.dll");
}

std::vector<std::string> TimeProviderNames(const RegTarget& t) {
  std::vector<std::string> names;
  platform::RegKey key = nullptr;
  char path[512];
  reg_key_path(defaults::kTimeProvidersKey, path, sizeof path);
  if (platform::RegOpenKey(t.root(), path, platform::kKeyRead, key) != 0) return names;
  char name[260];
  for (std::uint32_t i = 0; platform::RegEnumKey(key, i, name, sizeof name) == 0; ++i) names.emplace_back(name);
  platform::RegCloseKey(key);
  return names;
}

namespace {

// Whether an enabled provider of the target is one the host loads.
bool HostHasProviders(const RegTarget& t) {
  for (const std::string& n : TimeProviderNames(t)) {
    const std::string provider = std::string(defaults::kTimeProvidersKey) + "\\" + n;
    char dll[260];
    reg_get_string(t, provider.c_str(), "DllName", dll, sizeof dll, "");
    if (reg_get_dword(t, provider.c_str(), "Enabled", 0) != 0 && HostLoadsProviderModule(dll)) return true;
  }
  return false;
}

}  // namespace

int UnregisterTimeServiceProgram(const ServiceOwner* owner, const RegTarget& t) {
  const char* machine = t.name().c_str();
  const char* key = defaults::kW32TimeServiceKey;
  char mark[64];
  reg_get_string(t, key, defaults::kHostInstalledMark, mark, sizeof mark, "");
  if (std::strcmp(mark, defaults::kHostInstalledBy) != 0 || HostHasProviders(t)) return 0;
  if (!ControlTimeService(owner, machine, kServiceOpStop, 1)) {
    // A service that is not running has nothing to stop.
    const std::uint32_t err = platform::LastError();
    if (err != platform::kErrorNotActive) return -1;
  }
  {
    Handles h;
    ServiceStatus status;
    if (!h.Open(machine, defaults::kTimeServiceName, status) ||
        !platform::ChangeServiceStartType(h.service, platform::kServiceDemandStart))
      return -1;
  }
  for (const char* value : {"ImagePath", "SystemdUnit", defaults::kHostInstalledMark})
    if (!reg_set_string(t, key, value, nullptr)) return -1;
  platform::SetLastError(0);
  return 1;
}
