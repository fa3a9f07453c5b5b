// chronwarden config: shows and edits the Windows Time settings record of a machine, and tells
// the time service as the applet's Apply does.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <array>
#include <optional>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/service_cli.h"
#include "config/address_list.h"
#include "config/chrony_sources.h"
#include "config/defaults.h"
#include "config/registry.h"
#include "config/w32time.h"
#include "platform/error.h"
#include "platform/error_text.h"

namespace {

constexpr const char* kHelp =
    "Usage: chronwarden config show [--json] [--machine NAME]\n"
    "       chronwarden config set FIELD=VALUE... [--machine NAME] [--no-apply]\n\n"
    "  show     prints every setting of the time service and of the Chronwarden provider\n"
    "  set      changes fields, saves the settings with the provider's registration, then (unless\n"
    "           --no-apply) tells a running time service that its parameters changed and asks it to\n"
    "           synchronise now. An unknown field or a bad value exits 2 and writes nothing.\n\n"
    "Fields (numbers decimal or 0x-hex; flags 0/1, true/false):\n"
    "  sync_type              NoSync, NT5DS, AllSync, NTP (or 1-4)\n"
    "  server1 ... server6    NTP server names (\"\" removes one); server1_flags ... mode flags\n"
    "                         (0x1 special poll interval, 0x8 client mode)\n"
    "  service_start          automatic, manual, disabled (or 2-4)\n"
    "  kr2_managers           who may clear the history and resync over KR2: addresses a.b.c.d,\n"
    "                         prefixes a.b.c.d/N, \"any\" (loopback always may)\n"
    "  kr2_rate_limit         reply bytes a second one source is sent (0: no limit); kr2_rate_burst\n"
    "                         the bytes a quiet source may be sent at once\n"
    "  kr2_prohibited         KR2 commands refused: default (102,150,160,180), none, or codes 0-255\n"
    "                         separated by commas (read when the provider starts)\n"
    "  and every other field 'config show' lists, except the read-only ones marked (read only).\n\n"
    "Options:\n"
    "  --machine NAME  the settings of NAME (\\\\NAME or NAME) instead of the local machine\n"
    "  --json          one JSON object of all fields\n";

const char* StartText(std::uint32_t start) {
  return start == 2 ? "automatic" : start == 3 ? "manual" : start == 4 ? "disabled" : start < 2 ? "boot" : "unknown";
}

bool ParseU32(std::string_view v, std::uint32_t& out) {
  if (v.size() > 2 && v[0] == '0' && (v[1] == 'x' || v[1] == 'X')) {
    std::uint32_t value = 0;
    auto [p, ec] = std::from_chars(v.data() + 2, v.data() + v.size(), value, 16);
    if (ec != std::errc{} || p != v.data() + v.size()) return false;
    out = value;
    return true;
  }
  return ParseNumber(v, out);
}

bool ParseFlag(std::string_view v, std::uint32_t& out) {
  if (v == "1" || v == "true" || v == "yes" || v == "on") return out = 1, true;
  if (v == "0" || v == "false" || v == "no" || v == "off") return out = 0, true;
  return false;
}

// Applies one FIELD=VALUE to s; false with the reason in why.
bool Apply(W32tSettings& s, std::string_view field, std::string_view value, std::string& why) {
  // server1..server6 and server1_flags..server6_flags.
  if (field.size() >= 7 && field.substr(0, 6) == "server" && field[6] >= '1' && field[6] <= '6' &&
      (field.size() == 7 || field.substr(7) == "_flags")) {
    const int i = field[6] - '1';
    if (field.size() == 7) {
      if (value.size() > 63) return why = "names are at most 63 characters", false;
      if (value.find_first_of(" ,\t\r\n") != std::string_view::npos)
        return why = "a name has no blanks or commas", false;
      std::memset(s.servers[i].name, 0, sizeof s.servers[i].name);
      std::memcpy(s.servers[i].name, value.data(), value.size());
    } else {
      std::uint32_t flags = 0;
      if (!ParseU32(value, flags) || flags > 0xFF) return why = "flags are a number from 0 to 0xff", false;
      s.servers[i].flags = flags;
    }
    // Empty entries are skipped on saving; the count covers the last named one.
    s.server_count = 0;
    for (std::uint32_t k = 0; k < kW32tMaxServers; ++k)
      if (s.servers[k].name[0]) s.server_count = k + 1;
    return true;
  }
  for (const W32tField& f : w32t_fields()) {
    if (field != f.name) continue;
    if (f.read_only) return why = "the field is read only", false;
    std::uint32_t n = 0;
    switch (f.text) {
      case W32tText::Addresses:
        if (const AddressList list = ParseAddressList(value); !list.rejected.empty())
          return why = "\"" + list.rejected.front() + "\" is neither an address (a.b.c.d), a prefix (a.b.c.d/N) nor \"any\"", false;
        [[fallthrough]];
      case W32tText::String:
        if (value.size() >= f.size) return why = "at most " + std::to_string(f.size - 1) + " characters", false;
        std::memset(w32t_chars(s, f), 0, f.size);
        std::memcpy(w32t_chars(s, f), value.data(), value.size());
        return true;
      case W32tText::Flag:
        if (!ParseFlag(value, n)) return why = "expected 0 or 1", false;
        break;
      case W32tText::Number:
        if (!ParseU32(value, n)) return why = "expected a number", false;
        break;
      case W32tText::SyncType: {
        const std::string text(value);
        n = w32t_type_from_text(text.c_str());
        if (!ParseU32(value, n) && (n == kW32tUnknownType || n == kW32tNotTouched || n == kW32tDisabled))
          return why = "expected NoSync, NT5DS, AllSync or NTP", false;
        if (n < kW32tNoSync || n > kW32tNtp) return why = "expected NoSync, NT5DS, AllSync or NTP", false;
        break;
      }
      case W32tText::Start:
        if (value == "automatic" || value == "auto") n = 2;
        else if (value == "manual") n = 3;
        else if (value == "disabled") n = 4;
        else if (!ParseU32(value, n) || n < 2 || n > 4) return why = "expected automatic, manual or disabled", false;
        break;
    }
    w32t_number(s, f) = n;
    return true;
  }
  return why = "unknown field", false;
}

// The KR2 commands the provider refuses ("Prohibited KR2 Commands", beside the settings record):
// "default" while the value is missing (102, 150, 160 and 180 refused), "none", or the codes.
using Kr2Table = std::array<std::uint8_t, 256>;
std::string ProhibitedText(const RegTarget& target) {
  Kr2Table t{};
  if (!reg_get_binary(target, defaults::kW32TimeParametersKey, defaults::kProhibitedKr2Value, t.data(), t.size())) return "default";
  std::string out;
  for (std::size_t code = 0; code < t.size(); ++code) {
    if (!t[code]) continue;
    if (!out.empty()) out += ',';
    out += std::to_string(code);
  }
  return out.empty() ? "none" : out;
}
// "default" (nullopt: the value goes), "none", or codes 0-255 separated by commas.
bool ParseProhibited(std::string_view v, std::optional<Kr2Table>& table, std::string& why) {
  table.reset();
  if (v == "default") return true;
  table.emplace();
  table->fill(0);
  if (v == "none") return true;
  for (std::size_t at = 0; at <= v.size();) {
    const std::size_t comma = std::min(v.find(',', at), v.size());
    std::uint32_t code = 0;
    if (!ParseNumber(v.substr(at, comma - at), code, 0u, 255u))
      return why = "expected default, none or command codes 0-255 separated by commas", false;
    (*table)[code] = 1;
    at = comma + 1;
  }
  return true;
}

std::string ValueText(const W32tSettings& s, const W32tField& f, bool json) {
  if (f.text == W32tText::String || f.text == W32tText::Addresses)
    return json ? JsonString(w32t_chars(s, f)) : w32t_chars(s, f);
  const std::uint32_t n = w32t_number(s, f);
  if (f.text == W32tText::SyncType) return json ? std::to_string(n) : std::string(w32t_type_text(n)) + " (" + std::to_string(n) + ")";
  if (f.text == W32tText::Start) return json ? std::to_string(n) : std::string(StartText(n)) + " (" + std::to_string(n) + ")";
  return std::to_string(n);
}

void Show(const RegTarget& target, const W32tSettings& s, bool json) {
  if (json) {
    std::printf("{\"machine\": %s, \"os_level\": %u", JsonString(target.name().c_str()).c_str(), g_w32t_env.level);
    for (const W32tField& f : w32t_fields()) std::printf(", \"%s\": %s", f.name, ValueText(s, f, true).c_str());
    std::printf(", \"servers\": [");
    for (std::uint32_t i = 0; i < s.server_count; ++i)
      std::printf("%s{\"name\": %s, \"flags\": %u}", i ? ", " : "", JsonString(s.servers[i].name).c_str(),
                  s.servers[i].flags);
    std::printf("], \"kr2_prohibited\": %s}\n", JsonString(ProhibitedText(target).c_str()).c_str());
    return;
  }
  std::printf("Windows Time settings of %s (OS level %u)\n", target.local() ? "the local machine" : target.name().c_str(),
              g_w32t_env.level);
  for (const W32tField& f : w32t_fields())
    std::printf("  %-26s %s%s\n", f.name, ValueText(s, f, false).c_str(), f.read_only ? "  (read only)" : "");
  for (std::uint32_t i = 0; i < s.server_count; ++i)
    std::printf("  server%-20u %s  flags 0x%x\n", i + 1, s.servers[i].name, s.servers[i].flags);
  std::printf("  %-26s %s\n", "kr2_prohibited", ProhibitedText(target).c_str());
}

}  // namespace

