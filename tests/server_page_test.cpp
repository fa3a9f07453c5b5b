// The Server page through the in-memory dialogs under the fake clock: the serving and reliability
// radios from the settings and back, the Kairon II takeover question, the Net Time box, the Windows
// 2000 controls, and Test Server against a scripted NTP server ("Ntp" in the suite's name: one test
// at a time binds port 123) on a loopback address of this file's own (127.0.0.90 and up).
#include "applet/server_page.h"

#include <gtest/gtest.h>

#include <optional>

#include <cstring>

#include "applet/clock_status.h"
#include "config/os_identify.h"
#include "config/registry.h"
#include "platform/net.h"
#include "tests/fake_ntp_server.h"
#include "tests/page_fixture.h"

namespace {

using namespace platform;

constexpr const char* kConfigKey = "\\\\System\\CurrentControlSet\\Services\\W32Time\\Config";
constexpr const char* kNtpServerKey = "\\\\System\\CurrentControlSet\\Services\\W32Time\\TimeProviders\\NtpServer";
constexpr const char* kValid =
    " provided a valid timestamp, and it believes the time to be correct. The NTP stratum reported was ";
constexpr const char* kUnverified = "The time being served cannot be verified with listed sources.";
constexpr int kServing[] = {IDC_SERVE_DISABLED, IDC_SERVE_ENABLED, IDC_SERVE_AUTO};
constexpr int kReliable[] = {IDC_RELIABLE_NEVER, IDC_RELIABLE_ALWAYS, IDC_RELIABLE_AUTO};

class ServerPageTest : public PageTest {
 protected:
  void TearDown() override {
    g_status_page.store(nullptr);
    PageTest::TearDown();
  }
  // A sheet of the Server page alone, started.
  MemoryDialog& Server() {
    pages_ = {{IDD_SERVER, &logic_}};
    sheet_ = std::make_unique<MemorySheet>(SheetSpec{"Chronwarden", pages_});
    EXPECT_TRUE(sheet_->Start());
    return sheet_->Page(0);
  }
  void Serve(std::uint32_t announce_flags, bool enabled = true) {
    g_applet.settings.announce_flags = announce_flags;
    g_applet.settings.ntp_server_enabled = enabled ? 1 : 0;
  }
  // The one checked radio of a group (0: none).
  static int Checked(const MemoryDialog& d, const int (&group)[3]) {
    int checked = 0;
    for (int id : group)
      if (d.Checked(id)) checked = checked ? -1 : id;
    return checked;
  }
  static void InstallKaironServer(bool serves_ntp) {
    reg_set_bool(reg_local(), "\\\\Software\\Morvane\\Kairon Server\\Parameters", "Service Installed", 1);
    reg_set_bool(reg_local(), "\\\\Software\\Morvane\\Kairon Server\\Enabled Protocols", "NTP/SNTP (RFC 1769)", serves_ntp);
    w32t_environment_init(reg_local());
  }

