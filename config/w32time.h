// The Windows Time settings: one record that holds every setting the applet shows or changes and
// the provider reads, loaded from and saved to the target machine's registry (through
// config/registry.h), plus the coexistence rules with the Kairon Server and Kairon Client products.
//
// Which values are read and written depends on the OS level (config/os_identify.h) kept in
// g_w32t_env: 2048 (Windows 2000) has its own pair of server values and no provider key; 4096 and
// above (Windows XP and every later system, Linux included) have everything; other levels only the
// common part (start type, sync type, servers, LAN Manager time source).
#pragma once
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "config/registry.h"

// Sync type codes (the service's "Type" value).
inline constexpr std::uint32_t kW32tNotTouched = 0;
inline constexpr std::uint32_t kW32tNoSync = 1;
inline constexpr std::uint32_t kW32tNt5ds = 2;
inline constexpr std::uint32_t kW32tAllSync = 3;
inline constexpr std::uint32_t kW32tNtp = 4;
inline constexpr std::uint32_t kW32tDisabled = 5;
inline constexpr std::uint32_t kW32tUnknownType = 255;   // any other text (read only)

// Installed-product codes (w32t_installed_product).
inline constexpr std::uint32_t kProductNone = 0;
inline constexpr std::uint32_t kProductKaironServer = 1;
inline constexpr std::uint32_t kProductKaironClient = 2;
inline constexpr std::uint32_t kProductKaironThinClient = 4;
inline constexpr std::uint32_t kProductKaironUltraThinClient = 256;

// Module present values.
inline constexpr std::uint32_t kModuleAbsent = 0;
inline constexpr std::uint32_t kModulePresent = 1;
inline constexpr std::uint32_t kModuleNotProbed = 2;

inline constexpr std::uint32_t kW32tMaxServers = 6;

// One configured NTP server.
struct W32tServer {
  char name[64];          // host name or address, at most 63 characters; "" for an unused entry
  std::int32_t work;      // the pages' work slot: -1 after every load, never stored
  std::uint32_t flags;    // mode flags written as ",0x%x" behind the name (0x1 special interval, 0x8 client mode); 1 by default
};

// The W32Time settings record, fields in registry order of the settings they mirror.
struct W32tSettings {
  std::uint32_t ntp_client_enabled;          // NtpClient "Enabled"
  std::uint32_t ntp_client_input_provider;   // NtpClient "InputProvider"
  std::uint32_t ntp_client_poll_interval;    // NtpClient "SpecialPollInterval", seconds
  std::uint32_t ntp_server_enabled;          // NtpServer "Enabled"
  std::uint32_t provider_enabled;            // provider key "Enabled"
  std::uint32_t provider_input_provider;     // provider key "InputProvider"
  std::uint32_t check_interval;              // provider key "SpecialPollInterval", seconds (default 1800)
  std::uint32_t alert_threshold;             // provider key "Alert Threshhold (seconds)", seconds (default 2)
  std::uint32_t alert_if_unverified;         // flag (default 1)
  std::uint32_t alert_if_unsynchronized;     // flag (default 1)
  std::uint32_t service_installed;           // flag, provider key "Service Installed" (boolean string)
  std::uint32_t dns_lookups_enabled;         // flag, provider key "DNS Lookups Enabled" (boolean string, default 1)
  std::uint32_t module_present;              // kModuleAbsent / kModulePresent / kModuleNotProbed
  char reference_clock[64];                  // provider key "Reference Clock", at most 63 characters
  char kr2_managers[256];                    // provider key "KR2 Managers": who may clear and resync over KR2, at most 255 characters
  std::uint32_t kr2_rate_limit;              // provider key "KR2 Rate Limit": reply bytes a second per source (0 off)
  std::uint32_t kr2_rate_burst;              // provider key "KR2 Rate Burst": reply bytes a quiet source may get at once
  std::uint32_t service_start;               // W32Time "Start": 2 automatic, 3 manual, 4 disabled (default 2)
  std::uint32_t announce_flags;              // Config "AnnounceFlags"
  std::uint32_t max_allowed_phase_offset;    // Config "MaxAllowedPhaseOffset", seconds; read only, never written
  std::uint32_t file_log_size;               // Config "FileLogSize", bytes
  char file_log_entries[64];                 // Config "FileLogEntries", at most 63 characters
  char file_log_name[128];                   // Config "FileLogName", at most 127 characters
  std::uint32_t file_logging_on;             // flag: size non-zero and both strings non-empty
  std::uint32_t local_ntp;                   // Parameters "LocalNTP" (level 2048 only)
  std::uint32_t reliable_time_source;        // Parameters "ReliableTimeSource" (level 2048 only)
  std::uint32_t sync_type;                   // Parameters "Type" as a sync type code (default kW32tNtp)
  std::uint32_t server_count;                // 0 to 6
  W32tServer servers[kW32tMaxServers];       // Parameters "NTPServer", parsed
  std::uint32_t lanman_time_source;          // LanmanServer "TimeSource"
};

