// The previous generation of the drift history that a clear keeps, drift.kr.1: it has the history's
// owner and mode, and nothing planted where it goes (a link) is ever written through.
#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "drift/drift_file.h"
#include "platform/error.h"
#include "tests/drift_test_util.h"

namespace {

class DriftPreviousTest : public DriftFolderTest {
 protected:
  void SetUp() override {
    DriftFolderTest::SetUp();
    path_ = PathOf("drift.kr");
    previous_ = path_ + ".1";
    WriteBytes(path_, RecordBytes({MakeRecord(10, 1), MakeRecord(20, 2)}));
    ASSERT_TRUE(DriftFileOpenPath(path_));
  }
  static struct stat Stat(const std::string& path) {
    struct stat st{};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st;
  }
  std::string path_, previous_;
};

TEST_F(DriftPreviousTest, HasTheOwnerAndModeOfTheHistory) {
  ASSERT_EQ(::chmod(path_.c_str(), 0640), 0);
  const bool root = ::geteuid() == 0;
  if (root) {
    ASSERT_EQ(::chown(path_.c_str(), 65534, 65534), 0);
  }
  ASSERT_TRUE(DriftFileClear());
  const struct stat st = Stat(previous_);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  if (root) {
    EXPECT_EQ(st.st_uid, 65534u);
    EXPECT_EQ(st.st_gid, 65534u);
  }
  EXPECT_EQ(ReadRecords(previous_).size(), 2u);
}

TEST_F(DriftPreviousTest, ALinkWhereItGoesIsReplacedNotFollowed) {
  const std::string victim = PathOf("victim"), other = PathOf("other");
  WriteBytes(victim, {'k', 'e', 'e', 'p'});
  WriteBytes(other, {'k', 'e', 'e', 'p'});
  ASSERT_EQ(::chmod(victim.c_str(), 0600), 0);
  ASSERT_EQ(::symlink(victim.c_str(), previous_.c_str()), 0);
  ASSERT_EQ(::symlink(other.c_str(), (previous_ + ".part").c_str()), 0);   // as if a crash had left it
  ASSERT_TRUE(DriftFileClear());
  EXPECT_TRUE(S_ISREG(Stat(previous_).st_mode));
  EXPECT_EQ(ReadRecords(previous_).size(), 2u);
  EXPECT_EQ(::access((previous_ + ".part").c_str(), F_OK), -1);
  for (const auto& untouched : {victim, other}) {
    EXPECT_EQ(ReadBytes(untouched), (std::vector<std::uint8_t>{'k', 'e', 'e', 'p'})) << untouched;
  }
  EXPECT_EQ(Stat(victim).st_mode & 07777, 0600u);
}

// When the previous generation cannot be written, nothing is emptied.
TEST_F(DriftPreviousTest, AClearThatCannotKeepTheHistoryEmptiesNothing) {
  ASSERT_EQ(::mkdir(previous_.c_str(), 0755), 0);   // a folder where it goes: the move over it fails
  ASSERT_EQ(::mkdir((previous_ + "/x").c_str(), 0755), 0);
  EXPECT_FALSE(DriftFileClear());
  EXPECT_NE(platform::LastError(), 0u);
  EXPECT_EQ(ReadRecords(path_).size(), 2u);
}

}  // namespace
