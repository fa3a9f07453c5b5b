// Two folders as two machines: the local system directory and another machine's admin$ share.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>

#include "drift/drift_file.h"
#include "drift/drift_log.h"
#include "tests/drift_test_util.h"

namespace {

class DriftMachinesTest : public DriftFolderTest {
 protected:
  void SetUp() override {
    DriftFolderTest::SetUp();
    std::filesystem::create_directories(dir_ / "local" / "system32");
    std::filesystem::create_directories(dir_ / "net" / "HOST" / "system32");
    ::setenv("CHRONWARDEN_ROOT", (dir_ / "local").c_str(), 1);
    ::setenv("CHRONWARDEN_NETWORK_ROOT", (dir_ / "net").c_str(), 1);
  }
  void TearDown() override {
    ::unsetenv("CHRONWARDEN_ROOT");
    ::unsetenv("CHRONWARDEN_NETWORK_ROOT");
    DriftFolderTest::TearDown();
  }
  static unsigned Mode(const std::filesystem::path& p) {
    struct stat st{};
    EXPECT_EQ(::stat(p.c_str(), &st), 0);
    return st.st_mode & 07777;
  }
};

TEST_F(DriftMachinesTest, LocalFileLiesInTheSystemDirectory) {
  EXPECT_EQ(DriftFilePath(""), (dir_ / "local" / "system32").string() + "\\drift.kr");
  ASSERT_TRUE(DriftFileOpen());
  DriftFileAppend(5, 100, 0, kReasonScheduled, "10.0.0.1", kMachineChronwarden);
  DriftFileClose();
  const auto file = dir_ / "local" / "system32" / "drift.kr";
  EXPECT_EQ(ReadRecords(file).size(), 1u);
  EXPECT_EQ(Mode(file), 0644u);   // everybody reads; the owner (the service) and root write
}

TEST_F(DriftMachinesTest, RemoteFileIsReachedThroughItsAdminShare) {
  ASSERT_TRUE(DriftFileOpen("HOST"));   // what the installer does for a remote target
  DriftFileAppend(7, 200, 1, kReasonStartup, "Averaged Time", kMachineChronwarden);
  DriftFileClose();
  const auto file = dir_ / "net" / "HOST" / "system32" / "drift.kr";
  ASSERT_EQ(ReadRecords(file).size(), 1u);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "local" / "system32" / "drift.kr"));
  DriftLog log;
  DriftLogSetPath(log, DriftFilePath("\\\\HOST").c_str());
  ASSERT_TRUE(DriftLogLoad(nullptr, log));
  EXPECT_EQ(log.record_count, 1u);
  EXPECT_EQ(std::string(log.display_name), "\\\\HOST\\admin$\\system32\\drift.kr");
}

TEST_F(DriftMachinesTest, UnknownMachineFails) {
  EXPECT_FALSE(DriftFileOpen("NOWHERE"));
}

TEST_F(DriftMachinesTest, SecureNarrowsTheModeOfAnExistingFile) {
  const auto file = dir_ / "local" / "system32" / "drift.kr";
  WriteBytes(file, {});
  ::chmod(file.c_str(), 0666);
  EXPECT_TRUE(DriftFileSecure(DriftFilePath("")));
  EXPECT_EQ(Mode(file), 0644u);
}

}  // namespace
