// The Windows Time settings record: loading, saving with registration, sync type texts, key
// security and the Kairon coexistence rules.
#include "config/w32time.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "config/chrony_sources.h"
#include "config/defaults.h"
#include "config/os_identify.h"
#include "config/registry.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/os.h"
#include "platform/paths.h"

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

bool SameText(const char* a, const char* b, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i, ++a, ++b) {
    if (std::tolower(static_cast<unsigned char>(*a)) != std::tolower(static_cast<unsigned char>(*b))) return false;
    if (!*a) return true;
  }
  return true;
}

// "0xH" or "0xHH": true with the value.
bool ModeToken(const char* t, std::size_t len, std::uint32_t& value) {
  if ((len != 3 && len != 4) || t[0] != '0' || (t[1] != 'x' && t[1] != 'X')) return false;
  for (std::size_t i = 2; i < len; ++i)
    if (!std::isxdigit(static_cast<unsigned char>(t[i]))) return false;
  value = len == 3 ? w32t_hex_digit(t[2]) : 16 * w32t_hex_digit(t[2]) + w32t_hex_digit(t[3]);
  return true;
}

void LoadModuleProbe(W32tSettings& s) {
  char name[256];
  reg_get_string(kComputerNameKey, "ComputerName", name, sizeof name, g_w32t_env.computer_name);
  char path[512];
  if (!SameText(name, g_w32t_env.computer_name, sizeof name))
    std::snprintf(path, sizeof path, "\\\\%s\\admin$\\system32\\%s", name, defaults::kModuleFileName);
  else
    std::snprintf(path, sizeof path, "%s%s", g_w32t_env.system_dir, defaults::kModuleFileName);
  s.module_present = platform::FileExists(path) ? kModulePresent : kModuleAbsent;
}

}  // namespace

