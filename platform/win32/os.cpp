// Operating-system facts on Windows, from the system's own version call.
#include <windows.h>

#include "platform/os.h"

namespace platform {

bool GetOsVersion(OsVersion& out) {
  OSVERSIONINFOA info{};
  info.dwOSVersionInfoSize = sizeof info;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  if (!::GetVersionExA(&info)) return false;
#pragma GCC diagnostic pop
  out = OsVersion{info.dwPlatformId, info.dwMajorVersion, info.dwMinorVersion, info.dwBuildNumber};
  return true;
}

bool IsNtFamily() {
  OsVersion v{};
  return GetOsVersion(v) && v.platform_id == 2;
}

}  // namespace platform