  ServerPage logic_;
};

// With Kairon II Server serving NTP, choosing Disabled takes nothing from it and asks nothing; the
// first click that would make Windows Time serve asks.
TEST_F(ServerPageTest, ChoosingDisabledNeverAsksTheTakeoverQuestion) {
  InstallKaironServer(true);
  Serve(1, false);
  MemoryDialog& d = Server();
  ASSERT_TRUE(d.Click(IDC_SERVE_DISABLED));
  EXPECT_TRUE(memory_ui::Boxes().empty());
  memory_ui::AnswerNext(kIdNo);
  ASSERT_TRUE(d.Click(IDC_SERVE_ENABLED));
  EXPECT_EQ(memory_ui::Boxes().size(), 1u);
  EXPECT_TRUE(d.Checked(IDC_SERVE_DISABLED));
}

// The header is the product line, as on the Client page.
TEST_F(ServerPageTest, TheHeaderIsTheProductLine) {
  EXPECT_EQ(Server().Text(IDC_TITLE), applet_version_line());
}

// While the server test runs the whole page is disabled; afterwards the enabling rules hold again.
TEST_F(ServerPageTest, TheTestDisablesThePageAndGivesItBack) {
  Serve(5);
  MemoryDialog& d = Server();
  ASSERT_TRUE(d.Enabled(IDC_SERVE_ENABLED) && d.Enabled(IDC_NET_TIME) && d.Enabled(IDC_RELIABLE_ALWAYS));
  logic_.SetTesting(d, true);
  for (int id : {IDC_SERVE_DISABLED, IDC_SERVE_ENABLED, IDC_SERVE_AUTO, IDC_RELIABLE_NEVER, IDC_RELIABLE_ALWAYS,
                 IDC_RELIABLE_AUTO, IDC_NET_TIME, IDC_TEST_SERVER, IDC_TEST_RESULT, IDC_LINK})
    EXPECT_FALSE(d.Enabled(id)) << id;
  logic_.SetTesting(d, false);
  for (int id : {IDC_SERVE_DISABLED, IDC_SERVE_ENABLED, IDC_SERVE_AUTO, IDC_RELIABLE_ALWAYS, IDC_NET_TIME,
                 IDC_TEST_SERVER, IDC_LINK})
    EXPECT_TRUE(d.Enabled(id)) << id;
  // With serving off the reliability choices stay greyed after the test.
  ASSERT_TRUE(d.Click(IDC_SERVE_DISABLED));
  logic_.SetTesting(d, true);
  logic_.SetTesting(d, false);
  EXPECT_FALSE(d.Enabled(IDC_RELIABLE_ALWAYS));
  EXPECT_TRUE(d.Enabled(IDC_SERVE_ENABLED));
}

TEST_F(ServerPageTest, AnnounceFlags5ShowsEnabledAndAlways) {
  Serve(5);
  MemoryDialog& d = Server();
  EXPECT_EQ(Checked(d, kServing), IDC_SERVE_ENABLED);
  EXPECT_EQ(Checked(d, kReliable), IDC_RELIABLE_ALWAYS);
  for (int id : kReliable) EXPECT_TRUE(d.Enabled(id)) << id;
  EXPECT_TRUE(d.Enabled(IDC_TEST_SERVER));
  EXPECT_TRUE(d.Enabled(IDC_TEST_RESULT));
  EXPECT_EQ(d.Text(IDC_SERVE_DISABLED), "&Disabled");
  EXPECT_FALSE(d.Visible(IDC_RELIABLE_W2K));
  EXPECT_FALSE(sheet_->changed);
}

TEST_F(ServerPageTest, AnnounceFlags10ShowsAutomaticTwice) {
  Serve(10);
  MemoryDialog& d = Server();
  EXPECT_EQ(Checked(d, kServing), IDC_SERVE_AUTO);
  EXPECT_EQ(Checked(d, kReliable), IDC_RELIABLE_AUTO);
}

TEST_F(ServerPageTest, ProviderDisabledShowsDisabledAndNeverWhateverTheFlags) {
  for (std::uint32_t flags : {0u, 5u, 10u, 15u}) {
    Serve(flags, false);
    MemoryDialog& d = Server();
    EXPECT_EQ(Checked(d, kServing), IDC_SERVE_DISABLED) << flags;
    EXPECT_EQ(Checked(d, kReliable), IDC_RELIABLE_NEVER) << flags;
    for (int id : kReliable) EXPECT_FALSE(d.Enabled(id)) << id;
    EXPECT_FALSE(d.Enabled(IDC_TEST_SERVER));
    EXPECT_FALSE(d.Enabled(IDC_TEST_RESULT));
  }
}

TEST_F(ServerPageTest, ChoosingDisabledStoresAnnounceFlags0AndDisablesTheProvider) {
  Serve(5);
  MemoryDialog& d = Server();
  ASSERT_TRUE(d.Click(IDC_SERVE_DISABLED));
  EXPECT_TRUE(sheet_->changed);
  EXPECT_TRUE(sheet_->page_changed[IDD_SERVER]);
  EXPECT_EQ(Checked(d, kReliable), IDC_RELIABLE_ALWAYS);   // still checked, but disabled and dropped
  EXPECT_FALSE(d.Enabled(IDC_RELIABLE_ALWAYS));
  EXPECT_FALSE(d.Enabled(IDC_TEST_SERVER));
  ASSERT_TRUE(sheet_->Apply());
  EXPECT_EQ(g_applet.settings.announce_flags, 0u);
  EXPECT_EQ(g_applet.settings.ntp_server_enabled, 0u);
  EXPECT_EQ(reg_get_dword(reg_local(), kConfigKey, "AnnounceFlags", 99), 0u);
  EXPECT_EQ(reg_get_dword(reg_local(), kNtpServerKey, "Enabled", 99), 0u);
}

TEST_F(ServerPageTest, ServingAndReliabilityChoicesMakeTheFlags) {
  Serve(0, false);
  MemoryDialog& d = Server();
  ASSERT_TRUE(d.Click(IDC_SERVE_AUTO));   // no Kairon II: no question
  EXPECT_TRUE(memory_ui::Boxes().empty());
  EXPECT_TRUE(sheet_->changed);
  EXPECT_TRUE(d.Enabled(IDC_RELIABLE_AUTO));
  EXPECT_TRUE(d.Enabled(IDC_TEST_SERVER));
  ASSERT_TRUE(d.Click(IDC_RELIABLE_AUTO));
  d.SendNotify(kPsnKillActive);
  EXPECT_EQ(g_applet.settings.announce_flags, 10u);
  EXPECT_EQ(g_applet.settings.ntp_server_enabled, 1u);
  ASSERT_TRUE(d.Click(IDC_SERVE_ENABLED));
  ASSERT_TRUE(d.Click(IDC_RELIABLE_NEVER));
  ASSERT_TRUE(sheet_->Apply());
  EXPECT_EQ(reg_get_dword(reg_local(), kConfigKey, "AnnounceFlags", 99), 1u);
  EXPECT_EQ(reg_get_dword(reg_local(), kNtpServerKey, "Enabled", 99), 1u);
}

TEST_F(ServerPageTest, RefusingTheTakeoverQuestionLeavesDisabledAndTheSheetUnchanged) {
  InstallKaironServer(true);
  Serve(5, false);
  MemoryDialog& d = Server();
  EXPECT_EQ(d.Text(IDC_SERVE_DISABLED), "&Disabled - Let Kairon II serve NTP time");
  EXPECT_TRUE(d.Enabled(IDC_TEST_SERVER));   // Kairon II may be serving
  ASSERT_TRUE(d.Click(IDC_SERVE_DISABLED));  // choosing Disabled asks nothing
  EXPECT_TRUE(memory_ui::Boxes().empty());
  sheet_->changed = false;
  sheet_->page_changed.clear();
  memory_ui::AnswerNext(kIdNo);
  ASSERT_TRUE(d.Click(IDC_SERVE_ENABLED));
  ASSERT_EQ(memory_ui::Boxes().size(), 1u);
  EXPECT_EQ(memory_ui::Boxes()[0].text, kServerTakeoverQuestion);
  EXPECT_EQ(memory_ui::Boxes()[0].style, kMbYesNo | kMbIconQuestion);
  EXPECT_EQ(Checked(d, kServing), IDC_SERVE_DISABLED);
  EXPECT_FALSE(d.Enabled(IDC_RELIABLE_NEVER));
  EXPECT_FALSE(sheet_->changed);
  EXPECT_FALSE(sheet_->page_changed[IDD_SERVER]);
  // Asked again after a refusal; once accepted, no more for this page.
  memory_ui::AnswerNext(kIdYes);
  ASSERT_TRUE(d.Click(IDC_SERVE_AUTO));
  ASSERT_TRUE(d.Click(IDC_SERVE_ENABLED));
  EXPECT_EQ(memory_ui::Boxes().size(), 2u);
  EXPECT_EQ(Checked(d, kServing), IDC_SERVE_ENABLED);
  EXPECT_TRUE(sheet_->changed);
}

TEST_F(ServerPageTest, KaironServerNotServingNtpNamesThePortOwner) {
  InstallKaironServer(false);
  Serve(5, false);
  MemoryDialog& d = Server();
  EXPECT_EQ(d.Text(IDC_SERVE_DISABLED), "&Disabled - The Windows Time NtpClient owns port UDP/123");
  ASSERT_TRUE(d.Click(IDC_SERVE_ENABLED));
  EXPECT_TRUE(memory_ui::Boxes().empty());
}

TEST_F(ServerPageTest, NetTimeBoxAloneDoesNotMarkChangedButIsTakenOnLeaving) {
  g_applet.settings.lanman_time_source = 0;
  Serve(5);
  MemoryDialog& d = Server();
  EXPECT_FALSE(d.Checked(IDC_NET_TIME));
  ASSERT_TRUE(d.Click(IDC_NET_TIME));
  EXPECT_FALSE(sheet_->changed);
  EXPECT_FALSE(sheet_->page_changed[IDD_SERVER]);
  EXPECT_EQ(d.SendNotify(kPsnKillActive), 0);
  EXPECT_EQ(g_applet.settings.lanman_time_source, 1u);
  EXPECT_EQ(g_applet.settings.announce_flags, 5u);
}

TEST_F(ServerPageTest, Windows2000UsesTheServeAndReliableFlags) {
  g_w32t_env.level = kOsWin2000;
  g_applet.settings.local_ntp = 1;
  g_applet.settings.reliable_time_source = 1;
  MemoryDialog& d = Server();
  for (int id : {IDC_SERVE_DISABLED, IDC_RELIABLE_NEVER, IDC_RELIABLE_ALWAYS, IDC_RELIABLE_AUTO})
    EXPECT_FALSE(d.Visible(id)) << id;
  EXPECT_TRUE(d.Visible(IDC_RELIABLE_W2K));
  EXPECT_TRUE(d.Checked(IDC_RELIABLE_W2K));
  EXPECT_TRUE(d.Checked(IDC_SERVE_ENABLED));
  EXPECT_FALSE(d.Checked(IDC_SERVE_AUTO));
  ASSERT_TRUE(d.Click(IDC_RELIABLE_W2K));
  EXPECT_TRUE(sheet_->changed);
  ASSERT_TRUE(d.Click(IDC_SERVE_AUTO));
  d.SendNotify(kPsnKillActive);
  EXPECT_EQ(g_applet.settings.local_ntp, 0u);
  EXPECT_EQ(g_applet.settings.reliable_time_source, 0u);
}

TEST_F(ServerPageTest, LinkOpensTheServerHelp) {
  MemoryDialog& d = Server();
  EXPECT_EQ(d.ClassCursor(IDC_LINK), IDC_CW_LINK);
  d.Click(IDC_LINK);
  ASSERT_EQ(memory_ui::OpenedAddresses().size(), 1u);
  EXPECT_NE(memory_ui::OpenedAddresses()[0].find("subject=servertab"), std::string::npos);
}

TEST_F(ServerPageTest, AnUnknownHostGivesTheSocketErrorAndTheBadIcon) {
  std::strcpy(g_applet.target, "NOSUCHHOST");
  Serve(5);
  MemoryDialog& d = Server();
  ASSERT_TRUE(d.Click(IDC_TEST_SERVER));
  EXPECT_EQ(d.Text(IDC_TEST_RESULT),
            "Unable to get the time from NOSUCHHOST. A socket error occurred: Error 11001: target host not found");
  EXPECT_EQ(d.Icon(IDC_STATUS_ICON), IDI_STATUS_BAD);
  EXPECT_TRUE(d.Enabled(IDC_TEST_SERVER));
  EXPECT_EQ(memory_ui::SystemCursor(), CursorShape::Arrow);
  EXPECT_EQ(g_applet.wait_depth, 0u);
}

class ServerPageNtpTest : public ServerPageTest {
 protected:
  void SetUp() override {
    ServerPageTest::SetUp();
    ASSERT_EQ(NetStartup(), 0);
    client_ = std::make_unique<MemoryDialog>(*FindDialogDescription(IDD_CLIENT), plain_);
  }
  void TearDown() override {
    g_status_page.store(nullptr);
    client_.reset();
    NetCleanup();
    ServerPageTest::TearDown();
  }
  // The Client page shows verdict icon (0: there is no Client page).
  void ClientShows(int icon) {
    client_->SetIcon(IDC_STATUS_ICON, icon, 0);
    g_status_page.store(icon ? client_.get() : nullptr);
  }

