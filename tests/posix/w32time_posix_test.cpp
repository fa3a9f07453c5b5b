// The module probe of another machine: its system directory under the network root.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "config/w32time.h"
#include "platform/paths.h"
#include "tests/registry_fixture.h"

namespace {

TEST_F(RegistryTest, TheModuleProbeOfAnotherMachineLooksUnderItsAdminShare) {
  const auto net = root_ / "net";
  platform::SetEnvironmentValue("CHRONWARDEN_NETWORK_ROOT", net.string().c_str());
  const W32tEnvironment saved = g_w32t_env;
  g_w32t_env.level = 32768;
  std::snprintf(g_w32t_env.computer_name, sizeof g_w32t_env.computer_name, "THISBOX");
  reg_set_string(reg_local(), "\\\\System\\CurrentControlSet\\Control\\ComputerName\\ComputerName", "ComputerName", "otherbox");
  W32tSettings s{};
  w32t_load(reg_local(), s);
  EXPECT_EQ(s.module_present, kModuleAbsent);
  std::filesystem::create_directories(net / "otherbox" / "system32");
  std::ofstream(net / "otherbox" / "system32" / "w32tmkr.cpl") << "MZ";
  w32t_load(reg_local(), s);
  EXPECT_EQ(s.module_present, kModulePresent);
  // The same name in another case is this machine: its own system directory is probed.
  reg_set_string(reg_local(), "\\\\System\\CurrentControlSet\\Control\\ComputerName\\ComputerName", "ComputerName", "thisbox");
  std::snprintf(g_w32t_env.system_dir, sizeof g_w32t_env.system_dir, "%s/", (root_ / "empty").string().c_str());
  w32t_load(reg_local(), s);
  EXPECT_EQ(s.module_present, kModuleAbsent);
  g_w32t_env = saved;
  platform::SetEnvironmentValue("CHRONWARDEN_NETWORK_ROOT", nullptr);
}

}  // namespace
