// OS identification of the local machine and of a remote target.
//
// On POSIX the platform presents an NT-family system of version 10.0 (level 32768, so that nothing
// is gated away) while the local text names what really runs, from uname: the architecture prefix
// followed by the kernel ("64-bit (x64) Linux 6.1.0-13-amd64") in place of a Windows name.
#include "config/os_identify.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "config/registry.h"

OsFacts g_os{};

namespace {

constexpr std::uint32_t kServerWin9x = 0x00400000;
constexpr std::uint32_t kServerServerNt = 0x8000;
constexpr std::uint32_t kServerDomainCtrl = 8;
constexpr std::uint32_t kServerBackupCtrl = 16;

struct LevelWords {
  std::uint32_t level;
  const char* local_format;
  const char* remote_name;
};

constexpr LevelWords kLevels[] = {
    {kOsWin95, "Win95 (%d.%02d.%d %s)", "Win95"},   {kOsWin98, "Win98 (%d.%02d.%d %s)", "Win98"},
    {kOsWinMe, "WinMe (%d.%02d.%d %s)", "WinMe"},   {kOsWinCe, "WinCE build %d %s", "WinCE"},
    {kOsNt31, "NT 3.1 build %d %s", "NT 3.1"},      {kOsNt351, "NT 3.51 build %d %s", "NT 3.51"},
    {kOsNt4, "NT 4.0 build %d %s", "NT 4.0"},       {kOsWin2000, "Win2000 build %d %s", "Win2000"},
    {kOsWinXp, "WinXP build %d %s", "WinXP"},       {kOsWin2003, "Win2003 build %d %s", "Win2003"},
    {kOsVista, "Vista build %d %s", "Vista"},       {kOsWin2008, "Win2008 build %d %s", "Win2008"},
};

const LevelWords* FindLevel(std::uint32_t level) {
  for (const auto& l : kLevels)
    if (l.level == level) return &l;
  return nullptr;
}

struct ArchWords {
  const char* long_name;
  const char* local_prefix;
  const char* remote_prefix;
};

const ArchWords& Arch(std::uint32_t code) {
  static constexpr ArchWords kArch[] = {
      {"Unknown", "Unknown ", "Unknown "},
      {"AMD/Intel x86 Win9x", "32-bit (x86) ", "32-bit x86 "},
      {"AMD/Intel x86", "32-bit (x86) ", "32-bit x86 "},
      {"AMD/Intel x64", "64-bit (x64) ", "64-bit AMD64 "},
      {"Itanium IA64", "64-bit (IA64) ", "64-bit IA64 "},
      {"Alpha", "Alpha ", "Alpha "},
      {"MIPS", "MIPS ", "MIPS "},
      {"PPC", "PPC ", "PPC "},
  };
  return code < 8 ? kArch[code] : kArch[0];
}

char* CopyOut(const std::string& text, char* buf, std::uint32_t size) {
  if (!buf || size == 0) return buf;
  std::memset(buf, 0, size);
  std::strncpy(buf, text.c_str(), size - 1);
  return buf;
}

std::uint32_t Win9xLevel(std::uint32_t minor) { return minor == 0 ? kOsWin95 : minor == 10 ? kOsWin98 : kOsWinMe; }

}  // namespace

std::uint32_t os_level_from_version(std::uint32_t platform_id, std::uint32_t major, std::uint32_t minor, bool extended,
                                    std::uint32_t product_type) {
  if (platform_id == 1) return Win9xLevel(minor);
  if (platform_id != 2) return 0;
  const bool workstation = extended && product_type == 1;
  switch (major) {
    case 3: return minor < 51 ? kOsNt31 : kOsNt351;
    case 4: return kOsNt4;
    case 5: return minor == 0 ? kOsWin2000 : (minor == 1 || minor == 2) && workstation ? kOsWinXp : kOsWin2003;
    case 6: return minor == 0 && workstation ? kOsVista : kOsWin2008;
    default: return kOsWin2008;
  }
}

std::uint32_t os_level_from_server(std::uint32_t server_type, std::uint32_t major, std::uint32_t minor) {
  if (server_type & kServerWin9x) return Win9xLevel(minor);
  const bool server = (server_type & (kServerServerNt | kServerDomainCtrl)) != 0;
  const bool backup = (server_type & kServerBackupCtrl) != 0;
  switch (major & 0x0F) {
    case 3: return minor < 51 ? kOsNt31 : kOsNt351;
    case 4: return kOsNt4;
    case 5:
      if (minor == 0) return kOsWin2000;
      if (minor > 2 || server) return kOsWin2003;
      return backup ? kOsWin2003 : kOsWinXp;
    case 6:
      if (minor != 0 || server) return kOsWin2008;
      return backup ? kOsWin2008 : kOsVista;
    default: return 0;
  }
}

int os_is_wow64() { return platform::QueryWow64() == 1 ? 1 : 0; }

void os_identify() {
  g_os = OsFacts{};
  g_os.extended = platform::GetOsVersionEx(g_os.version);
  if (!g_os.extended && !platform::GetOsVersion(g_os.version)) g_os.version = platform::OsVersion{0, 0, 0, 0};
  platform::GetSystemInfo(g_os.system);
  const auto& v = g_os.version;
  if (v.platform_id == 1) {
    g_os.arch = kArchNoProductType;
  } else if (v.platform_id == 2) {
    g_os.arch = reg_target_architecture(reg_local());
    g_os.wow64 = os_is_wow64();
    if (g_os.wow64) g_os.view64 = platform::kKeyWow64_64Key;
    else if (g_os.arch == kArchAmd64) g_os.view32 = platform::kKeyWow64_32Key;
  }
  g_os.level = os_level_from_version(v.platform_id, v.major, v.minor, g_os.extended, v.product_type);
}

char* os_local_text(char* buf, std::uint32_t size) {
  const auto& v = g_os.version;
  std::string text = Arch(g_os.arch).local_prefix;
  char system[512] = {};
  const std::string own_name = platform::OsProductName();
  const LevelWords* words = FindLevel(g_os.level);
  if (!own_name.empty()) {
    std::snprintf(system, sizeof system, "%s%s%s", own_name.c_str(), v.csd[0] ? " " : "", v.csd);
  } else if (words && g_os.level <= kOsWinMe) {
    std::snprintf(system, sizeof system, words->local_format, static_cast<int>(v.major), static_cast<int>(v.minor),
                  static_cast<int>(v.build & 0xFFFF), v.csd);
  } else if (words) {
    std::snprintf(system, sizeof system, words->local_format, static_cast<int>(v.build), v.csd);
  } else {
    std::snprintf(system, sizeof system, "Windows %d.%02d", static_cast<int>(v.major), static_cast<int>(v.minor));
  }
  text += system;
  if (g_os.extended && g_os.level >= kOsNt4 && v.sp_major != 0) {
    char sp[32];
    std::snprintf(sp, sizeof sp, " (SP %d.%d)", v.sp_major, v.sp_minor);
    text += sp;
  }
  return CopyOut(text, buf, size);
}

char* os_remote_text(std::uint32_t arch, std::uint32_t level, char* buf, std::uint32_t size) {
  std::string text = arch == kArchNoPrefix1 || arch == kArchNoPrefix2 ? "" : Arch(arch).remote_prefix;
  const LevelWords* words = FindLevel(level);
  text += words ? words->remote_name : "Unknown";
  return CopyOut(text, buf, size);
}

const char* os_arch_name(std::uint32_t arch) { return Arch(arch).long_name; }
