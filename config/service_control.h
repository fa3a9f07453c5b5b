// Telling the Windows Time service of a machine about new settings: stop, start, query, send a
// control, restart any named service, and ask the time service to synchronise now. Each call opens
// and closes its own handles (platform/service.h); failures come back as 0 with the Win32 code in
// the thread's last-error value.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "config/registry.h"

// Operation codes of ControlTimeService (any other code is sent unchanged as a control code).
inline constexpr std::uint32_t kServiceOpStop = 1;               // stop and wait until stopped
inline constexpr std::uint32_t kServiceOpQuery = 4;              // success if running; nothing sent
inline constexpr std::uint32_t kServiceOpStart = 16;             // make automatic and start; not waited for
inline constexpr std::uint32_t kServiceParamChange = 6;          // the "parameters changed" control

// Sync flags of TriggerResync.
inline constexpr std::uint32_t kResyncSoft = 0;         // synchronise at the next opportunity
inline constexpr std::uint32_t kResyncHard = 1;         // synchronise now and step the clock if needed

// Shows a failure to the user: text and caption with MessageBox style bits (0x42030: OK, warning
// icon, task-modal, topmost), owned by owner (the caller's window, may be null). The applet puts up
// its message box; the command line prints the text.
using ServiceMessageFn = void (*)(void* owner, const char* text, const char* caption, std::uint32_t style);

// Who asks: the owner window handed back to message, and the function that shows messages.
struct ServiceOwner {
  void* window = nullptr;             // owner window (the applet's page or sheet); may be null
  ServiceMessageFn message = nullptr;  // nullptr: nothing is shown
};

// Controls "W32Time" on machine ("\\NAME", "NAME", nullptr or "" for the local machine) with an
// operation code; show_error non-zero puts a failure through owner->message. 1 success / 0 failure;
// last error: the code (0 on success, -1 left stop-pending without stopping, 1237 not stopped within
// 30,000 ms). owner may be null.
int ControlTimeService(const ServiceOwner* owner, const char* machine, std::uint32_t code, std::uint32_t show_error);
// Stops (up to 100 polls of 100 ms; a service already stop pending is only waited for) and starts
// (likewise) the named service. 1 if it ends up running.
int RestartService(const ServiceOwner* owner, const char* machine, const char* service);
// Makes program (a command line: the Linux host daemon and its arguments) the time service
// "W32Time" of the target machine: its ImagePath (the supervisor runs it),
// its SystemdUnit (systemd starts that unit) and, when it has none, start type automatic. by_install
// also marks it as install's doing, for remove to undo. Windows has its own time service and never
// calls this. 1 success / 0 failure (last error: the code).
int RegisterTimeServiceProgram(const RegTarget& t, const char* program, bool by_install = false);
// The names of the time providers registered under W32Time\TimeProviders of the target
// (none when the key cannot be read).
std::vector<std::string> TimeProviderNames(const RegTarget& t);
// Whether the Linux host loads a time provider registered with this "DllName": a module of its own;
// the time service's built-in providers (no module, or w32time.dll) are chronyd's part.
bool HostLoadsProviderModule(const char* dll_name);
// Undoes install's RegisterTimeServiceProgram on the target machine once the
// host serves nothing: when the W32Time key carries install's mark and no enabled provider under
// TimeProviders is one the host loads, stops the service (waiting as kServiceOpStop does), makes it
// start manually (systemd: disables the unit) and removes ImagePath, SystemdUnit and the mark.
// Returns 1 when it did, 0 when there was nothing to undo, -1 on a failure (last error: the code;
// the registration stays, so that remove can be run again).
int UnregisterTimeServiceProgram(const ServiceOwner* owner, const RegTarget& t);
// Asks the time service of machine to synchronise now (W32TimeSyncNow; Linux: chrony's burst, and
// with sync flags bit 0x1, a hard resync, also makestep). wait non-zero waits for the outcome.
// Returns what the service answered (0 accepted), or 1 when it could not be asked at all.
std::uint32_t TriggerResync(const ServiceOwner* owner, const char* machine, std::uint32_t wait, std::uint32_t flags);
