// The Windows Time settings record against the machine's registry (Linux: the store of a fresh
// machine root; Windows/Wine: the system registry, with the test's keys removed afterwards).
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "config/os_identify.h"
#include "config/w32time.h"
#include "platform/testing/fake.h"
#include "tests/registry_fixture.h"

namespace {

constexpr const char* kW32Time = "\\\\System\\CurrentControlSet\\Services\\W32Time";
constexpr const char* kParams = "\\\\System\\CurrentControlSet\\Services\\W32Time\\Parameters";
constexpr const char* kConfig = "\\\\System\\CurrentControlSet\\Services\\W32Time\\Config";
constexpr const char* kNtpClient = "\\\\System\\CurrentControlSet\\Services\\W32Time\\TimeProviders\\NtpClient";
constexpr const char* kNtpServer = "\\\\System\\CurrentControlSet\\Services\\W32Time\\TimeProviders\\NtpServer";
constexpr const char* kProviders = "\\\\System\\CurrentControlSet\\Services\\W32Time\\TimeProviders";
constexpr const char* kProvider = "\\\\System\\CurrentControlSet\\Services\\W32Time\\TimeProviders\\Chronwarden";
constexpr const char* kLanman = "\\\\System\\CurrentControlSet\\Services\\LanmanServer\\Parameters";
constexpr const char* kCategory1 =
    "\\\\Software\\Microsoft\\Windows\\CurrentVersion\\Control Panel\\Extended Properties\\"
    "{305CA226-D286-468e-B848-2B2E8E697B74} 2";
constexpr const char* kCategory2 =
    "\\\\Software\\Microsoft\\Windows\\CurrentVersion\\Control Panel\\Extended Properties\\System.ControlPanel.Category";
constexpr const char* kCategoryValue = "%systemroot%\\system32\\w32tmkr.cpl";
constexpr const char* kKServer = "\\\\Software\\Morvane\\Kairon Server\\Parameters";
constexpr const char* kKClient = "\\\\Software\\Morvane\\Kairon Client\\Parameters";

std::string Str(const char* path, const char* name) {
  char buf[1024];
  reg_get_string(reg_local(), path, name, buf, sizeof buf, "<missing>");
  return buf;
}
bool Has(const char* path, const char* name) { return Str(path, name) != "<missing>" || reg_get_dword(reg_local(), path, name, 7) != 7; }

class W32tTest : public RegistryTest {
 protected:
  void SetUp() override {
    RegistryTest::SetUp();
    sandbox_->Clear(kW32Time);
    sandbox_->Clear("\\\\Software\\Morvane\\Kairon Server");
    sandbox_->Clear("\\\\Software\\Morvane\\Kairon Client");
    sandbox_->Clear("\\\\System\\CurrentControlSet\\Services\\Kairon Server");
    sandbox_->Clear("\\\\System\\CurrentControlSet\\Services\\Kairon Client");
    sandbox_->Clear(kCategory1);
    sandbox_->Clear(kCategory2);
    saved_lanman_ = reg_get_dword(reg_local(), kLanman, "TimeSource", 0xFFFFFFFF);
    saved_env_ = g_w32t_env;
    g_w32t_env.level = kOsWinXp;
    std::snprintf(g_w32t_env.computer_name, sizeof g_w32t_env.computer_name, "%s", platform::ComputerName().c_str());
  }
  void TearDown() override {
    if (saved_lanman_ == 0xFFFFFFFF) reg_delete_value(reg_local(), kLanman, "TimeSource");
    else reg_set_dword(reg_local(), kLanman, "TimeSource", saved_lanman_);
    g_w32t_env = saved_env_;
    RegistryTest::TearDown();
  }
  W32tSettings Load() {
    W32tSettings s;
    std::memset(&s, 0x5A, sizeof s);
    w32t_load(reg_local(), s);
    return s;
  }
  std::uint32_t saved_lanman_ = 0;
  W32tEnvironment saved_env_{};
};

TEST(W32tText, TypeFromTextComparesThreeLettersInOrder) {
  EXPECT_EQ(w32t_type_from_text("nt5ds"), kW32tNt5ds);
  EXPECT_EQ(w32t_type_from_text("NTP"), kW32tNtp);
  EXPECT_EQ(w32t_type_from_text("ntpXYZ"), kW32tNtp);
  EXPECT_EQ(w32t_type_from_text("NoSync"), kW32tNoSync);
  EXPECT_EQ(w32t_type_from_text("AllSync"), kW32tAllSync);
  EXPECT_EQ(w32t_type_from_text("Not Touched"), kW32tNotTouched);
  EXPECT_EQ(w32t_type_from_text("Disabled"), kW32tDisabled);
  EXPECT_EQ(w32t_type_from_text("No"), kW32tUnknownType);   // shorter than three letters
  EXPECT_EQ(w32t_type_from_text(""), kW32tUnknownType);
  EXPECT_EQ(w32t_type_from_text("foo"), kW32tUnknownType);
}

TEST(W32tText, TypeTextOfEveryCode) {
  EXPECT_STREQ(w32t_type_text(0), "Not Touched");
  EXPECT_STREQ(w32t_type_text(1), "NoSync");
  EXPECT_STREQ(w32t_type_text(2), "NT5DS");
  EXPECT_STREQ(w32t_type_text(3), "AllSync");
  EXPECT_STREQ(w32t_type_text(4), "NTP");
  EXPECT_STREQ(w32t_type_text(5), "Disabled");
  EXPECT_STREQ(w32t_type_text(6), "NTP");
  EXPECT_STREQ(w32t_type_text(255), "NTP");
}

TEST(W32tText, HexDigit) {
  EXPECT_EQ(w32t_hex_digit('0'), 0);
  EXPECT_EQ(w32t_hex_digit('9'), 9);
  EXPECT_EQ(w32t_hex_digit('a'), 10);
  EXPECT_EQ(w32t_hex_digit('F'), 15);
  EXPECT_EQ(w32t_hex_digit('g'), 'g');
  EXPECT_EQ(w32t_hex_digit(' '), ' ');
}

TEST_F(W32tTest, TwoServersWithFlagsLoadAndSaveBackTheSameText) {
  reg_set_string(reg_local(), kParams, "NTPServer", "a.example,0x1 b.example,0x9");
  W32tSettings s = Load();
  ASSERT_EQ(s.server_count, 2u);
  EXPECT_STREQ(s.servers[0].name, "a.example");
  EXPECT_EQ(s.servers[0].flags, 1u);
  EXPECT_STREQ(s.servers[1].name, "b.example");
  EXPECT_EQ(s.servers[1].flags, 9u);
  for (const auto& e : s.servers) EXPECT_EQ(e.work, -1);
  for (int i = 2; i < 6; ++i) EXPECT_STREQ(s.servers[i].name, "");
  ASSERT_EQ(w32t_save(reg_local(), s, 1), 0u);
  EXPECT_EQ(Str(kParams, "NTPServer"), "a.example,0x1 b.example,0x9");
}

TEST_F(W32tTest, SevenNamesLoadTheFirstSix) {
  reg_set_string(reg_local(), kParams, "NTPServer", "s1 s2 s3 s4 s5 s6 s7");
  W32tSettings s = Load();
  ASSERT_EQ(s.server_count, 6u);
  EXPECT_STREQ(s.servers[5].name, "s6");
}

TEST_F(W32tTest, TheSixthServerAlwaysLoadsWithFlagsOne) {
  reg_set_string(reg_local(), kParams, "NTPServer", "s1,0x9 s2,0x9 s3,0x9 s4,0x9 s5,0x9 s6,0x9");
  W32tSettings s = Load();
  ASSERT_EQ(s.server_count, 6u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(s.servers[i].flags, 9u) << i;
  EXPECT_EQ(s.servers[5].flags, 1u);
}

TEST_F(W32tTest, AModeTokenBeforeAnyServerIsAServerName) {
  reg_set_string(reg_local(), kParams, "NTPServer", "0x9 a.example");
  W32tSettings s = Load();
  ASSERT_EQ(s.server_count, 2u);
  EXPECT_STREQ(s.servers[0].name, "0x9");
  EXPECT_STREQ(s.servers[1].name, "a.example");
}

TEST_F(W32tTest, ModeTokensOfOneOrTwoDigitsOnlyAndTokensAreTrimmed) {
  reg_set_string(reg_local(), kParams, "NTPServer", "a,0x100 b,,0XaB\t c,0xg \r\n");
  W32tSettings s = Load();
  ASSERT_EQ(s.server_count, 5u);
  EXPECT_STREQ(s.servers[0].name, "a");
  EXPECT_STREQ(s.servers[1].name, "0x100");
  EXPECT_STREQ(s.servers[2].name, "b");
  EXPECT_EQ(s.servers[2].flags, 0xABu);
  EXPECT_STREQ(s.servers[3].name, "c");
  EXPECT_STREQ(s.servers[4].name, "0xg");
}

TEST_F(W32tTest, ATokenOfOnlyTabsEndsTheList) {
  reg_set_string(reg_local(), kParams, "NTPServer", "a \t b");
  W32tSettings s = Load();
  ASSERT_EQ(s.server_count, 1u);
  EXPECT_STREQ(s.servers[0].name, "a");
}

TEST_F(W32tTest, LongNamesAreCutTo63Characters) {
  const std::string longname(80, 'n');
  reg_set_string(reg_local(), kParams, "NTPServer", (longname + ",0x8").c_str());
  W32tSettings s = Load();
  ASSERT_EQ(s.server_count, 1u);
  EXPECT_EQ(std::string(s.servers[0].name), std::string(63, 'n'));
  EXPECT_EQ(s.servers[0].flags, 8u);
}

TEST(W32tText, ACutNameLosesTheBlanksItThenEndsIn) {
  W32tSettings s{};
  w32t_parse_servers((std::string(60, 'n') + "\t\t\t\t\tz,0x8").c_str(), s);
  ASSERT_EQ(s.server_count, 1u);
  EXPECT_EQ(std::string(s.servers[0].name), std::string(60, 'n'));
  EXPECT_EQ(s.servers[0].flags, 8u);
  EXPECT_EQ(w32t_server_list_text(s, kOsWin2008), std::string(60, 'n') + ",0x8");
}

TEST(W32tText, ALongTokenCutDownToAModeTokenGivesTheFlags) {
  W32tSettings s{};
  w32t_parse_servers(("a 0x2" + std::string(70, '\t') + "z").c_str(), s);
  ASSERT_EQ(s.server_count, 1u);
  EXPECT_STREQ(s.servers[0].name, "a");
  EXPECT_EQ(s.servers[0].flags, 2u);
}

TEST(W32tText, TheListTextParsesBackAsTheSameServers) {
  W32tSettings s{};
  w32t_parse_servers("0x9,0x8 b.example\t,0xAB c", s);
  ASSERT_EQ(s.server_count, 3u);
  const std::string text = w32t_server_list_text(s, kOsWin2008);
  EXPECT_EQ(text, "0x9,0x8 b.example,0xab c,0x1");
  W32tSettings again{};
  w32t_parse_servers(text.c_str(), again);
  ASSERT_EQ(again.server_count, 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_STREQ(again.servers[i].name, s.servers[i].name);
    EXPECT_EQ(again.servers[i].flags, s.servers[i].flags);
    EXPECT_EQ(again.servers[i].work, -1);
  }
  EXPECT_EQ(w32t_server_list_text(s, kOsWin2000), "0x9 b.example c");
}

TEST_F(W32tTest, MissingServerListLoadsEmptyAndSavesAnEmptyString) {
  W32tSettings s = Load();
  EXPECT_EQ(s.server_count, 0u);
  ASSERT_EQ(w32t_save(reg_local(), s, 1), 0u);
  EXPECT_EQ(Str(kParams, "NTPServer"), "");
}

TEST_F(W32tTest, SavingSkipsEmptyNames) {
  W32tSettings s = Load();
  s.server_count = 3;
  std::strcpy(s.servers[0].name, "x");
  std::strcpy(s.servers[2].name, "z");
  s.servers[2].flags = 0xA;
  ASSERT_EQ(w32t_save(reg_local(), s, 1), 0u);
  EXPECT_EQ(Str(kParams, "NTPServer"), "x,0x1 z,0xa");
}

TEST_F(W32tTest, Windows2000SavesNamesWithoutFlags) {
  g_w32t_env.level = kOsWin2000;
  reg_set_string(reg_local(), kParams, "NTPServer", "a.example,0x1 b.example,0x9");
  W32tSettings s = Load();
  EXPECT_EQ(s.servers[1].flags, 9u);
  ASSERT_EQ(w32t_save(reg_local(), s, 1), 0u);
  EXPECT_EQ(Str(kParams, "NTPServer"), "a.example b.example");
}

TEST_F(W32tTest, TypeTextsLoadAsCodes) {
  const struct {
    const char* text;
    std::uint32_t code;
  } cases[] = {{"nt5ds", 2}, {"Disabled", 4}, {"Not Touched", 4}, {"", 4}, {"foo", 4}, {"NoSync", 1}, {"allsync", 3}};
  for (const auto& c : cases) {
    reg_set_string(reg_local(), kParams, "Type", c.text);
    EXPECT_EQ(Load().sync_type, c.code) << c.text;
  }
  reg_delete_value(reg_local(), kParams, "Type");
  EXPECT_EQ(Load().sync_type, 4u);
}

TEST_F(W32tTest, DefaultsWithNoProviderKey) {
  W32tSettings s = Load();
  EXPECT_EQ(s.check_interval, 1800u);
  EXPECT_EQ(s.alert_threshold, 2u);
  EXPECT_EQ(s.alert_if_unverified, 1u);
  EXPECT_EQ(s.alert_if_unsynchronized, 1u);
  EXPECT_EQ(s.dns_lookups_enabled, 1u);
  EXPECT_EQ(s.service_installed, 0u);
  EXPECT_EQ(s.provider_enabled, 0u);
  EXPECT_EQ(s.service_start, 2u);
  EXPECT_EQ(s.sync_type, 4u);
  EXPECT_STREQ(s.reference_clock, "");
  EXPECT_STREQ(s.kr2_managers, "127.0.0.0/8");   // loopback only
  EXPECT_EQ(s.kr2_rate_limit, 2048u);
  EXPECT_EQ(s.kr2_rate_burst, 16384u);
  EXPECT_EQ(s.file_logging_on, 0u);
}

TEST_F(W32tTest, SavingWithTheRegisterFlagWritesTheRegistration) {
  W32tSettings s = Load();
  s.provider_enabled = 1;
  s.check_interval = 900;
  std::strcpy(s.reference_clock, "ref.example");
  ASSERT_EQ(w32t_save(reg_local(), s, 1), 0u);
  EXPECT_EQ(Str(kProvider, "Service Installed"), "True");
  EXPECT_EQ(Str(kProvider, "DNS Lookups Enabled"), "True");
  EXPECT_EQ(Str(kProvider, "Current Version"), "4.2.b.20081210R");
  EXPECT_EQ(reg_get_dword(reg_local(), kProvider, "OEMID", 0), 288u);
  EXPECT_EQ(Str(kProvider, "DllName"), "w32tmkr.cpl");
  EXPECT_EQ(reg_get_dword(reg_local(), kProvider, "SpecialPollInterval", 0), 900u);
  EXPECT_EQ(Str(kProvider, "Reference Clock"), "ref.example");
  EXPECT_EQ(reg_get_dword(reg_local(), kProvider, "Alert Threshhold (seconds)", 0), 2u);
  EXPECT_EQ(reg_get_dword(reg_local(), kCategory1, kCategoryValue, 0), 6u);
  EXPECT_EQ(reg_get_dword(reg_local(), kCategory2, kCategoryValue, 0), 6u);
}

// A store that refuses a write: the save says so with the first refusal's error, and still
// writes every other value.
TEST_F(W32tTest, ASaveTheStoreRefusesReportsTheFirstFailureAndWritesTheRest) {
  W32tSettings s = Load();
  std::strcpy(s.reference_clock, "ref.example");
  s.check_interval = 900;
  platform::fake::Enable();
  platform::fake::FailRegistryWrite("Reference Clock", 5);
  EXPECT_EQ(w32t_save(reg_local(), s, 1), 5u);
  platform::fake::FailRegistryWrite("Reference Clock", 0);
  platform::fake::Disable();
  EXPECT_EQ(Str(kProvider, "Reference Clock"), "<missing>");   // not stored
  EXPECT_EQ(reg_get_dword(reg_local(), kProvider, "SpecialPollInterval", 0), 900u);   // the others are
  EXPECT_EQ(reg_get_dword(reg_local(), kProvider, "Alert Threshhold (seconds)", 0), 2u);
  EXPECT_EQ(w32t_save(reg_local(), s, 1), 0u);
  EXPECT_EQ(Str(kProvider, "Reference Clock"), "ref.example");
}

TEST_F(W32tTest, SavingWithTheRegisterFlagClearRemovesTheRegistration) {
  W32tSettings s = Load();
  ASSERT_EQ(w32t_save(reg_local(), s, 1), 0u);
  ASSERT_TRUE(reg_key_exists(reg_local(), kProvider));
  ASSERT_EQ(w32t_save(reg_local(), s, 0), 0u);
  EXPECT_FALSE(reg_key_exists(reg_local(), kProvider));
  EXPECT_TRUE(reg_key_exists(reg_local(), kProviders));
  EXPECT_FALSE(Has(kCategory1, kCategoryValue));
  EXPECT_FALSE(Has(kCategory2, kCategoryValue));
}

TEST_F(W32tTest, AProviderKeyWithSubkeysIsNotRemoved) {
  W32tSettings s = Load();
  ASSERT_EQ(w32t_save(reg_local(), s, 1), 0u);
  reg_set_dword(reg_local(), (std::string(kProvider) + "\\Sub").c_str(), "V", 1);
  ASSERT_EQ(w32t_save(reg_local(), s, 0), 0u);
  EXPECT_TRUE(reg_key_exists(reg_local(), kProvider));
}

TEST_F(W32tTest, FileLoggingOffDeletesItsValues) {
  reg_set_dword(reg_local(), kConfig, "FileLogSize", 1000);
  reg_set_string(reg_local(), kConfig, "FileLogEntries", "0-300");
  reg_set_string(reg_local(), kConfig, "FileLogName", "C:\\w32time.log");
  W32tSettings s = Load();
  EXPECT_EQ(s.file_logging_on, 1u);
  s.file_logging_on = 0;
  ASSERT_EQ(w32t_save(reg_local(), s, 1), 0u);
  EXPECT_FALSE(Has(kConfig, "FileLogSize"));
  EXPECT_FALSE(Has(kConfig, "FileLogEntries"));
  EXPECT_FALSE(Has(kConfig, "FileLogName"));
  reg_set_dword(reg_local(), kConfig, "FileLogSize", 1000);
  reg_set_string(reg_local(), kConfig, "FileLogName", "C:\\w32time.log");
  EXPECT_EQ(Load().file_logging_on, 0u);   // one string empty
}

// Strings of the longest length each field holds are read back whole, and a following save keeps
// them (a value that read as "" turned file logging off, and the next save removed its values).
TEST_F(W32tTest, StringsOfTheLongestLengthLoadBackWhole) {
  W32tSettings s = Load();
  const std::string ref(63, 'r'), entries(63, 'e'), name(127, 'n'), managers(255, 'm');
  std::strcpy(s.reference_clock, ref.c_str());
  std::strcpy(s.file_log_entries, entries.c_str());
  std::strcpy(s.file_log_name, name.c_str());
  std::strcpy(s.kr2_managers, managers.c_str());
  s.file_log_size = 100;
  s.file_logging_on = 1;
  ASSERT_EQ(w32t_save(reg_local(), s, 1), 0u);
  for (int round = 0; round < 2; ++round) {
    W32tSettings out = Load();
    EXPECT_EQ(out.reference_clock, ref);
    EXPECT_EQ(out.file_log_entries, entries);
    EXPECT_EQ(out.file_log_name, name);
    EXPECT_EQ(out.kr2_managers, managers);
    EXPECT_EQ(out.file_logging_on, 1u);
    out.check_interval = 900;
    ASSERT_EQ(w32t_save(reg_local(), out, 1), 0u);
  }
  EXPECT_EQ(Str(kConfig, "FileLogName"), name);
  // One character more than the field holds (written by another tool) reads as the default.
  reg_set_string(reg_local(), kProvider, "Reference Clock", (ref + "r").c_str());
  EXPECT_STREQ(Load().reference_clock, "");
}

// Every field with a non-default value, saved and loaded again on the given level.
W32tSettings Filled() {
  W32tSettings s{};
  s.ntp_client_enabled = 1;
  s.ntp_client_input_provider = 1;
  s.ntp_client_poll_interval = 3600;
  s.ntp_server_enabled = 1;
  s.provider_enabled = 1;
  s.provider_input_provider = 1;
  s.check_interval = 600;
  s.alert_threshold = 5;
  s.alert_if_unverified = 0;
  s.alert_if_unsynchronized = 0;
  s.dns_lookups_enabled = 0;
  std::strcpy(s.reference_clock, "ref.example");
  std::strcpy(s.kr2_managers, "192.0.2.0/24 any");
  s.kr2_rate_limit = 0;
  s.kr2_rate_burst = 999;
  s.service_start = 3;
  s.announce_flags = 10;
  s.file_log_size = 10000000;
  std::strcpy(s.file_log_entries, "0-300");
  std::strcpy(s.file_log_name, "C:\\Windows\\Temp\\w32time.log");
  s.file_logging_on = 1;
  s.local_ntp = 1;
  s.reliable_time_source = 1;
  s.sync_type = kW32tAllSync;
  s.server_count = 6;
  const char* names[] = {"a.example", "b.example", "10.0.0.1", "d.example", "e.example", "f.example"};
  for (int i = 0; i < 6; ++i) {
    std::strcpy(s.servers[i].name, names[i]);
    s.servers[i].flags = i == 5 ? 1 : 8 + i;
    s.servers[i].work = -1;
  }
  s.lanman_time_source = 1;
  return s;
}

// One table serves loading, saving, config show and config set: a setting added to the record
// without a row of its own would be neither stored nor shown.
TEST(W32tFields, TheTableNamesEverySettingOfTheRecordOnce) {
  std::size_t bytes = sizeof(W32tSettings::servers);   // the server_count row stands for the list
  std::set<std::string> names;
  std::set<std::size_t> offsets;
  for (const W32tField& f : w32t_fields()) {
    EXPECT_TRUE(names.insert(f.name).second) << f.name;
    EXPECT_TRUE(offsets.insert(f.offset).second) << f.name;
    EXPECT_EQ(f.key == nullptr, f.store == W32tStore::None) << f.name;
    EXPECT_EQ(f.store == W32tStore::String, f.text == W32tText::String || f.text == W32tText::Addresses) << f.name;
    if (f.store != W32tStore::String) {
      EXPECT_EQ(f.size, sizeof(std::uint32_t)) << f.name;
    }
    bytes += f.size;
  }
  EXPECT_EQ(bytes, sizeof(W32tSettings));
}

// A save writes its values in a fixed order: the service's values, Config, the NTP client and
// server, then the provider's registration and settings and the Control Panel category.
TEST_F(W32tTest, ASaveWritesItsValuesInOrder) {
  W32tSettings s = Filled();
  platform::fake::Enable();
  const std::uint32_t saved = w32t_save(reg_local(), s, 1);
  const std::vector<std::string> written = platform::fake::RegistryWrites();
  platform::fake::Disable();
  ASSERT_EQ(saved, 0u);
  const std::vector<std::string> expected = {"TimeSource",
                                             "Type",
                                             "Start",
                                             "NTPServer",
                                             "AnnounceFlags",
                                             "FileLogSize",
                                             "FileLogEntries",
                                             "FileLogName",
                                             "Enabled",
                                             "InputProvider",
                                             "SpecialPollInterval",
                                             "Enabled",
                                             "Service Installed",
                                             "DNS Lookups Enabled",
                                             "Current Version",
                                             "OEMID",
                                             "Enabled",
                                             "InputProvider",
                                             "SpecialPollInterval",
                                             "DllName",
                                             "Reference Clock",
                                             "Alert if Unsynchronized",
                                             "Alert if Unverified",
                                             "Alert Threshhold (seconds)",
                                             "KR2 Managers",
                                             "KR2 Rate Limit",
                                             "KR2 Rate Burst",
                                             kCategoryValue,
                                             kCategoryValue};
  EXPECT_EQ(written, expected);
}

TEST_F(W32tTest, EveryFieldRoundTripsOnLevels4096And32768) {
  for (std::uint32_t level : {kOsWinXp, kOsWin2008}) {
    g_w32t_env.level = level;
    reg_set_dword(reg_local(), kConfig, "MaxAllowedPhaseOffset", 300);
    const W32tSettings in = Filled();
    ASSERT_EQ(w32t_save(reg_local(), in, 1), 0u);
    W32tSettings out = Load();
    EXPECT_EQ(out.ntp_client_enabled, 1u);
    EXPECT_EQ(out.ntp_client_input_provider, 1u);
    EXPECT_EQ(out.ntp_client_poll_interval, 3600u);
    EXPECT_EQ(out.ntp_server_enabled, 1u);
    EXPECT_EQ(out.provider_enabled, 1u);
    EXPECT_EQ(out.provider_input_provider, 1u);
    EXPECT_EQ(out.check_interval, 600u);
    EXPECT_EQ(out.alert_threshold, 5u);
    EXPECT_EQ(out.alert_if_unverified, 0u);
    EXPECT_EQ(out.alert_if_unsynchronized, 0u);
    EXPECT_EQ(out.service_installed, 1u);
    EXPECT_EQ(out.dns_lookups_enabled, 0u);
    EXPECT_STREQ(out.reference_clock, "ref.example");
    EXPECT_STREQ(out.kr2_managers, "192.0.2.0/24 any");
    EXPECT_EQ(out.kr2_rate_limit, 0u);
    EXPECT_EQ(out.kr2_rate_burst, 999u);
    EXPECT_EQ(out.service_start, 3u);
    EXPECT_EQ(out.announce_flags, 10u);
    EXPECT_EQ(out.max_allowed_phase_offset, 300u);
    EXPECT_EQ(out.file_log_size, 10000000u);
    EXPECT_STREQ(out.file_log_entries, "0-300");
    EXPECT_STREQ(out.file_log_name, "C:\\Windows\\Temp\\w32time.log");
    EXPECT_EQ(out.file_logging_on, 1u);
    EXPECT_EQ(out.local_ntp, 0x5A5A5A5Au);   // not read above level 2048
    EXPECT_EQ(out.sync_type, kW32tAllSync);
    ASSERT_EQ(out.server_count, 6u);
    for (int i = 0; i < 6; ++i) {
      EXPECT_STREQ(out.servers[i].name, in.servers[i].name);
      EXPECT_EQ(out.servers[i].flags, in.servers[i].flags);
    }
    EXPECT_EQ(out.lanman_time_source, 1u);
    // Never written back.
    W32tSettings changed = in;
    changed.max_allowed_phase_offset = 1;
    ASSERT_EQ(w32t_save(reg_local(), changed, 1), 0u);
    EXPECT_EQ(reg_get_dword(reg_local(), kConfig, "MaxAllowedPhaseOffset", 0), 300u);
    DeleteRegTree(platform::RegLocalMachine(), std::string(kW32Time).substr(2));
  }
}

TEST_F(W32tTest, EveryFieldRoundTripsOnLevel2048) {
  g_w32t_env.level = kOsWin2000;
  const W32tSettings in = Filled();
  ASSERT_EQ(w32t_save(reg_local(), in, 1), 0u);
  EXPECT_FALSE(reg_key_exists(reg_local(), kProvider));   // no provider on Windows 2000
  EXPECT_FALSE(reg_key_exists(reg_local(), kConfig));
  EXPECT_FALSE(reg_key_exists(reg_local(), kNtpClient));
  W32tSettings out = Load();
  EXPECT_EQ(out.local_ntp, 1u);
  EXPECT_EQ(out.reliable_time_source, 1u);
  EXPECT_EQ(out.service_installed, 0u);
  EXPECT_EQ(out.service_start, 3u);
  EXPECT_EQ(out.sync_type, kW32tAllSync);
  EXPECT_EQ(out.lanman_time_source, 1u);
  ASSERT_EQ(out.server_count, 6u);
  for (int i = 0; i < 6; ++i) {
    EXPECT_STREQ(out.servers[i].name, in.servers[i].name);
    EXPECT_EQ(out.servers[i].flags, 1u);   // saved without flags
  }
  EXPECT_EQ(out.module_present, kModuleNotProbed);
  EXPECT_EQ(out.check_interval, 0x5A5A5A5Au);   // provider part not read
}

TEST_F(W32tTest, OtherLevelsGetOnlyTheCommonPart) {
  g_w32t_env.level = kOsNt4;
  ASSERT_EQ(w32t_save(reg_local(), Filled(), 1), 0u);
  EXPECT_FALSE(reg_key_exists(reg_local(), kProvider));
  EXPECT_FALSE(Has(kParams, "LocalNTP"));
  W32tSettings out = Load();
  EXPECT_EQ(out.server_count, 6u);
  EXPECT_EQ(out.servers[0].flags, 8u);
  EXPECT_EQ(out.local_ntp, 0x5A5A5A5Au);
  EXPECT_EQ(out.module_present, kModuleNotProbed);
}

TEST_F(W32tTest, ModuleProbeLooksInTheSystemDirectory) {
  const auto dir = root_ / "sysdir";
  std::filesystem::create_directories(dir);
  std::snprintf(g_w32t_env.system_dir, sizeof g_w32t_env.system_dir, "%s%c", dir.string().c_str(),
                char(std::filesystem::path::preferred_separator));
  EXPECT_EQ(Load().module_present, kModuleAbsent);
  std::ofstream(dir / "w32tmkr.cpl") << "MZ";
  EXPECT_EQ(Load().module_present, kModulePresent);
}

namespace {
// The access mask a key's list gives sid (0 when it names it not), generic rights as such.
std::uint32_t AccessOf(const char* key, const char* sid) {
  platform::RegKey h = nullptr;
  EXPECT_EQ(platform::RegOpenKey(platform::RegLocalMachine(), std::string(key).substr(2), platform::kKeyRead, h), 0u) << key;
  std::vector<platform::RegAce> dacl;
  EXPECT_EQ(platform::RegGetKeySecurity(h, dacl), 0u) << key;
  platform::RegCloseKey(h);
  std::uint32_t mask = 0;
  for (const auto& ace : dacl)
    if (ace.sid == sid && ace.type == platform::kAceAccessAllowed) mask |= ace.mask;
  return mask;
}
bool Full(std::uint32_t mask) { return mask == platform::kGenericAll || mask == platform::kKeyAllAccess; }
bool ReadOnly(std::uint32_t mask) { return mask == platform::kGenericRead || mask == platform::kKeyRead; }
bool ReadWrite(std::uint32_t mask) {
  return mask == (platform::kGenericRead | platform::kGenericWrite) || mask == (platform::kKeyRead | platform::kKeyWrite);
}
}  // namespace

// Everyone had full access once: any user could point the service or a provider at code of theirs.
TEST_F(W32tTest, SecureKeysLetOnlyAdministratorsChangeTheKeysAndCreateNone) {
  reg_set_dword(reg_local(), kParams, "X", 1);
  w32t_secure_keys(reg_local());
  EXPECT_FALSE(reg_key_exists(reg_local(), kConfig));
  EXPECT_FALSE(reg_key_exists(reg_local(), kProvider));
  for (const char* key : {kW32Time, kParams}) {
    EXPECT_EQ(AccessOf(key, "S-1-1-0"), 0u) << key;   // Everyone
    EXPECT_TRUE(ReadOnly(AccessOf(key, kSidAuthenticatedUsers))) << key;
    EXPECT_TRUE(Full(AccessOf(key, kSidLocalSystem))) << key;
    EXPECT_TRUE(Full(AccessOf(key, kSidAdministrators))) << key;
    EXPECT_EQ(AccessOf(key, kSidLocalService), 0u) << key;
  }
}

TEST_F(W32tTest, SecureKeysLetTheTimeServiceWriteTheProvidersKeyOnly) {
  reg_set_dword(reg_local(), kParams, "X", 1);
  reg_set_dword(reg_local(), kProvider, "Enabled", 1);
  w32t_secure_keys(reg_local());
  EXPECT_EQ(AccessOf(kProvider, "S-1-1-0"), 0u);
  EXPECT_TRUE(ReadOnly(AccessOf(kProvider, kSidAuthenticatedUsers)));
  EXPECT_TRUE(Full(AccessOf(kProvider, kSidAdministrators)));
  EXPECT_TRUE(ReadWrite(AccessOf(kProvider, kSidLocalService)));
  EXPECT_EQ(AccessOf(kParams, kSidLocalService), 0u);
  EXPECT_EQ(AccessOf(kW32Time, kSidLocalService), 0u);
}

TEST_F(W32tTest, InstalledProductCodes) {
  EXPECT_EQ(w32t_installed_product(reg_local()), kProductNone);
  reg_set_bool(reg_local(), kKClient, "Service Installed", 1);
  EXPECT_EQ(w32t_installed_product(reg_local()), kProductKaironClient);
  reg_set_bool(reg_local(), kKClient, "Ultra Thin Client", 1);
  EXPECT_EQ(w32t_installed_product(reg_local()), kProductKaironUltraThinClient);
  reg_set_string(reg_local(), kKClient, "Thin Client", "yes");
  EXPECT_EQ(w32t_installed_product(reg_local()), kProductKaironThinClient);
  reg_set_bool(reg_local(), kKServer, "Service Installed", 1);
  EXPECT_EQ(w32t_installed_product(reg_local()), kProductKaironServer);
  reg_set_bool(reg_local(), kKServer, "Service Installed", 0);
  reg_set_bool(reg_local(), kKClient, "Service Installed", 0);
  EXPECT_EQ(w32t_installed_product(reg_local()), kProductNone);
}

TEST_F(W32tTest, KaironServiceDisabledAndServingNtp) {
  const char* ks = "\\\\System\\CurrentControlSet\\Services\\Kairon Server";
  const char* kc = "\\\\System\\CurrentControlSet\\Services\\Kairon Client";
  const char* protocols = "\\\\Software\\Morvane\\Kairon Server\\Enabled Protocols";
  EXPECT_EQ(w32t_kairon_service_disabled(reg_local()), 0);
  reg_set_bool(reg_local(), kKServer, "Service Installed", 1);
  EXPECT_EQ(w32t_kairon_serves_ntp(reg_local()), 0);   // protocol value missing
  reg_set_bool(reg_local(), protocols, "NTP/SNTP (RFC 1769)", 1);
  EXPECT_EQ(w32t_kairon_serves_ntp(reg_local()), 1);
  reg_set_dword(reg_local(), kc, "Start", 4);
  EXPECT_EQ(w32t_kairon_service_disabled(reg_local()), 1);
  EXPECT_EQ(w32t_kairon_serves_ntp(reg_local()), 0);
  reg_set_dword(reg_local(), kc, "Start", 3);
  reg_set_dword(reg_local(), ks, "Start", 4);
  EXPECT_EQ(w32t_kairon_service_disabled(reg_local()), 1);
  reg_set_dword(reg_local(), ks, "Start", 2);
  reg_set_bool(reg_local(), kKServer, "Service Installed", 0);
  reg_set_bool(reg_local(), kKClient, "Service Installed", 1);
  EXPECT_EQ(w32t_kairon_serves_ntp(reg_local()), 0);   // a client does not serve
}

TEST_F(W32tTest, CoexistenceTurnsTheProviderOffOrOn) {
  W32tSettings s = Load();
  g_w32t_env.installed_product = kProductNone;
  s.provider_enabled = 1;
  EXPECT_EQ(w32t_apply_coexistence(reg_local(), s), 0);
  reg_set_bool(reg_local(), kKServer, "Force Chronwarden Disable", 1);
  EXPECT_EQ(w32t_forced_disable(reg_local()), 1);
  EXPECT_EQ(w32t_apply_coexistence(reg_local(), s), 1);
  EXPECT_EQ(s.provider_enabled, 0u);
  EXPECT_EQ(w32t_apply_coexistence(reg_local(), s), 0);
  reg_set_bool(reg_local(), kKServer, "Force Chronwarden Disable", 0);
  reg_set_bool(reg_local(), kKClient, "Force Chronwarden Disable", 1);
  EXPECT_EQ(w32t_forced_disable(reg_local()), 1);
  reg_set_bool(reg_local(), kKClient, "Force Chronwarden Disable", 0);
  EXPECT_EQ(w32t_apply_coexistence(reg_local(), s), 0);   // no product installed
  g_w32t_env.installed_product = kProductKaironClient;
  EXPECT_EQ(w32t_apply_coexistence(reg_local(), s), 1);
  EXPECT_EQ(s.provider_enabled, 1u);
}

TEST_F(W32tTest, EnvironmentInitTakesTheLevelProductAndDirectories) {
  g_w32t_env = W32tEnvironment{};
  reg_set_bool(reg_local(), kKClient, "Service Installed", 1);
  reg_set_dword(reg_local(), "\\\\System\\CurrentControlSet\\Services\\Kairon Client", "Start", 4);
  w32t_environment_init(reg_local());
  os_identify();
  EXPECT_EQ(g_w32t_env.level, g_os.level);
  EXPECT_EQ(g_w32t_env.installed_product, kProductKaironClient);
  EXPECT_EQ(g_w32t_env.kairon_disabled, 1);
  EXPECT_EQ(std::string(g_w32t_env.system_dir), platform::SystemDirectory() + "\\");
  EXPECT_EQ(std::string(g_w32t_env.computer_name), platform::ComputerName());
  reg_set_dword(reg_local(), "\\\\System\\CurrentControlSet\\Services\\Kairon Client", "Start", 2);
  w32t_environment_init(reg_local());
  EXPECT_EQ(g_w32t_env.kairon_disabled, 0);
}

}  // namespace
