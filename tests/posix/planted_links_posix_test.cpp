// Root never follows a link that the host's group planted in the folders it may write: the drift
// history, its access rules and the module's copy refuse a link (or a file with other links) with
// an error and leave what it points to untouched. Once a link at drift.kr turned a root-only file
// into the host's, cut it and appended a record to it; one at the module's ".new" copy overwrote
// whatever it named.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "applet/agent_page.h"
#include "config/w32time.h"
#include "drift/drift_file.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/machine.h"

namespace {

namespace fs = std::filesystem;

class PlantedLinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::path(testing::TempDir()) / ("cw-planted-" + std::to_string(getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_ / "system32");
    std::ofstream(secret_) << "root only: 0123456789abc";
    fs::permissions(secret_, fs::perms::owner_read | fs::perms::owner_write);
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string Secret() const {
    std::ifstream in(secret_);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  fs::perms SecretMode() const { return fs::status(secret_).permissions(); }
  fs::path dir_;
  fs::path secret_ = fs::path(testing::TempDir()) / ("cw-planted-secret-" + std::to_string(getpid()));
};

TEST_F(PlantedLinkTest, TheDriftHistoryRefusesASymbolicLink) {
  const fs::path drift = dir_ / "system32" / "drift.kr";
  fs::create_symlink(secret_, drift);
  EXPECT_FALSE(DriftFileOpenPath(drift.string()));
  EXPECT_EQ(platform::LastError(), platform::kErrorAccessDenied);
  DriftFileClose();
  EXPECT_EQ(Secret(), "root only: 0123456789abc");
  EXPECT_EQ(SecretMode(), fs::perms::owner_read | fs::perms::owner_write);
  fs::remove(secret_);
}

// The refusal is said on standard error once for a path and reason, however often it is opened.
TEST_F(PlantedLinkTest, ARefusedLinkIsReportedOnce) {
  const fs::path drift = dir_ / "system32" / "said-once.kr";   // a path no other test refuses
  fs::create_symlink(secret_, drift);
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(DriftFileOpenPath(drift.string()));
    DriftFileClose();
  }
  const std::string said = testing::internal::GetCapturedStderr();
  const std::string line = "chronwarden: " + drift.string() + ": refused: it is a symbolic link (a link planted there is never followed)\n";
  EXPECT_EQ(said, line);
  fs::remove(secret_);
}

TEST_F(PlantedLinkTest, TheDriftHistoryRefusesAFileWithOtherLinks) {
  const fs::path drift = dir_ / "system32" / "drift.kr";
  fs::create_hard_link(secret_, drift);
  EXPECT_FALSE(DriftFileOpenPath(drift.string()));
  DriftFileClose();
  EXPECT_FALSE(platform::SecureDataFile(drift.string()));
  EXPECT_EQ(Secret(), "root only: 0123456789abc");
  EXPECT_EQ(SecretMode(), fs::perms::owner_read | fs::perms::owner_write);
  fs::remove(secret_);
}

// The Agent page's and `chronwarden agent clear`'s clear of the local history.
TEST_F(PlantedLinkTest, ClearingTheHistoryNeverCutsThroughALink) {
  fs::create_symlink(secret_, dir_ / "system32" / "drift.kr");
  const W32tEnvironment saved = g_w32t_env;
  std::snprintf(g_w32t_env.system_dir, sizeof g_w32t_env.system_dir, "%s/", (dir_ / "system32").c_str());
  agent_clear_history("");
  g_w32t_env = saved;
  EXPECT_EQ(Secret(), "root only: 0123456789abc");
  fs::remove(secret_);
}

TEST_F(PlantedLinkTest, TheModulesCopyNeverWritesThroughALink) {
  const fs::path module = dir_ / "system32" / "w32tmkr.cpl", source = dir_ / "source.cpl";
  std::ofstream(source) << "MZ new module";
  fs::create_symlink(secret_, module.string() + ".new");
  ASSERT_TRUE(platform::CopyFileOver(source.string(), module.string()));
  EXPECT_EQ(Secret(), "root only: 0123456789abc");
  std::ifstream in(module);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "MZ new module");
  EXPECT_FALSE(fs::is_symlink(module));
  fs::remove(secret_);
}

}  // namespace
