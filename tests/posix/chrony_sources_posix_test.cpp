// The time service's servers applied to a real chronyd (-x: it never touches the clock) whose
// command socket and sources folder live in the test's own folder.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "config/chrony_sources.h"
#include "config/os_identify.h"
#include "config/registry.h"
#include "config/service_control.h"
#include "config/w32time.h"
#include "platform/error.h"
#include "platform/service.h"
#include "tests/registry_fixture.h"

namespace {

namespace fs = std::filesystem;
constexpr const char* kParams = "\\\\System\\CurrentControlSet\\Services\\W32Time\\Parameters";

std::string Read(const fs::path& p) {
  std::ifstream in(p);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Alive and not a zombie waiting for the init process to reap it.
bool Alive(long pid) {
  const std::string stat = Read("/proc/" + std::to_string(pid) + "/stat");
  const auto close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

W32tServer Entry(const char* name, std::uint32_t flags) {
  W32tServer e{};
  std::snprintf(e.name, sizeof e.name, "%s", name);
  e.flags = flags;
  e.work = -1;
  return e;
}

TEST(ChronySourcesText, MapsTheModeFlags) {
  EXPECT_EQ(chrony_source_line(Entry("a.example", 0x8), 0), "server a.example iburst");
  EXPECT_EQ(chrony_source_line(Entry("pool.ntp.org", 0x8), 0), "pool pool.ntp.org iburst");
  EXPECT_EQ(chrony_source_line(Entry("0.debian.pool.ntp.org", 0x1), 0), "pool 0.debian.pool.ntp.org iburst");
  EXPECT_EQ(chrony_source_line(Entry("a.example", 0x9), 3600), "server a.example iburst minpoll 12 maxpoll 12");
  EXPECT_EQ(chrony_source_line(Entry("a.example", 0x1), 1), "server a.example iburst minpoll 3 maxpoll 3");
  EXPECT_EQ(chrony_source_line(Entry("a.example", 0x8), 3600), "server a.example iburst");   // no 0x1: chrony's own
  EXPECT_EQ(chrony_source_line(Entry("b.example", 0x4), 0), "peer b.example");
  EXPECT_EQ(chrony_source_line(Entry("c.example", 0x2), 0), "server c.example iburst");
}

TEST(ChronySourcesText, NoSyncHasNoSources) {
  W32tSettings s{};
  s.sync_type = kW32tNoSync;
  s.server_count = 1;
  s.servers[0] = Entry("a.example", 1);
  EXPECT_EQ(chrony_sources_text(s).find("server"), std::string::npos);
  s.sync_type = kW32tNt5ds;
  EXPECT_NE(chrony_sources_text(s).find("\nserver a.example iburst\n"), std::string::npos);
}

TEST(ChronySourcesDefault, ATestMachineRootNeverReachesTheMachinesChrony) {
  RegistrySandbox sandbox;
  EXPECT_EQ(chrony_default_sources_file(), "");
  EXPECT_EQ(chrony_default_config_file(), "");
  W32tSettings s{};
  s.sync_type = kW32tNtp;
  EXPECT_EQ(chrony_apply_settings(s), 1);   // nothing configured: nothing to do
}

class ChronyTest : public RegistryTest {
 protected:
  void SetUp() override {
    RegistryTest::SetUp();
    dir_ = root_ / "chrony";
    fs::create_directories(dir_ / "sources.d");
    fs::permissions(dir_, fs::perms::owner_all);
    std::ofstream(dir_ / "chrony.conf") << "port 0\ncmdport 0\nbindcmdaddress " << (dir_ / "chronyd.sock").string()
                                        << "\npidfile " << (dir_ / "chronyd.pid").string() << "\ndriftfile "
                                        << (dir_ / "drift").string() << "\nsourcedir "
                                        << (dir_ / "sources.d").string() << "\n";
    const std::string cmd = "/usr/sbin/chronyd -x -u root -f " + (dir_ / "chrony.conf").string() + " -l " +
                            (dir_ / "chronyd.log").string();
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    for (int i = 0; i < 100 && !fs::exists(dir_ / "chronyd.sock"); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_TRUE(fs::exists(dir_ / "chronyd.sock")) << Read(dir_ / "chronyd.log");
    reg_set_string(reg_local(), kParams, "ChronySourcesFile", File().c_str());
    reg_set_string(reg_local(), kParams, "ChronyCommandSocket", (dir_ / "chronyd.sock").string().c_str());
    saved_level_ = g_w32t_env.level;
    g_w32t_env.level = kOsWin2008;
  }
  void TearDown() override {
    long pid = 0;
    std::ifstream(dir_ / "chronyd.pid") >> pid;
    if (pid > 0) kill(pid_t(pid), SIGKILL);   // -x: nothing to undo; SIGTERM takes chronyd 1.5 s
    for (int i = 0; i < 100 && pid > 0 && Alive(pid); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    g_w32t_env.level = saved_level_;
    RegistryTest::TearDown();
  }
  std::string File() { return (dir_ / "sources.d" / "chronwarden.sources").string(); }
  std::string Sources() {
    std::string out;
    EXPECT_EQ(platform::ChronyCommand((dir_ / "chronyd.sock").string(), "sources", out), 0);
    return out;
  }
  W32tSettings Two() {
    W32tSettings s{};
    s.sync_type = kW32tNtp;
    s.ntp_client_poll_interval = 1024;
    s.server_count = 2;
    s.servers[0] = Entry("127.0.0.11", 0x9);
    s.servers[1] = Entry("127.0.0.12", 0x8);
    return s;
  }
  fs::path dir_;
  std::uint32_t saved_level_ = 0;
};

// The settings' save only stores them; the callers (config set, Apply, install) hand them to chrony.
TEST_F(ChronyTest, SavingTheSettingsLeavesChronyAlone) {
  ASSERT_EQ(w32t_save(reg_local(), Two(), 1), 0u);
  EXPECT_FALSE(std::filesystem::exists(File()));
  EXPECT_EQ(Sources().find("127.0.0.11"), std::string::npos);
}

TEST_F(ChronyTest, ApplyingTheSettingsMakesThemChronySources) {
  ASSERT_EQ(w32t_save(reg_local(), Two(), 1), 0u);
  ASSERT_EQ(chrony_apply_settings(Two()), 1);
  EXPECT_EQ(platform::LastError(), 0u);
  const std::string text = Read(File());
  EXPECT_NE(text.find("\nserver 127.0.0.11 iburst minpoll 10 maxpoll 10\nserver 127.0.0.12 iburst\n"), std::string::npos)
      << text;
  const std::string sources = Sources();
  EXPECT_NE(sources.find("127.0.0.11"), std::string::npos) << sources;
  EXPECT_NE(sources.find("127.0.0.12"), std::string::npos) << sources;
}

TEST_F(ChronyTest, TheFileIsWrittenOnlyWhenItChanges) {
  W32tSettings s = Two();
  ASSERT_EQ(chrony_apply_settings(s), 1);
  const auto first = fs::last_write_time(File());
  fs::last_write_time(File(), first - std::chrono::hours(1));
  ASSERT_EQ(chrony_apply_settings(s), 1);
  EXPECT_EQ(fs::last_write_time(File()), first - std::chrono::hours(1));
  s.servers[1] = Entry("127.0.0.13", 0x8);
  ASSERT_EQ(chrony_apply_settings(s), 1);
  EXPECT_NE(Read(File()).find("127.0.0.13"), std::string::npos);
  const std::string sources = Sources();
  EXPECT_NE(sources.find("127.0.0.13"), std::string::npos) << sources;
  EXPECT_EQ(sources.find("127.0.0.12"), std::string::npos) << sources;
  EXPECT_FALSE(fs::exists(File() + ".part"));
}

// A sources file that cannot be replaced (a folder in its place): the failure's code, and nothing
// left beside it.
TEST_F(ChronyTest, AFileThatCannotBeReplacedFailsAndLeavesNothingAside) {
  fs::create_directories(fs::path(File()) / "in-the-way");
  platform::SetLastError(0);
  EXPECT_EQ(chrony_apply_settings(Two()), 0);
  EXPECT_EQ(platform::LastError(), platform::kErrorAccessDenied);
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(dir_ / "sources.d")) names.push_back(e.path().filename().string());
  EXPECT_EQ(names, std::vector<std::string>{"chronwarden.sources"});
}

TEST_F(ChronyTest, NoSyncRemovesTheSources) {
  W32tSettings s = Two();
  ASSERT_EQ(chrony_apply_settings(s), 1);
  s.sync_type = kW32tNoSync;
  ASSERT_EQ(chrony_apply_settings(s), 1);
  EXPECT_EQ(Read(File()).find("server"), std::string::npos);
  EXPECT_EQ(Sources().find("127.0.0.1"), std::string::npos);
}

TEST_F(ChronyTest, AMissingSourceIsAddedBack) {
  W32tSettings s = Two();
  ASSERT_EQ(chrony_apply_settings(s), 1);
  std::string out;
  ASSERT_EQ(platform::ChronyCommand((dir_ / "chronyd.sock").string(), "delete 127.0.0.11", out), 0) << out;
  ASSERT_EQ(Sources().find("127.0.0.11"), std::string::npos);
  ASSERT_EQ(chrony_apply_settings(s), 1);   // the file is unchanged, the source is not
  EXPECT_NE(Sources().find("127.0.0.11"), std::string::npos);
}

TEST_F(ChronyTest, ResyncAsksChronyForABurst) {
  ASSERT_EQ(chrony_apply_settings(Two()), 1);
  EXPECT_EQ(TriggerResync(nullptr, nullptr, 0, 0), 0u);
  EXPECT_EQ(TriggerResync(nullptr, nullptr, 0, 1), 31u);   // makestep: chronyd -x may not step the clock
}

TEST_F(ChronyTest, TheCommandSocketIsTheStoresForThisMachineOnly) {
  EXPECT_EQ(chrony_command_socket(nullptr), (dir_ / "chronyd.sock").string());
  EXPECT_EQ(chrony_command_socket("\\\\"), (dir_ / "chronyd.sock").string());
  EXPECT_EQ(chrony_command_socket("\\\\OTHER"), "/run/chrony/chronyd.sock");
  reg_delete_value(reg_local(), kParams, "ChronyCommandSocket");
  EXPECT_EQ(chrony_command_socket(""), "/run/chrony/chronyd.sock");
}

// The administrator's own sources: read from chrony.conf and what it names, taken into settings
// that have none, and never written again into our file, nor rewritten.
TEST(ChronyConfigSources, ReadsTheConfigurationAndTheFilesItNamesButNotOurs) {
  const fs::path dir = fs::path(::testing::TempDir()) / ("cw-chrony-conf-" + std::to_string(::getpid()));
  fs::remove_all(dir);
  fs::create_directories(dir / "sources.d");
  fs::create_directories(dir / "conf.d");
  std::ofstream(dir / "chrony.conf") << "# comment\n! server commented.example\npool 2.debian.pool.ntp.org iburst\n"
                                     << "server  ntp1.example  iburst maxsources 2\nsourcedir " << (dir / "sources.d").string()
                                     << "\nconfdir " << (dir / "conf.d").string() << "\ninclude "
                                     << (dir / "extra-*.conf").string() << "\ninclude " << (dir / "missing.conf").string()
                                     << "\nmakestep 1 3\nserver\n";
  std::ofstream(dir / "sources.d" / "b.sources") << "peer 192.0.2.7\n";
  std::ofstream(dir / "sources.d" / "a.sources") << "server 192.0.2.6 iburst\n";
  std::ofstream(dir / "sources.d" / "chronwarden.sources") << "server ours.example iburst\n";
  std::ofstream(dir / "sources.d" / "ignored.conf") << "server not-a-sources-file.example\n";
  std::ofstream(dir / "conf.d" / "local.conf") << "; a comment\nserver ntp2.example\n";
  std::ofstream(dir / "extra-1.conf") << "% comment\npool pool.example\n";
  std::ofstream(dir / "loop.conf") << "include " << (dir / "loop.conf").string() << "\nserver once.example\n";
  const auto sources = chrony_config_sources((dir / "chrony.conf").string(), (dir / "sources.d" / "chronwarden.sources").string());
  std::vector<std::string> got;
  for (const auto& c : sources) got.push_back(c.kind + " " + c.name);
  EXPECT_EQ(got, (std::vector<std::string>{"pool 2.debian.pool.ntp.org", "server ntp1.example", "server 192.0.2.6",
                                           "peer 192.0.2.7", "server ntp2.example", "pool pool.example"}));
  // A file that includes itself is read a few levels deep, never for ever.
  EXPECT_EQ(chrony_config_sources((dir / "loop.conf").string(), "").size(), 5u);
  EXPECT_TRUE(chrony_config_sources((dir / "none.conf").string(), "").empty());
  fs::remove_all(dir);
}

TEST_F(ChronyTest, InstallTakesTheMachinesSourcesAndNeverDoublesOrRewritesThem) {
  reg_set_string(reg_local(), kParams, "ChronyConfigFile", (dir_ / "chrony.conf").string().c_str());
  const std::string admin = "# the administrator's\nserver 127.0.0.21 iburst minpoll 4\npeer 127.0.0.22\n";
  std::ofstream(dir_ / "sources.d" / "admin.sources") << admin;
  std::string out;
  ASSERT_EQ(platform::ChronyCommand((dir_ / "chronyd.sock").string(), "reload sources", out), 0) << out;
  W32tSettings s{};
  s.sync_type = kW32tNtp;
  ASSERT_TRUE(chrony_import_sources(s));
  ASSERT_EQ(s.server_count, 2u);
  EXPECT_STREQ(s.servers[0].name, "127.0.0.21");
  EXPECT_EQ(s.servers[0].flags, 0x8u);
  EXPECT_STREQ(s.servers[1].name, "127.0.0.22");
  EXPECT_EQ(s.servers[1].flags, 0x4u);
  const W32tSettings imported = s;
  EXPECT_TRUE(chrony_import_sources(s));   // settings with servers are left alone
  EXPECT_EQ(std::memcmp(&s, &imported, sizeof s), 0);
  // Saved with one server of our own: our file holds only that one, chrony has all three.
  s.servers[s.server_count++] = Entry("127.0.0.11", 0x8);
  ASSERT_EQ(chrony_apply_settings(s), 1) << platform::LastError();
  const std::string ours = Read(File());
  EXPECT_NE(ours.find("\nserver 127.0.0.11 iburst\n"), std::string::npos) << ours;
  EXPECT_EQ(ours.find("127.0.0.21"), std::string::npos) << ours;
  EXPECT_EQ(ours.find("127.0.0.22"), std::string::npos) << ours;
  EXPECT_EQ(Read(dir_ / "sources.d" / "admin.sources"), admin);
  const std::string listed = Sources();
  for (const char* name : {"127.0.0.11", "127.0.0.21", "127.0.0.22"}) EXPECT_NE(listed.find(name), std::string::npos) << name;
}

TEST_F(ChronyTest, WithoutAnAnsweringChronydTheApplyFails) {
  reg_set_string(reg_local(), kParams, "ChronyCommandSocket", (dir_ / "nobody.sock").string().c_str());
  EXPECT_EQ(chrony_apply_settings(Two()), 0);
  EXPECT_EQ(platform::LastError(), 1722u);
}

}  // namespace
