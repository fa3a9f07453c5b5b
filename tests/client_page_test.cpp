// The Client page through the in-memory dialogs under the fake clock: sync type buttons, the six
// server rows and their modes, the special interval, the Kairon notes and the forced NoSync, the
// focus and enabling rules, Sync Now with its question, its messages and its timer.
#include "applet/client_page.h"
#include "config/os_identify.h"

#include <gtest/gtest.h>

#include <cstring>

#include "applet/clock_status.h"
#include "config/defaults.h"
#include "config/registry.h"
#include "tests/page_fixture.h"

namespace {

using namespace platform;

constexpr int kServers[6] = {IDC_SERVER1, IDC_SERVER2, IDC_SERVER3, IDC_SERVER4, IDC_SERVER5, IDC_SERVER6};
constexpr int kModes[6] = {IDC_MODE1, IDC_MODE2, IDC_MODE3, IDC_MODE4, IDC_MODE5, IDC_MODE6};

class ClientPageTest : public PageTest {
 protected:
  void TearDown() override {
    sheet_.reset();   // the page's window goes, and with it its hold on the status worker's page
    EXPECT_EQ(g_status_page.load(), nullptr);
    EXPECT_EQ(g_applet_client_refresh, nullptr);
    PageTest::TearDown();
  }
  MemoryDialog& Client() { return sheet_->Page(0); }
  W32tSettings& Settings() { return g_applet.settings; }
  void SetServers(std::initializer_list<std::pair<const char*, std::uint32_t>> servers) {
    W32tSettings& s = Settings();
    std::memset(s.servers, 0, sizeof s.servers);
    s.server_count = 0;
    for (auto [name, flags] : servers) {
      std::snprintf(s.servers[s.server_count].name, sizeof s.servers[0].name, "%s", name);
      s.servers[s.server_count++].flags = flags;
    }
  }
  void SetSync(std::uint32_t enabled, std::uint32_t input, std::uint32_t type) {
    Settings().ntp_client_enabled = enabled;
    Settings().ntp_client_input_provider = input;
    Settings().sync_type = type;
  }
  // Leaves the page (as the user switching tabs does) so that its edits reach the record.
  void Leave() { EXPECT_EQ(Client().SendNotify(kPsnKillActive), 0); }
};

TEST_F(ClientPageTest, ModeFlagsAndListPositionsMapBothWays) {
  EXPECT_EQ(client_mode_flag(0), 0x1u);
  EXPECT_EQ(client_mode_flag(1), 0x2u);
  EXPECT_EQ(client_mode_flag(2), 0x4u);
  EXPECT_EQ(client_mode_flag(3), 0x8u);
  EXPECT_EQ(client_mode_flag(-1), 0x1u);   // no selection
  EXPECT_EQ(client_mode_flag(4), 0x1u);
  EXPECT_EQ(client_mode_position(0x8), 3);
  EXPECT_EQ(client_mode_position(0x4), 2);
  EXPECT_EQ(client_mode_position(0x2), 1);
  EXPECT_EQ(client_mode_position(0x9), 0);   // anything else is the first item
  EXPECT_EQ(client_mode_position(0), 0);
}

TEST_F(ClientPageTest, OpeningShowsTheTitleTheNoteTheModesAndTheRecord) {
  SetSync(1, 1, kW32tNtp);
  SetServers({{"ntp1.example", 0x8}, {"ntp2.example", 0x2}});
  Settings().ntp_client_poll_interval = 900;
  Open({IDD_CLIENT});
  MemoryDialog& d = Client();
  EXPECT_EQ(d.SheetTitle(), std::string("Windows Time Service - ") + g_w32t_env.computer_name);
  EXPECT_EQ(d.Text(IDC_TITLE), "Chronwarden Version 4.2.b.20081210R\r\n" + std::string(defaults::kCopyright));
  EXPECT_EQ(d.Text(IDC_CLIENT_NOTE), kClientNote);
  ASSERT_EQ(d.ItemCount(IDC_MODE6), 4);
  EXPECT_EQ(d.ItemText(IDC_MODE6, 0), "Special Interval");
  EXPECT_EQ(d.ItemText(IDC_MODE6, 1), "Fallback Only");
  EXPECT_EQ(d.ItemText(IDC_MODE6, 2), "Symmetric Active");
  EXPECT_EQ(d.ItemText(IDC_MODE6, 3), "NTP Client Mode");
  EXPECT_TRUE(d.Checked(IDC_SYNC_NTP));
  EXPECT_FALSE(d.Checked(IDC_SYNC_DISABLED) || d.Checked(IDC_SYNC_NOSYNC) || d.Checked(IDC_SYNC_NT5DS) ||
               d.Checked(IDC_SYNC_ALLSYNC));
  EXPECT_EQ(d.Text(IDC_SERVER1), "ntp1.example");
  EXPECT_EQ(d.Selection(IDC_MODE1), 3);
  EXPECT_EQ(d.Text(IDC_SERVER2), "ntp2.example");
  EXPECT_EQ(d.Selection(IDC_MODE2), 1);
  EXPECT_EQ(d.Text(IDC_SPECIAL_INTERVAL), "900");
  // Rows with a name have their mode list; empty rows do not.
  EXPECT_TRUE(d.Enabled(IDC_SERVER3));
  EXPECT_TRUE(d.Enabled(IDC_MODE1));
  EXPECT_FALSE(d.Enabled(IDC_MODE3));
  EXPECT_TRUE(d.Enabled(IDC_SPECIAL_INTERVAL));
  EXPECT_EQ(g_status_page.load(), &d);
  EXPECT_FALSE(d.SheetChanged());   // filling its own controls marks nothing
}

TEST_F(ClientPageTest, ServersInRowsTwoAndFiveAreSavedAsTheFirstTwoEntriesWithTheirModes) {
  SetSync(1, 1, kW32tNtp);
  SetServers({});
  Open({IDD_CLIENT, IDD_ABOUT});
  MemoryDialog& d = Client();
  d.Type(IDC_SERVER2, "  second.example ");
  d.Choose(IDC_MODE2, 3);
  d.Type(IDC_SERVER5, "fifth.example");
  d.Choose(IDC_MODE5, 2);
  EXPECT_TRUE(d.SheetChanged());
  ASSERT_TRUE(sheet_->Show(1));
  const W32tSettings& s = Settings();
  ASSERT_EQ(s.server_count, 2u);
  EXPECT_STREQ(s.servers[0].name, "second.example");
  EXPECT_EQ(s.servers[0].flags, 0x8u);
  EXPECT_STREQ(s.servers[1].name, "fifth.example");
  EXPECT_EQ(s.servers[1].flags, 0x4u);
  for (int i = 2; i < 6; ++i) {
    EXPECT_STREQ(s.servers[i].name, "") << i;
    EXPECT_EQ(s.servers[i].flags, 0x1u) << i;
  }
  // Back on the page they stand in rows 1 and 2.
  ASSERT_TRUE(sheet_->Show(0));
  EXPECT_EQ(d.Text(IDC_SERVER1), "second.example");
  EXPECT_EQ(d.Selection(IDC_MODE1), 3);
  EXPECT_EQ(d.Text(IDC_SERVER2), "fifth.example");
  EXPECT_EQ(d.Selection(IDC_MODE2), 2);
  EXPECT_EQ(d.Text(IDC_SERVER5), "");
  EXPECT_FALSE(d.Enabled(IDC_MODE5));
}

TEST_F(ClientPageTest, ARowOfBlanksIsEmptyAndALongNameIsCutTo63) {
  SetSync(1, 1, kW32tAllSync);
  SetServers({{"old.example", 0x8}});
  Open({IDD_CLIENT});
  MemoryDialog& d = Client();
  d.Type(IDC_SERVER1, " \t  ");
  EXPECT_FALSE(d.Enabled(IDC_MODE1));   // blanks are no name
  d.Type(IDC_SERVER3, std::string(80, 'a'));
  Leave();
  ASSERT_EQ(Settings().server_count, 1u);
  EXPECT_EQ(std::string(Settings().servers[0].name), std::string(63, 'a'));
  EXPECT_EQ(Settings().servers[0].flags, 0x1u);   // a row whose mode list was never chosen
  EXPECT_EQ(Settings().sync_type, kW32tAllSync);
}

TEST_F(ClientPageTest, ASpecialIntervalOfZeroOrNothingIsStoredAsOne) {
  SetSync(1, 1, kW32tNtp);
  Open({IDD_CLIENT});
  MemoryDialog& d = Client();
  d.Type(IDC_SPECIAL_INTERVAL, "0");
  Leave();
  EXPECT_EQ(Settings().ntp_client_poll_interval, 1u);
  d.Type(IDC_SPECIAL_INTERVAL, "");
  Leave();
  EXPECT_EQ(Settings().ntp_client_poll_interval, 1u);
  d.Type(IDC_SPECIAL_INTERVAL, "3600");
  Leave();
  EXPECT_EQ(Settings().ntp_client_poll_interval, 3600u);
  // Read unsigned, then taken as signed: above 2^31 - 1 it is negative and becomes 1.
  d.Type(IDC_SPECIAL_INTERVAL, "3000000000");
  Leave();
  EXPECT_EQ(Settings().ntp_client_poll_interval, 1u);
}

TEST_F(ClientPageTest, EachSyncTypeButtonSetsItsThreeFields) {
  struct Case {
    int button;
    std::uint32_t enabled, input, type;
  };
  const Case cases[] = {{IDC_SYNC_DISABLED, 0, 0, kW32tNoSync},
                        {IDC_SYNC_NOSYNC, 1, 0, kW32tNoSync},
                        {IDC_SYNC_NT5DS, 1, 1, kW32tNt5ds},
                        {IDC_SYNC_ALLSYNC, 1, 1, kW32tAllSync},
                        {IDC_SYNC_NTP, 1, 1, kW32tNtp}};
  SetSync(1, 1, kW32tNtp);
  SetServers({{"a.example", 0x8}});
  Open({IDD_CLIENT});
  MemoryDialog& d = Client();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.button);
    ASSERT_TRUE(d.Click(c.button));
    const bool servers = c.type >= kW32tAllSync && c.enabled;
    EXPECT_EQ(d.Enabled(IDC_SERVER1), servers);
    EXPECT_EQ(d.Enabled(IDC_MODE1), servers);
    EXPECT_EQ(d.Enabled(IDC_SPECIAL_INTERVAL), servers);
    EXPECT_EQ(d.Enabled(IDC_SPECIAL_LABEL), servers);
    Leave();
    EXPECT_EQ(Settings().ntp_client_enabled, c.enabled);
    EXPECT_EQ(Settings().ntp_client_input_provider, c.input);
    EXPECT_EQ(Settings().sync_type, c.type);
    // Shown again, the same button is checked.
    d.SendNotify(kPsnSetActive);
    EXPECT_TRUE(d.Checked(c.button));
  }
  EXPECT_TRUE(d.SheetChanged());
}

