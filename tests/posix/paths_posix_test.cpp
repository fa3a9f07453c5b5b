#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "platform/paths.h"

namespace {

// Paths only: nothing is created under the roots these tests name; the run's own roots come back
// at the end.
class PosixPaths : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"CHRONWARDEN_ROOT", "CHRONWARDEN_NETWORK_ROOT"})
      if (const char* v = std::getenv(name)) saved_.emplace_back(name, v);
    setenv("CHRONWARDEN_ROOT", "/tmp/m1/", 1);
    setenv("CHRONWARDEN_NETWORK_ROOT", "/tmp/net", 1);
  }
  void TearDown() override {
    unsetenv("CHRONWARDEN_ROOT");
    unsetenv("CHRONWARDEN_NETWORK_ROOT");
    for (const auto& [name, value] : saved_) setenv(name.c_str(), value.c_str(), 1);
  }
  std::vector<std::pair<std::string, std::string>> saved_;
};

TEST_F(PosixPaths, RootsComeFromTheEnvironment) {
  EXPECT_EQ(platform::MachineRoot(), "/tmp/m1");
  EXPECT_EQ(platform::SystemDirectory(), "/tmp/m1/system32");
  EXPECT_EQ(platform::RemoteMachineRoot("HOST2"), "/tmp/net/HOST2");
  unsetenv("CHRONWARDEN_ROOT");
  EXPECT_EQ(platform::MachineRoot(), "/var/lib/chronwarden");
}

TEST_F(PosixPaths, UncPathsMapToTheNetworkRoot) {
  EXPECT_EQ(platform::NativePath("\\\\HOST2\\admin$\\system32\\drift.kr"), "/tmp/net/HOST2/system32/drift.kr");
  EXPECT_EQ(platform::NativePath("\\\\HOST2\\ADMIN$\\system32"), "/tmp/net/HOST2/system32");
  EXPECT_EQ(platform::NativePath("\\\\HOST2\\share\\a\\b.txt"), "/tmp/net/HOST2/share/a/b.txt");
  EXPECT_EQ(platform::NativePath("\\\\HOST2"), "/tmp/net/HOST2");
  EXPECT_EQ(platform::NativePath("dir\\file.txt"), "dir/file.txt");
}

}  // namespace
