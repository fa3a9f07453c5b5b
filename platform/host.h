// What the Linux host of the time provider needs from the system: its wake-ups (termination,
// reload, clock steps), the system log, the service manager's readiness protocol, the boot-time
// tick, the kernel clock's discipline state and one local datagram exchange (chronyd's command
// socket). POSIX only: on Windows the time service itself hosts the provider.
#pragma once
#include <cstddef>
#include <cstdint>

namespace platform::host {

enum class Wake { Timeout, Terminate, Reload, ClockStepped, Failed };

// Blocks SIGTERM, SIGINT and SIGHUP into a signal descriptor and arms a CLOCK_REALTIME timer that
// is cancelled when the clock is set (TFD_TIMER_CANCEL_ON_SET), so that a step of the system
// clock wakes the host. False when either cannot be made, with the Win32 code in LastError().
bool OpenWakeups();
// Waits up to timeout_ms for the next wake-up (SIGTERM/SIGINT: Terminate; SIGHUP: Reload);
// Failed with the Win32 code in LastError().
Wake WaitWakeup(std::uint32_t timeout_ms);
void CloseWakeups();

// The system log (syslog, facility daemon): level 3 error, 4 warning, 6 information. ident names
// the writer ("Chronwarden" for a provider's events, so that journalctl -t finds them).
// also_stderr copies every line to standard error (foreground mode).
void OpenSystemLog(bool also_stderr);
void SystemLog(const char* ident, int level, const char* text);

// The service manager's readiness protocol (sd_notify: "READY=1", "STOPPING=1", "STATUS=...");
// nothing when the host was not started by systemd.
void NotifyServiceManager(const char* state);

std::uint64_t BootTime100ns();   // CLOCK_BOOTTIME, 100-ns units: a tick count that includes suspend

// The kernel clock's discipline state (adjtimex).
struct KernelClock {
  bool synchronized = false;     // STA_UNSYNC clear
  std::int64_t offset_100ns = 0; // the phase offset still being corrected
  std::uint32_t max_error_us = 0;
  std::uint32_t est_error_us = 0;
  int leap = 0;                  // 0 none, 1 insert, 2 delete, 3 not synchronized
  std::int32_t constant = 0;     // the PLL time constant (log2 of the poll interval minus 4)
};
bool ReadKernelClock(KernelClock& out);

// Sends request to the datagram socket at server_path from a socket bound to a path of its own
// (in the server's folder, as chronyc does) and waits up to timeout_ms for one reply. Returns the
// reply's length, or -1 (no server, no answer).
int LocalDatagramRequest(const char* server_path, const void* request, std::size_t request_size, void* reply,
                         std::size_t reply_size, std::uint32_t timeout_ms);

// The path of the running program (/proc/self/exe).
const char* ProgramPath();

// Watches the machine root's folder: WatchMachineRoot holds it open (false when it is not there);
// MachineRootGone says whether that folder has been deleted since (a folder made again in its place
// is another one, so it counts as gone too). One fstat, no wake-ups of its own.
bool WatchMachineRoot();
bool MachineRootGone();

}  // namespace platform::host
