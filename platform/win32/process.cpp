// The process's figures from GetProcessTimes and GetProcessMemoryInfo; the termination request
// through the console's control handler.
#include <windows.h>
#include <psapi.h>

#include "platform/error.h"
#include "platform/process.h"

namespace platform {
namespace {

HANDLE g_terminate = nullptr;

double FileTimeSeconds(const FILETIME& t) {
  return static_cast<double>((static_cast<std::uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime) / 1e7;
}

BOOL WINAPI OnControl(DWORD) {
  SetEvent(g_terminate);
  return TRUE;
}

}  // namespace

bool ReadProcessUsage(ProcessUsage& out) {
  out = {};
  FILETIME created{}, exited{}, kernel{}, user{};
  if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user)) return false;
  out.cpu_seconds = FileTimeSeconds(kernel) + FileTimeSeconds(user);
  constexpr double kUnixEpochSeconds = 11644473600.0;   // 1601-01-01 to 1970-01-01
  out.start_time_unix = FileTimeSeconds(created) - kUnixEpochSeconds;
  PROCESS_MEMORY_COUNTERS memory{};
  memory.cb = sizeof memory;
  if (K32GetProcessMemoryInfo(GetCurrentProcess(), &memory, sizeof memory)) {
    out.resident_bytes = memory.WorkingSetSize;
    out.virtual_bytes = memory.PagefileUsage;
  }
  DWORD handles = 0;
  if (GetProcessHandleCount(GetCurrentProcess(), &handles)) out.open_files = handles;
  return true;
}

bool CatchTerminationRequest() {
  if (!g_terminate) g_terminate = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  return g_terminate && SetConsoleCtrlHandler(OnControl, TRUE);
}

bool WaitTerminationRequest() {
  return g_terminate && WaitForSingleObject(g_terminate, INFINITE) == WAIT_OBJECT_0;
}

}  // namespace platform
