// The applet's machine facts on Windows: the administrative share, the token, NetServerGetInfo,
// the module's file and version, file operations.
#include <windows.h>
#include <lm.h>

#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/machine.h"
#include "platform/sys.h"

namespace platform {

namespace {
std::string str(std::string_view s) { return std::string(s); }
bool fail() {
  SetLastError(::GetLastError());
  return false;
}
}  // namespace

bool sys::AdminShareOpens(std::string_view computer_name) {
  std::string path = "\\\\" + str(computer_name) + "\\ADMIN$";
  HANDLE h = CreateFileA(path.c_str(), FILE_READ_DATA, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                         FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OVERLAPPED, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  CloseHandle(h);
  return true;
}

bool sys::EnableTcbPrivilege() {
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token)) return false;
  TOKEN_PRIVILEGES tp{};
  tp.PrivilegeCount = 1;
  tp.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
  bool ok = LookupPrivilegeValueA(nullptr, "SeTcbPrivilege", &tp.Privileges[0].Luid) &&
            AdjustTokenPrivileges(token, FALSE, &tp, 0, nullptr, nullptr) && ::GetLastError() == ERROR_SUCCESS;
  CloseHandle(token);
  return ok;
}

bool sys::TokenHasAdministrators() {
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return false;
  alignas(8) BYTE buf[1024];
  DWORD size = 0;
  bool found = false;
  if (GetTokenInformation(token, TokenGroups, buf, sizeof buf, &size)) {
    SID_IDENTIFIER_AUTHORITY nt = SECURITY_NT_AUTHORITY;
    PSID admins = nullptr;
    if (AllocateAndInitializeSid(&nt, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0, 0, 0, 0, &admins)) {
      auto* groups = reinterpret_cast<TOKEN_GROUPS*>(buf);
      for (DWORD i = 0; i < groups->GroupCount && !found; ++i) found = EqualSid(groups->Groups[i].Sid, admins);
      FreeSid(admins);
    }
  }
  CloseHandle(token);
  return found;
}

std::uint32_t GetServerInfo(std::string_view machine, ServerInfo& out) {
  std::wstring name;
  if (!machine.empty()) {
    std::string a = "\\\\" + str(machine);
    wchar_t w[512] = {};
    MultiByteToWideChar(CP_ACP, 0, a.c_str(), -1, w, 511);
    name = w;
  }
  SERVER_INFO_101* info = nullptr;
  NET_API_STATUS st = NetServerGetInfo(name.empty() ? nullptr : name.data(), 101, reinterpret_cast<LPBYTE*>(&info));
  if (st != NERR_Success) return st;
  out.type = info->sv101_type;
  out.major = info->sv101_version_major;
  out.minor = info->sv101_version_minor;
  NetApiBufferFree(info);
  return 0;
}

std::uint32_t RemoteTimeOfDay(std::string_view machine, SystemTime& utc) {
  // Wine's netapi32 has only a stub of NetRemoteTOD, which ends the process when called: there the
  // remote time of day is not supported (50), as on a machine without the server service.
  static const bool wine = GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr;
  if (wine) return ERROR_NOT_SUPPORTED;
  std::string a = "\\\\" + str(machine);
  wchar_t name[512] = {};
  MultiByteToWideChar(CP_ACP, 0, a.c_str(), -1, name, 511);
  TIME_OF_DAY_INFO* tod = nullptr;
  const NET_API_STATUS st = NetRemoteTOD(name, reinterpret_cast<LPBYTE*>(&tod));
  if (st != NERR_Success) return st;
  utc = {static_cast<std::uint16_t>(tod->tod_year), static_cast<std::uint16_t>(tod->tod_month),
         static_cast<std::uint16_t>(tod->tod_weekday), static_cast<std::uint16_t>(tod->tod_day),
         static_cast<std::uint16_t>(tod->tod_hours), static_cast<std::uint16_t>(tod->tod_mins),
         static_cast<std::uint16_t>(tod->tod_secs), static_cast<std::uint16_t>(tod->tod_hunds * 10)};
  NetApiBufferFree(tod);
  return 0;
}

std::string ThisModuleFile() {
  HMODULE m = nullptr;
  GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                     reinterpret_cast<LPCSTR>(&ThisModuleFile), &m);
  char path[MAX_PATH] = {};
  GetModuleFileNameA(m, path, MAX_PATH);
  return path;
}

std::string TimeServiceProgram() { return {}; }

std::uint64_t FileVersion(std::string_view path) {
  std::string p = str(path);
  DWORD handle = 0, size = GetFileVersionInfoSizeA(p.c_str(), &handle);
  if (!size) return 0;
  std::vector<BYTE> data(size);
  VS_FIXEDFILEINFO* fixed = nullptr;
  UINT len = 0;
  if (!GetFileVersionInfoA(p.c_str(), 0, size, data.data()) ||
      !VerQueryValueA(data.data(), "\\", reinterpret_cast<void**>(&fixed), &len) || !fixed)
    return 0;
  return std::uint64_t(fixed->dwFileVersionMS) << 32 | fixed->dwFileVersionLS;
}

bool ClearFileAttributes(std::string_view path) {
  return SetFileAttributesA(str(path).c_str(), FILE_ATTRIBUTE_NORMAL) || fail();
}
bool CopyFileOver(std::string_view from, std::string_view to) {
  return CopyFileA(str(from).c_str(), str(to).c_str(), FALSE) || fail();
}
bool DeleteFileAt(std::string_view path) { return DeleteFileA(str(path).c_str()) || fail(); }
bool sys::MoveFileReplacing(std::string_view from, std::string_view to) {
  return MoveFileExA(str(from).c_str(), str(to).c_str(), MOVEFILE_REPLACE_EXISTING) || fail();
}

}  // namespace platform