// One setting of the record: how it reads as text (config show / set), where it lies in the registry
// and at which OS levels. w32t_fields() lists them once for loading, saving, showing and setting.
enum class W32tText : std::uint8_t { Number, Flag, String, Addresses, SyncType, Start };
enum class W32tStore : std::uint8_t {
  Dword,       // REG_DWORD
  Bool,        // REG_SZ "True" / "False" (read also as a number, a letter or a word), 0/1 in the record
  String,      // REG_SZ into the field's character array
  TypeText,    // the "Type" text of the sync type code
  ServerList,  // the "NTPServer" text of servers[] (the field is server_count)
  None,        // not stored: worked out on loading (file_logging_on, module_present)
};
enum class W32tWhen : std::uint8_t {
  Always,      // every OS level
  Win2000,     // level 2048 only
  XpUp,        // 4096 and above
  FileLog,     // 4096 and above; written while file logging is on, removed otherwise
  Registered,  // 4096 and above, the provider's key: written while the provider is registered
};
struct W32tField {
  const char* name;          // the field's name in config show / set
  W32tText text;
  W32tStore store;
  W32tWhen when;
  bool read_only;            // config set cannot change it; saving skips it (server_count's list aside)
  std::size_t offset;        // into W32tSettings
  std::size_t size;          // bytes; a string's array size
  const char* key;           // registry path (config/registry.h form); nullptr when not stored
  const char* value;         // the registry value's name
  std::uint32_t def;         // a missing number reads as this
  const char* def_text;      // a missing string reads as this
};
std::span<const W32tField> w32t_fields();                           // every field, in the order config show lists them
std::uint32_t& w32t_number(W32tSettings& s, const W32tField& f);    // a number field of s (not String stores)
char* w32t_chars(W32tSettings& s, const W32tField& f);              // a string field of s (String stores)
std::uint32_t w32t_number(const W32tSettings& s, const W32tField& f);
const char* w32t_chars(const W32tSettings& s, const W32tField& f);

// The process-wide environment, filled by w32t_environment_init.
struct W32tEnvironment {
  std::uint32_t level;               // OS level of the machine this process runs on (2048, 4096, ... 32768)
  std::uint32_t installed_product;   // kProduct... code
  int kairon_disabled;               // 1: a Kairon product is installed and its service is disabled
  char system_dir[132];              // local system directory with a trailing backslash
  char computer_name[132];           // local computer name
};
extern W32tEnvironment g_w32t_env;

// Fills every field from the registry (defaults for values that are missing): 0, or the registry's
// error when the store cannot be read (a damaged store is never taken for defaults: s is untouched).
std::uint32_t w32t_load(const RegTarget& t, W32tSettings& s);
// Writes every value back to the target (register_flag 1 also (re)registers the provider, 0 removes it): 0, or the
// registry's error of the first write that failed (the others are still tried). The NTP client is
// not told: callers hand the servers to it (chrony_apply_settings) on the local machine.
[[nodiscard]] std::uint32_t w32t_save(const RegTarget& t, const W32tSettings& s, int register_flag);
// The "NTPServer" text: servers separated by spaces or commas, each optionally followed by its mode
// flags token ("0xH" or "0xHH"); at most six servers, names cut to 63 characters, flags 1 when absent.
void w32t_parse_servers(const char* list, W32tSettings& s);
// The "NTPServer" text of the record's servers: "name,0xF" separated by spaces; names alone for level 2048.
std::string w32t_server_list_text(const W32tSettings& s, std::uint32_t level);
std::uint32_t w32t_type_from_text(const char* text);    // sync type code of a "Type" text; 255 when unknown
const char* w32t_type_text(std::uint32_t type);         // "Type" text of a code; unknown codes give "NTP"
int w32t_hex_digit(int c);                              // value 0-15 of a hexadecimal digit; other characters unchanged
// The existing W32Time keys' access: Authenticated Users read, SYSTEM and Administrators full
// control, LocalService also write on the provider's own key (Everyone no longer has full access).
// The Linux store keeps the lists as given and reports them back; there the store file's own mode
// (root and the host's group write, others read) is what decides who may change it.
void w32t_secure_keys(const RegTarget& t);
std::uint32_t w32t_installed_product(const RegTarget& t); // kProduct... code of the target machine
int w32t_kairon_service_disabled(const RegTarget& t);   // 1 if a Kairon service's "Start" is 4 (disabled)
int w32t_kairon_serves_ntp(const RegTarget& t);         // 1 if Kairon Server is installed, enabled and serves NTP/SNTP
int w32t_forced_disable(const RegTarget& t);            // 1 if a Kairon product forces this provider off
int w32t_apply_coexistence(const RegTarget& t, W32tSettings& s);   // 1 if it changed provider_enabled (the caller saves)
void w32t_environment_init(const RegTarget& t);         // OS level, installed product, kairon_disabled, directories
