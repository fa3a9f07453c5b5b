// Product paths on Windows: the system's own.
#include <windows.h>

#include <cstdlib>

#include "platform/paths.h"

namespace platform {

std::string MachineRoot() { return ""; }
std::string SystemDirectory() {
  char buf[MAX_PATH] = {};
  const UINT n = ::GetSystemDirectoryA(buf, MAX_PATH);
  return std::string(buf, n < MAX_PATH ? n : 0);
}
std::string NetworkRoot() { return ""; }
std::string CockpitPackageDirectory() { return ""; }
std::string RemoteMachineRoot(std::string_view host) { return "\\\\" + std::string(host) + "\\admin$"; }
std::string NativePath(std::string_view windows_path) { return std::string(windows_path); }

void SetEnvironmentValue(const char* name, const char* value) {
  ::SetEnvironmentVariableA(name, value);
  _putenv_s(name, value ? value : "");  // the C runtime's copy, which getenv reads
}

}  // namespace platform
