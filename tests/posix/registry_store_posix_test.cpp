// The Linux registry store: its file, the machine identity it starts with, remote machines under
// the network root, processes sharing it, and damaged files. The RegistryStoreTest cases also run
// against the memory store (instantiated in tests/registry_test.cpp).
#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/error.h"
#include "platform/os.h"
#include "tests/registry_fixture.h"

namespace {

namespace fs = std::filesystem;

std::string ReadString(const char* path, const char* name, const RegTarget& t = reg_local()) {
  char buf[512];
  return reg_get_string(t, path, name, buf, sizeof buf, "<missing>") ? buf : "<missing>";
}

TEST_F(RegistryTest, StoreLivesInTheMachineRootAndStartsWithTheMachineIdentity) {
  reg_set_dword(reg_local(), "", "Touch", 1);
  EXPECT_TRUE(fs::exists(root_ / "registry.db"));
  EXPECT_EQ(ReadString("\\\\SYSTEM\\CurrentControlSet\\Control\\ProductOptions", "ProductType"), "ServerNT");
  utsname u{};
  ASSERT_EQ(uname(&u), 0);
  const std::string machine = u.machine;
  const std::string expected = machine == "x86_64" ? "AMD64" : machine == "aarch64" ? "ARM64" : "";
  if (!expected.empty()) {
    EXPECT_EQ(ReadString("\\\\SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment", "PROCESSOR_ARCHITECTURE"),
              expected);
  }
  EXPECT_EQ(ReadString("\\\\SYSTEM\\CurrentControlSet\\Control\\ComputerName\\ComputerName", "ComputerName"),
            platform::ComputerName());
  EXPECT_EQ(ReadString("\\\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "SystemRoot"), root_.string());
  // Filled once: a changed identity value stays changed when the store is opened again.
  ASSERT_EQ(reg_set_string(reg_local(), "\\\\SYSTEM\\CurrentControlSet\\Control\\ProductOptions", "ProductType", "WinNT"), 1);
  EXPECT_EQ(ReadString("\\\\System\\CurrentControlSet\\Control\\ProductOptions", "ProductType"), "WinNT");
}

TEST_P(RegistryStoreTest, MissingProductTypeGivesArchitectureCodeOne) {
  ASSERT_EQ(reg_delete_value(reg_local(), "\\\\SYSTEM\\CurrentControlSet\\Control\\ProductOptions", "ProductType"), 1);
  EXPECT_EQ(reg_target_architecture(reg_local()), kArchNoProductType);
  ASSERT_EQ(reg_set_string(reg_local(), "\\\\SYSTEM\\CurrentControlSet\\Control\\ProductOptions", "ProductType", "WinNT"), 1);
  const char* env = "\\\\SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment";
  const std::pair<const char*, std::uint32_t> cases[] = {{"x86", kArchX86},     {"AMD64", kArchAmd64}, {"IA64", kArchIa64},
                                                         {"Alpha", kArchAlpha}, {"MIPS", kArchMips},   {"PPC", kArchPpc},
                                                         {"ARM64", kArchUnknown}};
  for (const auto& [name, code] : cases) {
    ASSERT_EQ(reg_set_string(reg_local(), env, "PROCESSOR_ARCHITECTURE", name), 1);
    EXPECT_EQ(reg_target_architecture(reg_local()), code) << name;
  }
  ASSERT_EQ(reg_delete_value(reg_local(), env, "PROCESSOR_ARCHITECTURE"), 1);
  EXPECT_EQ(reg_target_architecture(reg_local()), kArchUnknown);
  ASSERT_EQ(reg_set_string(reg_local(), "\\\\SYSTEM\\CurrentControlSet\\Control\\ProductOptions", "ProductType", ""), 1);
  EXPECT_EQ(reg_target_architecture(reg_local()), kArchUnknown);
}

class RemoteRegistryTest : public RegistryTest {
 protected:
  void SetUp() override {
    RegistryTest::SetUp();
    net_ = root_.string() + "-net";
    fs::create_directories(net_ + "/HOSTB");
    platform::SetEnvironmentValue("CHRONWARDEN_NETWORK_ROOT", net_.c_str());
  }
  void TearDown() override {
    RegistryTest::TearDown();
    std::error_code ec;
    fs::remove_all(net_, ec);
    platform::SetEnvironmentValue("CHRONWARDEN_NETWORK_ROOT", nullptr);
  }
  std::string net_;
};

TEST_F(RemoteRegistryTest, ARemoteTargetUsesThatMachinesStore) {
  RegTarget hostb;
  ASSERT_EQ(reg_open_target("\\\\hostb", hostb), 1);
  EXPECT_EQ(hostb.name(), "\\\\hostb");
  EXPECT_NE(hostb.root(), platform::RegLocalMachine());
  ASSERT_EQ(reg_set_string(hostb, "", "Where", "remote"), 1);
  EXPECT_TRUE(fs::exists(net_ + "/HOSTB/registry.db"));
  EXPECT_EQ(ReadString("\\\\SYSTEM\\CurrentControlSet\\Control\\ComputerName\\ComputerName", "ComputerName", hostb),
            "HOSTB");
  EXPECT_EQ(ReadString("", "Where"), "<missing>");   // the local machine is another target

  RegTarget again;
  ASSERT_EQ(reg_open_target("HOSTB", again), 1);
  EXPECT_EQ(ReadString("", "Where", again), "remote");
  // A failed opening leaves the target on the local registry.
  EXPECT_EQ(reg_open_target("HOSTC", again), 0);
  EXPECT_EQ(platform::LastError(), 53u);
  EXPECT_TRUE(again.local());
  EXPECT_EQ(again.root(), platform::RegLocalMachine());
  EXPECT_EQ(ReadString("", "Where", again), "<missing>");
  EXPECT_EQ(ReadString("", "Where", hostb), "remote");   // another target's key stays open
}

TEST_F(RemoteRegistryTest, AnUnreachableMachineGivesBadNetPath) {
  for (const char* name : {"\\\\NOSUCH", "NOSUCH", "\\\\..", "\\\\a/b"}) {
    RegTarget target;
    EXPECT_EQ(reg_open_target(name, target), 0) << name;
    EXPECT_EQ(platform::LastError(), 53u) << name;
    EXPECT_TRUE(target.local());
  }
}

TEST_F(RegistryTest, TwoProcessesWritingAtOnceLoseNothing) {
  constexpr int kEach = 150;
  // The children also race to create the store: this process has not opened it.
  pid_t children[2];
  for (int p = 0; p < 2; ++p) {
    children[p] = fork();
    ASSERT_GE(children[p], 0);
    if (children[p] == 0) {
      bool ok = true;
      for (int i = 0; i < kEach; ++i) {
        const std::string name = "p" + std::to_string(p) + "_" + std::to_string(i);
        ok = reg_set_string(reg_local(), ("Proc\\K" + std::to_string(i % 7)).c_str(), name.c_str(), name.c_str()) == 1 && ok;
        reg_set_dword(reg_local(), "Proc", name.c_str(), static_cast<std::uint32_t>(i));
        ok = platform::LastError() == 0 && ok;
      }
      _exit(ok ? 0 : 1);
    }
  }
  for (const pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  for (int p = 0; p < 2; ++p)
    for (int i = 0; i < kEach; ++i) {
      const std::string name = "p" + std::to_string(p) + "_" + std::to_string(i);
      EXPECT_EQ(ReadString(("Proc\\K" + std::to_string(i % 7)).c_str(), name.c_str()), name);
      EXPECT_EQ(reg_get_dword(reg_local(), "Proc", name.c_str(), 9999), static_cast<std::uint32_t>(i));
    }
  char name[64];
  std::uint32_t count = 0;
  while (reg_enum_value(reg_local(), "Proc", name, sizeof name, nullptr, 0, nullptr, count)) ++count;
  EXPECT_EQ(count, 2u * kEach);
}

TEST_P(RegistryStoreTest, NewSubkeysInheritTheSecuredTreesEntries) {
  reg_set_dword(reg_local(), "\\\\Secured", "V", 1);
  reg_secure_tree(reg_local(), "\\\\Secured", nullptr, 0);
  reg_set_dword(reg_local(), "\\\\Secured\\Later", "V", 1);
  std::vector<platform::RegAce> dacl;
  platform::RegKey key = nullptr;
  ASSERT_EQ(platform::RegOpenKey(platform::RegLocalMachine(), "Secured\\Later", platform::kKeyRead, key), 0u);
  ASSERT_EQ(platform::RegGetKeySecurity(key, dacl), 0u);
  platform::RegCloseKey(key);
  ASSERT_EQ(dacl.size(), 5u);
  EXPECT_EQ(dacl[0].sid, "S-1-1-0");
  EXPECT_EQ(dacl[0].mask, platform::kGenericRead);
  EXPECT_EQ(dacl[0].flags, platform::kAceInherit | platform::kAceInherited);
}

TEST_P(RegistryStoreTest, AKeyDeletedUnderAnOpenHandleReportsIt) {
  reg_set_dword(reg_local(), "Gone", "V", 1);
  platform::RegKey key = nullptr;
  ASSERT_EQ(reg_open_write(reg_local(), "Gone", key), 0u);
  ASSERT_EQ(reg_delete_key(reg_local(), "Gone"), 1);
  const std::uint32_t v = 2;
  EXPECT_EQ(platform::RegSetValue(key, "V", platform::kRegDword, &v, 4), platform::kErrorKeyDeleted);
  platform::RegCloseKey(key);
}

TEST_P(RegistryStoreTest, AKeyMadeAfterTheNewestWasDeletedIsAnotherKey) {
  const platform::RegKey hklm = platform::RegLocalMachine();
  platform::RegKey gone = nullptr, made = nullptr;
  ASSERT_EQ(platform::RegCreateKey(hklm, "Software\\Newest", platform::kKeyAllAccess, gone), 0u);
  ASSERT_EQ(platform::RegDeleteKey(hklm, "Software\\Newest"), 0u);
  ASSERT_EQ(platform::RegCreateKey(hklm, "Software\\Newer", platform::kKeyAllAccess, made), 0u);
  const std::uint32_t one = 1;
  EXPECT_EQ(platform::RegSetValue(gone, "V", platform::kRegDword, &one, 4), platform::kErrorKeyDeleted);
  EXPECT_EQ(platform::RegQueryValue(made, "V", nullptr, nullptr, nullptr), platform::kErrorFileNotFound);
  // Again: an id deleted earlier is not given out either.
  ASSERT_EQ(platform::RegDeleteKey(hklm, "Software\\Newer"), 0u);
  platform::RegKey later = nullptr;
  ASSERT_EQ(platform::RegCreateKey(hklm, "Software\\Later", platform::kKeyAllAccess, later), 0u);
  EXPECT_EQ(platform::RegSetValue(made, "V", platform::kRegDword, &one, 4), platform::kErrorKeyDeleted);
  for (auto* k : {gone, made, later}) platform::RegCloseKey(k);
}

TEST_F(RegistryTest, ADamagedStoreFileGivesAnErrorNotACrash) {
  fs::create_directories(root_);
  std::ofstream(root_ / "registry.db") << std::string(8192, 'Z');
  EXPECT_EQ(reg_get_dword(reg_local(), "", "V", 77), 77u);
  EXPECT_EQ(platform::LastError(), platform::kErrorRegistryCorrupt);
  EXPECT_EQ(reg_set_string(reg_local(), "", "V", "x"), 0);
  EXPECT_NE(platform::LastError(), 0u);
}

TEST_P(RegistryStoreTest, PlatformCallsReturnWin32Statuses) {
  platform::RegKey key = nullptr;
  EXPECT_EQ(platform::RegOpenKey(platform::RegLocalMachine(), "No\\Such\\Key", platform::kKeyRead, key), 2u);
  EXPECT_EQ(key, nullptr);
  ASSERT_EQ(platform::RegCreateKey(platform::RegLocalMachine(), "Status", platform::kKeyAllAccess, key), 0u);
  char name[8];
  std::uint32_t n = sizeof name;
  EXPECT_EQ(platform::RegEnumValue(key, 0, name, &n, nullptr, nullptr, nullptr), 259u);
  EXPECT_EQ(platform::RegEnumKey(key, 0, name, sizeof name), 259u);
  EXPECT_EQ(platform::RegSetValue(key, "ALongerName", platform::kRegSz, "x", 2), 0u);
  n = 4;
  EXPECT_EQ(platform::RegEnumValue(key, 0, name, &n, nullptr, nullptr, nullptr), 234u);
  EXPECT_EQ(platform::RegDeleteValue(key, "Nope"), 2u);
  EXPECT_EQ(platform::RegDeleteKey(platform::RegLocalMachine(), ""), 5u);  // the hive itself
  const std::string too_long(256, 'k');
  platform::RegKey other = nullptr;
  EXPECT_EQ(platform::RegCreateKey(key, too_long, platform::kKeyAllAccess, other), 87u);
  platform::RegCloseKey(key);
}

}  // namespace
