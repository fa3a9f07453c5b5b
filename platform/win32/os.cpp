// Operating-system facts on Windows, from the system's own version calls.
#include <windows.h>
// RtlGenRandom (SystemFunction036 of advapi32): the system's secure random source since Windows XP.
#include <ntsecapi.h>

#include <cstring>

#include "platform/os.h"

namespace platform {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
bool GetOsVersion(OsVersion& out) {
  OSVERSIONINFOA info{};
  info.dwOSVersionInfoSize = sizeof info;
  if (!::GetVersionExA(&info)) return false;
  out = OsVersion{info.dwPlatformId, info.dwMajorVersion, info.dwMinorVersion, info.dwBuildNumber};
  std::memcpy(out.csd, info.szCSDVersion, sizeof out.csd - 1);
  return true;
}

bool GetOsVersionEx(OsVersion& out) {
  OSVERSIONINFOEXA info{};
  info.dwOSVersionInfoSize = sizeof info;
  if (!::GetVersionExA(reinterpret_cast<OSVERSIONINFOA*>(&info))) return false;
  out = OsVersion{info.dwPlatformId, info.dwMajorVersion, info.dwMinorVersion, info.dwBuildNumber};
  out.sp_major = info.wServicePackMajor;
  out.sp_minor = info.wServicePackMinor;
  out.product_type = info.wProductType;
  std::memcpy(out.csd, info.szCSDVersion, sizeof out.csd - 1);
  return true;
}
#pragma GCC diagnostic pop

bool IsNtFamily() {
  OsVersion v{};
  return GetOsVersion(v) && v.platform_id == 2;
}

void GetSystemInfo(SystemInfo& out) {
  SYSTEM_INFO info{};
  ::GetSystemInfo(&info);
  out = SystemInfo{info.wProcessorArchitecture, info.dwPageSize, info.dwNumberOfProcessors};
}

int QueryWow64() {
  using Fn = BOOL(WINAPI*)(HANDLE, PBOOL);
  const HMODULE kernel = ::GetModuleHandleA("kernel32");
  const auto fn = kernel ? reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(kernel, "IsWow64Process"))) : nullptr;
  if (!fn) return -1;
  BOOL wow64 = FALSE;
  return fn(::GetCurrentProcess(), &wow64) && wow64 ? 1 : 0;
}

std::string ComputerName() {
  char name[MAX_COMPUTERNAME_LENGTH + 1] = {};
  DWORD size = sizeof name;
  return ::GetComputerNameA(name, &size) ? std::string(name, size) : std::string();
}

std::string OsProductName() { return {}; }

bool RandomBytes(void* out, std::size_t size) {
  auto* p = static_cast<unsigned char*>(out);
  while (size > 0) {
    const ULONG n = size > 0x10000000u ? 0x10000000u : static_cast<ULONG>(size);
    if (!RtlGenRandom(p, n)) return false;
    p += n;
    size -= n;
  }
  return true;
}

}  // namespace platform