TEST_F(ClientPageTest, AKaironClientForcesNoSyncWithTheClientOffAndMarksTheSheetChanged) {
  g_w32t_env.installed_product = kProductKaironClient;
  SetSync(1, 1, kW32tNtp);
  Open({IDD_CLIENT});
  MemoryDialog& d = Client();
  EXPECT_EQ(d.Text(IDC_CLIENT_NOTE), kClientNoteKaironClient);
  EXPECT_EQ(Settings().ntp_client_enabled, 0u);
  EXPECT_EQ(Settings().ntp_client_input_provider, 0u);
  EXPECT_EQ(Settings().sync_type, kW32tNoSync);
  EXPECT_TRUE(d.SheetChanged());
  EXPECT_TRUE(sheet_->page_changed[IDD_CLIENT]);
  EXPECT_TRUE(d.Checked(IDC_SYNC_DISABLED));
  for (int id : {IDC_SYNC_NOSYNC, IDC_SYNC_NT5DS, IDC_SYNC_NTP, IDC_SYNC_ALLSYNC, IDC_SPECIAL_INTERVAL,
                 IDC_SPECIAL_LABEL, IDC_SPECIAL_UNIT})
    EXPECT_FALSE(d.Enabled(id)) << id;
  EXPECT_TRUE(d.Enabled(IDC_SYNC_DISABLED));
}

