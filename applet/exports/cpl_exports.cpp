// The module's applet entry points: the Control Panel's CPlApplet and rundll32's RunDll.
#include "applet/applet.h"
#include "applet/install.h"
#include "platform/export.h"

// LONG CPlApplet(HWND, UINT, LPARAM, LPARAM).
CW_EXPORT std::int32_t CPlApplet(void* window, std::uint32_t message, std::intptr_t first, std::intptr_t second) {
  return std::int32_t(applet_entry(window, message, first, second));
}

// void RunDll(HWND, HINSTANCE, LPSTR, int): "rundll32.exe w32tmkr.cpl,RunDll -install".
CW_EXPORT std::intptr_t RunDll(void* window, void*, const char* command_line, int) {
  return applet_rundll(window, command_line);
}