std::uint32_t w32t_type_from_text(const char* text) {
  for (const auto& t : kTypeNames)
    if (SameText(text, t.text, 3)) return t.code;
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

std::uint32_t w32t_load(W32tSettings& s) {
  if (const std::uint32_t st = reg_readable(kW32TimeKey)) {
    platform::SetLastError(st);
    return st;
  }
  s.module_present = kModuleNotProbed;
  s.lanman_time_source = reg_get_dword(kLanmanKey, "TimeSource", 0);
  s.service_start = reg_get_dword(kW32TimeKey, "Start", defaults::kW32tServiceStart);

  char type[260];
  reg_get_string(kParametersKey, "Type", type, sizeof type, "");
  s.sync_type = w32t_type_from_text(type);
  if (s.sync_type == kW32tNotTouched || s.sync_type == kW32tDisabled || s.sync_type == kW32tUnknownType)
    s.sync_type = kW32tNtp;

  char empty[1] = {};
  char* list = reg_get_string_alloc(kParametersKey, "NTPServer", empty);
  w32t_parse_servers(list, s);
  reg_free_string(list, empty);

  const std::uint32_t level = g_w32t_env.level;
  if (level == kOsWin2000) {
    s.local_ntp = reg_get_dword(kParametersKey, "LocalNTP", 0);
    s.reliable_time_source = reg_get_dword(kParametersKey, "ReliableTimeSource", 0);
    s.service_installed = 0;
    return 0;
  }
  if (level < kOsWinXp) return 0;

  reg_get_string(kConfigKey, "FileLogEntries", s.file_log_entries, sizeof s.file_log_entries, "");
  reg_get_string(kConfigKey, "FileLogName", s.file_log_name, sizeof s.file_log_name, "");
  s.announce_flags = reg_get_dword(kConfigKey, "AnnounceFlags", 0);
  s.max_allowed_phase_offset = reg_get_dword(kConfigKey, "MaxAllowedPhaseOffset", 0);
  s.file_log_size = reg_get_dword(kConfigKey, "FileLogSize", 0);
  s.file_logging_on = s.file_log_size != 0 && s.file_log_entries[0] && s.file_log_name[0];

  s.ntp_client_enabled = reg_get_dword(kNtpClientKey, "Enabled", 0);
  s.ntp_client_input_provider = reg_get_dword(kNtpClientKey, "InputProvider", 0);
  s.ntp_client_poll_interval = reg_get_dword(kNtpClientKey, "SpecialPollInterval", 0);
  s.ntp_server_enabled = reg_get_dword(kNtpServerKey, "Enabled", 0);

  s.service_installed = reg_get_bool(kProviderKey, "Service Installed", 0);
  s.provider_enabled = reg_get_dword(kProviderKey, "Enabled", 0);
  s.provider_input_provider = reg_get_dword(kProviderKey, "InputProvider", 0);
  s.check_interval = reg_get_dword(kProviderKey, "SpecialPollInterval", defaults::kCheckIntervalS);
  s.alert_if_unverified = reg_get_dword(kProviderKey, "Alert if Unverified", 1);
  s.alert_if_unsynchronized = reg_get_dword(kProviderKey, "Alert if Unsynchronized", 1);
  s.dns_lookups_enabled = reg_get_bool(kProviderKey, "DNS Lookups Enabled", 1);
  s.alert_threshold = reg_get_dword(kProviderKey, "Alert Threshhold (seconds)", defaults::kAlertThresholdS);
  reg_get_string(kProviderKey, "Reference Clock", s.reference_clock, sizeof s.reference_clock, "");
  reg_get_string(kProviderKey, defaults::kKr2ManagersValue, s.kr2_managers, sizeof s.kr2_managers,
                 defaults::kKr2ManagersDefault);
  s.kr2_rate_limit = reg_get_dword(kProviderKey, defaults::kKr2RateLimitValue, defaults::kKr2RateLimitBytes);
  s.kr2_rate_burst = reg_get_dword(kProviderKey, defaults::kKr2RateBurstValue, defaults::kKr2RateBurstBytes);

  LoadModuleProbe(s);
  return 0;
}

std::uint32_t w32t_save(const W32tSettings& s, int register_flag) {
  // Every value is written even after one failed; the first failure is what the save reports.
  std::uint32_t first = 0;
  const auto kept = [&first](int stored) {
    if (!stored && !first) first = platform::LastError() ? platform::LastError() : platform::kErrorWriteFault;
  };
  const std::uint32_t level = g_w32t_env.level;
  kept(reg_set_dword(kLanmanKey, "TimeSource", s.lanman_time_source));
  kept(reg_set_string(kParametersKey, "Type", w32t_type_text(s.sync_type)));
  kept(reg_set_dword(kW32TimeKey, "Start", s.service_start));

  kept(reg_set_string(kParametersKey, "NTPServer", w32t_server_list_text(s, level).c_str()));

  if (level == kOsWin2000) {
    kept(reg_set_dword(kParametersKey, "LocalNTP", s.local_ntp));
    kept(reg_set_dword(kParametersKey, "ReliableTimeSource", s.reliable_time_source));
  } else if (level >= kOsWinXp) {
    kept(reg_set_dword(kConfigKey, "AnnounceFlags", s.announce_flags));
    if (s.file_logging_on) {
      kept(reg_set_dword(kConfigKey, "FileLogSize", s.file_log_size));
      kept(reg_set_string(kConfigKey, "FileLogEntries", s.file_log_entries));
      kept(reg_set_string(kConfigKey, "FileLogName", s.file_log_name));
    } else {
      reg_delete_value(kConfigKey, "FileLogSize");
      reg_delete_value(kConfigKey, "FileLogEntries");
      reg_delete_value(kConfigKey, "FileLogName");
    }
    kept(reg_set_dword(kNtpClientKey, "Enabled", s.ntp_client_enabled));
    kept(reg_set_dword(kNtpClientKey, "InputProvider", s.ntp_client_input_provider));
    kept(reg_set_dword(kNtpClientKey, "SpecialPollInterval", s.ntp_client_poll_interval));
    kept(reg_set_dword(kNtpServerKey, "Enabled", s.ntp_server_enabled));

    if (register_flag) {
      kept(reg_set_bool(kProviderKey, "Service Installed", 1));
      kept(reg_set_bool(kProviderKey, "DNS Lookups Enabled", s.dns_lookups_enabled != 0));
      kept(reg_set_string(kProviderKey, "Current Version", defaults::kProductVersion));
      kept(reg_set_dword(kProviderKey, "OEMID", defaults::kProviderOemId));
      kept(reg_set_dword(kProviderKey, "Enabled", s.provider_enabled));
      kept(reg_set_dword(kProviderKey, "InputProvider", s.provider_input_provider));
      kept(reg_set_dword(kProviderKey, "SpecialPollInterval", s.check_interval));
      kept(reg_set_string(kProviderKey, "DllName", defaults::kModuleFileName));
      kept(reg_set_string(kProviderKey, "Reference Clock", s.reference_clock));
      kept(reg_set_string(kProviderKey, defaults::kKr2ManagersValue, s.kr2_managers));
      kept(reg_set_dword(kProviderKey, defaults::kKr2RateLimitValue, s.kr2_rate_limit));
      kept(reg_set_dword(kProviderKey, defaults::kKr2RateBurstValue, s.kr2_rate_burst));
      kept(reg_set_dword(kProviderKey, "Alert if Unsynchronized", s.alert_if_unsynchronized));
      kept(reg_set_dword(kProviderKey, "Alert if Unverified", s.alert_if_unverified));
      kept(reg_set_dword(kProviderKey, "Alert Threshhold (seconds)", s.alert_threshold));
      kept(reg_set_dword(kCategoryKey1, defaults::kCplCategoryValue, defaults::kCplCategory));
      kept(reg_set_dword(kCategoryKey2, defaults::kCplCategoryValue, defaults::kCplCategory));
    } else {
      reg_delete_key(kProviderKey);
      reg_delete_value(kCategoryKey1, defaults::kCplCategoryValue);
      reg_delete_value(kCategoryKey2, defaults::kCplCategoryValue);
    }
  }
  // On the local machine the NTP client follows at once (chrony on Linux; nothing on Windows); its
  // outcome is the last error (0 when it took them or there is none to tell).
  if (!g_target_machine[0]) chrony_apply_settings(s);
  return first;
}

void w32t_secure_keys() {
  for (const char* key : {kW32TimeKey, kParametersKey, kConfigKey, kTimeProvidersKey, kNtpClientKey, kNtpServerKey,
                          kProviderKey})
    if (reg_key_exists(key)) reg_secure_tree(key, nullptr, 1);
}

std::uint32_t w32t_installed_product() {
  if (reg_get_bool(kKaironServerKey, "Service Installed", 0)) return kProductKaironServer;
  if (!reg_get_bool(kKaironClientKey, "Service Installed", 0)) return kProductNone;
  if (reg_get_bool(kKaironClientKey, "Thin Client", 0)) return kProductKaironThinClient;
  if (reg_get_bool(kKaironClientKey, "Ultra Thin Client", 0)) return kProductKaironUltraThinClient;
  return kProductKaironClient;
}

int w32t_kairon_service_disabled() {
  return reg_get_dword(kKaironServerService, "Start", 2) == kServiceDisabled ||
         reg_get_dword(kKaironClientService, "Start", 2) == kServiceDisabled;
}

int w32t_kairon_serves_ntp() {
  if (w32t_kairon_service_disabled()) return 0;
  if (w32t_installed_product() != kProductKaironServer) return 0;
  return reg_get_bool(kKaironProtocolsKey, "NTP/SNTP (RFC 1769)", 0);
}

int w32t_forced_disable() {
  return reg_get_bool(kKaironClientKey, "Force Chronwarden Disable", 0) ||
         reg_get_bool(kKaironServerKey, "Force Chronwarden Disable", 0);
}

int w32t_apply_coexistence(W32tSettings& s) {
  if (w32t_forced_disable()) {
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

void w32t_environment_init() {
  if (g_os.level == 0) os_identify();
  g_w32t_env.level = g_os.level;
  g_w32t_env.installed_product = w32t_installed_product();
  g_w32t_env.kairon_disabled = g_w32t_env.installed_product != kProductNone && w32t_kairon_service_disabled();
  if (!g_w32t_env.system_dir[0]) {
    std::snprintf(g_w32t_env.system_dir, 129, "%.127s\\", platform::SystemDirectory().c_str());
    std::snprintf(g_w32t_env.computer_name, 129, "%.127s", platform::ComputerName().c_str());
  }
}
