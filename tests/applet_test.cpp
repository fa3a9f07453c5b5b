// The applet's entry, launch, helpers, About page, install and remove, through the in-memory
// dialogs (natively against a machine root of the test's own; under Wine against Wine's registry).
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "applet/about_page.h"
#include "applet/applet.h"
#include "applet/install.h"
#include "config/defaults.h"
#include "config/os_identify.h"
#include "config/service_control.h"
#include "config/w32time.h"
#include "platform/dialog_memory.h"
#include "platform/testing/fake.h"
#include "platform/machine.h"
#include "resources/resources.h"
#include "tests/registry_fixture.h"

namespace {

using namespace platform;

constexpr const char* kW32Time = "\\\\System\\CurrentControlSet\\Services\\W32Time";
constexpr const char* kProvider = "\\\\System\\CurrentControlSet\\Services\\W32Time\\TimeProviders\\Chronwarden";
constexpr const char* kParams = "\\\\System\\CurrentControlSet\\Services\\W32Time\\Parameters";
constexpr const char* kUninstall = "\\\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Chronwarden Control Panel Applet";

// Service control as the tests see it: every call recorded, "W32Time" running or not.
struct FakeServices {
  static inline std::vector<std::string> calls;
  static inline bool running = true;
  static int control(Dialog*, const char* machine, std::uint32_t code, std::uint32_t show) {
    calls.push_back("control " + std::string(machine ? machine : "") + " " + std::to_string(code) + " " + std::to_string(show));
    if (code == kServiceOpQuery) return running;
    if (code == kServiceOpStop) running = false;
    if (code == kServiceOpStart) running = true;
    return 1;
  }
  static int restart(Dialog*, const char* machine, const char* service) {
    calls.push_back("restart " + std::string(machine) + " " + service);
    return 1;
  }
  static std::uint32_t resync(Dialog*, const char* machine, std::uint32_t wait, std::uint32_t flags) {
    calls.push_back("resync " + std::string(machine) + " " + std::to_string(wait) + " " + std::to_string(flags));
    return 0;
  }
};

std::string Str(const char* path, const char* name, const RegTarget& t = reg_local()) {
  char buf[1024];
  reg_get_string(t, path, name, buf, sizeof buf, "<missing>");
  return buf;
}

std::string ReadFile(const std::filesystem::path& p) {
  std::ifstream f(p, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

#ifndef _WIN32
extern "C" const unsigned char cw_file_version_marker[18];   // the POSIX build's version marker
#else
const unsigned char cw_file_version_marker[18] = {};
#endif

// A copy of this program with a higher file version (the Windows fixed version information, or
// the marker of the POSIX build).
void WriteNewerModule(const std::filesystem::path& to) {
  std::string data = ReadFile(ThisModuleFile());
  const char sig[] = {char(0xBD), char(0x04), char(0xEF), char(0xFE)};
  std::size_t at = data.find(std::string(sig, 4));
  if (at != std::string::npos) {
    data[at + 10] = char(data[at + 10] + 1);   // dwFileVersionMS: the minor number
  } else {
    at = data.find(std::string(reinterpret_cast<const char*>(cw_file_version_marker), 10));
    ASSERT_NE(at, std::string::npos);
    data[at + 10 + 4] = char(data[at + 10 + 4] + 1);
  }
  std::ofstream(to, std::ios::binary) << data;
}

class AppletTest : public RegistryTest {
 protected:
  void SetUp() override {
    RegistryTest::SetUp();
    sandbox_->Clear(kW32Time);
    sandbox_->Clear(kUninstall);
    sandbox_->Clear("\\\\Software\\Morvane\\Kairon Server");
    sandbox_->Clear("\\\\Software\\Morvane\\Kairon Client");
    resources::RegisterDialogs();
    UseMemoryDialogs(true);
    memory_ui::Reset();
    saved_env_ = g_w32t_env;
    saved_services_ = g_applet_services;
    g_applet_services = {FakeServices::control, FakeServices::restart, FakeServices::resync};
    FakeServices::calls.clear();
    FakeServices::running = true;
    SetAdministratorOverride(1);
    applet_entry(nullptr, kCplInit, 0, 0);
    g_w32t_env.system_dir[0] = '\0';
    w32t_environment_init(reg_local());
    sysdir_ = std::filesystem::temp_directory_path() / ("cw-sys-" + sandbox_->unique());
    std::filesystem::create_directories(sysdir_);
    std::snprintf(g_w32t_env.system_dir, sizeof g_w32t_env.system_dir, "%s%c", sysdir_.string().c_str(),
                  std::filesystem::path::preferred_separator);
#ifndef _WIN32
    // A small module file with this build's version marker stands for the provider module.
    module_ = sysdir_.parent_path() / ("cw-module-" + sandbox_->unique());
    std::ofstream(module_, std::ios::binary) << "module:" << std::string(reinterpret_cast<const char*>(cw_file_version_marker), 18);
    SetEnvironmentValue("CHRONWARDEN_MODULE", module_.string().c_str());
#endif
  }
  void TearDown() override {
    memory_ui::Reset();
    UseMemoryDialogs(false);
    SetAdministratorOverride(-1);
    FailMovesOf("", 0);
    g_applet_services = saved_services_;
    g_applet.quiet = 0;
    g_applet.target[0] = '\0';
    g_w32t_env = saved_env_;
    std::error_code ec;
    std::filesystem::remove_all(sysdir_, ec);
    if (!module_.empty()) std::filesystem::remove(module_, ec);
    SetEnvironmentValue("CHRONWARDEN_MODULE", nullptr);
    RegistryTest::TearDown();
  }
  // A launch of the sheet whose driver looks at it and closes it with Cancel.
  std::intptr_t LaunchSheet(std::uint32_t mode, std::function<void(MemorySheet&)> look) {
    bool shown = false;
    memory_ui::OnSheet([&](MemorySheet& sheet) {
      shown = true;
      look(sheet);
      sheet.Cancel();
    });
    std::intptr_t r = applet_entry(nullptr, mode, 0, 0);
    sheet_shown_ = shown;
    return r;
  }
  std::filesystem::path Installed() const { return sysdir_ / "w32tmkr.cpl"; }

  W32tEnvironment saved_env_;
  AppletServices saved_services_;
  std::filesystem::path sysdir_, module_;
  bool sheet_shown_ = false;
};

// ---- Entry ----

TEST_F(AppletTest, EntryAnswersTheControlPanelMessages) {
  EXPECT_EQ(applet_entry(nullptr, kCplInit, 0, 0), 1);
  EXPECT_EQ(applet_entry(nullptr, kCplGetCount, 0, 0), 1);
  CplInfo info{9, 9, 9, 9};
  EXPECT_EQ(applet_entry(nullptr, kCplInquire, 0, reinterpret_cast<std::intptr_t>(&info)), 0);
  EXPECT_EQ(info.icon, 1);
  EXPECT_EQ(info.name, 2);
  EXPECT_EQ(info.info, 3);
  EXPECT_EQ(info.data, 0);
  EXPECT_EQ(applet_entry(nullptr, kCplExit, 0, 0), 0);
  EXPECT_EQ(applet_entry(nullptr, 0x11223349, 0, 0), 0);
  EXPECT_EQ(applet_entry(nullptr, kCplQuiet, 0, 1), 1);
  EXPECT_EQ(g_applet.quiet, 1);
  EXPECT_EQ(applet_entry(nullptr, kCplQuiet, 0, 0), 1);
  EXPECT_EQ(g_applet.quiet, 0);
  applet_entry(nullptr, kCplQuiet, 0, 1);
  applet_entry(nullptr, kCplInit, 0, 0);   // init clears the quiet flag and the target
  EXPECT_EQ(g_applet.quiet, 0);
}

TEST_F(AppletTest, MachineArgumentIsTrimmedUpperCasedAndCut) {
  EXPECT_EQ(applet_entry(nullptr, kCplSetMachine, reinterpret_cast<std::intptr_t>(" \t\\\\server1\r\n"), 0), 1);
  EXPECT_STREQ(g_applet.target, "\\\\SERVER1");
  EXPECT_EQ(applet_entry(nullptr, kCplSetMachine, reinterpret_cast<std::intptr_t>(""), 0), 0);
  EXPECT_STREQ(g_applet.target, "");
  EXPECT_EQ(applet_entry(nullptr, kCplSetMachine, 0, 0), 0);
  EXPECT_EQ(applet_entry(nullptr, kCplSetMachine, reinterpret_cast<std::intptr_t>(" \r\n "), 0), 0);
  std::string longer(300, 'a');
  EXPECT_EQ(applet_entry(nullptr, kCplSetMachine, reinterpret_cast<std::intptr_t>(longer.c_str()), 0), 1);
  EXPECT_EQ(std::string(g_applet.target), std::string(255, 'A'));
}

// ---- Launch ----

TEST_F(AppletTest, ArgumentNamingTheLocalComputerInAnyCaseActsAsNone) {
  std::string local = ComputerName();
  for (char& c : local) c = char(std::tolower(static_cast<unsigned char>(c)));
  applet_entry(nullptr, kCplSetMachine, reinterpret_cast<std::intptr_t>(local.c_str()), 0);
  std::string title;
  EXPECT_EQ(LaunchSheet(kCplSheet, [&](MemorySheet& sheet) {
              sheet.Show(sheet.PageCount() - 1);
              title = sheet.title;
            }),
            1);
  EXPECT_TRUE(sheet_shown_);
  EXPECT_STREQ(g_applet.target, "");
  EXPECT_EQ(title, "Windows Time Service - " + ComputerName());
}

TEST_F(AppletTest, SheetHasItsCaptionButtonsAndPagesInOrder) {
  std::vector<int> ids;
  std::string caption, ok, cancel;
  LaunchSheet(kCplDblClk, [&](MemorySheet& sheet) {
    caption = sheet.Caption();
    ok = sheet.ok_text;
    cancel = sheet.cancel_text;
    for (int i = 0; i < sheet.PageCount(); ++i) ids.push_back(sheet.Page(i).TemplateId());
  });
  EXPECT_EQ(caption, "Chronwarden");
  EXPECT_EQ(ok, "&OK");
  EXPECT_EQ(cancel, "&Cancel");
  // The provider was brought up to date by the sheet launch (no version was registered), so the
  // Agent page is there.
  EXPECT_EQ(ids, (std::vector<int>{IDD_CLIENT, IDD_SERVER, IDD_AGENT, IDD_SERVICE, IDD_ABOUT}));
}

TEST_F(AppletTest, DoubleClickWithNothingRegisteredInstallsSilentlyAndRestartsTheService) {
  LaunchSheet(kCplDblClk, [](MemorySheet&) {});
  EXPECT_EQ(Str(kProvider, "Current Version"), "4.2.b.20081210R");
  EXPECT_TRUE(std::filesystem::exists(Installed()));
  EXPECT_NE(std::find(FakeServices::calls.begin(), FakeServices::calls.end(), "restart  W32Time"), FakeServices::calls.end());
  EXPECT_TRUE(memory_ui::Boxes().empty());
  // Launched by the private message instead, nothing is installed.
  reg_delete_value(reg_local(), kProvider, "Current Version");
  std::filesystem::remove(Installed());
  LaunchSheet(kCplSheet, [](MemorySheet&) {});
  EXPECT_FALSE(std::filesystem::exists(Installed()));
}

TEST_F(AppletTest, NonAdministratorGetsTheMessageAndErrorFiveAndNoSheet) {
  SetAdministratorOverride(0);
  EXPECT_EQ(LaunchSheet(kCplDblClk, [](MemorySheet&) {}), 0);
  EXPECT_EQ(LastError(), 5u);
  EXPECT_FALSE(sheet_shown_);
  auto boxes = memory_ui::Boxes();
  ASSERT_EQ(boxes.size(), 1u);
  EXPECT_EQ(boxes[0].text, "Sorry, you must have administrative privileges in order to run this applet.");
  EXPECT_EQ(boxes[0].caption, "Chronwarden");
  EXPECT_EQ(boxes[0].style, 0x42040u);
}

TEST_F(AppletTest, QuietFailuresShowNothingButLeaveTheirCode) {
  SetAdministratorOverride(0);
  applet_entry(nullptr, kCplQuiet, 0, 1);
  EXPECT_EQ(applet_entry(nullptr, kCplInstall, 0, 0), 0);
  EXPECT_EQ(LastError(), 5u);
  SetAdministratorOverride(1);
  applet_entry(nullptr, kCplSetMachine, reinterpret_cast<std::intptr_t>("NOSUCHMACHINE"), 0);
  EXPECT_EQ(applet_entry(nullptr, kCplInstall, 0, 0), 0);
  EXPECT_NE(LastError(), 0u);
  EXPECT_TRUE(memory_ui::Boxes().empty());
}

TEST_F(AppletTest, Windows2000GetsItsClientPageAndNoAgentPage) {
  int ids[5];
  ASSERT_EQ(applet_sheet_pages(kOsWin2000, 1, ids), 4);
  EXPECT_EQ(std::vector<int>(ids, ids + 4), (std::vector<int>{IDD_CLIENT_W2K, IDD_SERVER, IDD_SERVICE, IDD_ABOUT}));
  ASSERT_EQ(applet_sheet_pages(kOsWinXp, 0, ids), 4);
  EXPECT_EQ(ids[0], IDD_CLIENT);
  EXPECT_EQ(applet_sheet_pages(kOsWin2008, 1, ids), 5);
}

TEST_F(AppletTest, UpgradeFollowsVersionOrderAndReleaseMarks) {
  EXPECT_EQ(applet_needs_upgrade("", "4.2.b.20081210R", 1), 1);
  EXPECT_EQ(applet_needs_upgrade("4.2.b.20081210R", "4.2.b.20081210R", 0), 1);   // not installed
  EXPECT_EQ(applet_needs_upgrade("4.2.b.20081210R", "4.2.b.20081210R", 1), 0);
  EXPECT_EQ(applet_needs_upgrade("4.2.b.20081210", "4.2.b.20081210R", 1), 1);    // a release over a pre-release
  EXPECT_EQ(applet_needs_upgrade("4.2.B.20081210", "4.2.b.20081210R", 1), 1);    // case ignored
  EXPECT_EQ(applet_needs_upgrade("4.2.b.20090101", "4.2.b.20081210R", 1), 0);
  EXPECT_EQ(applet_needs_upgrade("4.2.b.20081201R", "4.2.b.20081210R", 1), 1);
  EXPECT_EQ(applet_needs_upgrade("4.2.b.20081210R", "4.2.b.20081210", 1), 0);    // a pre-release never replaces a release of the same
  // A pre-release never replaces a release, however it sorts.
  EXPECT_EQ(applet_needs_upgrade("4.2.b.20081201R", "4.2.b.20081210", 1), 0);
  EXPECT_EQ(applet_needs_upgrade("4.2.a.20080101R", "4.2.b.20081210", 1), 0);
  EXPECT_EQ(applet_needs_upgrade("4.2.a.20080101", "4.2.b.20081210", 1), 1);
}

TEST_F(AppletTest, ALaunchDeletesTheReportsTheLastOneShowed) {
  sandbox_->Clear(defaults::kNotepadTempKey);
  const auto report = std::filesystem::temp_directory_path() / ("KRG" + sandbox_->unique() + ".tmp");
  std::ofstream(report) << "report";
  ASSERT_EQ(reg_set_string(reg_local(), defaults::kNotepadTempKey, "1", report.string().c_str()), 1);
  EXPECT_EQ(LaunchSheet(kCplSheet, [](MemorySheet&) {}), 1);
  EXPECT_FALSE(std::filesystem::exists(report));
  EXPECT_EQ(reg_key_exists(reg_local(), defaults::kNotepadTempKey), 0);
}

// ---- Helpers ----

TEST_F(AppletTest, MessageHelperFormatsWithTheDefaultStyleAndIsSilencedByQuiet) {
  EXPECT_EQ(applet_message(nullptr, 0, "n=%d %s", 5, "x"), kIdOk);
  memory_ui::AnswerNext(kIdNo);
  EXPECT_EQ(applet_message(nullptr, kMbYesNo | kMbIconQuestion, "q"), kIdNo);
  std::string longer(600, 'z');
  applet_message(nullptr, 0, "%s", longer.c_str());
  g_applet.quiet = 1;
  EXPECT_EQ(applet_message(nullptr, 0, "hidden"), 1);
  auto boxes = memory_ui::Boxes();
  ASSERT_EQ(boxes.size(), 3u);
  EXPECT_EQ(boxes[0].text, "n=5 x");
  EXPECT_EQ(boxes[0].style, 0x42040u);
  EXPECT_EQ(boxes[1].style, kMbYesNo | kMbIconQuestion);
  EXPECT_EQ(boxes[2].text.size(), 509u);
}

TEST_F(AppletTest, WaitCursorNests) {
  g_applet.wait_depth = 0;
  applet_wait_cursor(0);   // an end without a begin sets the arrow
  EXPECT_EQ(memory_ui::SystemCursor(), CursorShape::Arrow);
  applet_wait_cursor(1);
  applet_wait_cursor(1);
  EXPECT_EQ(memory_ui::SystemCursor(), CursorShape::Wait);
  int changes = memory_ui::SystemCursorChanges();
  applet_wait_cursor(0);
  EXPECT_EQ(memory_ui::SystemCursor(), CursorShape::Wait);
  EXPECT_EQ(memory_ui::SystemCursorChanges(), changes);
  applet_wait_cursor(0);
  EXPECT_EQ(memory_ui::SystemCursor(), CursorShape::Arrow);
  EXPECT_EQ(g_applet.wait_depth, 0u);
}

TEST_F(AppletTest, AccessTestWritesReadsAndDeletesItsValue) {
  char text[512] = "x";
  ASSERT_EQ(applet_access_test(nullptr, "", "", text), 1);
  EXPECT_EQ(LastError(), 0u);
  EXPECT_STREQ(text, "");
  // Nothing is left behind.
  char name[256];
  std::uint8_t data[64];
  std::uint32_t type = 0;
  for (std::uint32_t i = 0; reg_enum_value(reg_local(), "\\\\System\\CurrentControlSet\\Services\\LanmanServer", name, sizeof name, data,
                                           sizeof data, &type, i);
       ++i)
    EXPECT_EQ(std::string(name).rfind("morvane-test-", 0), std::string::npos) << name;
}

// The test value is named after the tick count, as an unsigned number (3,000,000,000 ms is more
// than 24 days after the start).
TEST_F(AppletTest, AccessTestNamesItsValueAfterTheTickCount) {
  fake::Enable();
  fake::SetCounter(3'000'000'000LL * 10'000);   // at 10 MHz
  char text[512];
  const int ok = applet_access_test(nullptr, "", "", text);
  const std::vector<std::string> written = fake::RegistryWrites();
  fake::Disable();
  EXPECT_EQ(ok, 1) << text;
  EXPECT_EQ(written, std::vector<std::string>{"morvane-test-3000000000"});
}

TEST_F(AppletTest, AccessTestFailureNamesTheGivenKey) {
  char text[512];
  std::string key = "\\\\" + std::string(600, 'k');   // longer than any registry path: refused
  ASSERT_EQ(applet_access_test(nullptr, "", key.c_str(), text), 0);
  EXPECT_EQ(std::string(text).rfind("Could not write test value to \\\\kkkk", 0), 0u) << text;
  EXPECT_EQ(std::strlen(text), 511u);   // cut to the buffer
  EXPECT_NE(LastError(), 0u);
}

// ---- Apply ----

TEST_F(AppletTest, ApplyStepSavesTellsTheServiceAndTriggersAResync) {
  AboutPage about;
  MemoryDialog page(*FindDialogDescription(IDD_ABOUT), about);
  page.Start();
  EXPECT_EQ(applet_apply(page), 0);   // nothing changed
  EXPECT_TRUE(FakeServices::calls.empty());
  w32t_load(reg_local(), g_applet.settings);
  g_applet.settings.check_interval = 1234;
  page.SetSheetChanged(true);   // no sheet: the flag stays clear, so use a sheet below
  SheetPage pages[] = {{IDD_ABOUT, &about}};
  MemorySheet sheet(SheetSpec{"Chronwarden", pages});
  sheet.Start();
  sheet.Page(0).SetSheetChanged(true);
  g_w32t_env.level = kOsWinXp;
  EXPECT_EQ(applet_apply(sheet.Page(0)), 0);
  EXPECT_FALSE(sheet.changed);
  EXPECT_FALSE(sheet.page_changed[IDD_ABOUT]);
  EXPECT_EQ(reg_get_dword(reg_local(), kProvider, "SpecialPollInterval", 0), 1234u);
  EXPECT_EQ(FakeServices::calls, (std::vector<std::string>{"control  4 0", "control  6 1", "resync  0 1"}));
  EXPECT_EQ(memory_ui::SystemCursor(), CursorShape::Arrow);
  // On Windows 2000 the service is restarted instead; a stopped service is left alone.
  FakeServices::calls.clear();
  g_w32t_env.level = kOsWin2000;
  sheet.Page(0).SetSheetChanged(true);
  applet_apply(sheet.Page(0));
  EXPECT_EQ(FakeServices::calls, (std::vector<std::string>{"control  4 0", "restart  W32Time", "resync  0 1"}));
  FakeServices::calls.clear();
  FakeServices::running = false;
  sheet.Page(0).SetSheetChanged(true);
  EXPECT_EQ(applet_apply(sheet.Page(0)), 0);
  EXPECT_EQ(FakeServices::calls, (std::vector<std::string>{"control  4 0"}));
}

// ---- About page ----

TEST_F(AppletTest, AboutPageShowsVersionTextFontTabStopsAndLink) {
  AboutPage about;
  SheetPage pages[] = {{IDD_ABOUT, &about}};
  MemorySheet sheet(SheetSpec{"Chronwarden", pages});
  ASSERT_TRUE(sheet.Start());
  MemoryDialog& d = sheet.Page(0);
  EXPECT_EQ(d.Text(IDC_TITLE), "Chronwarden Version 4.2.b.20081210R\r\nCopyright (C) 2008 Selvox, Inc. All rights reserved.");
  EXPECT_EQ(d.Text(IDC_LINK), "www.selvox.example");
  EXPECT_EQ(d.ClassCursor(IDC_LINK), IDC_CW_LINK);
  EXPECT_EQ(d.Font(IDC_ABOUT_TEXT), kFontFixed);
  EXPECT_EQ(d.TabStops(IDC_ABOUT_TEXT), (std::vector<int>{12, 24}));
  std::string text = d.Text(IDC_ABOUT_TEXT);
  EXPECT_EQ(text.rfind("Chronwarden 4.2.b.20081210R\r\nSelvox, Inc.\r\n", 0), 0u);
  EXPECT_NE(text.find("\r\n5.\t"), std::string::npos);
  EXPECT_NE(text.find("\td) "), std::string::npos);
  EXPECT_EQ(sheet.title, "Windows Time Service - " + ComputerName());
  StaticColours link = about.static_colours(d, IDC_LINK);
  EXPECT_TRUE(link.custom);
  EXPECT_EQ(link.text, 0xF54646u);
  EXPECT_TRUE(link.opaque);
  EXPECT_EQ(link.font, kFontLink);
  EXPECT_EQ(link.background, SystemColour(kColorBtnFace));   // menu and button face agree here
  EXPECT_FALSE(about.static_colours(d, IDC_TITLE).custom);
  EXPECT_EQ(d.SendNotify(kPsnApply), 0);
}

TEST_F(AppletTest, AboutTitleNamesTheUpperCasedArgument) {
  applet_entry(nullptr, kCplSetMachine, reinterpret_cast<std::intptr_t>("\\\\server1"), 0);
  AboutPage about;
  SheetPage pages[] = {{IDD_ABOUT, &about}};
  MemorySheet sheet(SheetSpec{"Chronwarden", pages});
  sheet.Start();
  EXPECT_EQ(sheet.title, "Windows Time Service - \\\\SERVER1");
}

TEST_F(AppletTest, OnlyTheLinkOpensTheDocumentation) {
  AboutPage about;
  MemoryDialog d(*FindDialogDescription(IDD_ABOUT), about);
  d.Start();
  d.Click(IDC_TITLE);
  d.Click(IDC_ABOUT_TEXT);
  d.Click(-1);
  d.LeftUp({100, 100});
  EXPECT_TRUE(memory_ui::OpenedAddresses().empty());
  d.Click(IDC_LINK);
  EXPECT_EQ(memory_ui::OpenedAddresses(),
            std::vector<std::string>{
                "http://www.selvox.example/onlinehelp.asp?product=w32tmkrcpl&subject=abouttab&version=4.2.b.20081210R"});
}

// ---- Install and remove ----

TEST_F(AppletTest, InstallRegistersWritesTheUninstallEntryAndCopiesTheModule) {
  g_applet.quiet = 1;
  ASSERT_EQ(InstallModule(applet_install_context(), nullptr), 1);
  EXPECT_EQ(LastError(), 0u);
  EXPECT_EQ(ReadFile(Installed()), ReadFile(ThisModuleFile()));
  char root[260];
  reg_get_string(reg_local(), "\\\\Software\\Microsoft\\Windows NT\\CurrentVersion", "SystemRoot", root, sizeof root, "c:\\windows");
  std::string dir = std::string(root) + "\\system32\\";
  EXPECT_EQ(Str(kUninstall, "DisplayName"), "Chronwarden Control Panel Applet");
  EXPECT_EQ(Str(kUninstall, "UninstallString"), "rundll32.exe " + dir + "w32tmkr.cpl,RunDll -remove");
  EXPECT_EQ(Str(kUninstall, "DisplayIcon"), dir + "w32tmkr.cpl,0");
  EXPECT_EQ(Str(kUninstall, "Publisher"), "Selvox, Inc.");
  EXPECT_EQ(Str(kUninstall, "PublisherName"), "Selvox, Inc.");
  EXPECT_EQ(Str(kUninstall, "DisplayVersion"), "4.2.b.20081210R");
  EXPECT_EQ(reg_get_dword(reg_local(), kUninstall, "NoModify", 0), 1u);
  EXPECT_EQ(reg_get_dword(reg_local(), kUninstall, "NoRepair", 0), 1u);
  EXPECT_EQ(reg_get_dword(reg_local(), kUninstall, "TSAware", 9), 0u);
  EXPECT_EQ(reg_get_dword(reg_local(), kUninstall, "WindowsInstaller", 9), 0u);
  EXPECT_EQ(reg_get_dword(reg_local(), kUninstall, "VersionMajor", 0), 4u);
  EXPECT_EQ(reg_get_dword(reg_local(), kUninstall, "VerMinor", 0), 2u);
  EXPECT_EQ(Str(kProvider, "Current Version"), "4.2.b.20081210R");
  W32tSettings s{};
  w32t_load(reg_local(), s);
  EXPECT_EQ(s.service_installed, 1u);
  ASSERT_GE(s.server_count, 2u);
  EXPECT_STREQ(s.servers[s.server_count - 2].name, "pool.ntp.org");
  EXPECT_STREQ(s.servers[s.server_count - 1].name, "time.nist.gov");
  // The settings changed while the service ran: stopped, saved, started again.
  EXPECT_EQ(FakeServices::calls, (std::vector<std::string>{"control  4 0", "control  1 0", "control  16 0"}));
}

TEST_F(AppletTest, InstallOverAnEqualOrNewerVersionCopiesNothingAndStillRegisters) {
  g_applet.quiet = 1;
  std::ofstream(Installed(), std::ios::binary) << "";
  WriteNewerModule(Installed());
  const std::string newer = ReadFile(Installed());
  ASSERT_EQ(InstallModule(applet_install_context(), nullptr), 1);
  EXPECT_EQ(ReadFile(Installed()), newer);
  EXPECT_EQ(Str(kProvider, "Current Version"), "4.2.b.20081210R");
  EXPECT_EQ(Str(kUninstall, "DisplayName"), "Chronwarden Control Panel Applet");
  // An equal version: still nothing copied.
  std::filesystem::remove(Installed());
  ASSERT_TRUE(CopyModuleToTarget(""));
  std::string copy = ReadFile(Installed());
  std::ofstream(Installed(), std::ios::binary | std::ios::app) << "tail";   // same version, other bytes
  FakeServices::calls.clear();
  ASSERT_EQ(InstallModule(applet_install_context(), nullptr), 1);
  EXPECT_EQ(ReadFile(Installed()), copy + "tail");
  EXPECT_EQ(FileVersion(Installed().string()), ThisFileVersion());
}

TEST_F(AppletTest, InstallAddsTheKaironClientServersAndStopsAtSix) {
  g_applet.quiet = 1;
  std::uint8_t value[335] = {};
  std::memcpy(value + 43, "kc-one", 6);
  std::memcpy(value + 43 + 66, "POOL.NTP.ORG", 12);   // already listed later: added once
  std::memcpy(value + 43 + 132, "kc-three", 8);
  reg_set_binary(reg_local(), "\\\\Software\\Morvane\\Kairon Client\\Parameters", "Client Settings", value, sizeof value);
  g_w32t_env.installed_product = kProductKaironClient;
  ASSERT_EQ(InstallModule(applet_install_context(), nullptr), 1);
  W32tSettings s{};
  w32t_load(reg_local(), s);
  std::vector<std::string> names;
  for (std::uint32_t i = 0; i < s.server_count; ++i) names.push_back(s.servers[i].name);
  EXPECT_NE(std::find(names.begin(), names.end(), "kc-one"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), "kc-three"), names.end());
  EXPECT_EQ(std::count_if(names.begin(), names.end(), [](const std::string& n) { return strcasecmp(n.c_str(), "pool.ntp.org") == 0; }), 1);
  EXPECT_EQ(s.ntp_client_enabled, 0u);
  EXPECT_EQ(s.sync_type, kW32tNoSync);
  W32tSettings full{};
  for (int i = 0; i < 6; ++i) {
    char name[8];
    std::snprintf(name, sizeof name, "s%d", i);
    install_add_server(full, name);
  }
  install_add_server(full, "seventh");
  EXPECT_EQ(full.server_count, 6u);
  install_add_server(full, "");
  EXPECT_EQ(full.server_count, 6u);
}

TEST_F(AppletTest, RemoveUndoesTheRegistrationAndTheUninstallEntry) {
  g_applet.quiet = 1;
  ASSERT_EQ(InstallModule(applet_install_context(), nullptr), 1);
  FakeServices::calls.clear();
  EXPECT_EQ(RemoveModule(applet_install_context(), nullptr), 1);
  EXPECT_EQ(Str(kUninstall, "DisplayName"), "<missing>");
  EXPECT_FALSE(reg_key_exists(reg_local(), kUninstall));
  EXPECT_FALSE(reg_key_exists(reg_local(), kProvider));
  EXPECT_EQ(FakeServices::calls, (std::vector<std::string>{"control  1 0", "control  16 0"}));
}

TEST_F(AppletTest, WaitWindowStepsItsBarAndEndsWithTheResult) {
  std::string text;
  int steps = 0;
  memory_ui::OnModal([&](MemoryDialog& d) {
    ASSERT_TRUE(d.RunUntilEnded(20'000));
    text = d.Text(IDC_WAIT_TEXT);
    steps = d.Progress(IDC_PROGRESS);
  });
  EXPECT_EQ(RunWaitDialog(applet_install_context(), InstallOperation::kInstall), 1);
  EXPECT_EQ(LastError(), 0u);
  EXPECT_EQ(text, "Installing/Upgrading...");
  EXPECT_EQ(steps, 9);
  EXPECT_EQ(RunWaitDialog(applet_install_context(), InstallOperation::kRemove), 1);
  EXPECT_EQ(text, "Removing...");
  EXPECT_EQ(steps, 3);
}

TEST_F(AppletTest, RunDllReadsItsCommandLineInAnyCase) {
  EXPECT_EQ(applet_rundll(nullptr, ""), kIdOk);
  EXPECT_EQ(LastError(), 87u);
  applet_rundll(nullptr, "-frobnicate");
  auto boxes = memory_ui::Boxes();
  ASSERT_EQ(boxes.size(), 2u);
  EXPECT_EQ(boxes[0].text, "Was expecting a command like -remove or -install.");
  EXPECT_EQ(boxes[1].text, "Was expecting either -remove or -install on the command line.");
  EXPECT_EQ(boxes[1].style, kMbIconExclamation);
  w32t_environment_init(reg_local());
  EXPECT_EQ(applet_rundll(nullptr, "/INSTALL"), 0);
  EXPECT_EQ(LastError(), 0u);
  EXPECT_EQ(Str(kUninstall, "DisplayName"), "Chronwarden Control Panel Applet");
}

#ifndef _WIN32
// The second machine and the module file of the local machine: natively only, where the test owns
// both machine roots.

TEST_F(AppletTest, RemoteInstallLeavesTheLocalMachineUntouched) {
  auto net = root_.parent_path() / ("cw-net-" + sandbox_->unique());
  std::filesystem::create_directories(net / "HOSTB");
  SetEnvironmentValue("CHRONWARDEN_NETWORK_ROOT", net.string().c_str());
  applet_entry(nullptr, kCplSetMachine, reinterpret_cast<std::intptr_t>("\\\\hostb"), 0);
  applet_entry(nullptr, kCplQuiet, 0, 1);
  EXPECT_EQ(applet_entry(nullptr, kCplInstall, 0, 0), 1) << LastError();
  EXPECT_TRUE(std::filesystem::exists(net / "HOSTB" / "system32" / "w32tmkr.cpl"));
  EXPECT_EQ(Str(kUninstall, "DisplayName"), "<missing>");   // the layer is local again
  EXPECT_FALSE(reg_key_exists(reg_local(), kProvider));
  EXPECT_FALSE(std::filesystem::exists(Installed()));
  RegTarget hostb;
  ASSERT_EQ(reg_open_target("\\\\HOSTB", hostb), 1);
  EXPECT_EQ(Str(kUninstall, "DisplayName", hostb), "Chronwarden Control Panel Applet");
  EXPECT_EQ(Str(kProvider, "Current Version", hostb), "4.2.b.20081210R");
  SetEnvironmentValue("CHRONWARDEN_NETWORK_ROOT", nullptr);
  std::filesystem::remove_all(net);
}

TEST_F(AppletTest, RemoteWindows2000TargetGetsItsOwnClientPage) {
  auto net = root_.parent_path() / ("cw-net-" + sandbox_->unique());
  std::filesystem::create_directories(net / "OLDBOX");
  SetEnvironmentValue("CHRONWARDEN_NETWORK_ROOT", net.string().c_str());
  {
    RegTarget oldbox;
    ASSERT_EQ(reg_open_target("\\\\OLDBOX", oldbox), 1);
    reg_set_dword(oldbox, "\\\\Software\\Microsoft\\Windows NT\\CurrentVersion", "CurrentMajorVersionNumber", 5);
    reg_set_dword(oldbox, "\\\\Software\\Microsoft\\Windows NT\\CurrentVersion", "CurrentMinorVersionNumber", 0);
    reg_set_string(oldbox, "\\\\System\\CurrentControlSet\\Control\\ProductOptions", "ProductType", "WinNT");
  }
  applet_entry(nullptr, kCplSetMachine, reinterpret_cast<std::intptr_t>("\\\\oldbox"), 0);
  std::vector<int> ids;
  EXPECT_EQ(LaunchSheet(kCplSheet, [&](MemorySheet& sheet) {
              for (int i = 0; i < sheet.PageCount(); ++i) ids.push_back(sheet.Page(i).TemplateId());
            }),
            1);
  EXPECT_EQ(ids, (std::vector<int>{IDD_CLIENT_W2K, IDD_SERVER, IDD_SERVICE, IDD_ABOUT}));
  EXPECT_EQ(g_applet.win2k_target, 1);
  SetEnvironmentValue("CHRONWARDEN_NETWORK_ROOT", nullptr);
  std::filesystem::remove_all(net);
}

TEST_F(AppletTest, UnreachableTargetIsReported) {
  applet_entry(nullptr, kCplSetMachine, reinterpret_cast<std::intptr_t>("NOSUCHHOST"), 0);
  EXPECT_EQ(LaunchSheet(kCplSheet, [](MemorySheet&) {}), 0);
  EXPECT_EQ(LastError(), 53u);
  ASSERT_EQ(memory_ui::Boxes().size(), 1u);
  EXPECT_EQ(memory_ui::Boxes()[0].text.rfind("Could not retrieve operating system version information for NOSUCHHOST; ", 0), 0u);
}

TEST_F(AppletTest, ModuleInUseIsMovedAsideOnlyAfterTheServiceStops) {
  auto sys32 = root_ / "system32";
  std::filesystem::create_directories(sys32);
  std::ofstream(sys32 / "w32tmkr.cpl") << "module";
  std::ofstream(sys32 / "w32tmkr.old") << "older";
  FailMovesOf("w32tmkr.cpl", 1);
  EXPECT_EQ(RetireModuleFile(applet_install_context()), 1);
  EXPECT_FALSE(std::filesystem::exists(sys32 / "w32tmkr.cpl"));
  EXPECT_EQ(ReadFile(sys32 / "w32tmkr.old"), "module");
  EXPECT_EQ(FakeServices::calls, (std::vector<std::string>{"control  1 1", "control  16 0"}));
  // Without the failure the move needs no stop.
  std::ofstream(sys32 / "w32tmkr.cpl") << "again";
  FakeServices::calls.clear();
  EXPECT_EQ(RetireModuleFile(applet_install_context()), 1);
  EXPECT_TRUE(FakeServices::calls.empty());
}
#endif

}  // namespace
