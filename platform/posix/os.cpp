// Operating-system facts on POSIX: the system presents itself as an NT-family platform (id 2) of
// version 10.0, a server (product type 3), so that nothing version-gated is held back (the OS level
// comes out as that of the newest Windows family, 32768); the OS identification names the real
// kernel in its text through OsProductName.
#include "platform/os.h"

#include <sys/random.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>

namespace platform {

bool GetOsVersion(OsVersion& out) {
  out = OsVersion{2, 10, 0, 0};
  return true;
}

bool GetOsVersionEx(OsVersion& out) {
  GetOsVersion(out);
  out.product_type = 3;
  return true;
}

bool IsNtFamily() { return true; }

void GetSystemInfo(SystemInfo& out) {
  out = SystemInfo{0xFFFF, static_cast<std::uint32_t>(sysconf(_SC_PAGESIZE)),
                   static_cast<std::uint32_t>(sysconf(_SC_NPROCESSORS_ONLN))};
  utsname u{};
  if (uname(&u) != 0) return;
  const std::string_view m = u.machine;
  if (m == "x86_64") out.processor_architecture = 9;
  else if (m == "aarch64") out.processor_architecture = 12;
  else if (m.size() == 4 && m[0] == 'i' && m.substr(2) == "86") out.processor_architecture = 0;
  else if (m == "ia64") out.processor_architecture = 6;
}

int QueryWow64() { return -1; }

std::string ComputerName() {
  char host[256] = {};
  if (gethostname(host, sizeof host - 1) != 0 || !host[0]) return "LOCALHOST";
  std::string name(host, strcspn(host, "."));
  if (name.size() > 15) name.resize(15);
  for (auto& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return name;
}

std::string OsProductName() {
  utsname u{};
  if (uname(&u) != 0) return "POSIX";
  return std::string(u.sysname) + " " + u.release;
}

bool RandomBytes(void* out, std::size_t size) {
  auto* p = static_cast<unsigned char*>(out);
  while (size > 0) {   // getrandom gives at most 32 MiB a call, and a signal may cut it short
    const ssize_t n = getrandom(p, size, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace platform
