// Which system the product runs on and which one it configures: the OS level (a power of two per
// Windows generation), the processor architecture, the 32-bit-on-64-bit test and the texts that
// name a system in messages.
#pragma once
#include <cstdint>

#include "platform/os.h"

// OS levels.
inline constexpr std::uint32_t kOsWin95 = 1;
inline constexpr std::uint32_t kOsWin98 = 2;
inline constexpr std::uint32_t kOsWinMe = 4;
inline constexpr std::uint32_t kOsWinCe = 128;
inline constexpr std::uint32_t kOsNt31 = 256;
inline constexpr std::uint32_t kOsNt351 = 512;
inline constexpr std::uint32_t kOsNt4 = 1024;
inline constexpr std::uint32_t kOsWin2000 = 2048;
inline constexpr std::uint32_t kOsWinXp = 4096;
inline constexpr std::uint32_t kOsWin2003 = 8192;
inline constexpr std::uint32_t kOsVista = 16384;
inline constexpr std::uint32_t kOsWin2008 = 32768;   // Windows Server 2008 and every later system

// Remote-text codes that ask for no architecture prefix at all.
inline constexpr std::uint32_t kArchNoPrefix1 = 0xFFFFFFFF;   // -1
inline constexpr std::uint32_t kArchNoPrefix2 = 0xFFFFFFFE;   // -2

// The process-wide OS facts, filled by os_identify.
struct OsFacts {
  platform::OsVersion version;     // the extended record when extended is set, else the basic one
  bool extended;                   // the extended version record was read
  platform::SystemInfo system;     // GetSystemInfo
  std::uint32_t level;             // OS level
  std::uint32_t arch;              // local architecture code (kArch... of the registry layer)
  int wow64;                       // 1: a 32-bit process on a 64-bit system
  // Registry view words for callers that must reach the native view: view64 is KEY_WOW64_64KEY
  // (256) for a 32-bit process on a 64-bit system; view32 is KEY_WOW64_32KEY (512) for a native
  // 64-bit process. The registry layer itself never ORs them in (its extra access mask stays 0).
  std::uint32_t view64, view32;
};
extern OsFacts g_os;

void os_identify();   // fills g_os
// The OS level from a version record: platform id (1 Windows 9x, 2 NT), major, minor, whether the
// extended record was read and its product type (1 workstation).
std::uint32_t os_level_from_version(std::uint32_t platform_id, std::uint32_t major, std::uint32_t minor, bool extended,
                                    std::uint32_t product_type);
// The OS level of a remote machine from NetServerGetInfo level 101: server type bits, major
// version (low 4 bits used), minor version.
std::uint32_t os_level_from_server(std::uint32_t server_type, std::uint32_t major, std::uint32_t minor);
// Architecture prefix, system text and service pack of the local machine, e.g.
// "32-bit (x86) WinXP build 2600 Service Pack 2 (SP 2.0)"; terminated, cut at size - 1. Returns buf.
char* os_local_text(char* buf, std::uint32_t size);
// Prefix and remote name, e.g. "64-bit AMD64 Win2003"; arch -1 or -2 give no prefix. Returns buf.
char* os_remote_text(std::uint32_t arch, std::uint32_t level, char* buf, std::uint32_t size);
const char* os_arch_name(std::uint32_t arch);   // long name: "AMD/Intel x64", ...
int os_is_wow64();                              // 1 for a 32-bit process on a 64-bit system
