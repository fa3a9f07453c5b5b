// The Agent and Service pages through the in-memory dialogs under the fake clock: options, history
// list, Clear History, Show Graph, the coexistence rule; service state, start and stop, start-up
// type, the debug log fields and Show Log.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "applet/agent_page.h"
#include "applet/service_page.h"
#include "config/os_identify.h"
#include "config/registry.h"
#include "drift/drift_graph_window.h"
#include "platform/clock.h"
#include "platform/error_text.h"
#include "platform/paths.h"
#include "tests/drift_test_util.h"
#include "tests/page_fixture.h"
#include "timing/precise_clock.h"

namespace {

using namespace platform;

constexpr const char* kConfigKey = "\\\\System\\CurrentControlSet\\Services\\W32Time\\Config";

std::uint32_t Address(int a, int b, int c, int d) {
  const std::uint8_t bytes[4] = {std::uint8_t(a), std::uint8_t(b), std::uint8_t(c), std::uint8_t(d)};
  std::uint32_t v;
  std::memcpy(&v, bytes, 4);
  return v;
}

// The list line of an entry, with the local time worked out here.
std::string Line(std::uint32_t address, std::uint32_t time, const char* name) {
  std::uint64_t ft = std::uint64_t(UnixSecondsToFileTime(time));
  FileTimeToLocalFileTime(ft, ft);
  SystemTime st{};
  FileTimeToSystemTime(ft, st);
  static const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char dotted[16];
  const std::uint8_t* b = reinterpret_cast<const std::uint8_t*>(&address);
  std::snprintf(dotted, sizeof dotted, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
  char text[200];
  std::snprintf(text, sizeof text, "%02d %s %04d %02d:%02d:%02d\t%s\t%s", st.day, months[st.month - 1], st.year, st.hour,
                st.minute, st.second, dotted, name);
  return text;
}

class AgentPageTest : public PageTest {
 protected:
  // Puts entries into "Last Used Time Source" at the given indexes.
  void WriteHistory(std::vector<std::tuple<int, std::uint32_t, std::uint32_t>> entries) {
    std::uint8_t value[512] = {};
    for (auto [i, address, time] : entries) {
      std::memcpy(value + i * 8, &address, 4);
      for (int k = 0; k < 4; ++k) value[i * 8 + 4 + k] = std::uint8_t(time >> (8 * k));
    }
    reg_set_binary(g_applet.reg, kProviderKey, "Last Used Time Source", value, sizeof value);
  }
  MemoryDialog& Agent() { return sheet_->Page(0); }
  AgentPage& Logic() { return static_cast<AgentPage&>(applet_page_logic(IDD_AGENT)); }
  std::vector<std::string> Lines() {
    std::vector<std::string> out;
    for (int i = 0; i < Agent().ItemCount(IDC_HISTORY); ++i) out.push_back(Agent().ItemText(IDC_HISTORY, i));
    return out;
  }
  void DriftFileWith(int records) {
    std::vector<DriftRecord> r;
    for (int i = 0; i < records; ++i) r.push_back(MakeRecord(1'700'000'000 + 600 * i, 5 + i));
    WriteBytes(sysdir_ / "drift.kr", RecordBytes(r));
  }
};

TEST_F(AgentPageTest, IntervalOf1799SecondsShowsAs29MinutesAndTyping30Stores1800) {
  g_applet.settings.check_interval = 1799;
  Open({IDD_AGENT});
  EXPECT_EQ(Agent().Text(IDC_INTERVAL), "29");
  EXPECT_FALSE(sheet_->changed);   // filling the controls is no edit
  Agent().Type(IDC_INTERVAL, "30");
  EXPECT_TRUE(sheet_->changed);
  EXPECT_TRUE(sheet_->page_changed[IDD_AGENT]);
  ASSERT_TRUE(sheet_->Apply());
  EXPECT_EQ(g_applet.settings.check_interval, 1800u);
  EXPECT_EQ(reg_get_dword(reg_local(), kProviderKey, "SpecialPollInterval", 0), 1800u);
  EXPECT_FALSE(sheet_->page_changed[IDD_AGENT]);
}

// An interval the field cannot show in whole minutes is kept when the field is left as filled:
// leaving the page must not turn 20 s into 0 (no scheduled checks) or 1,799 s into 1,740.
TEST_F(AgentPageTest, AnIntervalLeftAsShownKeepsItsSeconds) {
  g_applet.settings.provider_enabled = 1;
  for (const std::uint32_t seconds : {20u, 1799u}) {
    g_applet.settings.check_interval = seconds;
    Open({IDD_AGENT});
    Agent().Click(IDC_ALERT_UNVERIFIED);   // another option changes
    Agent().SendNotify(kPsnKillActive);
    EXPECT_EQ(g_applet.settings.check_interval, seconds);
    Agent().Type(IDC_INTERVAL, "1");
    Agent().SendNotify(kPsnKillActive);
    EXPECT_EQ(g_applet.settings.check_interval, 60u);
    Agent().SendNotify(kPsnKillActive);
    EXPECT_EQ(g_applet.settings.check_interval, 60u);
  }
}

// A store that refuses the settings on Apply: the user is told, the sheet stays open and changed,
// and the time service is not told of settings it would not find.
TEST_F(AgentPageTest, ASaveTheStoreRefusesKeepsTheSheetOpenAndSaysWhy) {
  g_applet.settings.provider_enabled = 1;
  Open({IDD_AGENT});
  Agent().Type(IDC_REF_SERVER, "ref3.example");
  Agent().SendNotify(kPsnKillActive);
  platform::fake::FailRegistryWrite("Reference Clock", 5);
  EXPECT_EQ(Agent().SendNotify(kPsnApply), platform::kPsnRetInvalidNoChangePage);
  platform::fake::FailRegistryWrite("Reference Clock", 0);
  ASSERT_EQ(memory_ui::Boxes().size(), 1u);
  EXPECT_NE(memory_ui::Boxes()[0].text.find("Could not save the time service settings on "), std::string::npos);
  char denied[256];   // the system's own text of error 5 (it differs between the targets)
  std::string why = SystemErrorText(5, denied, sizeof denied);
  while (!why.empty() && (why.back() == ' ' || why.back() == '\r' || why.back() == '\n')) why.pop_back();
  EXPECT_NE(memory_ui::Boxes()[0].text.find(why), std::string::npos) << memory_ui::Boxes()[0].text;
  EXPECT_TRUE(sheet_->changed);
  EXPECT_EQ(RecordedServices::calls.size(), 0u);
  // Once the store takes it, Apply saves and lets the sheet go.
  EXPECT_EQ(Agent().SendNotify(kPsnApply), 0);
  EXPECT_EQ(g_applet.save_status, 0u);
  char ref[64];
  reg_get_string(reg_local(), kProviderKey, "Reference Clock", ref, sizeof ref, "");
  EXPECT_STREQ(ref, "ref3.example");
}

// A resync that fails after the settings were saved does not keep the sheet open: the first OK
// closes it.
TEST_F(AgentPageTest, AFailedResyncOnOkStillClosesTheSheet) {
  RecordedServices::resync_result = 1;
  Open({IDD_AGENT});
  Agent().Type(IDC_INTERVAL, "45");
  ASSERT_TRUE(sheet_->Apply(true));
  EXPECT_TRUE(sheet_->HasEnded());
  EXPECT_EQ(reg_get_dword(reg_local(), kProviderKey, "SpecialPollInterval", 0), 2700u);
  EXPECT_EQ(RecordedServices::calls.back(), "resync  0 1");
}

TEST_F(AgentPageTest, ControlsShowTheSettingsAndLeavingReadsThemBack) {
  W32tSettings& s = g_applet.settings;
  s.provider_enabled = 1;
  s.alert_threshold = 7;
  s.alert_if_unverified = 0;
  s.alert_if_unsynchronized = 1;
  std::strcpy(s.reference_clock, "ref.example");
  Open({IDD_AGENT});
  MemoryDialog& d = Agent();
  EXPECT_EQ(d.Text(IDC_REF_SERVER), "ref.example");
  EXPECT_EQ(d.Text(IDC_THRESHOLD), "7");
  EXPECT_TRUE(d.Checked(IDC_AGENT_ENABLED));
  EXPECT_TRUE(d.Checked(IDC_ALERT_OFF));
  EXPECT_FALSE(d.Checked(IDC_ALERT_UNVERIFIED));
  EXPECT_EQ(d.Text(IDC_AGENT_NOTE), kAgentNote);
  EXPECT_FALSE(d.Visible(IDC_REMOVE_AGENT));
  EXPECT_EQ(d.TabStops(IDC_HISTORY), (std::vector<int>{90, 160}));
  EXPECT_EQ(d.ClassCursor(IDC_LINK), IDC_CW_LINK);
  EXPECT_TRUE(d.TimerRunning(1));
  EXPECT_EQ(d.TimerPeriod(1), 2000u);
  // A reference name with blanks around it, cut at 64 characters read and 63 stored.
  d.Type(IDC_REF_SERVER, " \t" + std::string(70, 'n') + "\r\n");
  d.Type(IDC_THRESHOLD, "12");
  d.Click(IDC_ALERT_UNVERIFIED);
  EXPECT_EQ(d.SendNotify(kPsnKillActive), 0);
  EXPECT_FALSE(d.TimerRunning(1));
  EXPECT_EQ(std::string(s.reference_clock), std::string(62, 'n'));   // 64 read, 2 blanks trimmed
  EXPECT_EQ(s.alert_threshold, 12u);
  EXPECT_EQ(s.alert_if_unverified, 1u);
  d.Type(IDC_REF_SERVER, "  ref2.example ");
  d.SendNotify(kPsnKillActive);
  EXPECT_STREQ(s.reference_clock, "ref2.example");
  d.Click(IDC_LINK);
  ASSERT_EQ(memory_ui::OpenedAddresses().size(), 1u);
  EXPECT_NE(memory_ui::OpenedAddresses()[0].find("subject=agenttab"), std::string::npos);
}

TEST_F(AgentPageTest, TheKr2ManagersFieldShowsTheListAndLeavingStoresWhatWasTyped) {
  W32tSettings& s = g_applet.settings;
  s.provider_enabled = 1;
  std::strcpy(s.kr2_managers, "127.0.0.0/8");
  Open({IDD_AGENT});
  MemoryDialog& d = Agent();
  EXPECT_EQ(d.Text(IDC_MANAGERS), "127.0.0.0/8");
  EXPECT_EQ(d.Text(IDC_MANAGERS_LABEL), "KR2 &managers:");
  EXPECT_TRUE(d.Enabled(IDC_MANAGERS));
  EXPECT_FALSE(sheet_->changed);
  d.Type(IDC_MANAGERS, "  192.0.2.0/24, 10.1.2.3 ");
  EXPECT_TRUE(sheet_->changed);
  d.SendNotify(kPsnKillActive);
  EXPECT_STREQ(s.kr2_managers, "192.0.2.0/24, 10.1.2.3");
  d.Click(IDC_AGENT_ENABLED);   // the agent off: its responder with it
  EXPECT_FALSE(d.Enabled(IDC_MANAGERS));
}

TEST_F(AgentPageTest, WithTheFullProductTheOptionsAreHiddenButTheHistoryStaysUsable) {
  reg_set_bool(reg_local(), "\\\\Software\\Morvane\\Kairon Client\\Parameters", "Service Installed", 1);
  w32t_environment_init(reg_local());
  g_applet.settings.provider_enabled = 0;
  WriteHistory({{63, Address(10, 0, 0, 1), 1'700'000'000}});
  DriftFileWith(3);
  Open({IDD_AGENT});
  MemoryDialog& d = Agent();
  EXPECT_FALSE(d.Enabled(IDC_AGENT_ENABLED));
  for (int id : {IDC_ALERT_OFF, IDC_ALERT_UNVERIFIED, IDC_THRESHOLD, IDC_REF_SERVER, IDC_INTERVAL, IDC_REF_LABEL,
                 IDC_REF_HINT, IDC_INTERVAL_LABEL, IDC_INTERVAL_UNIT, IDC_THRESHOLD_UNIT, IDC_MANAGERS_LABEL, IDC_MANAGERS})
    EXPECT_FALSE(d.Visible(id)) << id;
  EXPECT_EQ(d.Text(IDC_AGENT_NOTE), kAgentNoteKairon);
  // The coexistence rule turned the agent on and marked the sheet changed.
  EXPECT_EQ(g_applet.settings.provider_enabled, 1u);
  EXPECT_TRUE(sheet_->changed);
  EXPECT_EQ(d.ItemCount(IDC_HISTORY), 1);
  EXPECT_TRUE(d.Enabled(IDC_CLEAR_HISTORY) && d.Visible(IDC_CLEAR_HISTORY));
  EXPECT_TRUE(d.Click(IDC_SHOW_GRAPH));
  EXPECT_EQ(memory_ui::Modeless().size(), 1u);
  memory_ui::AnswerNext(kIdYes);
  EXPECT_TRUE(d.Click(IDC_CLEAR_HISTORY));
  EXPECT_EQ(d.ItemCount(IDC_HISTORY), 0);
}

TEST_F(AgentPageTest, AForcedDisableTurnsTheAgentOff) {
  reg_set_bool(reg_local(), "\\\\Software\\Morvane\\Kairon Server\\Parameters", "Force Chronwarden Disable", 1);
  g_applet.settings.provider_enabled = 1;
  Open({IDD_AGENT});
  EXPECT_FALSE(Agent().Checked(IDC_AGENT_ENABLED));
  EXPECT_TRUE(sheet_->changed);
}

TEST_F(AgentPageTest, UncheckingTheAgentDisablesItsOptionsAndTheThresholdFollowsTheErrorBox) {
  g_applet.settings.provider_enabled = 1;
  g_applet.settings.alert_if_unsynchronized = 1;
  Open({IDD_AGENT});
  MemoryDialog& d = Agent();
  const int options[] = {IDC_REF_SERVER, IDC_INTERVAL, IDC_ALERT_UNVERIFIED, IDC_ALERT_OFF, IDC_THRESHOLD,
                         IDC_REF_LABEL,  IDC_REF_HINT, IDC_INTERVAL_LABEL,   IDC_INTERVAL_UNIT, IDC_THRESHOLD_UNIT};
  for (int id : options) EXPECT_TRUE(d.Enabled(id)) << id;
  EXPECT_TRUE(d.Click(IDC_AGENT_ENABLED));
  EXPECT_TRUE(sheet_->changed);
  for (int id : options) EXPECT_FALSE(d.Enabled(id)) << id;
  EXPECT_TRUE(d.Click(IDC_AGENT_ENABLED));
  EXPECT_TRUE(d.Enabled(IDC_THRESHOLD));
  EXPECT_TRUE(d.Click(IDC_ALERT_OFF));
  EXPECT_FALSE(d.Enabled(IDC_THRESHOLD));
  EXPECT_TRUE(d.Click(IDC_AGENT_ENABLED));
  EXPECT_TRUE(d.Click(IDC_AGENT_ENABLED));
  EXPECT_FALSE(d.Enabled(IDC_THRESHOLD));   // the error box is still unchecked
  EXPECT_TRUE(d.Enabled(IDC_INTERVAL));
  d.SendNotify(kPsnKillActive);
  EXPECT_EQ(g_applet.settings.alert_if_unsynchronized, 0u);
  EXPECT_EQ(g_applet.settings.provider_enabled, 1u);
}

TEST_F(AgentPageTest, NewestEntryAtIndex63IsTheFirstLineAndNamesComeFromTheWorker) {
  const std::uint32_t a = Address(192, 0, 2, 10), b = Address(192, 0, 2, 20), c = Address(198, 51, 100, 7);
  WriteHistory({{0, c, 1'600'000'000}, {62, b, 1'700'000'100}, {63, a, 1'700'000'200}, {40, Address(1, 2, 3, 4), 0}});
  fake::SetHostAddress("newest.example", a);
  g_applet.settings.dns_lookups_enabled = 1;
  Open({IDD_AGENT});
  // At once: times and addresses; the names follow from the look-up worker, whose message the
  // window has not run yet.
  EXPECT_EQ(Lines()[0], Line(a, 1'700'000'200, ""));
  Logic().WaitForLookups();
  Agent().DeliverPosted();
  EXPECT_EQ(Lines(), (std::vector<std::string>{Line(a, 1'700'000'200, "newest.example"), Line(b, 1'700'000'100, ""),
                                               Line(c, 1'600'000'000, "")}));
  EXPECT_TRUE(Agent().Enabled(IDC_CLEAR_HISTORY));
  // Without look-ups the name column stays empty.
  sheet_.reset();
  g_applet.settings.dns_lookups_enabled = 0;
  Open({IDD_AGENT});
  EXPECT_EQ(Lines()[0], Line(a, 1'700'000'200, ""));
}

// Names that arrive after Clear History do not bring the cleared entries back: the list stays empty
// and the button greyed.
TEST_F(AgentPageTest, NamesArrivingAfterAClearLeaveTheListEmpty) {
  const std::uint32_t a = Address(192, 0, 2, 10);
  WriteHistory({{63, a, 1'700'000'200}});
  fake::SetHostAddress("late.example", a);
  g_applet.settings.dns_lookups_enabled = 1;
  Open({IDD_AGENT});
  ASSERT_EQ(Lines().size(), 1u);
  memory_ui::AnswerNext(kIdYes);
  ASSERT_TRUE(Agent().Click(IDC_CLEAR_HISTORY));
  Logic().WaitForLookups();
  Agent().DeliverPosted();   // the late names
  EXPECT_EQ(Agent().ItemCount(IDC_HISTORY), 0);
  EXPECT_FALSE(Agent().Enabled(IDC_CLEAR_HISTORY));
  EXPECT_TRUE(Agent().FireTimer(1));   // the refresh finds the value as cleared
  EXPECT_EQ(Agent().ItemCount(IDC_HISTORY), 0);
}

TEST_F(AgentPageTest, TheTimerRefreshesTheListOnlyWhenTheValueChanged) {
  g_applet.settings.dns_lookups_enabled = 0;
  Open({IDD_AGENT});
  EXPECT_EQ(Agent().ItemCount(IDC_HISTORY), 0);
  EXPECT_FALSE(Agent().Enabled(IDC_CLEAR_HISTORY));
  WriteHistory({{63, Address(10, 0, 0, 9), 1'700'000'000}});
  EXPECT_TRUE(Agent().FireTimer(1));
  EXPECT_EQ(Lines(), (std::vector<std::string>{Line(Address(10, 0, 0, 9), 1'700'000'000, "")}));
  Agent().Select(IDC_HISTORY, 0);
  EXPECT_TRUE(Agent().FireTimer(1));   // unchanged: the list (and its selection) left alone
  EXPECT_EQ(Agent().Selection(IDC_HISTORY), 0);
  EXPECT_EQ(memory_ui::SystemCursor(), CursorShape::Arrow);
}

TEST_F(AgentPageTest, ClearingEmptiesTheListDisablesTheButtonAndClearsFileAndValue) {
  WriteHistory({{63, Address(10, 0, 0, 1), 1'700'000'000}});
  DriftFileWith(4);
  g_applet.settings.dns_lookups_enabled = 0;
  Open({IDD_AGENT});
  MemoryDialog& d = Agent();
  memory_ui::AnswerNext(kIdNo);
  EXPECT_TRUE(d.Click(IDC_CLEAR_HISTORY));
  EXPECT_EQ(d.ItemCount(IDC_HISTORY), 1);
  EXPECT_EQ(std::filesystem::file_size(sysdir_ / "drift.kr"), 80u);
  auto boxes = memory_ui::Boxes();
  ASSERT_EQ(boxes.size(), 1u);
  EXPECT_EQ(boxes[0].text, kClearHistoryQuestion);
  EXPECT_EQ(boxes[0].style & 0xF, kMbYesNo);

  memory_ui::AnswerNext(kIdYes);
  EXPECT_TRUE(d.Click(IDC_CLEAR_HISTORY));
  EXPECT_EQ(d.ItemCount(IDC_HISTORY), 0);
  EXPECT_FALSE(d.Enabled(IDC_CLEAR_HISTORY));
  EXPECT_EQ(std::filesystem::file_size(sysdir_ / "drift.kr"), 0u);
  std::uint8_t buf[512];
  EXPECT_EQ(reg_get_binary(reg_local(), kProviderKey, "Last Used Time Source", buf, sizeof buf), 0);
  // The list stays empty until the agent writes a new entry.
  EXPECT_TRUE(d.FireTimer(1));
  EXPECT_EQ(d.ItemCount(IDC_HISTORY), 0);
  WriteHistory({{63, Address(10, 0, 0, 2), 1'700'000'600}});
  EXPECT_TRUE(d.FireTimer(1));
  EXPECT_EQ(d.ItemCount(IDC_HISTORY), 1);
}

TEST_F(AgentPageTest, ClearingWithoutADriftFileStillClearsTheList) {
  WriteHistory({{63, Address(10, 0, 0, 1), 1'700'000'000}});
  Open({IDD_AGENT});
  memory_ui::AnswerNext(kIdYes);
  EXPECT_TRUE(Agent().Click(IDC_CLEAR_HISTORY));
  EXPECT_EQ(Agent().ItemCount(IDC_HISTORY), 0);
  EXPECT_EQ(memory_ui::Boxes().size(), 1u);   // the question only: nothing reported
  EXPECT_FALSE(std::filesystem::exists(sysdir_ / "drift.kr"));
}

TEST_F(AgentPageTest, ShowGraphTwiceFocusesTheOpenWindow) {
  DriftFileWith(5);
  Open({IDD_AGENT});
  EXPECT_TRUE(Agent().Click(IDC_SHOW_GRAPH));
  auto windows = memory_ui::Modeless();
  ASSERT_EQ(windows.size(), 1u);
  EXPECT_EQ(windows[0]->TemplateId(), IDD_GRAPH);
  EXPECT_EQ(g_applet.helper, windows[0]);
  EXPECT_FALSE(windows[0]->Visible(IDC_GRAPH_OPEN_FILE));
  EXPECT_NE(windows[0]->Title().find("drift.kr"), std::string::npos);
  EXPECT_TRUE(Agent().Click(IDC_SHOW_GRAPH));
  EXPECT_EQ(memory_ui::Modeless().size(), 1u);
  EXPECT_EQ(windows[0]->FrontCount(), 1);
  // Once it is closed, the button opens a new one.
  windows[0]->CloseBox();
  Agent().DeliverPosted();
  EXPECT_TRUE(Agent().Click(IDC_SHOW_GRAPH));
  EXPECT_EQ(memory_ui::Modeless().size(), 2u);
}

#ifndef _WIN32
TEST_F(AgentPageTest, ClearingOnAnotherMachineCutsItsDriftFileAndDeletesItsValue) {
  const auto network = root_ / "network";
  std::filesystem::create_directories(network / "M" / "system32");
  SetEnvironmentValue("CHRONWARDEN_NETWORK_ROOT", network.string().c_str());
  WriteBytes(network / "M" / "system32" / "drift.kr", RecordBytes({MakeRecord(1'700'000'000, 3)}));
  ASSERT_EQ(reg_open_target("\\\\M", g_applet.reg), 1);
  WriteHistory({{63, Address(10, 0, 0, 1), 1'700'000'000}});
  std::snprintf(g_applet.target, sizeof g_applet.target, "\\\\M");
  EXPECT_EQ(agent_drift_path(g_applet.target), "\\\\M\\admin$\\system32\\drift.kr");
  Open({IDD_AGENT});
  EXPECT_EQ(Agent().ItemCount(IDC_HISTORY), 1);
  memory_ui::AnswerNext(kIdYes);
  EXPECT_TRUE(Agent().Click(IDC_CLEAR_HISTORY));
  EXPECT_EQ(std::filesystem::file_size(network / "M" / "system32" / "drift.kr"), 0u);
  std::uint8_t buf[512];
  EXPECT_EQ(reg_get_binary(g_applet.reg, kProviderKey, "Last Used Time Source", buf, sizeof buf), 0);
  g_applet.reg = RegTarget();
  SetEnvironmentValue("CHRONWARDEN_NETWORK_ROOT", nullptr);
}
#endif

// ---- Service page ----

class ServicePageTest : public PageTest {
 protected:
  MemoryDialog& Service() { return sheet_->Page(0); }
  std::string StartItem() { return Service().ItemText(IDC_START_TYPE, Service().Selection(IDC_START_TYPE)); }
};

TEST_F(ServicePageTest, StartTypeShowsInTheListAndUnknownValuesShowDisabled) {
  const std::pair<std::uint32_t, const char*> cases[] = {{2, "Automatic"}, {3, "Manual"}, {4, "Disabled"}, {9, "Disabled"}, {0, "Disabled"}};
  for (auto [start, shown] : cases) {
    g_applet.settings.service_start = start;
    Open({IDD_SERVICE});
    ASSERT_EQ(Service().ItemCount(IDC_START_TYPE), 3);
    EXPECT_EQ(Service().ItemText(IDC_START_TYPE, 0), "Disabled");
    EXPECT_EQ(Service().ItemText(IDC_START_TYPE, 1), "Automatic");
    EXPECT_EQ(Service().ItemText(IDC_START_TYPE, 2), "Manual");
    EXPECT_EQ(StartItem(), shown) << start;
  }
  EXPECT_FALSE(sheet_->changed);
  Service().Choose(IDC_START_TYPE, 2);
  EXPECT_TRUE(sheet_->changed);
  Service().SendNotify(kPsnKillActive);
  EXPECT_EQ(g_applet.settings.service_start, 3u);
  Service().Choose(IDC_START_TYPE, 0);
  Service().SendNotify(kPsnKillActive);
  EXPECT_EQ(g_applet.settings.service_start, 4u);
}

TEST_F(ServicePageTest, StatusLineAndButtonFollowTheService) {
  RecordedServices::running = true;
  Open({IDD_SERVICE});
  EXPECT_EQ(Service().Text(IDC_SERVICE_STATUS), "The Windows Time service on " + std::string(g_w32t_env.computer_name) + " is running");
  EXPECT_EQ(Service().Text(IDC_START_STOP), "S&top");
  EXPECT_TRUE(Service().TimerRunning(1));
  EXPECT_EQ(Service().TimerPeriod(1), 2000u);
  RecordedServices::running = false;
  EXPECT_TRUE(Service().FireTimer(1));
  EXPECT_EQ(Service().Text(IDC_SERVICE_STATUS), "The Windows Time service on " + std::string(g_w32t_env.computer_name) + " is stopped");
  EXPECT_EQ(Service().Text(IDC_START_STOP), "S&tart");
  Service().SendNotify(kPsnKillActive);
  EXPECT_FALSE(Service().TimerRunning(1));
  EXPECT_EQ(service_status_text("\\\\M", true), "The Windows Time service on \\\\M is running");
  Service().Click(IDC_LINK);
  ASSERT_EQ(memory_ui::OpenedAddresses().size(), 1u);
  EXPECT_NE(memory_ui::OpenedAddresses()[0].find("subject=servicetab"), std::string::npos);
  EXPECT_EQ(Service().ClassCursor(IDC_LINK), IDC_CW_LINK);
}

TEST_F(ServicePageTest, StopGoesThroughServiceControlAtOnceAndRefreshesTheClientPage) {
  static int refreshed = 0, with_source = 0;
  refreshed = with_source = 0;
  g_applet_client_refresh = [](bool source) { ++refreshed, with_source += source; };
  Open({IDD_SERVICE});
  RecordedServices::calls.clear();
  EXPECT_TRUE(Service().Click(IDC_START_STOP));
  g_applet_client_refresh = nullptr;
  EXPECT_EQ(RecordedServices::calls, (std::vector<std::string>{"control  1 1", "control  4 0"}));
  EXPECT_EQ(fake::Sleeps(), (std::vector<std::uint32_t>{500}));
  EXPECT_EQ(Service().Text(IDC_START_STOP), "S&tart");
  EXPECT_EQ(refreshed, 1);
  EXPECT_EQ(with_source, g_w32t_env.level > kOsWin2000 ? 1 : 0);
  EXPECT_EQ(memory_ui::SystemCursor(), CursorShape::Arrow);
  EXPECT_GE(memory_ui::SystemCursorChanges(), 2);
  EXPECT_FALSE(sheet_->changed);   // nothing waits for Apply
}

TEST_F(ServicePageTest, StartWhileDisabledSwitchesTheListToAutomaticFirst) {
  RecordedServices::running = false;
  g_applet.settings.service_start = 4;
  Open({IDD_SERVICE});
  EXPECT_EQ(Service().Text(IDC_START_STOP), "S&tart");
  EXPECT_EQ(StartItem(), "Disabled");
  RecordedServices::calls.clear();
  EXPECT_TRUE(Service().Click(IDC_START_STOP));
  EXPECT_EQ(StartItem(), "Automatic");
  EXPECT_EQ(RecordedServices::calls, (std::vector<std::string>{"control  16 1", "control  4 0"}));
  EXPECT_EQ(Service().Text(IDC_START_STOP), "S&top");
  Service().SendNotify(kPsnKillActive);
  EXPECT_EQ(g_applet.settings.service_start, 2u);
}

TEST_F(ServicePageTest, EmptyLogPathOnDriveDBecomesDColonW32timeLog) {
  SetSystemDir("D:\\WINDOWS\\system32\\");
  g_applet.settings.file_log_name[0] = '\0';
  g_applet.settings.file_log_entries[0] = '\0';
  g_applet.settings.file_log_size = 0;
  g_applet.settings.file_logging_on = 0;
  Open({IDD_SERVICE});
  if (g_w32t_env.level == kOsWin2000) GTEST_SKIP() << "the log group is hidden on this level";
  EXPECT_EQ(Service().Text(IDC_LOG_PATH), "D:\\w32time.log");
  EXPECT_EQ(Service().Text(IDC_LOG_SIZE), "3");
  EXPECT_EQ(Service().Text(IDC_LOG_ENTRIES), "0-300");
  for (int id : {IDC_LOG_PATH, IDC_LOG_SIZE, IDC_LOG_ENTRIES, IDC_SHOW_LOG}) EXPECT_FALSE(Service().Enabled(id)) << id;
  EXPECT_FALSE(sheet_->changed);
  // Checking the box enables the fields and marks the sheet changed.
  EXPECT_TRUE(Service().Click(IDC_LOG_ENABLED));
  for (int id : {IDC_LOG_PATH, IDC_LOG_SIZE, IDC_LOG_ENTRIES, IDC_SHOW_LOG}) EXPECT_TRUE(Service().Enabled(id)) << id;
  EXPECT_TRUE(sheet_->changed);
  // Without a drive letter the machine root stands for the drive.
  EXPECT_EQ(service_default_log_path("/var/lib/chronwarden/system32/"), "/var/lib/chronwarden/w32time.log");
  EXPECT_EQ(service_default_log_path("c:\\winnt\\system32\\"), "c:\\w32time.log");
}

TEST_F(ServicePageTest, LogSizeIsStoredInBytesAndShownInWholeMegabytes) {
  W32tSettings& s = g_applet.settings;
  s.file_logging_on = 1;
  s.file_log_size = 1'500'000;
  std::strcpy(s.file_log_name, "C:\\w32time.log");
  std::strcpy(s.file_log_entries, "0-100");
  Open({IDD_SERVICE});
  EXPECT_EQ(Service().Text(IDC_LOG_SIZE), "1");
  EXPECT_TRUE(Service().Checked(IDC_LOG_ENABLED));
  Service().Type(IDC_LOG_SIZE, "5");
  EXPECT_TRUE(sheet_->changed);
  ASSERT_TRUE(sheet_->Apply());
  EXPECT_EQ(s.file_log_size, 5'242'880u);
  EXPECT_EQ(s.file_logging_on, 1u);
  EXPECT_EQ(reg_get_dword(reg_local(), kConfigKey, "FileLogSize", 0), 5'242'880u);
  EXPECT_STREQ(s.file_log_entries, "0-100");
}

TEST_F(ServicePageTest, ClearingTheEntriesLeavesTheLogDisabled) {
  W32tSettings& s = g_applet.settings;
  s.file_logging_on = 1;
  s.file_log_size = 3 << 20;
  std::strcpy(s.file_log_name, "C:\\w32time.log");
  std::strcpy(s.file_log_entries, "0-300");
  Open({IDD_SERVICE});
  Service().Type(IDC_LOG_ENTRIES, "  ");
  ASSERT_TRUE(sheet_->Apply());
  EXPECT_EQ(s.file_logging_on, 0u);
  EXPECT_TRUE(memory_ui::Boxes().empty());
  EXPECT_EQ(reg_get_dword(reg_local(), kConfigKey, "FileLogSize", 0), 0u);   // the values are gone
  // A path and entries are read trimmed.
  Service().Type(IDC_LOG_ENTRIES, " 0-50 ");
  Service().Type(IDC_LOG_PATH, "\tC:\\logs\\t.log  ");
  Service().SendNotify(kPsnKillActive);
  EXPECT_EQ(s.file_logging_on, 1u);
  EXPECT_STREQ(s.file_log_entries, "0-50");
  EXPECT_STREQ(s.file_log_name, "C:\\logs\\t.log");
}

TEST_F(ServicePageTest, ShowLogOnARemoteMachineReadsItsDriveShare) {
  EXPECT_EQ(service_log_read_path("M", "C:\\w32time.log"), "\\\\M\\C$\\w32time.log");
  EXPECT_EQ(service_log_read_path("\\\\M", "C:\\w32time.log"), "\\\\M\\C$\\w32time.log");
  EXPECT_EQ(service_log_read_path("", "C:\\w32time.log"), "C:\\w32time.log");
  std::snprintf(g_applet.target, sizeof g_applet.target, "M");
  W32tSettings& s = g_applet.settings;
  s.file_logging_on = 1;
  s.file_log_size = 3 << 20;
  std::strcpy(s.file_log_name, "C:\\w32time.log");
  std::strcpy(s.file_log_entries, "0-300");
#ifndef _WIN32
  const auto network = root_ / "network";
  std::filesystem::create_directories(network / "M" / "C$");
  std::ofstream(network / "M" / "C$" / "w32time.log") << "log\n";
  SetEnvironmentValue("CHRONWARDEN_NETWORK_ROOT", network.string().c_str());
#endif
  Open({IDD_SERVICE});
  EXPECT_EQ(Service().Text(IDC_SERVICE_STATUS), "The Windows Time service on M is running");
  EXPECT_TRUE(Service().Click(IDC_SHOW_LOG));
#ifndef _WIN32
  SetEnvironmentValue("CHRONWARDEN_NETWORK_ROOT", nullptr);
  EXPECT_EQ(fake::ViewerOpened(), (std::vector<std::string>{"\\\\M\\C$\\w32time.log"}));
  EXPECT_TRUE(memory_ui::Boxes().empty());
#else
  ASSERT_EQ(memory_ui::Boxes().size(), 1u);   // no machine M: the message names the share path
  EXPECT_NE(memory_ui::Boxes()[0].text.find("\\\\M\\C$\\w32time.log"), std::string::npos);
#endif
}

TEST_F(ServicePageTest, ShowLogExplainsAMissingFileOrFolder) {
  W32tSettings& s = g_applet.settings;
  s.file_logging_on = 1;
  s.file_log_size = 3 << 20;
  std::strcpy(s.file_log_entries, "0-300");
  const std::string missing_file = (sysdir_ / "w32time.log").string();
  const std::string missing_dir = (sysdir_ / "nowhere" / "w32time.log").string();
  std::snprintf(s.file_log_name, sizeof s.file_log_name, "%s", missing_file.c_str());
  Open({IDD_SERVICE});
  EXPECT_TRUE(Service().Click(IDC_SHOW_LOG));
  Service().Type(IDC_LOG_PATH, missing_dir);
  EXPECT_TRUE(Service().Click(IDC_SHOW_LOG));
  std::ofstream(sysdir_ / "w32time.log") << "x\n";
  Service().Type(IDC_LOG_PATH, missing_file);
  EXPECT_TRUE(Service().Click(IDC_SHOW_LOG));
  const auto boxes = memory_ui::Boxes();
  ASSERT_EQ(boxes.size(), 2u);
  EXPECT_EQ(boxes[0].text, "The log file \"" + missing_file +
                               "\" was not found. If you have just enabled logging, remember that you have to stop and "
                               "restart the Windows Time service before your changes take effect. Otherwise, check the "
                               "Event Viewer for error messages related to creating the log file.");
  EXPECT_EQ(boxes[1].text, "The path for \"" + missing_dir +
                               "\" was not found. Check your typing (or create the folder if necessary), and then stop "
                               "and restart the Windows Time service.");
  EXPECT_EQ(boxes[0].caption, "Chronwarden");
  EXPECT_EQ(fake::ViewerOpened(), (std::vector<std::string>{missing_file}));
}

TEST_F(ServicePageTest, Windows2000HidesTheLogGroup) {
  g_w32t_env.level = kOsWin2000;
  Open({IDD_SERVICE});
  for (int id : {IDC_LOG_GROUP, IDC_LOG_HELP2, IDC_LOG_PATH_LABEL, IDC_LOG_SIZE_LABEL, IDC_LOG_SIZE_UNIT,
                 IDC_LOG_ENTRIES_LABEL, IDC_LOG_HELP1, IDC_LOG_ENABLED, IDC_LOG_PATH, IDC_LOG_SIZE, IDC_LOG_ENTRIES,
                 IDC_SHOW_LOG})
    EXPECT_FALSE(Service().Visible(id)) << id;
  EXPECT_TRUE(Service().Visible(IDC_START_TYPE));
}

}  // namespace