TEST_F(ClientPageTest, AKaironClientWithTheRecordAlreadyOffChangesNothing) {
  g_w32t_env.installed_product = kProductKaironThinClient;
  SetSync(0, 0, kW32tNoSync);
  Open({IDD_CLIENT});
  EXPECT_EQ(Client().Text(IDC_CLIENT_NOTE), kClientNoteKaironClient);
  EXPECT_FALSE(Client().SheetChanged());
}

TEST_F(ClientPageTest, AKaironServerThatIsASlaveTakesTheClockAndOneThatIsNotLeavesIt) {
  g_w32t_env.installed_product = kProductKaironServer;
  SetSync(1, 1, kW32tNtp);
  // Not a slave: no "Slave Mode" and a zero slave word.
  std::uint8_t settings[335] = {};
  reg_set_binary(reg_local(), defaults::kKaironServerParamsKey, "Server Settings", settings, sizeof settings);
  Open({IDD_CLIENT});
  EXPECT_EQ(Client().Text(IDC_CLIENT_NOTE), kClientNoteKaironServer);
  EXPECT_TRUE(Client().Enabled(IDC_SYNC_NTP));
  EXPECT_FALSE(Client().SheetChanged());
  EXPECT_EQ(Settings().sync_type, kW32tNtp);
  // The slave word at byte 4 makes it a slave.
  settings[5] = 1;
  reg_set_binary(reg_local(), defaults::kKaironServerParamsKey, "Server Settings", settings, sizeof settings);
  EXPECT_TRUE(client_kairon_server_is_slave());
  Open({IDD_CLIENT});
  EXPECT_EQ(Client().Text(IDC_CLIENT_NOTE), kClientNoteKaironSlave);
  EXPECT_FALSE(Client().Enabled(IDC_SYNC_NTP));
  EXPECT_TRUE(Client().SheetChanged());
  EXPECT_EQ(Settings().sync_type, kW32tNoSync);
  EXPECT_EQ(Settings().ntp_client_enabled, 0u);
  // "Slave Mode" alone makes it one too.
  settings[5] = 0;
  reg_set_binary(reg_local(), defaults::kKaironServerParamsKey, "Server Settings", settings, sizeof settings);
  EXPECT_FALSE(client_kairon_server_is_slave());
  reg_set_bool(reg_local(), defaults::kKaironServerParamsKey, "Slave Mode", 1);
  EXPECT_TRUE(client_kairon_server_is_slave());
}

