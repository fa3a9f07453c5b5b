// The module's applet entry points: the Control Panel's CPlApplet and rundll32's RunDll.
#include "applet/applet.h"
#include "applet/clock_status.h"
#include "platform/export.h"

// LONG CPlApplet(HWND, UINT, LPARAM, LPARAM).
// The sheets the module opens run the clock status worker (programs that drive the pages without
// a screen leave it out and check when they choose).
CW_EXPORT std::int32_t CPlApplet(void* window, std::uint32_t message, std::intptr_t first, std::intptr_t second) {
  g_status_thread_fn = StatusThreadEntry;
  return std::int32_t(applet_entry(window, message, first, second));
}

// void RunDll(HWND, HINSTANCE, LPSTR, int): "rundll32.exe w32tmkr.cpl,RunDll -install".
CW_EXPORT std::intptr_t RunDll(void* window, void*, const char* command_line, int) {
  g_status_thread_fn = StatusThreadEntry;
  return applet_rundll(window, command_line);
}