int CmdConfig(CommandArgs args) {
  if (args.empty()) return UsageError("config", "show or set is needed");
  if (IsHelp(args[0])) return std::fputs(kHelp, stdout), kExitOk;
  const std::string_view verb = args[0];
  if (verb != "show" && verb != "set") return UsageError("config", "unknown action '" + std::string(verb) + "'");
  std::string machine;
  bool json = false, apply = true;
  std::vector<std::pair<std::string, std::string>> edits;
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string_view a = args[i];
    if (IsHelp(a)) return std::fputs(kHelp, stdout), kExitOk;
    if (a == "--machine" && i + 1 < args.size()) machine = args[++i];
    else if (a == "--json" && verb == "show") json = true;
    else if (a == "--no-apply" && verb == "set") apply = false;
    else if (verb == "set" && a.find('=') != std::string_view::npos && a[0] != '-')
      edits.emplace_back(std::string(a.substr(0, a.find('='))), std::string(a.substr(a.find('=') + 1)));
    else return UsageError("config", "unexpected argument '" + std::string(a) + "'");
  }
  if (verb == "set" && edits.empty()) return UsageError("config", "set needs FIELD=VALUE");

  RegTarget target;
  if (!reg_open_target(machine.c_str(), target)) return CliFailure("config", "cannot reach the registry of " + machine);
  w32t_environment_init(target);
  W32tSettings s{};
  if (const std::uint32_t st = w32t_load(target, s)) {
    char text[512];
    return CliFailure("config", SystemErrorText(st, text, sizeof text));
  }
  if (verb == "show") return Show(target, s, json), kExitOk;

  bool set_prohibited = false;
  std::optional<Kr2Table> prohibited;
  for (const auto& [field, value] : edits) {
    std::string why;
    if (field == "kr2_prohibited") {
      if (!ParseProhibited(value, prohibited, why)) return UsageError("config", "bad value for " + field + ": " + why);
      set_prohibited = true;
      continue;
    }
    if (!Apply(s, field, value, why))
      return UsageError("config", why == "unknown field" ? "unknown field '" + field + "'" : "bad value for " + field + ": " + why);
  }
  // Nothing is called saved that the store did not keep.
  if (const std::uint32_t st = w32t_save(target, s, 1)) return CliFailure("config", "the settings were not saved: " + SystemErrorLine(st));
  // On the local machine the NTP client (chrony on Linux) takes the servers at once.
  const std::uint32_t ntp_client = machine.empty() && !chrony_apply_settings(s) ? platform::LastError() : 0;
  if (set_prohibited && !(prohibited ? reg_set_binary(target, defaults::kW32TimeParametersKey, defaults::kProhibitedKr2Value,
                                                      prohibited->data(), prohibited->size())
                                     : reg_delete_value(target, defaults::kW32TimeParametersKey, defaults::kProhibitedKr2Value)) &&
      platform::LastError() != platform::kErrorFileNotFound)
    return CliFailure("config", "kr2_prohibited was not saved: " + SystemErrorLine(platform::LastError()));
  std::printf("Settings saved%s.\n", machine.empty() ? "" : (" on " + machine).c_str());
  if (machine.empty() && ntp_client != 0)
    return CliFailure("config", "the NTP client did not take the servers: " + SystemErrorLine(ntp_client));
  if (!apply) return kExitOk;
  return NotifyTimeService(machine.c_str()) ? kExitOk : kExitFailed;
}