TEST_F(ClientPageTest, FocusOnAServerClearsItsRowsTextsUntilItLeaves) {
  SetSync(1, 1, kW32tNtp);
  SetServers({{"a.example", 0x8}});
  Open({IDD_CLIENT});
  MemoryDialog& d = Client();
  d.SetText(IDC_VARIANCE1, "+0.002 secs");
  d.SetText(IDC_STRATUM1, "2");
  d.FocusIn(IDC_SERVER1);
  EXPECT_EQ(d.Text(IDC_VARIANCE1), "");
  EXPECT_EQ(d.Text(IDC_STRATUM1), "");
  EXPECT_FALSE(d.Enabled(IDC_VARIANCE1));   // the status check leaves a row being edited alone
  EXPECT_FALSE(d.Enabled(IDC_STRATUM1));
  d.FocusOut(IDC_SERVER1);
  EXPECT_TRUE(d.Enabled(IDC_VARIANCE1));
  EXPECT_TRUE(d.Enabled(IDC_STRATUM1));
  EXPECT_FALSE(d.SheetChanged());   // focus alone changes nothing
}

TEST_F(ClientPageTest, SyncNowWithoutChangesAsksTheTimeServiceAndWaitsSeventeenSeconds) {
  SetSync(1, 1, kW32tNtp);
  SetServers({{"a.example", 0x8}});
  Open({IDD_CLIENT});
  MemoryDialog& d = Client();
  ASSERT_TRUE(d.Enabled(IDC_SYNC_NOW));
  RecordedServices::calls.clear();
  ASSERT_TRUE(d.Click(IDC_SYNC_NOW));
  ASSERT_FALSE(RecordedServices::calls.empty());
  EXPECT_EQ(RecordedServices::calls.front(), "resync  0 1");
  const auto boxes = memory_ui::Boxes();
  ASSERT_EQ(boxes.size(), 1u);
  EXPECT_EQ(boxes[0].text, kResyncAccepted);
  EXPECT_EQ(boxes[0].caption, "Chronwarden");
  EXPECT_EQ(boxes[0].style & 0xF0u, kMbIconInformation);
  EXPECT_FALSE(d.Enabled(IDC_SYNC_NOW));
  EXPECT_EQ(d.Text(IDC_TIME_SOURCE), "Please wait....");
  EXPECT_EQ(d.TimerPeriod(1), 17'000u);
  // The timer puts the button and the time source back.
  ASSERT_TRUE(d.FireTimer(1));
  EXPECT_FALSE(d.TimerRunning(1));
  EXPECT_TRUE(d.Enabled(IDC_SYNC_NOW));
  EXPECT_NE(d.Text(IDC_TIME_SOURCE), "Please wait....");
}

TEST_F(ClientPageTest, ARefusedTriggerSaysSoAndComesBackAfterHalfASecond) {
  SetSync(1, 1, kW32tNtp);
  Open({IDD_CLIENT});
  g_applet_services.resync = [](Dialog*, const char*, std::uint32_t, std::uint32_t) -> std::uint32_t { return 5; };
  ASSERT_TRUE(Client().Click(IDC_SYNC_NOW));
  const auto boxes = memory_ui::Boxes();
  ASSERT_EQ(boxes.size(), 1u);
  EXPECT_EQ(boxes[0].text, kResyncFailed);
  EXPECT_EQ(Client().TimerPeriod(1), 500u);
}

TEST_F(ClientPageTest, SyncNowAnsweredWithCancelLeavesEverythingAsItWas) {
  SetSync(1, 1, kW32tNtp);
  SetServers({{"a.example", 0x8}});
  Open({IDD_CLIENT});
  MemoryDialog& d = Client();
  d.Type(IDC_SERVER2, "b.example");
  ASSERT_TRUE(d.SheetChanged());
  const std::string source = d.Text(IDC_TIME_SOURCE);
  RecordedServices::calls.clear();
  memory_ui::AnswerNext(kIdCancel);
  ASSERT_TRUE(d.Click(IDC_SYNC_NOW));
  const auto boxes = memory_ui::Boxes();
  ASSERT_EQ(boxes.size(), 1u);
  EXPECT_EQ(boxes[0].text, kApplyBeforeResyncQuestion);
  EXPECT_EQ(boxes[0].style & 0xFu, kMbYesNoCancel);
  EXPECT_EQ(boxes[0].style & 0xF0u, kMbIconQuestion);
  EXPECT_TRUE(RecordedServices::calls.empty());
  EXPECT_TRUE(d.SheetChanged());
  EXPECT_TRUE(d.Enabled(IDC_SYNC_NOW));
  EXPECT_EQ(d.Text(IDC_TIME_SOURCE), source);
  EXPECT_FALSE(d.TimerRunning(1));
  EXPECT_EQ(Settings().server_count, 1u);   // the edit did not reach the record
  char servers[256];
  reg_get_string(reg_local(), "\\\\System\\CurrentControlSet\\Services\\W32Time\\Parameters", "NtpServer", servers, sizeof servers, "");
  EXPECT_EQ(std::string(servers).find("b.example"), std::string::npos);
}

TEST_F(ClientPageTest, SyncNowAnsweredWithYesAppliesTheEditsAndTheApplyStepResyncs) {
  SetSync(1, 1, kW32tNtp);
  SetServers({{"a.example", 0x8}});
  Open({IDD_CLIENT});
  MemoryDialog& d = Client();
  d.Type(IDC_SERVER2, "b.example");
  d.Choose(IDC_MODE2, 3);
  RecordedServices::calls.clear();
  memory_ui::AnswerNext(kIdYes);
  ASSERT_TRUE(d.Click(IDC_SYNC_NOW));
  EXPECT_FALSE(d.SheetChanged());
  ASSERT_EQ(Settings().server_count, 2u);
  EXPECT_STREQ(Settings().servers[1].name, "b.example");
  char servers[256];
  reg_get_string(reg_local(), "\\\\System\\CurrentControlSet\\Services\\W32Time\\Parameters", "NtpServer", servers, sizeof servers, "");
  EXPECT_NE(std::string(servers).find("b.example,0x8"), std::string::npos) << servers;
  // One resynchronization, the apply step's, after "parameters changed".
  int resyncs = 0;
  for (const auto& c : RecordedServices::calls) resyncs += c.rfind("resync", 0) == 0;
  EXPECT_EQ(resyncs, 1);
  EXPECT_EQ(memory_ui::Boxes().back().text, kResyncAccepted);
  EXPECT_EQ(d.Text(IDC_SERVER2), "b.example");   // shown again from the record
  EXPECT_EQ(d.TimerPeriod(1), 17'000u);
}

TEST_F(ClientPageTest, ApplyWritesTheServersAndTheSyncTypeToTheRegistry) {
  SetSync(1, 1, kW32tNtp);
  SetServers({});
  Open({IDD_CLIENT});
  MemoryDialog& d = Client();
  ASSERT_TRUE(d.Click(IDC_SYNC_ALLSYNC));
  d.Type(IDC_SERVER1, "one.example");
  d.Choose(IDC_MODE1, 1);
  ASSERT_TRUE(sheet_->Apply());
  W32tSettings loaded{};
  w32t_load(reg_local(), loaded);
  EXPECT_EQ(loaded.sync_type, kW32tAllSync);
  ASSERT_EQ(loaded.server_count, 1u);
  EXPECT_STREQ(loaded.servers[0].name, "one.example");
  EXPECT_EQ(loaded.servers[0].flags, 0x2u);
}

TEST_F(ClientPageTest, TheWindows2000PageKeepsTheSpecialIntervalOfTheRecord) {
  SetSync(1, 1, kW32tNtp);
  SetServers({{"a.example", 0x8}});
  Settings().ntp_client_poll_interval = 1234;
  Open({IDD_CLIENT_W2K});
  MemoryDialog& d = Client();
  EXPECT_TRUE(d.Checked(IDC_SYNC_NTP));
  EXPECT_TRUE(d.Enabled(IDC_SERVER1));
  d.Type(IDC_SERVER2, "b.example");
  Leave();
  EXPECT_EQ(Settings().ntp_client_poll_interval, 1234u);
  EXPECT_EQ(Settings().server_count, 2u);
  ASSERT_TRUE(d.Click(IDC_SYNC_NOSYNC));
  Leave();
  EXPECT_EQ(Settings().sync_type, kW32tNoSync);
  EXPECT_EQ(Settings().ntp_client_enabled, 1u);
}

// A record loaded at level 2048 (where "ntp client enabled" is no setting and stays 0) shows its
// sync type on the Windows 2000 page, and an Apply that changed nothing there keeps "Type".
TEST_F(ClientPageTest, TheWindows2000PageShowsTheTypeOfARecordLoadedAtItsLevelAndApplyKeepsIt) {
  reg_set_string(reg_local(), "\\\\System\\CurrentControlSet\\Services\\W32Time\\Parameters", "Type", "NT5DS");
  g_w32t_env.level = kOsWin2000;
  w32t_load(reg_local(), Settings());
  ASSERT_EQ(Settings().sync_type, kW32tNt5ds);
  Open({IDD_CLIENT_W2K});
  MemoryDialog& d = Client();
  EXPECT_TRUE(d.Checked(IDC_SYNC_NT5DS));
  EXPECT_FALSE(d.Checked(IDC_SYNC_NTP));
  Leave();
  EXPECT_EQ(Settings().sync_type, kW32tNt5ds);
  d.SetSheetChanged(true);   // another page's change
  ASSERT_TRUE(sheet_->Apply());
  char type[16] = {};
  reg_get_string(reg_local(), "\\\\System\\CurrentControlSet\\Services\\W32Time\\Parameters", "Type", type, sizeof type, "");
  EXPECT_STREQ(type, "NT5DS");
}

TEST_F(ClientPageTest, TheServicePageRefreshesSyncNowThroughThePage) {
  SetSync(1, 1, kW32tNtp);
  Open({IDD_CLIENT});
  ASSERT_NE(g_applet_client_refresh, nullptr);
  EXPECT_TRUE(Client().Enabled(IDC_SYNC_NOW));
  RecordedServices::running = false;
  g_applet_client_refresh(true);
  EXPECT_FALSE(Client().Enabled(IDC_SYNC_NOW));
}

}  // namespace
