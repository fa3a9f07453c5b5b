// Services through the Service Control Manager; the resync request through w32time.dll.
#include <windows.h>

#include <cstring>
#include <string>

#include "platform/error.h"
#include "platform/service.h"

namespace platform {

struct ServiceObject {
  SC_HANDLE h;
};

namespace {

constexpr DWORD kConfigBufferSize = 8000;
constexpr int kMachineNameChars = 512;

ServiceHandle Wrap(SC_HANDLE h) {
  if (!h) return nullptr;
  return new ServiceObject{h};
}

void Copy(const SERVICE_STATUS& in, ServiceStatus& out) {
  out.current_state = in.dwCurrentState;
  out.win32_exit_code = in.dwWin32ExitCode;
  out.check_point = in.dwCheckPoint;
  out.wait_hint = in.dwWaitHint;
}

}  // namespace

ServiceHandle OpenServiceManager(const char* machine, std::uint32_t access) {
  return Wrap(::OpenSCManagerA(machine && *machine ? machine : nullptr, nullptr, access));
}

ServiceHandle OpenNamedService(ServiceHandle manager, const char* name, std::uint32_t access) {
  if (!manager) return ::SetLastError(ERROR_INVALID_HANDLE), nullptr;
  return Wrap(::OpenServiceA(manager->h, name, access));
}

void CloseServiceHandle(ServiceHandle handle) {
  if (!handle) return;
  ::CloseServiceHandle(handle->h);
  delete handle;
}

bool QueryServiceStatus(ServiceHandle service, ServiceStatus& status) {
  SERVICE_STATUS s{};
  if (!service || !::QueryServiceStatus(service->h, &s)) return false;
  Copy(s, status);
  return true;
}

bool ControlService(ServiceHandle service, std::uint32_t control, ServiceStatus& status) {
  SERVICE_STATUS s{};
  if (!service || !::ControlService(service->h, control, &s)) return false;
  Copy(s, status);
  return true;
}

bool GetServiceConfig(ServiceHandle service, ServiceConfig& config) {
  alignas(8) static thread_local unsigned char buf[kConfigBufferSize];
  auto* c = reinterpret_cast<QUERY_SERVICE_CONFIGA*>(buf);
  DWORD needed = 0;
  if (!service || !::QueryServiceConfigA(service->h, c, kConfigBufferSize, &needed)) return false;
  config.start_type = c->dwStartType;
  config.binary_path = c->lpBinaryPathName ? c->lpBinaryPathName : "";
  config.display_name = c->lpDisplayName ? c->lpDisplayName : "";
  return true;
}

bool ChangeServiceStartType(ServiceHandle service, std::uint32_t start_type) {
  return service && ::ChangeServiceConfigA(service->h, SERVICE_NO_CHANGE, start_type, SERVICE_NO_CHANGE, nullptr,
                                           nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

bool StartNamedService(ServiceHandle service) { return service && ::StartServiceA(service->h, 0, nullptr); }

ServiceHandle InstallService(ServiceHandle manager, const char* name, const char* display_name,
                             const char* command_line, std::uint32_t start_type) {
  if (!manager) return ::SetLastError(ERROR_INVALID_HANDLE), nullptr;
  return Wrap(::CreateServiceA(manager->h, name, display_name, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                               start_type, SERVICE_ERROR_NORMAL, command_line, nullptr, nullptr, nullptr, nullptr,
                               nullptr));
}

bool DeleteService(ServiceHandle service) { return service && ::DeleteService(service->h); }

std::string ServiceBackendName() { return "scm"; }

bool TimeSyncNow(const char* machine, const std::string&, std::uint32_t wait, std::uint32_t flags, std::uint32_t& result) {
  using SyncNow = DWORD(WINAPI*)(LPCWSTR, ULONG, ULONG);
  HMODULE lib = ::GetModuleHandleA("w32time.dll");
  HMODULE loaded = nullptr;
  if (!lib) lib = loaded = ::LoadLibraryA("w32time.dll");
  SyncNow fn = lib ? reinterpret_cast<SyncNow>(reinterpret_cast<void*>(::GetProcAddress(lib, "W32TimeSyncNow")))
                   : nullptr;
  if (fn) {
    wchar_t name[kMachineNameChars] = {};
    const bool named = machine && *machine;
    if (named) ::MultiByteToWideChar(CP_ACP, 0, machine, -1, name, kMachineNameChars - 1);
    result = fn(named ? name : nullptr, wait, flags);
  }
  if (loaded) ::FreeLibrary(loaded);
  return fn != nullptr;
}

int ChronyCommand(const std::string&, const std::string&, std::string& output) {
  output.clear();
  ::SetLastError(ERROR_NOT_SUPPORTED);
  return -1;
}

}  // namespace platform
