// The report with an owner window when the temporary folder is unusable (TMPDIR points nowhere).
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "config/defaults.h"
#include "config/registry.h"
#include "drift/drift_log.h"
#include "drift/report.h"
#include "platform/error_text.h"
#include "platform/testing/fake.h"
#include "tests/drift_test_util.h"
#include "tests/registry_fixture.h"

namespace {

class ReportOwnerTest : public DriftFolderTest {
 protected:
  void SetUp() override {
    DriftFolderTest::SetUp();
    const char* tmp = std::getenv("TMPDIR");
    saved_ = tmp ? tmp : "";
    had_ = tmp != nullptr;
  }
  void TearDown() override {
    if (had_) ::setenv("TMPDIR", saved_.c_str(), 1);
    else ::unsetenv("TMPDIR");
    DriftFolderTest::TearDown();
  }
  std::string saved_;
  bool had_ = false;
  RegistrySandbox registry_;   // a fresh store: nothing is remembered unless the test does it
};

TEST_F(ReportOwnerTest, CreationFailureIsShownToTheOwner) {
  const std::string path = PathOf("host.kr");
  WriteBytes(path, RecordBytes({MakeRecord(1'700'000'000, 5)}));
  DriftLog log;
  DriftLogSetPath(log, path.c_str());
  ASSERT_TRUE(DriftLogLoad(nullptr, log));
  const std::string nowhere = PathOf("no-such-folder") + "/";
  ::setenv("TMPDIR", nowhere.c_str(), 1);
  std::vector<std::string> shown;
  DriftUi owner;
  owner.context = &shown;
  owner.notify = [](const DriftUi& u, NoticeIcon icon, const char*, const char* text) {
    EXPECT_EQ(icon, NoticeIcon::Exclamation);
    static_cast<std::vector<std::string>*>(u.context)->emplace_back(text);
  };
  const std::uint32_t error = WriteDriftReport(&owner, log);
  EXPECT_NE(error, 0u);
  ASSERT_EQ(shown.size(), 1u);
  char reason[129] = {};
  SystemErrorText(error, reason, 129);
  EXPECT_EQ(shown[0], "Could not create file " + nowhere + " for output of raw drift data; " + reason);
  EXPECT_TRUE(platform::fake::ViewerOpened().empty());
  EXPECT_EQ(reg_key_exists(reg_local(), defaults::kNotepadTempKey), 0);
}

}  // namespace
