// The time service's server list ("NTPServer") and "Type" texts as any bytes: loading never crashes,
// keeps at most six servers with terminated names of at most 63 characters, and what it saves loads
// back as the same servers.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "applet/os_identify.h"
#include "config/registry.h"
#include "config/w32time.h"
#include "platform/paths.h"
#include "platform/registry.h"

namespace {

constexpr const char* kParams = "\\\\System\\CurrentControlSet\\Services\\W32Time\\Parameters";

void Check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool ready = [] {
    // A machine root of its own keeps the saves away from this machine's chrony; the store lives in
    // memory (no file, no flush): the parsing and the round trip are what is tested.
    const auto root = std::filesystem::temp_directory_path() / ("cw-fuzz-w32time-" + std::to_string(std::rand()));
    platform::SetEnvironmentValue("CHRONWARDEN_ROOT", root.string().c_str());
    platform::UseMemoryRegistryStore();
    g_w32t_env.level = kOsWin2008;
    return reg_connect_target(nullptr) == 1;
  }();
  Check(ready);
  std::string text(reinterpret_cast<const char*>(data), size);
  text = text.substr(0, text.find('\0'));
  reg_set_string(kParams, "NTPServer", text.c_str());
  reg_set_string(kParams, "Type", text.c_str());
  W32tSettings s{};
  w32t_load(s);
  Check(s.server_count <= kW32tMaxServers);
  Check(s.sync_type >= 1 && s.sync_type <= 4);
  for (const auto& e : s.servers) Check(std::memchr(e.name, 0, sizeof e.name) != nullptr && e.work == -1);
  w32t_save(s, 1);
  W32tSettings again{};
  w32t_load(again);
  Check(again.server_count == s.server_count);
  for (std::uint32_t i = 0; i < s.server_count; ++i) Check(std::strcmp(again.servers[i].name, s.servers[i].name) == 0);
  return 0;
}
