// The Windows Time settings record: loading, saving with registration, sync type texts, key
// security and the Kairon coexistence rules.
#include "config/w32time.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "config/defaults.h"
#include "config/os_identify.h"
#include "config/registry.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/os.h"
#include "platform/paths.h"
#include "platform/text.h"

W32tEnvironment g_w32t_env{};

namespace {

constexpr const char* kW32TimeKey = defaults::kW32TimeServiceKey;
constexpr const char* kParametersKey = defaults::kW32TimeParametersKey;
constexpr const char* kConfigKey = "\\\\System\\CurrentControlSet\\Services\\W32Time\\Config";
using defaults::kTimeProvidersKey;
constexpr const char* kNtpClientKey = "\\\\System\\CurrentControlSet\\Services\\W32Time\\TimeProviders\\NtpClient";
constexpr const char* kNtpServerKey = "\\\\System\\CurrentControlSet\\Services\\W32Time\\TimeProviders\\NtpServer";
using defaults::kProviderKey;
constexpr const char* kLanmanKey = "\\\\System\\CurrentControlSet\\Services\\LanmanServer\\Parameters";
constexpr const char* kComputerNameKey = "\\\\System\\CurrentControlSet\\Control\\ComputerName\\ComputerName";
constexpr const char* kCategoryKey1 =
    "\\\\Software\\Microsoft\\Windows\\CurrentVersion\\Control Panel\\Extended Properties\\"
    "{305CA226-D286-468e-B848-2B2E8E697B74} 2";
constexpr const char* kCategoryKey2 =
    "\\\\Software\\Microsoft\\Windows\\CurrentVersion\\Control Panel\\Extended Properties\\System.ControlPanel.Category";
constexpr const char* kKaironServerKey = defaults::kKaironServerParamsKey;
constexpr const char* kKaironClientKey = defaults::kKaironClientParamsKey;
using defaults::kKaironProtocolsKey;
constexpr const char* kKaironServerService = "\\\\System\\CurrentControlSet\\Services\\Kairon Server";
constexpr const char* kKaironClientService = "\\\\System\\CurrentControlSet\\Services\\Kairon Client";

constexpr std::uint32_t kServiceDisabled = 4;

struct TypeName {
  std::uint32_t code;
  const char* text;
};
// In the order the first three characters are compared.
constexpr TypeName kTypeNames[] = {{kW32tNotTouched, "Not Touched"}, {kW32tDisabled, "Disabled"},
                                   {kW32tNoSync, "NoSync"},         {kW32tNt5ds, "NT5DS"},
                                   {kW32tAllSync, "AllSync"},       {kW32tNtp, "NTP"}};

bool IsTrim(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string_view Trimmed(std::string_view t) {
  while (!t.empty() && IsTrim(t.back())) t.remove_suffix(1);
  while (!t.empty() && IsTrim(t.front())) t.remove_prefix(1);
  return t;
}

// "0xH" or "0xHH": true with the value.
bool ModeToken(const char* t, std::size_t len, std::uint32_t& value) {
  if ((len != 3 && len != 4) || t[0] != '0' || (t[1] != 'x' && t[1] != 'X')) return false;
  for (std::size_t i = 2; i < len; ++i)
    if (!std::isxdigit(static_cast<unsigned char>(t[i]))) return false;
  value = len == 3 ? w32t_hex_digit(t[2]) : 16 * w32t_hex_digit(t[2]) + w32t_hex_digit(t[3]);
  return true;
}

void LoadModuleProbe(const RegTarget& t, W32tSettings& s) {
  char name[256];
  reg_get_string(t, kComputerNameKey, "ComputerName", name, sizeof name, g_w32t_env.computer_name);
  char path[512];
  if (!platform::EqualsNoCase(name, g_w32t_env.computer_name))
    std::snprintf(path, sizeof path, "\\\\%s\\admin$\\system32\\%s", name, defaults::kModuleFileName);
  else
    std::snprintf(path, sizeof path, "%s%s", g_w32t_env.system_dir, defaults::kModuleFileName);
  s.module_present = platform::FileExists(path) ? kModulePresent : kModuleAbsent;
}

using T = W32tText;
using S = W32tStore;
using W = W32tWhen;
#define CW_FIELD(field, text, store, when, read_only, key, value, def, def_text)                                  \
  W32tField {                                                                                                     \
    #field, T::text, S::store, W::when, read_only, offsetof(W32tSettings, field), sizeof(W32tSettings::field), key, \
        value, def, def_text                                                                                      \
  }
// Every field once, in the order config show lists them; loading goes through it in this order,
// saving in kSaveOrder's.
//
// String fields hold at most their array's size - 1 characters (the reference clock and the file log
// entries 63, the file log name 127, the KR2 managers 255), and every front-end (the pages, config
// set, agent set, the Cockpit page through the pages) accepts exactly that many. A value of that
// full length is read whole: the registry read asks for one byte less than its buffer, so the field
// is read through a buffer one byte larger than the array, and what was saved loads back. A longer
// value, written by another tool, does not fit and reads as the default.
constexpr W32tField kFields[] = {
    CW_FIELD(sync_type, SyncType, TypeText, Always, false, kParametersKey, "Type", kW32tNtp, ""),
    CW_FIELD(service_start, Start, Dword, Always, false, kW32TimeKey, "Start", defaults::kW32tServiceStart, nullptr),
    CW_FIELD(ntp_client_enabled, Flag, Dword, XpUp, false, kNtpClientKey, "Enabled", 0, nullptr),
    CW_FIELD(ntp_client_input_provider, Flag, Dword, XpUp, false, kNtpClientKey, "InputProvider", 0, nullptr),
    CW_FIELD(ntp_client_poll_interval, Number, Dword, XpUp, false, kNtpClientKey, "SpecialPollInterval", 0, nullptr),
    CW_FIELD(ntp_server_enabled, Flag, Dword, XpUp, false, kNtpServerKey, "Enabled", 0, nullptr),
    CW_FIELD(announce_flags, Number, Dword, XpUp, false, kConfigKey, "AnnounceFlags", 0, nullptr),
    CW_FIELD(max_allowed_phase_offset, Number, Dword, XpUp, true, kConfigKey, "MaxAllowedPhaseOffset", 0, nullptr),
    CW_FIELD(lanman_time_source, Flag, Dword, Always, false, kLanmanKey, "TimeSource", 0, nullptr),
    CW_FIELD(local_ntp, Number, Dword, Win2000, false, kParametersKey, "LocalNTP", 0, nullptr),
    CW_FIELD(reliable_time_source, Number, Dword, Win2000, false, kParametersKey, "ReliableTimeSource", 0, nullptr),
    CW_FIELD(file_logging_on, Flag, None, XpUp, false, nullptr, nullptr, 0, nullptr),
    CW_FIELD(file_log_size, Number, Dword, FileLog, false, kConfigKey, "FileLogSize", 0, nullptr),
    CW_FIELD(file_log_entries, String, String, FileLog, false, kConfigKey, "FileLogEntries", 0, ""),
    CW_FIELD(file_log_name, String, String, FileLog, false, kConfigKey, "FileLogName", 0, ""),
    CW_FIELD(provider_enabled, Flag, Dword, Registered, false, kProviderKey, "Enabled", 0, nullptr),
    CW_FIELD(provider_input_provider, Flag, Dword, Registered, false, kProviderKey, "InputProvider", 0, nullptr),
    CW_FIELD(check_interval, Number, Dword, Registered, false, kProviderKey, "SpecialPollInterval",
             defaults::kCheckIntervalS, nullptr),
    CW_FIELD(alert_threshold, Number, Dword, Registered, false, kProviderKey, "Alert Threshhold (seconds)",
             defaults::kAlertThresholdS, nullptr),
    CW_FIELD(alert_if_unverified, Flag, Dword, Registered, false, kProviderKey, "Alert if Unverified", 1, nullptr),
    CW_FIELD(alert_if_unsynchronized, Flag, Dword, Registered, false, kProviderKey, "Alert if Unsynchronized", 1,
             nullptr),
    CW_FIELD(dns_lookups_enabled, Flag, Bool, Registered, false, kProviderKey, "DNS Lookups Enabled", 1, nullptr),
    CW_FIELD(reference_clock, String, String, Registered, false, kProviderKey, "Reference Clock", 0, ""),
    CW_FIELD(kr2_managers, Addresses, String, Registered, false, kProviderKey, defaults::kKr2ManagersValue, 0,
             defaults::kKr2ManagersDefault),
    CW_FIELD(kr2_rate_limit, Number, Dword, Registered, false, kProviderKey, defaults::kKr2RateLimitValue,
             defaults::kKr2RateLimitBytes, nullptr),
    CW_FIELD(kr2_rate_burst, Number, Dword, Registered, false, kProviderKey, defaults::kKr2RateBurstValue,
             defaults::kKr2RateBurstBytes, nullptr),
    // Read only: registration writes "Service Installed" itself (True), the module is looked for.
    CW_FIELD(service_installed, Flag, Bool, Registered, true, kProviderKey, "Service Installed", 0, nullptr),
    CW_FIELD(module_present, Number, None, XpUp, true, nullptr, nullptr, kModuleNotProbed, nullptr),
    CW_FIELD(server_count, Number, ServerList, Always, true, kParametersKey, "NTPServer", 0, ""),
};
#undef CW_FIELD

// The order of a save: the LAN Manager's time source, the time service's type, start and servers,
// the Windows 2000 pair, Config (file logging's values written while it is on, removed otherwise),
// the NTP client and server; then, when registering, the provider's key (w32t_save), whose settings
// after "DllName" follow kProviderSaveOrder. Each name is a field of kFields; every field config set
// may change is in one of the two lists.
constexpr std::string_view kSaveOrder[] = {
    "lanman_time_source",       "sync_type",         "service_start",    "server_count",  "local_ntp",          "reliable_time_source",
    "announce_flags",           "file_log_size",     "file_log_entries", "file_log_name", "ntp_client_enabled", "ntp_client_input_provider",
    "ntp_client_poll_interval", "ntp_server_enabled"};
constexpr std::string_view kProviderSaveOrder[] = {"reference_clock", "alert_if_unsynchronized", "alert_if_unverified", "alert_threshold",
                                                   "kr2_managers",    "kr2_rate_limit",          "kr2_rate_burst"};

const W32tField* FieldNamed(std::string_view name) {
  for (const W32tField& f : kFields)
    if (name == f.name) return &f;
  return nullptr;
}

// Whether the OS level holds the field's value.
bool LevelHolds(W32tWhen when, std::uint32_t level) {
  if (when == W32tWhen::Always) return true;
  if (when == W32tWhen::Win2000) return level == kOsWin2000;
  return level >= kOsWinXp;
}

void LoadField(const RegTarget& t, W32tSettings& s, const W32tField& f) {
  switch (f.store) {
    case W32tStore::Dword:
      w32t_number(s, f) = reg_get_dword(t, f.key, f.value, f.def);
      break;
    case W32tStore::Bool:
      w32t_number(s, f) = reg_get_bool(t, f.key, f.value, int(f.def));
      break;
    case W32tStore::String: {
      std::vector<char> whole(f.size + 1);   // the full length and its terminator (see kFields)
      reg_get_string(t, f.key, f.value, whole.data(), std::uint32_t(whole.size()), f.def_text);
      std::memcpy(w32t_chars(s, f), whole.data(), f.size - 1);
      w32t_chars(s, f)[f.size - 1] = '\0';
      break;
    }
    case W32tStore::TypeText: {
      char type[260];
      reg_get_string(t, f.key, f.value, type, sizeof type, f.def_text);
      s.sync_type = w32t_type_from_text(type);
      if (s.sync_type == kW32tNotTouched || s.sync_type == kW32tDisabled || s.sync_type == kW32tUnknownType)
        s.sync_type = f.def;
      break;
    }
    case W32tStore::ServerList: {
      char empty[1] = {};
      char* list = reg_get_string_alloc(t, f.key, f.value, empty);
      w32t_parse_servers(list, s);
      reg_free_string(list, empty);
      break;
    }
    case W32tStore::None:
      break;
  }
}

// 1 when stored (a field that is not written counts as stored), 0 with the last error.
int SaveField(const RegTarget& t, const W32tSettings& s, const W32tField& f, std::uint32_t level) {
  switch (f.store) {
    case W32tStore::Dword:
      return reg_set_dword(t, f.key, f.value, w32t_number(s, f));
    case W32tStore::Bool:
      return reg_set_bool(t, f.key, f.value, w32t_number(s, f) != 0);
    case W32tStore::String:
      return reg_set_string(t, f.key, f.value, w32t_chars(s, f));
    case W32tStore::TypeText:
      return reg_set_string(t, f.key, f.value, w32t_type_text(s.sync_type));
    case W32tStore::ServerList:
      return reg_set_string(t, f.key, f.value, w32t_server_list_text(s, level).c_str());
    case W32tStore::None:
      break;
  }
  return 1;
}

}  // namespace

std::uint32_t w32t_type_from_text(const char* text) {
  for (const auto& t : kTypeNames)
    if (platform::StartsWithNoCase(text, std::string_view(t.text).substr(0, 3))) return t.code;
  return kW32tUnknownType;
}

const char* w32t_type_text(std::uint32_t type) {
  for (const auto& t : kTypeNames)
    if (t.code == type) return t.text;
  return "NTP";
}

int w32t_hex_digit(int c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return c;
}

void w32t_parse_servers(const char* list, W32tSettings& s) {
  for (auto& e : s.servers) e = W32tServer{{}, -1, 1};
  s.server_count = 0;
  for (std::string_view rest(list);;) {
    rest.remove_prefix(std::min(rest.find_first_not_of(", "), rest.size()));
    if (rest.empty()) break;
    std::string_view tok = rest.substr(0, rest.find_first_of(", "));
    rest.remove_prefix(tok.size());
    tok = Trimmed(tok);
    if (tok.empty() || s.server_count >= kW32tMaxServers) break;
    // A name cut to fit also loses the blanks it then ends in; what is left is what reads back.
    const std::string_view name = Trimmed(tok.substr(0, sizeof(W32tServer::name) - 1));
    std::uint32_t flags = 0;
    if (s.server_count > 0 && ModeToken(name.data(), name.size(), flags)) {
      s.servers[s.server_count - 1].flags = flags;
      continue;
    }
    W32tServer& e = s.servers[s.server_count++];
    std::memcpy(e.name, name.data(), name.size());
    e.name[name.size()] = '\0';
    e.flags = 1;
  }
}

std::string w32t_server_list_text(const W32tSettings& s, std::uint32_t level) {
  std::string list;
  char flags[16];
  for (std::uint32_t i = 0; i < s.server_count && i < kW32tMaxServers; ++i) {
    const W32tServer& e = s.servers[i];
    const std::string_view name(e.name, strnlen(e.name, sizeof e.name));
    if (name.empty()) continue;
    if (!list.empty()) list += ' ';
    list += name;
    if (level == kOsWin2000) continue;
    std::snprintf(flags, sizeof flags, ",0x%x", e.flags);
    list += flags;
  }
  return list;
}

std::span<const W32tField> w32t_fields() { return kFields; }

std::uint32_t& w32t_number(W32tSettings& s, const W32tField& f) {
  return *reinterpret_cast<std::uint32_t*>(reinterpret_cast<char*>(&s) + f.offset);
}

char* w32t_chars(W32tSettings& s, const W32tField& f) { return reinterpret_cast<char*>(&s) + f.offset; }

std::uint32_t w32t_number(const W32tSettings& s, const W32tField& f) {
  return w32t_number(const_cast<W32tSettings&>(s), f);
}

const char* w32t_chars(const W32tSettings& s, const W32tField& f) { return w32t_chars(const_cast<W32tSettings&>(s), f); }

std::uint32_t w32t_load(const RegTarget& t, W32tSettings& s) {
  if (const std::uint32_t st = reg_readable(t, kW32TimeKey)) {
    platform::SetLastError(st);
    return st;
  }
  const std::uint32_t level = g_w32t_env.level;
  s.module_present = kModuleNotProbed;
  for (const W32tField& f : kFields)
    if (LevelHolds(f.when, level) && f.store != W32tStore::None) LoadField(t, s, f);
  if (level == kOsWin2000) s.service_installed = 0;
  if (level < kOsWinXp) return 0;
  s.file_logging_on = s.file_log_size != 0 && s.file_log_entries[0] && s.file_log_name[0];
  LoadModuleProbe(t, s);
  return 0;
}

std::uint32_t w32t_save(const RegTarget& t, const W32tSettings& s, int register_flag) {
  // Every value is written even after one failed; the first failure is what the save reports.
  std::uint32_t first = 0;
  const auto kept = [&first](int stored) {
    if (!stored && !first) first = platform::LastError() ? platform::LastError() : platform::kErrorWriteFault;
  };
  const std::uint32_t level = g_w32t_env.level;
  const auto save = [&](std::string_view name) {
    const W32tField* f = FieldNamed(name);
    if (!f || !LevelHolds(f->when, level)) return;
    if (f->when == W32tWhen::FileLog && !s.file_logging_on) {
      reg_delete_value(t, f->key, f->value);
      return;
    }
    kept(SaveField(t, s, *f, level));
  };
  for (std::string_view name : kSaveOrder) save(name);
  if (level < kOsWinXp) return first;
  if (!register_flag) {
    reg_delete_key(t, kProviderKey);
    reg_delete_value(t, kCategoryKey1, defaults::kCplCategoryValue);
    reg_delete_value(t, kCategoryKey2, defaults::kCplCategoryValue);
    return first;
  }
  // The provider's key: its registration and settings in the order a registration writes them.
  kept(reg_set_bool(t, kProviderKey, "Service Installed", 1));
  save("dns_lookups_enabled");
  kept(reg_set_string(t, kProviderKey, "Current Version", defaults::kProductVersion));
  kept(reg_set_dword(t, kProviderKey, "OEMID", defaults::kProviderOemId));
  for (std::string_view name : {"provider_enabled", "provider_input_provider", "check_interval"}) save(name);
  kept(reg_set_string(t, kProviderKey, "DllName", defaults::kModuleFileName));
  for (std::string_view name : kProviderSaveOrder) save(name);
  kept(reg_set_dword(t, kCategoryKey1, defaults::kCplCategoryValue, defaults::kCplCategory));
  kept(reg_set_dword(t, kCategoryKey2, defaults::kCplCategoryValue, defaults::kCplCategory));
  return first;
}

void w32t_secure_keys(const RegTarget& t) {
  using platform::RegAce;
  // Once Everyone had full access here, so that any user could change the service's ImagePath or
  // a provider's DllName (code run as LocalService or SYSTEM), open the KR2 responder to everybody
  // or silence it. Now only SYSTEM and the Administrators change the keys; LocalService, which the
  // time service runs as, writes the provider's own key (its partner text and time sources).
  constexpr std::uint32_t kInherit = platform::kAceInherit, kAllow = platform::kAceAccessAllowed;
  const RegAce read{kAllow, kInherit, platform::kGenericRead, kSidAuthenticatedUsers};
  const RegAce system{kAllow, kInherit, platform::kGenericAll, kSidLocalSystem};
  const RegAce admins{kAllow, kInherit, platform::kGenericAll, kSidAdministrators};
  const RegAce service_writes{kAllow, kInherit, platform::kGenericRead | platform::kGenericWrite, kSidLocalService};
  const RegAce settings[] = {read, system, admins};
  const RegAce provider[] = {read, system, admins, service_writes};
  // The provider's key last: the W32Time tree above it takes the settings' list first.
  for (const char* key : {kW32TimeKey, kParametersKey, kConfigKey, kTimeProvidersKey, kNtpClientKey, kNtpServerKey})
    if (reg_key_exists(t, key)) reg_set_tree_access(t, key, settings);
  if (reg_key_exists(t, kProviderKey)) reg_set_tree_access(t, kProviderKey, provider);
}

std::uint32_t w32t_installed_product(const RegTarget& t) {
  if (reg_get_bool(t, kKaironServerKey, "Service Installed", 0)) return kProductKaironServer;
  if (!reg_get_bool(t, kKaironClientKey, "Service Installed", 0)) return kProductNone;
  if (reg_get_bool(t, kKaironClientKey, "Thin Client", 0)) return kProductKaironThinClient;
  if (reg_get_bool(t, kKaironClientKey, "Ultra Thin Client", 0)) return kProductKaironUltraThinClient;
  return kProductKaironClient;
}

int w32t_kairon_service_disabled(const RegTarget& t) {
  return reg_get_dword(t, kKaironServerService, "Start", 2) == kServiceDisabled ||
         reg_get_dword(t, kKaironClientService, "Start", 2) == kServiceDisabled;
}

int w32t_kairon_serves_ntp(const RegTarget& t) {
  if (w32t_kairon_service_disabled(t)) return 0;
  if (w32t_installed_product(t) != kProductKaironServer) return 0;
  return reg_get_bool(t, kKaironProtocolsKey, "NTP/SNTP (RFC 1769)", 0);
}

int w32t_forced_disable(const RegTarget& t) {
  return reg_get_bool(t, kKaironClientKey, "Force Chronwarden Disable", 0) ||
         reg_get_bool(t, kKaironServerKey, "Force Chronwarden Disable", 0);
}

int w32t_apply_coexistence(const RegTarget& t, W32tSettings& s) {
  if (w32t_forced_disable(t)) {
    if (s.provider_enabled == 0) return 0;
    s.provider_enabled = 0;
    return 1;
  }
  if (s.provider_enabled == 0 && g_w32t_env.installed_product != kProductNone) {
    s.provider_enabled = 1;
    return 1;
  }
  return 0;
}

void w32t_environment_init(const RegTarget& t) {
  if (g_os.level == 0) os_identify();
  g_w32t_env.level = g_os.level;
  g_w32t_env.installed_product = w32t_installed_product(t);
  g_w32t_env.kairon_disabled = g_w32t_env.installed_product != kProductNone && w32t_kairon_service_disabled(t);
  if (!g_w32t_env.system_dir[0]) {
    std::snprintf(g_w32t_env.system_dir, 129, "%.127s\\", platform::SystemDirectory().c_str());
    std::snprintf(g_w32t_env.computer_name, 129, "%.127s", platform::ComputerName().c_str());
  }
}
