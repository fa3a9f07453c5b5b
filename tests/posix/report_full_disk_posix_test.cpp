// The report on a disk that takes only part of it: the process's file-size limit stands for the
// full disk. The write's failure is the report's result, and no half a report stays behind.
#include <gtest/gtest.h>

#include <filesystem>

#include "drift/drift_log.h"
#include "drift/report.h"
#include "platform/error.h"
#include "tests/drift_test_util.h"
#include "tests/posix/file_size_limit.h"

namespace {

using ReportFullDiskTest = FileSizeLimitTest;

TEST_F(ReportFullDiskTest, AReportTheDiskCannotHoldFailsAndIsDeleted) {
  const std::string log_path = PathOf("host.kr");
  std::vector<DriftRecord> records;
  for (std::uint32_t i = 0; i < 200; ++i) records.push_back(MakeRecord(1'700'000'000 + 64 * i, 5));
  WriteBytes(log_path, RecordBytes(records));
  DriftLog log;
  DriftLogSetPath(log, log_path.c_str());
  ASSERT_TRUE(DriftLogLoad(nullptr, log));
  const std::string out = PathOf("report.txt");

  LimitFileSize(1000);   // bytes: the header and a few lines
  const std::uint32_t error = WriteDriftReportFile(log, out.c_str(), "UTC");
  Unlimit();
  EXPECT_EQ(error, platform::kErrorDiskFull);
  EXPECT_FALSE(std::filesystem::exists(out));

  // With room again, the same report is written whole.
  EXPECT_EQ(WriteDriftReportFile(log, out.c_str(), "UTC"), 0u);
  EXPECT_GT(std::filesystem::file_size(out), 1000u);
}

}  // namespace