  DialogLogic plain_;
  std::unique_ptr<MemoryDialog> client_;
  std::optional<FakeNtpServer> server_;

 public:
  // Tests a stratum-1 server at address with reference identifier refid, the Client page showing
  // a synchronized clock; the page after the test.
  MemoryDialog& TestStratumOne(const char* address, std::uint32_t refid) {
    server_.emplace(address, FakeNtpReply{.stratum = 1, .refid = refid});
    std::strcpy(g_applet.target, address);
    ClientShows(IDI_STATUS_SYNCED);
    Serve(5);
    MemoryDialog& d = Server();
    EXPECT_TRUE(d.Click(IDC_TEST_SERVER));
    return d;
  }
};

// A reference of four letters fills the whole identifier: all four are named.
TEST_F(ServerPageNtpTest, StratumOneReferenceOfFourLettersIsNamedWhole) {
  EXPECT_EQ(TestStratumOne("127.0.0.92", 0x50505331).Text(IDC_TEST_RESULT),   // "PPS1"
            std::string("127.0.0.92") + kValid +
                "1, and the time source was PPS1. The time being served appears relatively accurate.");
}

TEST_F(ServerPageNtpTest, StratumOneServerNamesItsReferenceLetters) {
  MemoryDialog& d = TestStratumOne("127.0.0.90", 0x47505300);   // "GPS\0"
  EXPECT_EQ(d.Text(IDC_TEST_RESULT), std::string("127.0.0.90") + kValid +
                                         "1, and the time source was GPS. The time being served appears relatively "
                                         "accurate.");
  EXPECT_EQ(d.Icon(IDC_STATUS_ICON), IDI_STATUS_SYNCED);
  EXPECT_EQ(memory_ui::SystemCursor(), CursorShape::Arrow);
  EXPECT_FALSE(sheet_->changed);
  // A new choice makes the result unknown again.
  ASSERT_TRUE(d.Click(IDC_SERVE_AUTO));
  EXPECT_EQ(d.Icon(IDC_STATUS_ICON), IDI_STATUS_UNKNOWN);
}

TEST_F(ServerPageNtpTest, StratumTwoServerNamesItsSourcesAddress) {
  FakeNtpServer server("127.0.0.91", FakeNtpReply{.stratum = 2, .refid = 0x0A000001});
  const ServerTestResult r = server_test("127.0.0.91", IDI_STATUS_BAD);
  EXPECT_EQ(r.text, std::string("127.0.0.91") + kValid +
                        "2, and the time source was 10.0.0.1. HOWEVER, the time being served is WRONG.");
  EXPECT_EQ(r.icon, IDI_STATUS_BAD);
}

TEST_F(ServerPageNtpTest, WithoutAClientVerdictTheServedTimeCannotBeVerified) {
  FakeNtpServer server("127.0.0.92", FakeNtpReply{.stratum = 3});
  std::strcpy(g_applet.target, "127.0.0.92");
  Serve(10);
  MemoryDialog& d = Server();
  for (int client_icon : {0, IDI_STATUS_UNKNOWN}) {
    ClientShows(client_icon);
    ASSERT_TRUE(d.Click(IDC_TEST_SERVER));
    const std::string text = d.Text(IDC_TEST_RESULT);
    EXPECT_TRUE(text.ends_with(std::string(". ") + kUnverified)) << text;
    EXPECT_EQ(d.Icon(IDC_STATUS_ICON), IDI_STATUS_OFF);
  }
  // The Client page's "off by more than a second".
  const ServerTestResult r = server_test("127.0.0.92", IDI_STATUS_OFF);
  EXPECT_TRUE(r.text.ends_with(". HOWEVER, the time is not well-synchronized.")) << r.text;
  EXPECT_EQ(r.icon, IDI_STATUS_OFF);
}

TEST_F(ServerPageNtpTest, AServerWhoseClockIsNotSetSaysSo) {
  FakeNtpServer server("127.0.0.93", FakeNtpReply{.leap = 3});
  const ServerTestResult r = server_test("127.0.0.93", IDI_STATUS_SYNCED);
  EXPECT_EQ(r.text,
            "Unable to get the time from 127.0.0.93. The server responded to the NTP query, but it reports that it "
            "does not know the correct time. This usually means that the NTP client has failed to synchronize (or is "
            "in the middle of synchronizing) the clock.");
  EXPECT_EQ(r.icon, IDI_STATUS_OFF);
}

TEST_F(ServerPageNtpTest, TheLocalMachineIsAskedByItsComputerName) {
  FakeNtpServer server("127.0.0.94");
  std::strcpy(g_w32t_env.computer_name, "127.0.0.94");
  const ServerTestResult r = server_test("", IDI_STATUS_SYNCED);
  EXPECT_TRUE(r.text.starts_with(std::string("127.0.0.94") + kValid + "2, and the time source was 127.127.1.1. "))
      << r.text;
  EXPECT_EQ(r.icon, IDI_STATUS_SYNCED);
  EXPECT_EQ(server.Requests().size(), 1u);
}

}  // namespace
