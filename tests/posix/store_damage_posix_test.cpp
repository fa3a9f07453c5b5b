// A damaged store on Linux: the store's own check (`chronwarden reg check`, RegistryStoreCheck) on
// a garbage file, a truncated file and a damaged page; the applet's sheet process showing the
// registry's error instead of pages; the journal the store keeps so that a crash never damages it.
// And what install starts, remove stops: the host daemon under the supervisor, found by its
// environment.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "config/defaults.h"
#include "platform/error.h"
#include "platform/error_text.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "tests/posix/sheet_process.h"
#include "tests/registry_fixture.h"

namespace fs = std::filesystem;

namespace {

std::string ReadAll(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteAll(const fs::path& file, const std::string& bytes) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
}

std::string ErrorText(std::uint32_t code) {
  char text[512];
  SystemErrorText(code, text, sizeof text);
  std::string t = text;
  while (!t.empty() && t.back() == ' ') t.pop_back();
  return t;
}

template <typename Cond>
bool Within(int seconds, Cond cond) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!cond()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

class StoreDamageTest : public RegistryTest {
 protected:
  fs::path Store() const { return root_ / "registry.db"; }
  // chronwarden with arguments (a shell's words) in this test's machine root; its exit code, its
  // standard output and error in out.
  int Run(const std::string& args, std::string* out = nullptr) {
    const fs::path file = root_.string() + ".out";
    const std::string cmd =
        std::string("\"") + CHRONWARDEN_CLI_PATH + "\" " + args + " >\"" + file.string() + "\" 2>&1 </dev/null";
    const int status = std::system(cmd.c_str());
    if (out) *out = ReadAll(file);
    fs::remove(file);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // A sound store with a value of 20,000 bytes: its data spans overflow pages, one of which a test
  // can damage without touching any page the settings are read from.
  void MakeStoreWithABigValue() {
    platform::RegKey key = nullptr;
    ASSERT_EQ(platform::RegCreateKey(platform::RegLocalMachine(), "Software\\Filler", platform::kKeyAllAccess, key), 0u);
    const std::string big(20000, '\xAB');
    ASSERT_EQ(platform::RegSetValue(key, "Big", platform::kRegBinary, big.data(), std::uint32_t(big.size())), 0u);
    platform::RegCloseKey(key);
  }
  // Points the first overflow page of the big value at a page that cannot exist.
  void DamageAPage() {
    std::string bytes = ReadAll(Store());
    const std::size_t page = std::size_t(std::uint8_t(bytes[16])) << 8 | std::uint8_t(bytes[17]);
    ASSERT_GE(page, 512u);
    for (std::size_t at = 0; at + page <= bytes.size(); at += page) {
      if (bytes.compare(at + 4, page - 4, std::string(page - 4, '\xAB')) == 0) {
        bytes.replace(at, 4, "\xFF\xFF\xFF\xFF");
        WriteAll(Store(), bytes);
        return;
      }
    }
    FAIL() << "no overflow page of the big value in " << Store();
  }
  // The check and `reg check` both find the store damaged, with SQLite's one finding.
  void ExpectDamage(const std::string& finding) {
    platform::RegistryStoreReport report;
    EXPECT_EQ(platform::RegistryStoreCheck("", false, report), platform::kErrorRegistryCorrupt);
    EXPECT_EQ(report.problems, std::vector<std::string>{finding});
    std::string out;
    EXPECT_EQ(Run("reg check", &out), 1);
    EXPECT_EQ(out, Expected({finding}));
  }
  std::string Expected(const std::vector<std::string>& lines) {
    std::string text = "chronwarden reg: " + ErrorText(platform::kErrorRegistryCorrupt) + "\n  " + Store().string() + "\n";
    for (const auto& l : lines) text += "  " + l + "\n";
    return text;
  }
};

TEST_F(StoreDamageTest, ASoundStoreChecksOk) {
  ASSERT_EQ(reg_set_string(reg_local(), "", "Touch", "1"), 1);
  platform::RegistryStoreReport report;
  EXPECT_EQ(platform::RegistryStoreCheck(nullptr, false, report), 0u);
  EXPECT_TRUE(report.checked);
  EXPECT_EQ(report.store, Store().string());
  EXPECT_TRUE(report.problems.empty());
  std::string out;
  EXPECT_EQ(Run("reg check", &out), 0);
  EXPECT_EQ(out, Store().string() + ": ok\n");
}

TEST_F(StoreDamageTest, AGarbageFileIsDamage) {
  fs::create_directories(root_);
  std::string garbage;
  for (int i = 0; i < 200; ++i) garbage += "this is not a registry store; ";
  WriteAll(Store(), garbage);
  ExpectDamage("file is not a database");
}

TEST_F(StoreDamageTest, ATruncatedFileIsDamage) {
  MakeStoreWithABigValue();
  const std::string whole = ReadAll(Store());
  ASSERT_GT(whole.size(), 5000u);
  WriteAll(Store(), whole.substr(0, 5000));
  ExpectDamage("database disk image is malformed");
}

TEST_F(StoreDamageTest, ADamagedPageIsFoundThoughTheSettingsStillRead) {
  MakeStoreWithABigValue();
  DamageAPage();
  // Every key and value but the big one still reads: only the check tells.
  EXPECT_EQ(reg_set_string(reg_local(), "", "Touch", "1"), 1);
  platform::RegistryStoreReport report;
  EXPECT_EQ(platform::RegistryStoreCheck("", false, report), platform::kErrorRegistryCorrupt);
  ASSERT_GE(report.problems.size(), 2u);
  EXPECT_EQ(report.problems[0], "*** in database main ***");
  EXPECT_NE(report.problems[1].find("invalid page number -1"), std::string::npos) << report.problems[1];
  EXPECT_EQ(platform::RegistryStoreCheck("", true, report), platform::kErrorRegistryCorrupt);
  std::string out;
  EXPECT_EQ(Run("reg check", &out), 1);
  EXPECT_EQ(out.rfind(Expected({"*** in database main ***"}), 0), 0u) << out;
  EXPECT_NE(out.find("invalid page number -1"), std::string::npos) << out;
  // The settings' readers take the check's word: a damaged store, not defaults.
  EXPECT_EQ(reg_readable(reg_local(), defaults::kW32TimeServiceKey), platform::kErrorRegistryCorrupt);
  EXPECT_EQ(Run("config show", &out), 1);
  char text[512];
  EXPECT_EQ(out, "chronwarden config: " + std::string(SystemErrorText(platform::kErrorRegistryCorrupt, text, sizeof text)) +
                     "\n");
}

TEST_F(StoreDamageTest, NoStoreOrNoMachineIsNoSoundStore) {
  std::string out;
  EXPECT_EQ(Run("reg check", &out), 1);
  EXPECT_EQ(out, "chronwarden reg: " + ErrorText(platform::kErrorFileNotFound) + "\n  " + Store().string() + "\n");
  const fs::path net = root_.string() + "-net";
  platform::SetEnvironmentValue("CHRONWARDEN_NETWORK_ROOT", net.string().c_str());
  EXPECT_EQ(Run("reg check --machine ELSEWHERE", &out), 1);
  EXPECT_EQ(out, "chronwarden reg: " + ErrorText(platform::kErrorBadNetPath) + "\n  " +
                     platform::RemoteMachineRoot("ELSEWHERE") + "/registry.db\n");
  platform::SetEnvironmentValue("CHRONWARDEN_NETWORK_ROOT", nullptr);
}

TEST_F(StoreDamageTest, CheckTakesNoKeyNorOtherOptions) {
  std::string out;
  EXPECT_EQ(Run("reg check Parameters", &out), 2);
  EXPECT_EQ(out, "chronwarden reg: check takes no KEY\nTry 'chronwarden reg --help'.\n");
  EXPECT_EQ(Run("reg check --json", &out), 2);
  EXPECT_EQ(out, "chronwarden reg: check takes --machine only\nTry 'chronwarden reg --help'.\n");
  EXPECT_EQ(Run("reg check --help", &out), 0);
  EXPECT_NE(out.find("chronwarden reg check  [--machine NAME]"), std::string::npos) << out;
}

// Rollback journal, not WAL (the file header's read and write versions are 1, WAL's 2): a store an
// earlier build left in WAL mode changes when it is next opened alone.
TEST_F(StoreDamageTest, TheStoreKeepsARollbackJournal) {
  ASSERT_EQ(reg_set_string(reg_local(), "", "Touch", "1"), 1);
  std::string bytes = ReadAll(Store());
  EXPECT_EQ(bytes.substr(18, 2), std::string("\x01\x01", 2));
  EXPECT_FALSE(fs::exists(Store().string() + "-wal"));
  bytes.replace(18, 2, "\x02\x02");
  WriteAll(Store(), bytes);
  EXPECT_EQ(Run("reg query \\\\\\\\Software\\\\Filler"), 1);   // no such key; the store opened
  EXPECT_EQ(ReadAll(Store()).substr(18, 2), std::string("\x01\x01", 2));
  EXPECT_EQ(Run("reg check"), 0);
}

// The applet's sheet process on a damaged store: the registry's error in a message box, no pages.
TEST_F(StoreDamageTest, TheSheetShowsTheErrorInsteadOfPages) {
  const std::string expected = "Could not read the time service settings from this machine's registry; " +
                               ErrorText(platform::kErrorRegistryCorrupt) + " ";
  for (const bool page_only : {true, false}) {
    if (page_only) {
      MakeStoreWithABigValue();
      DamageAPage();
    } else {
      WriteAll(Store(), std::string(8192, 'Z'));
    }
    SheetProcess p({"applet", "--stdio"});
    const auto box = p.NextEvent("box");
    ASSERT_FALSE(box.is_null());
    EXPECT_EQ(box["text"], expected);
    p.CloseInput();
    EXPECT_EQ(p.WaitExit(10000), 1);
    for (const auto& m : p.Messages()) EXPECT_NE(m.value("event", ""), "sheet") << m.dump();
    fs::remove(Store());
  }
}

// install and remove in a machine root of the test's own, under Chronwarden's supervisor (no
// systemd): the host daemon install starts is gone after remove. Host processes are found by
// their environment (this root) and program, and any left over is killed at the end.
class HostProcessInstallRemoveTest : public StoreDamageTest {
 protected:
  void SetUp() override {
    StoreDamageTest::SetUp();
    ns_ = "cwinst" + std::to_string(getpid()) + ".";
    Env("CHRONWARDEN_SERVICE_BACKEND", "supervisor");
    Env("CHRONWARDEN_HOST", CHRONWARDEN_HOST_PATH);
    Env("CHRONWARDEN_MODULE", W32TMKR_PATH);
    Env("CHRONWARDEN_SHM_NAMESPACE", ns_);
    Env("CHRONWARDEN_COCKPIT_DIR", std::nullopt);
  }
  void TearDown() override {
    for (const pid_t pid : HostsOfThisRoot()) {
      ADD_FAILURE() << "host " << pid << " of " << root_ << " left running";
      ::kill(pid, SIGKILL);
    }
    for (const char* n : {"Global.kairtim-sync-status-shared-memory", "Global.kairtim-sync-status-notify-event",
                          "Global.kairtim-activity"})
      fs::remove(fs::path("/dev/shm") / (ns_ + n));
    for (auto it = saved_.rbegin(); it != saved_.rend(); ++it)
      platform::SetEnvironmentValue(it->first.c_str(), it->second ? it->second->c_str() : nullptr);
    StoreDamageTest::TearDown();
  }
  void Env(const std::string& name, const std::optional<std::string>& value) {
    const char* old = std::getenv(name.c_str());
    saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
    platform::SetEnvironmentValue(name.c_str(), value ? value->c_str() : nullptr);
  }
  // The live chronwarden-host processes whose CHRONWARDEN_ROOT is this test's root.
  std::vector<pid_t> HostsOfThisRoot() const {
    std::vector<pid_t> found;
    const std::string root_env = "CHRONWARDEN_ROOT=" + root_.string();
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/proc", ec)) {
      const std::string name = entry.path().filename();
      if (name.find_first_not_of("0123456789") != std::string::npos) continue;
      const std::string cmdline = ReadAll(entry.path() / "cmdline");
      if (cmdline.substr(0, cmdline.find('\0')).find("chronwarden-host") == std::string::npos) continue;
      const std::string stat = ReadAll(entry.path() / "stat");
      const auto close = stat.rfind(')');
      if (close == std::string::npos || close + 2 >= stat.size() || stat[close + 2] == 'Z') continue;
      const std::string environment = ReadAll(entry.path() / "environ");
      const std::string nul(1, '\0');
      if ((nul + environment + nul).find(nul + root_env + nul) != std::string::npos) found.push_back(pid_t(std::stoi(name)));
    }
    return found;
  }
  std::string ServiceValue(const char* name) {
    char text[512];
    reg_get_string(reg_local(), defaults::kW32TimeServiceKey, name, text, sizeof text, "(missing)");
    return text;
  }
  std::string ns_;
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

TEST_F(HostProcessInstallRemoveTest, RemoveStopsAndUnregistersTheHostInstallStarted) {
  std::string out;
  ASSERT_EQ(Run("install --quiet", &out), 0) << out;
  EXPECT_EQ(out, "");
  ASSERT_TRUE(Within(20, [&] { return HostsOfThisRoot().size() == 1; }));
  EXPECT_EQ(ServiceValue("ImagePath"), std::string(CHRONWARDEN_HOST_PATH) + " --foreground");
  EXPECT_EQ(ServiceValue(defaults::kHostInstalledMark), defaults::kHostInstalledBy);
  ASSERT_EQ(Run("remove --quiet", &out), 0) << out;
  EXPECT_EQ(out, "");
  EXPECT_TRUE(HostsOfThisRoot().empty());
  for (const char* value : {"ImagePath", "SystemdUnit", defaults::kHostInstalledMark})
    EXPECT_EQ(ServiceValue(value), "(missing)") << value;
  EXPECT_EQ(reg_get_dword(reg_local(), defaults::kW32TimeServiceKey, "Start", 0), 3u);
  std::string status;
  EXPECT_EQ(Run("service status", &status), 0);
  EXPECT_NE(status.find("W32Time: stopped"), std::string::npos) << status;
  // Installed again, it is made the service and started again.
  ASSERT_EQ(Run("install --quiet"), 0);
  ASSERT_TRUE(Within(20, [&] { return HostsOfThisRoot().size() == 1; }));
  ASSERT_EQ(Run("remove --quiet"), 0);
  EXPECT_TRUE(HostsOfThisRoot().empty());
}

TEST_F(HostProcessInstallRemoveTest, AHostThatServesAnotherProviderStays) {
  ASSERT_EQ(Run("install --quiet"), 0);
  ASSERT_TRUE(Within(20, [&] { return HostsOfThisRoot().size() == 1; }));
  const std::string other = std::string(defaults::kTimeProvidersKey) + "\\Other";
  reg_set_dword(reg_local(), other.c_str(), "Enabled", 1);
  ASSERT_EQ(reg_get_dword(reg_local(), other.c_str(), "Enabled", 0), 1u);
  ASSERT_EQ(reg_set_string(reg_local(), other.c_str(), "DllName", "other-provider.so"), 1);
  ASSERT_EQ(Run("remove --quiet"), 0);
  EXPECT_TRUE(Within(20, [&] { return HostsOfThisRoot().size() == 1; }));
  EXPECT_EQ(ServiceValue("ImagePath"), std::string(CHRONWARDEN_HOST_PATH) + " --foreground");
  EXPECT_EQ(Run("service stop"), 0);
  EXPECT_TRUE(Within(20, [&] { return HostsOfThisRoot().empty(); }));
}

// A host installed by hand (chronwarden-host --register) is not install's to undo.
TEST_F(HostProcessInstallRemoveTest, AHostRegisteredByHandStays) {
  ASSERT_EQ(std::system(("\"" + std::string(CHRONWARDEN_HOST_PATH) + "\" --register >/dev/null").c_str()), 0);
  ASSERT_EQ(Run("install --quiet"), 0);
  ASSERT_TRUE(Within(20, [&] { return HostsOfThisRoot().size() == 1; }));
  EXPECT_EQ(ServiceValue(defaults::kHostInstalledMark), "(missing)");
  ASSERT_EQ(Run("remove --quiet"), 0);
  EXPECT_TRUE(Within(20, [&] { return HostsOfThisRoot().size() == 1; }));
  EXPECT_EQ(Run("service stop"), 0);
  EXPECT_TRUE(Within(20, [&] { return HostsOfThisRoot().empty(); }));
}

}  // namespace
