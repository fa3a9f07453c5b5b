// Facts about the operating system the process runs on.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace platform {

struct OsVersion {
  std::uint32_t platform_id;   // 2 (VER_PLATFORM_WIN32_NT) on every NT-family system; POSIX reports 2
  std::uint32_t major, minor, build;
  // Filled by GetOsVersionEx only:
  std::uint16_t sp_major = 0, sp_minor = 0;  // service pack
  std::uint8_t product_type = 0;             // 1 workstation, 2 domain controller, 3 server
  char csd[128] = {};                        // service-pack text ("Service Pack 2"), terminated
};

bool GetOsVersion(OsVersion& out);     // GetVersionExA, basic record (POSIX: a level that gates nothing away, see os.cpp)
bool GetOsVersionEx(OsVersion& out);   // GetVersionExA, extended record (service pack and product type)
bool IsNtFamily();                     // platform_id == 2

struct SystemInfo {
  std::uint16_t processor_architecture;  // PROCESSOR_ARCHITECTURE_*: 0 x86, 6 IA64, 9 AMD64, 12 ARM64, 0xFFFF unknown
  std::uint32_t page_size;               // bytes
  std::uint32_t processor_count;
};
void GetSystemInfo(SystemInfo& out);   // GetSystemInfo (as this process sees the system)

// IsWow64Process for the current process: 1 when a 32-bit process runs on a 64-bit system, 0 when
// not, -1 when the system has no such call (POSIX).
int QueryWow64();

// The machine's name (GetComputerNameA). POSIX: the host name's first label in upper case, at most
// 15 characters, as a NetBIOS name.
std::string ComputerName();

// The name of the system the process really runs on when it is not Windows ("Linux 6.1.0-13-amd64",
// from uname); "" on Windows, where the version record names the system.
std::string OsProductName();

// Fills out with size bytes from the system's secure random source (getrandom; RtlGenRandom on
// Windows), for secrets such as a hash key. False when the source failed: out is then undefined.
bool RandomBytes(void* out, std::size_t size);

}  // namespace platform
