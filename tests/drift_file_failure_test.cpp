// The drift file when writes and flushes fail (the fake's injected failures), and an append's
// name look-up, which happens before the file's lock is taken.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "drift/drift_file.h"
#include "platform/error.h"
#include "platform/testing/fake.h"
#include "platform/net.h"
#include "tests/drift_test_util.h"

namespace {

constexpr std::uint32_t kIoDeviceError = 1117;   // ERROR_IO_DEVICE
constexpr std::uint32_t kFullRecords = 16'384;   // 327,680 bytes: the cap

class DriftFileFailureTest : public DriftFolderTest {
 protected:
  void SetUp() override {
    DriftFolderTest::SetUp();
    path_ = PathOf("drift.kr");
  }
  // A file at the cap, open.
  void OpenFull() {
    for (std::uint32_t i = 0; i < kFullRecords; ++i) seed_.push_back(MakeRecord(1000 + i, static_cast<std::int32_t>(i)));
    WriteBytes(path_, RecordBytes(seed_));
    ASSERT_TRUE(DriftFileOpenPath(path_));
  }
  bool Append(std::uint32_t at) { return DriftFileAppend(7, at, 0, kReasonScheduled, "10.0.0.1", kMachineChronwarden); }
  std::vector<DriftRecord> Records() const { return ReadRecords(path_); }
  std::string path_;
  std::vector<DriftRecord> seed_;
};

// The trim's write of the newest half fails: nothing is cut, every record stays, the append says why.
TEST_F(DriftFileFailureTest, ATrimWhoseWriteFailsKeepsEveryRecordAndSaysWhy) {
  OpenFull();
  platform::fake::FailFileWrite(1, kIoDeviceError);
  platform::SetLastError(0);
  EXPECT_FALSE(Append(100'000));
  EXPECT_EQ(platform::LastError(), kIoDeviceError);
  const auto r = Records();
  ASSERT_EQ(r.size(), kFullRecords);
  for (std::size_t i = 0; i < r.size(); ++i) ASSERT_TRUE(SameRecord(r[i], seed_[i])) << i;

  EXPECT_TRUE(Append(100'001));   // the disk is back: trimmed, then appended
  const auto after = Records();
  ASSERT_EQ(after.size(), kFullRecords / 2 + 1);
  EXPECT_TRUE(SameRecord(after[0], seed_[kFullRecords / 2]));
  EXPECT_EQ(after.back().check_time, 100'001u);
}

// The trim's flush fails: the file is cut to the newest half (never holding it twice), the record
// is not appended and the append says why.
TEST_F(DriftFileFailureTest, ATrimWhoseFlushFailsIsReportedAndTheRecordWaits) {
  OpenFull();
  platform::fake::FailFileFlush(1, kIoDeviceError);
  platform::SetLastError(0);
  EXPECT_FALSE(Append(100'000));
  EXPECT_EQ(platform::LastError(), kIoDeviceError);
  auto r = Records();
  ASSERT_EQ(r.size(), kFullRecords / 2);
  EXPECT_TRUE(SameRecord(r.front(), seed_[kFullRecords / 2]));
  EXPECT_TRUE(SameRecord(r.back(), seed_.back()));

  EXPECT_TRUE(Append(100'001));
  r = Records();
  ASSERT_EQ(r.size(), kFullRecords / 2 + 1);
  EXPECT_EQ(r.back().check_time, 100'001u);
}

// The record's own write or flush fails: the file keeps exactly the records it had.
TEST_F(DriftFileFailureTest, ARecordWhoseWriteOrFlushFailsLeavesTheFileAsItWas) {
  ASSERT_TRUE(DriftFileOpenPath(path_));
  ASSERT_TRUE(Append(100));
  ASSERT_TRUE(Append(101));
  platform::fake::FailFileWrite(1, platform::kErrorDiskFull);
  platform::SetLastError(0);
  EXPECT_FALSE(Append(102));
  EXPECT_EQ(platform::LastError(), platform::kErrorDiskFull);
  EXPECT_EQ(Records().size(), 2u);
  platform::fake::FailFileFlush(1, kIoDeviceError);
  platform::SetLastError(0);
  EXPECT_FALSE(Append(103));
  EXPECT_EQ(platform::LastError(), kIoDeviceError);
  EXPECT_EQ(Records().size(), 2u);   // the record the flush left unsure is cut off again
  EXPECT_TRUE(Append(104));
  const auto r = Records();
  ASSERT_EQ(r.size(), 3u);
  EXPECT_EQ(r[1].check_time, 101u);
  EXPECT_EQ(r[2].check_time, 104u);
}

// While an append resolves its source's name, the file is free: another thread reads the history
// at once instead of waiting out the look-up (up to the lock's 10 s).
TEST_F(DriftFileFailureTest, ANameIsResolvedBeforeTheFileIsLocked) {
  ASSERT_TRUE(DriftFileOpenPath(path_));
  ASSERT_TRUE(Append(100));
  platform::fake::SetHostAddress("ntp.example", platform::InetAddr("192.0.2.7"));
  bool read_during_lookup = false;
  std::chrono::steady_clock::duration waited{};
  platform::fake::OnNextHostLookup([&] {
    std::thread other([&] {
      const auto start = std::chrono::steady_clock::now();
      DriftRecord r{};
      read_during_lookup = DriftFileReadAfter(r, 0) && r.check_time == 100;
      waited = std::chrono::steady_clock::now() - start;
    });
    other.join();
  });
  EXPECT_TRUE(DriftFileAppend(7, 101, 0, kReasonScheduled, "ntp.example", kMachineChronwarden));
  EXPECT_TRUE(read_during_lookup);
  EXPECT_LT(waited, std::chrono::seconds(5));
  const auto r = Records();
  ASSERT_EQ(r.size(), 2u);
  EXPECT_EQ(r[1].address, platform::InetAddr("192.0.2.7"));
}

}  // namespace
