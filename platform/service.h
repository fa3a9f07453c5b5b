// Services of a machine, in the Service Control Manager's terms: open a machine's manager and a
// service, query its status, send a control, read and change its start type, start it, install and
// delete one. Every call returns a handle (nullptr on failure) or true/false, with the Win32 code in
// the thread's last-error value.
//
// Windows: the Service Control Manager itself (OpenSCManagerA, ...).
// Linux, chosen at run time (CHRONWARDEN_SERVICE_BACKEND=systemd|supervisor overrides the choice):
// - systemd over D-Bus when systemd runs (org.freedesktop.systemd1 on the system bus; a remote
//   machine over ssh). The unit is the service key's "SystemdUnit" value, default "<name>.service".
// - otherwise the supervisor: a service is the store's System\CurrentControlSet\Services\<name>
//   key; "ImagePath" is the program (with blank-separated arguments), "Start" the start type. It runs
//   as a daemon with its pid in <machine root>/run/<name>.pid, is stopped with SIGTERM (stop pending
//   while the process lives after it), and "parameters changed" is SIGHUP.
#pragma once
#include <cstdint>
#include <string>

namespace platform {

struct ServiceObject;
using ServiceHandle = ServiceObject*;   // a manager or a service; nullptr is "none"

inline constexpr std::uint32_t kScManagerAllAccess = 0xF003F;   // SC_MANAGER_ALL_ACCESS
inline constexpr std::uint32_t kServiceAllAccess = 0xF01FF;     // SERVICE_ALL_ACCESS

// Current states.
inline constexpr std::uint32_t kServiceStopped = 1;
inline constexpr std::uint32_t kServiceStartPending = 2;
inline constexpr std::uint32_t kServiceStopPending = 3;
inline constexpr std::uint32_t kServiceRunning = 4;
// Controls.
inline constexpr std::uint32_t kServiceControlStop = 1;
inline constexpr std::uint32_t kServiceControlInterrogate = 4;
inline constexpr std::uint32_t kServiceControlParamChange = 6;
// Start types.
inline constexpr std::uint32_t kServiceAutoStart = 2;
inline constexpr std::uint32_t kServiceDemandStart = 3;
inline constexpr std::uint32_t kServiceDisabledStart = 4;

struct ServiceStatus {
  std::uint32_t current_state = 0;   // kService... state
  std::uint32_t win32_exit_code = 0;
  std::uint32_t check_point = 0;     // grows while a pending operation makes progress
  std::uint32_t wait_hint = 0;       // ms the service expects the pending operation to take
};

struct ServiceConfig {
  std::uint32_t start_type = 0;   // kService...Start
  std::string binary_path;        // the program and its arguments (systemd: the unit's ExecStart program)
  std::string display_name;
};

// machine: "\\NAME", "NAME", nullptr or "" for the local machine.
ServiceHandle OpenServiceManager(const char* machine, std::uint32_t access);
ServiceHandle OpenNamedService(ServiceHandle manager, const char* name, std::uint32_t access);
void CloseServiceHandle(ServiceHandle handle);   // nullptr is ignored
bool QueryServiceStatus(ServiceHandle service, ServiceStatus& status);
// Sends a control (1 stop, 6 parameters changed, ...); status gets the status after it.
bool ControlService(ServiceHandle service, std::uint32_t control, ServiceStatus& status);
bool GetServiceConfig(ServiceHandle service, ServiceConfig& config);   // QueryServiceConfigA, 8000-byte buffer
// ChangeServiceConfigA with only the start type changed.
bool ChangeServiceStartType(ServiceHandle service, std::uint32_t start_type);
bool StartNamedService(ServiceHandle service);   // StartServiceA without arguments; not waited for

// Installs an own-process service running command_line (CreateServiceA; supervisor: the key's
// ImagePath and Start). Returns the service handle. systemd: not supported (error 50).
ServiceHandle InstallService(ServiceHandle manager, const char* name, const char* display_name,
                             const char* command_line, std::uint32_t start_type);
bool DeleteService(ServiceHandle service);   // marks the service for deletion (supervisor: removes the key)

// Which Linux backend serves the local machine: "systemd", "supervisor"; "scm" on Windows.
std::string ServiceBackendName();

// Asks the time service of machine to synchronise now: W32TimeSyncNow of w32time.dll (machine
// converted to UTF-16 with the ANSI code page; nullptr or "" for none); Linux: chrony over the
// command socket chrony_socket (burst, and makestep with flags bit 0x1; another machine's chronyc
// over ssh). Returns false when the service could not be asked at all (no library or export; Linux:
// no chronyc); result is its answer (0 accepted).
bool TimeSyncNow(const char* machine, const std::string& chrony_socket, std::uint32_t wait, std::uint32_t flags,
                 std::uint32_t& result);

// Runs one chronyc command against the command socket (Linux; sources listed by their configured
// names); output gets what it printed.
// Returns chronyc's exit status, or -1 when it could not be run (Windows: always -1, error 50).
int ChronyCommand(const std::string& socket_path, const std::string& command, std::string& output);

}  // namespace platform
