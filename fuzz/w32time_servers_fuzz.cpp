// The time service's server list ("NTPServer") and "Type" texts as any bytes: parsing never crashes,
// keeps at most six servers with terminated names of at most 63 characters, and the list text made
// from them parses back as the same servers with the same flags. Everything stays in memory: the
// registry round trip around these two functions is the same for every input.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "config/os_identify.h"
#include "config/w32time.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

void CheckServers(const W32tSettings& s) {
  Check(s.server_count <= kW32tMaxServers);
  for (std::uint32_t i = 0; i < kW32tMaxServers; ++i) {
    const W32tServer& e = s.servers[i];
    const void* end = std::memchr(e.name, 0, sizeof e.name);
    Check(end != nullptr && e.work == -1);
    Check((i < s.server_count) == (e.name[0] != '\0'));
    if (i >= s.server_count) Check(e.flags == 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  text = text.substr(0, text.find('\0'));

  const std::uint32_t type = w32t_type_from_text(text.c_str());
  Check(type <= kW32tDisabled || type == kW32tUnknownType);
  if (type != kW32tUnknownType) Check(w32t_type_from_text(w32t_type_text(type)) == type);

  W32tSettings s{};
  w32t_parse_servers(text.c_str(), s);
  CheckServers(s);

  W32tSettings again{};
  w32t_parse_servers(w32t_server_list_text(s, kOsWin2008).c_str(), again);
  CheckServers(again);
  Check(again.server_count == s.server_count);
  for (std::uint32_t i = 0; i < s.server_count; ++i) {
    Check(std::strcmp(again.servers[i].name, s.servers[i].name) == 0);
    Check(again.servers[i].flags == s.servers[i].flags);
  }

  // Windows 2000 keeps names alone: they read back as at most as many servers, never more.
  W32tSettings names_only{};
  w32t_parse_servers(w32t_server_list_text(s, kOsWin2000).c_str(), names_only);
  CheckServers(names_only);
  Check(names_only.server_count <= s.server_count);
  return 0;
}
