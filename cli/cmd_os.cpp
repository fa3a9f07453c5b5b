// chronwarden os: names the local system as the applet's messages do.
#include <cstdio>
#include <string>

#include "cli/commands.h"
#include "config/os_identify.h"

namespace {

constexpr const char* kHelp =
    "Usage: chronwarden os [identify] [--json]\n\n"
    "Prints the local system as the applet names it: the text (architecture, system, service pack),\n"
    "the OS level (2048 Windows 2000, 4096 XP, 8192 Server 2003, 16384 Vista, 32768 Server 2008 and\n"
    "later; a Linux system reports 32768 and names its kernel), the architecture code and name, and\n"
    "whether the process is 32-bit on a 64-bit system.\n\n"
    "  --json  {\"text\": ..., \"level\": N, \"level_name\": ..., \"arch\": N, \"arch_name\": ..., \"wow64\": bool}\n";

}  // namespace

int CmdOs(CommandArgs args) {
  bool json = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const auto a = args[i];
    if (IsHelp(a)) return std::fputs(kHelp, stdout), kExitOk;
    if (a == "--json") json = true;
    else if (!(i == 0 && a == "identify")) return UsageError("os", "unknown argument '" + std::string(a) + "'");
  }
  os_identify();
  char text[256], level_name[64];
  os_local_text(text, sizeof text);
  os_remote_text(kArchNoPrefix1, g_os.level, level_name, sizeof level_name);
  if (json) {
    std::printf("{\"text\": %s, \"level\": %u, \"level_name\": %s, \"arch\": %u, \"arch_name\": %s, \"wow64\": %s}\n",
                JsonString(text).c_str(), g_os.level, JsonString(level_name).c_str(), g_os.arch,
                JsonString(os_arch_name(g_os.arch)).c_str(), g_os.wow64 ? "true" : "false");
    return kExitOk;
  }
  std::printf("System:        %s\n", text);
  std::printf("OS level:      %u (%s)\n", g_os.level, level_name);
  std::printf("Architecture:  %u (%s)\n", g_os.arch, os_arch_name(g_os.arch));
  std::printf("32-bit on 64:  %s\n", g_os.wow64 ? "yes" : "no");
  return kExitOk;
}
