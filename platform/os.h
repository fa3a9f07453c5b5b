// Facts about the operating system the process runs on.
#pragma once
#include <cstdint>

namespace platform {

struct OsVersion {
  std::uint32_t platform_id;   // 2 (VER_PLATFORM_WIN32_NT) on every NT-family system; POSIX reports 2
  std::uint32_t major, minor, build;
};

bool GetOsVersion(OsVersion& out);   // GetVersionEx (POSIX: a level that gates nothing away, see os.cpp)
bool IsNtFamily();                   // platform_id == 2

}  // namespace platform
