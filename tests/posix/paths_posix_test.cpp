#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/paths.h"

namespace {

class PosixPaths : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("CHRONWARDEN_ROOT", "/tmp/m1/", 1);
    setenv("CHRONWARDEN_NETWORK_ROOT", "/tmp/net", 1);
  }
  void TearDown() override {
    unsetenv("CHRONWARDEN_ROOT");
    unsetenv("CHRONWARDEN_NETWORK_ROOT");
  }
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
