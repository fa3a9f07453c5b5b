// The drift file on a disk that takes only part of a record: the process's file-size limit stands
// for the full disk (the write stops short, then fails, as on a full file system).
#include <gtest/gtest.h>

#include <filesystem>

#include "drift/drift_file.h"
#include "platform/error.h"
#include "tests/drift_test_util.h"
#include "tests/posix/file_size_limit.h"

namespace {

using DriftFullDiskTest = FileSizeLimitTest;

TEST_F(DriftFullDiskTest, ARecordTheDiskTakesOnlyPartOfIsCutOffAndLaterAppendsGoOn) {
  const std::string path = PathOf("drift.kr");
  ASSERT_TRUE(DriftFileOpenPath(path));
  for (std::uint32_t t = 100; t < 103; ++t)
    ASSERT_TRUE(DriftFileAppend(0, t, 0, kReasonScheduled, "10.0.0.1", kMachineChronwarden));
  ASSERT_EQ(std::filesystem::file_size(path), 60u);

  LimitFileSize(70);   // room for half a record
  platform::SetLastError(0);
  EXPECT_FALSE(DriftFileAppend(0, 103, 0, kReasonScheduled, "10.0.0.1", kMachineChronwarden));
  EXPECT_NE(platform::LastError(), 0u);
  EXPECT_EQ(std::filesystem::file_size(path), 60u);   // no torn record left behind
  EXPECT_FALSE(DriftFileAppend(0, 104, 0, kReasonScheduled, "10.0.0.1", kMachineChronwarden));
  EXPECT_EQ(std::filesystem::file_size(path), 60u);

  Unlimit();
  EXPECT_TRUE(DriftFileAppend(-7, 105, 0, kReasonScheduled, "10.0.0.1", kMachineChronwarden));
  DriftFileClose();
  const auto records = ReadRecords(path);
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(std::filesystem::file_size(path), 80u);
  EXPECT_EQ(records[2].check_time, 102u);
  EXPECT_EQ(records[3].check_time, 105u);
  EXPECT_EQ(records[3].variance_ms, -7);
}

TEST_F(DriftFullDiskTest, AnAppendWithoutAnOpenFileFails) {
  platform::SetLastError(0);
  EXPECT_FALSE(DriftFileAppend(0, 100, 0, kReasonScheduled, "10.0.0.1", kMachineChronwarden));
  EXPECT_EQ(platform::LastError(), platform::kErrorInvalidHandle);
}

}  // namespace
