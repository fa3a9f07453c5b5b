// A Windows service program for the service tests (registered by the tests with CreateService).
//   test_service run MARKER            stops at once when told
//   test_service linger MS MARKER      stays stop-pending (wait hint MS) for MS milliseconds, then stops
//   test_service bounce MARKER         at the first stop goes stop-pending for 300 ms, then back to
//                                      running; a second stop stops it
//   test_service hang HINT MARKER      stays stop-pending with wait hint HINT until MARKER.quit appears
// Any mode stops once MARKER.quit exists. It writes MARKER.started when it runs and appends a line to MARKER.hup at each parameters-changed.
#include <windows.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace {

std::string g_mode, g_marker;
DWORD g_arg = 0;
SERVICE_STATUS_HANDLE g_handle = nullptr;
SERVICE_STATUS g_status{};
HANDLE g_stop = nullptr;

void Report(DWORD state, DWORD hint) {
  g_status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  g_status.dwCurrentState = state;
  g_status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_PARAMCHANGE : 0;
  g_status.dwWaitHint = hint;
  g_status.dwCheckPoint = state == SERVICE_STOP_PENDING ? g_status.dwCheckPoint + 1 : 0;
  SetServiceStatus(g_handle, &g_status);
}

bool Exists(const std::string& path) { return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

DWORD WINAPI Handler(DWORD control, DWORD, void*, void*) {
  // A service that takes its time says so before the handler returns, as real services do: the
  // controller's first look after the stop must already see stop-pending.
  if (control == SERVICE_CONTROL_STOP && g_mode != "run") Report(SERVICE_STOP_PENDING, g_arg);
  if (control == SERVICE_CONTROL_STOP) SetEvent(g_stop);
  if (control == SERVICE_CONTROL_PARAMCHANGE) std::ofstream(g_marker + ".hup", std::ios::app) << "hup\n";
  return NO_ERROR;
}

void WINAPI ServiceMain(DWORD, LPSTR*) {
  g_handle = RegisterServiceCtrlHandlerExA("", Handler, nullptr);
  g_stop = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  Report(SERVICE_RUNNING, 0);
  std::ofstream(g_marker + ".started") << GetCurrentProcessId() << "\n";
  for (;;) {
    // Every mode ends when the test leaves MARKER.quit behind.
    if (WaitForSingleObject(g_stop, 50) != WAIT_OBJECT_0) {
      if (!Exists(g_marker + ".quit")) continue;
      Report(SERVICE_STOPPED, 0);
      return;
    }
    if (g_mode == "bounce") {
      g_mode = "run";
      Report(SERVICE_STOP_PENDING, 0);
      Sleep(300);
      Report(SERVICE_RUNNING, 0);
      continue;
    }
    if (g_mode == "linger") {
      for (DWORD waited = 0; waited < g_arg; waited += 50) Report(SERVICE_STOP_PENDING, g_arg), Sleep(50);
    } else if (g_mode == "hang") {
      while (!Exists(g_marker + ".quit")) Report(SERVICE_STOP_PENDING, g_arg), Sleep(50);
    }
    Report(SERVICE_STOPPED, 0);
    return;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  g_mode = argv[1];
  g_marker = argv[argc - 1];
  if (argc > 3) g_arg = static_cast<DWORD>(std::atol(argv[2]));
  char name[] = "";
  SERVICE_TABLE_ENTRYA table[] = {{name, ServiceMain}, {nullptr, nullptr}};
  return StartServiceCtrlDispatcherA(table) ? 0 : 1;
}
