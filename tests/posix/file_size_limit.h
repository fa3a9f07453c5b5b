// A test folder whose files a full disk stands over: the process's file-size limit (RLIMIT_FSIZE)
// cuts writes short and then fails them (SIGXFSZ ignored meanwhile), as a full file system does.
#pragma once
#include <csignal>
#include <sys/resource.h>

#include <gtest/gtest.h>

#include "tests/drift_test_util.h"

class FileSizeLimitTest : public DriftFolderTest {
 protected:
  void SetUp() override {
    DriftFolderTest::SetUp();
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved_), 0);
    previous_handler_ = std::signal(SIGXFSZ, SIG_IGN);   // a write past the limit fails instead
  }
  void TearDown() override {
    ::setrlimit(RLIMIT_FSIZE, &saved_);
    std::signal(SIGXFSZ, previous_handler_);
    DriftFolderTest::TearDown();
  }
  void LimitFileSize(rlim_t bytes) {
    rlimit limit = saved_;
    limit.rlim_cur = bytes;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  void Unlimit() { ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &saved_), 0); }
  rlimit saved_{};
  void (*previous_handler_)(int) = nullptr;
};
