// The drift history file on the provider side.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "config/defaults.h"
#include "drift/drift_file.h"
#include "drift/drift_log.h"
#include "platform/error.h"
#include "platform/testing/fake.h"
#include "tests/drift_test_util.h"

namespace {

class DriftFileTest : public DriftFolderTest {
 protected:
  void SetUp() override {
    DriftFolderTest::SetUp();
    path_ = PathOf("drift.kr");
  }
  void Open() { ASSERT_TRUE(DriftFileOpenPath(path_)); }
  std::vector<DriftRecord> Records() const { return ReadRecords(path_); }
  std::string path_;
};

TEST(DriftRecordTest, IsTwentyBytesWithFieldsAtTheirOffsets) {
  DriftRecord r = MakeRecord(0x11223344, -2, kReasonStartup, 0x0100007F, true, 41, kMachineNtpServer, 0x123456);
  const auto* b = reinterpret_cast<const std::uint8_t*>(&r);
  EXPECT_EQ(b[0], 41);
  EXPECT_EQ(b[1], (8 << 1) | 1);
  EXPECT_EQ(b[2], 0x56);
  EXPECT_EQ(b[3], 0x34);
  EXPECT_EQ(b[4], 0x12);
  EXPECT_EQ(b[5], 0);
  EXPECT_EQ(b[6], 0);
  EXPECT_EQ(b[7], 255);
  EXPECT_EQ(b[8], 0x44);
  EXPECT_EQ(b[11], 0x11);
  EXPECT_EQ(b[12], 0xFE);
  EXPECT_EQ(b[15], 0xFF);
  EXPECT_EQ(b[16], 127);
  EXPECT_EQ(b[19], 1);
  EXPECT_EQ(DriftPhaseAdjustment(r), 0x123456);
  EXPECT_TRUE(DriftClockSet(r));
  EXPECT_EQ(DriftMachineType(r), kMachineNtpServer);
}

TEST(DriftRecordTest, CodeTexts) {
  const std::pair<int, const char*> reasons[] = {
      {1, "Scheduled"},  {2, "Control Panel"}, {3, "Triggered"},     {4, "KR2 BCast"},    {5, "NTP BCast"},
      {6, "Sync Check"}, {7, "Training"},      {8, "KR2 MCast"},     {9, "NTP MCast"},    {253, "Clock change"},
      {254, "Power resume"}, {255, "Startup"}, {0, "Unknown"},       {10, "Unknown"},     {252, "Unknown"}};
  for (const auto& [code, text] : reasons) EXPECT_STREQ(CheckReasonName(static_cast<std::uint8_t>(code)), text) << code;
  const std::pair<int, const char*> machines[] = {
      {1, "Master Server"}, {2, "Slave Server"}, {3, "Indp. Server"}, {4, "Full Client"}, {5, "Thin Client"},
      {6, "Ultra Thin"},    {7, "Chronwarden"},  {8, "NTP Server"},   {0, "Unknown"},     {9, "Unknown"}, {127, "Unknown"}};
  for (const auto& [code, text] : machines) EXPECT_STREQ(MachineTypeName(static_cast<std::uint8_t>(code)), text) << code;
}

TEST(DriftRecordTest, VarianceOfAnOffsetTruncatesAndSaturates) {
  EXPECT_EQ(DriftVarianceMs(-19'999), -1);
  EXPECT_EQ(DriftVarianceMs(19'999), 1);
  EXPECT_EQ(DriftVarianceMs(9'999), 0);
  EXPECT_EQ(DriftVarianceMs(-30'000'000'000'000), INT32_MIN);
  EXPECT_EQ(SaturateVarianceMs(-3'000'000'000LL), INT32_MIN);
  EXPECT_EQ(SaturateVarianceMs(0x80000000LL), INT32_MAX);
  EXPECT_EQ(SaturateVarianceMs(0x7FFFFFFFLL), INT32_MAX);
  EXPECT_EQ(SaturateVarianceMs(-2'147'483'648LL), INT32_MIN);
}

TEST_F(DriftFileTest, AppendWritesOneFullRecord) {
  Open();
  DriftFileAppend(-1234, 1'700'000'000, 3, kReasonTriggered, "192.168.1.20", 0xFF);
  const auto records = Records();
  ASSERT_EQ(records.size(), 1u);
  const DriftRecord& r = records[0];
  EXPECT_EQ(r.version, 41);
  EXPECT_EQ(r.flags, (0x7F << 1) | 1);   // machine type masked to 7 bits, bit 0 of clock_set
  EXPECT_EQ(r.reason, kReasonTriggered);
  EXPECT_EQ(r.check_time, 1'700'000'000u);
  EXPECT_EQ(r.variance_ms, -1234);
  EXPECT_EQ(r.address, 0x1401A8C0u);   // 192.168.1.20 in network order
  EXPECT_EQ(r.reserved[0], 0);
  EXPECT_EQ(r.reserved[1], 0);
  EXPECT_EQ(DriftPhaseAdjustment(r), 0);
}

TEST_F(DriftFileTest, BytesOnDiskAreTheSameOnEveryTarget) {
  platform::fake::SetAdjustmentDelta(-156'250 + 3);
  Open();
  DriftFileAppend(-70'000, 0x65536F00, 1, kReasonStartup, "192.0.2.7", kMachineChronwarden);
  DriftFileAppend(2'500'000'000LL, 0x65537000, 0, kReasonSyncCheck, "Averaged Time", kMachineNtpServer);
  const std::vector<std::uint8_t> expected = {
      0x29, 0x0F, 0xA9, 0x9D, 0xFD, 0x00, 0x00, 0xFF, 0x00, 0x6F, 0x53, 0x65, 0x90, 0xEE, 0xFE, 0xFF, 192, 0, 2, 7,
      0x29, 0x10, 0xA9, 0x9D, 0xFD, 0x00, 0x00, 0x06, 0x00, 0x70, 0x53, 0x65, 0xFF, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0};
  EXPECT_EQ(ReadBytes(path_), expected);
}

TEST_F(DriftFileTest, PhaseAdjustmentOfMinusOneIsStoredAsThreeFfBytes) {
  platform::fake::SetAdjustmentDelta(-1);
  Open();
  DriftFileAppend(0, 100, 0, kReasonScheduled, "10.0.0.1", kMachineChronwarden);
  const auto bytes = ReadBytes(path_);
  ASSERT_EQ(bytes.size(), 20u);
  EXPECT_EQ(bytes[2], 0xFF);
  EXPECT_EQ(bytes[3], 0xFF);
  EXPECT_EQ(bytes[4], 0xFF);
  EXPECT_EQ(DriftPhaseAdjustment(ReadRecords(path_)[0]), -1);
}

TEST_F(DriftFileTest, PhaseAdjustmentIsZeroWhenTheQueryFails) {
  platform::fake::SetAdjustmentDelta(500);
  platform::fake::FailAdjustment(true);
  Open();
  DriftFileAppend(0, 100, 0, kReasonScheduled, "10.0.0.1", kMachineChronwarden);
  EXPECT_EQ(DriftPhaseAdjustment(Records()[0]), 0);
  platform::fake::FailAdjustment(false);
  DriftFileAppend(0, 101, 0, kReasonScheduled, "10.0.0.1", kMachineChronwarden);
  EXPECT_EQ(DriftPhaseAdjustment(Records()[1]), 500);
}

TEST_F(DriftFileTest, SourceNamesBecomeAddresses) {
  platform::fake::SetHostAddress("timehost", 0x0302A8C0);   // 192.168.2.3
  Open();
  const char* names[] = {"Averaged Time", "aVERAGED tIME", "127.0.0.1", "no-such-host.invalid", "timehost", ""};
  for (const char* n : names) DriftFileAppend(1, 10, 0, kReasonScheduled, n, kMachineChronwarden);
  const auto r = Records();
  ASSERT_EQ(r.size(), 6u);
  EXPECT_EQ(r[0].address, kAddressAveraged);
  EXPECT_EQ(r[1].address, kAddressAveraged);
  EXPECT_EQ(r[2].address, kAddressSelf);
  EXPECT_EQ(r[3].address, kAddressUnresolved);
  EXPECT_EQ(r[4].address, 0x0302A8C0u);
  EXPECT_EQ(r[5].address, kAddressUnresolved);
}

TEST_F(DriftFileTest, VarianceIsSaturatedTo32Bits) {
  Open();
  DriftFileAppend(-3'000'000'000LL, 10, 0, kReasonScheduled, "10.0.0.1", 7);
  DriftFileAppend(0x7FFFFFFFLL + 1, 11, 0, kReasonScheduled, "10.0.0.1", 7);
  DriftFileAppend(DriftVarianceMs(-19'999), 12, 0, kReasonScheduled, "10.0.0.1", 7);
  const auto r = Records();
  ASSERT_EQ(r.size(), 3u);
  EXPECT_EQ(r[0].variance_ms, INT32_MIN);
  EXPECT_EQ(r[1].variance_ms, INT32_MAX);
  EXPECT_EQ(r[2].variance_ms, -1);
}

TEST_F(DriftFileTest, FullFileIsTrimmedToItsNewestHalfBeforeTheAppend) {
  std::vector<DriftRecord> seed;
  for (std::uint32_t i = 0; i < 16'383; ++i) seed.push_back(MakeRecord(1000 + i, static_cast<std::int32_t>(i)));
  WriteBytes(path_, RecordBytes(seed));
  Open();
  DriftFileAppend(16'383, 1000 + 16'383, 0, kReasonScheduled, "10.0.0.1", 7);
  auto r = Records();
  ASSERT_EQ(r.size(), 16'384u);   // 327,680 bytes: the cap is reached, not yet trimmed
  const DriftRecord eighth_from_end = r[r.size() - 8'192];
  DriftFileAppend(16'384, 1000 + 16'384, 0, kReasonScheduled, "10.0.0.1", 7);
  r = Records();
  ASSERT_EQ(r.size(), 8'193u);
  EXPECT_TRUE(SameRecord(r[0], eighth_from_end));
  EXPECT_EQ(r[0].variance_ms, 8'192);
  for (std::size_t i = 1; i < r.size(); ++i) EXPECT_EQ(r[i].check_time, r[i - 1].check_time + 1) << i;
  EXPECT_EQ(r.back().variance_ms, 16'384);
}

TEST_F(DriftFileTest, ReadAfterWalksTheHistory) {
  Open();
  for (std::uint32_t t : {5u, 7u, 9u}) DriftFileAppend(t, t, 0, kReasonScheduled, "10.0.0.1", 7);
  DriftRecord r{};
  ASSERT_TRUE(DriftFileReadAfter(r, 0));
  EXPECT_EQ(r.check_time, 5u);
  ASSERT_TRUE(DriftFileReadAfter(r, r.check_time));
  EXPECT_EQ(r.check_time, 7u);
  ASSERT_TRUE(DriftFileReadAfter(r, 8));
  EXPECT_EQ(r.check_time, 9u);
  std::memset(&r, 0xAB, sizeof r);
  EXPECT_FALSE(DriftFileReadAfter(r, 9));
  EXPECT_TRUE(SameRecord(r, DriftRecord{}));
}

TEST_F(DriftFileTest, ReadAfterComparesUnsigned) {
  Open();
  DriftFileAppend(1, 0x90000000u, 0, kReasonScheduled, "10.0.0.1", 7);
  DriftRecord r{};
  ASSERT_TRUE(DriftFileReadAfter(r, 0x7FFFFFFF));
  EXPECT_EQ(r.check_time, 0x90000000u);
}

// After a clock step back the times are out of order: the answer is still the first record from
// the start that is later than the argument.
TEST_F(DriftFileTest, ReadAfterFindsTheFirstLaterRecordWhenTimesStepBack) {
  WriteBytes(path_, RecordBytes({MakeRecord(10, 0), MakeRecord(20, 1), MakeRecord(30, 2), MakeRecord(5, 3),
                                 MakeRecord(15, 4), MakeRecord(40, 5)}));
  Open();
  const std::pair<std::uint32_t, std::int32_t> cases[] = {{0, 0}, {4, 0}, {10, 1}, {12, 1}, {25, 2}, {30, 5}, {39, 5}};
  for (const auto& [after, variance] : cases) {
    DriftRecord r{};
    ASSERT_TRUE(DriftFileReadAfter(r, after)) << after;
    EXPECT_EQ(r.variance_ms, variance) << after;
  }
  DriftRecord r{};
  EXPECT_FALSE(DriftFileReadAfter(r, 40));
}

// A full history answers each question with a read or two, not one read per record.
TEST_F(DriftFileTest, ReadAfterOverAFullHistoryDoesNotReadRecordByRecord) {
  constexpr std::uint32_t kFull = defaults::kDriftFileCapBytes / kDriftRecordSize;
  std::vector<DriftRecord> history;
  for (std::uint32_t i = 0; i < kFull; ++i) history.push_back(MakeRecord(1000 + 2 * i, static_cast<std::int32_t>(i)));
  WriteBytes(path_, RecordBytes(history));
  Open();
  const std::uint32_t reads_before = platform::fake::CallCount("FileRead");
  constexpr std::uint32_t kQuestions = 100;
  for (std::uint32_t q = 0; q < kQuestions; ++q) {
    const std::uint32_t i = kFull - 1 - q * 7;   // the newest records: the far end of the file
    DriftRecord r{};
    ASSERT_TRUE(DriftFileReadAfter(r, 1000 + 2 * i - 1));
    EXPECT_EQ(r.variance_ms, static_cast<std::int32_t>(i));
  }
  EXPECT_LE(platform::fake::CallCount("FileRead") - reads_before, 2 * kQuestions);
}

// Another process appends, rewrites, trims or empties the file: the next question sees it.
TEST_F(DriftFileTest, ReadAfterSeesWhatAnotherWriterDid) {
  WriteBytes(path_, RecordBytes({MakeRecord(10, 1), MakeRecord(20, 2)}));
  Open();
  DriftRecord r{};
  ASSERT_TRUE(DriftFileReadAfter(r, 10));
  EXPECT_EQ(r.variance_ms, 2);
  const auto write = [&](std::vector<DriftRecord> records, std::size_t torn = 0) {
    auto bytes = RecordBytes(records);
    bytes.resize(bytes.size() + torn, 0x29);
    WriteBytes(path_, bytes);
  };
  write({MakeRecord(10, 1), MakeRecord(20, 2), MakeRecord(30, 3)});   // appended
  ASSERT_TRUE(DriftFileReadAfter(r, 20));
  EXPECT_EQ(r.variance_ms, 3);
  write({MakeRecord(10, 1), MakeRecord(20, 2), MakeRecord(30, 3)}, 7);   // a torn tail is not a record
  EXPECT_FALSE(DriftFileReadAfter(r, 30));
  write({MakeRecord(50, 5), MakeRecord(60, 6), MakeRecord(70, 7)});   // the same size, other records
  ASSERT_TRUE(DriftFileReadAfter(r, 0));
  EXPECT_EQ(r.variance_ms, 5);
  write({MakeRecord(70, 7)});   // trimmed
  ASSERT_TRUE(DriftFileReadAfter(r, 0));
  EXPECT_EQ(r.variance_ms, 7);
  write({MakeRecord(70, 7), MakeRecord(80, 8)});
  ASSERT_TRUE(DriftFileReadAfter(r, 70));
  EXPECT_EQ(r.variance_ms, 8);
  write({});   // emptied
  EXPECT_FALSE(DriftFileReadAfter(r, 0));
  write({MakeRecord(90, 9), MakeRecord(95, 10)});   // emptied and grown again
  ASSERT_TRUE(DriftFileReadAfter(r, 0));
  EXPECT_EQ(r.variance_ms, 9);
  DriftFileAppend(11, 100, 0, kReasonScheduled, "10.0.0.1", 7);   // this process's own append
  ASSERT_TRUE(DriftFileReadAfter(r, 95));
  EXPECT_EQ(r.variance_ms, 11);
}

TEST_F(DriftFileTest, ClearEmptiesTheFile) {
  Open();
  DriftFileAppend(1, 10, 0, kReasonScheduled, "10.0.0.1", 7);
  DriftFileAppend(2, 11, 0, kReasonScheduled, "10.0.0.1", 7);
  DriftFileClear();
  EXPECT_TRUE(ReadBytes(path_).empty());
  DriftFileAppend(3, 12, 0, kReasonScheduled, "10.0.0.1", 7);
  ASSERT_EQ(Records().size(), 1u);
  EXPECT_EQ(Records()[0].variance_ms, 3);
}

TEST_F(DriftFileTest, OperationsWithoutAnOpenFileDoNothing) {
  WriteBytes(path_, RecordBytes({MakeRecord(10, 1)}));
  DriftFileAppend(5, 20, 0, kReasonScheduled, "10.0.0.1", 7);
  DriftFileClear();
  DriftRecord r;
  std::memset(&r, 0x5A, sizeof r);
  EXPECT_FALSE(DriftFileReadAfter(r, 0));
  EXPECT_TRUE(SameRecord(r, DriftRecord{}));
  EXPECT_EQ(ReadBytes(path_).size(), 20u);
}

TEST_F(DriftFileTest, CloseThenOperationsDoNothingUntilReopened) {
  Open();
  DriftFileAppend(1, 10, 0, kReasonScheduled, "10.0.0.1", 7);
  DriftFileClose();
  DriftFileAppend(2, 11, 0, kReasonScheduled, "10.0.0.1", 7);
  EXPECT_EQ(Records().size(), 1u);
  Open();
  DriftFileAppend(3, 12, 0, kReasonScheduled, "10.0.0.1", 7);
  EXPECT_EQ(Records().size(), 2u);
}

TEST_F(DriftFileTest, SecondOpenKeepsTheFirstFile) {
  Open();
  EXPECT_TRUE(DriftFileOpenPath(PathOf("other.kr")));
  DriftFileAppend(1, 10, 0, kReasonScheduled, "10.0.0.1", 7);
  EXPECT_EQ(Records().size(), 1u);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "other.kr"));
}

TEST_F(DriftFileTest, OpenFailsInAMissingFolderAndTriesAgainLater) {
  const std::string missing = PathOf("no-such-folder") + "/drift.kr";
  EXPECT_FALSE(DriftFileOpenPath(missing));
  EXPECT_EQ(platform::LastError(), 3u);
  DriftFileAppend(1, 10, 0, kReasonScheduled, "10.0.0.1", 7);   // lock in place, no handle: nothing
  std::filesystem::create_directories(dir_ / "no-such-folder");
  EXPECT_TRUE(DriftFileOpenPath(missing));
  DriftFileAppend(1, 10, 0, kReasonScheduled, "10.0.0.1", 7);
  EXPECT_EQ(ReadRecords(missing).size(), 1u);
}

TEST_F(DriftFileTest, OpenCreatesAnEmptyFile) {
  Open();
  EXPECT_TRUE(std::filesystem::exists(path_));
  EXPECT_EQ(std::filesystem::file_size(path_), 0u);
}

TEST_F(DriftFileTest, SecureCreatesAMissingFileAndKeepsAnExistingOne) {
  EXPECT_TRUE(DriftFileSecure(path_));
  EXPECT_EQ(platform::LastError(), 0u);
  EXPECT_EQ(std::filesystem::file_size(path_), 0u);
  WriteBytes(path_, RecordBytes({MakeRecord(10, 1)}));
  EXPECT_TRUE(DriftFileSecure(path_));
  EXPECT_EQ(std::filesystem::file_size(path_), 20u);
}

TEST_F(DriftFileTest, SecureFailsInAMissingFolder) {
  EXPECT_FALSE(DriftFileSecure(PathOf("missing") + "/drift.kr"));
  EXPECT_NE(platform::LastError(), 0u);
}

TEST_F(DriftFileTest, TornTailIsCutBackWhenTheProviderOpens) {
  auto bytes = RecordBytes({MakeRecord(10, 1), MakeRecord(11, 2), MakeRecord(12, 3)});
  bytes.resize(bytes.size() + 7, 0x29);   // a crash in the middle of the fourth record
  WriteBytes(path_, bytes);
  {
    DriftLog log;   // the applet still rejects the torn file as it is
    DriftLogSetPath(log, path_.c_str());
    EXPECT_FALSE(DriftLogLoad(nullptr, log));
    EXPECT_EQ(log.last_error, 87u);
  }
  Open();
  EXPECT_EQ(ReadBytes(path_).size(), 60u);
  DriftFileAppend(4, 13, 0, kReasonScheduled, "10.0.0.1", 7);
  const auto r = Records();
  ASSERT_EQ(r.size(), 4u);
  EXPECT_EQ(r[3].check_time, 13u);
  DriftLog log;
  DriftLogSetPath(log, path_.c_str());
  EXPECT_TRUE(DriftLogLoad(nullptr, log));
  EXPECT_EQ(log.record_count, 4u);
}

TEST_F(DriftFileTest, TornTailLeftWhileOpenIsCutBackBeforeTheNextAppend) {
  Open();
  DriftFileAppend(1, 10, 0, kReasonScheduled, "10.0.0.1", 7);
  {
    std::ofstream f(path_, std::ios::binary | std::ios::app);
    f.write("\x29\x0e\x00", 3);
  }
  DriftFileAppend(2, 11, 0, kReasonScheduled, "10.0.0.1", 7);
  const auto r = Records();
  ASSERT_EQ(ReadBytes(path_).size(), 40u);
  EXPECT_EQ(r[1].check_time, 11u);
}

TEST_F(DriftFileTest, ConcurrentAppendReadAfterAndClearKeepTheFileWhole) {
  Open();
  constexpr int kThreads = 4, kEach = 40;
  std::atomic<bool> clearing_done{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < kEach; ++i)
        DriftFileAppend(t * 1000 + i, static_cast<std::uint32_t>(1 + t * 1000 + i), 0, kReasonScheduled, "10.0.0.1", 7);
    });
  threads.emplace_back([&] {
    DriftRecord r;
    while (!clearing_done.load()) {
      std::uint32_t after = 0;
      while (DriftFileReadAfter(r, after)) {
        EXPECT_TRUE(DriftRecordValid(r));
        after = r.check_time;
      }
      std::this_thread::yield();
    }
  });
  threads.emplace_back([] { DriftFileClear(); });
  for (std::size_t i = 0; i < threads.size(); ++i)
    if (i != static_cast<std::size_t>(kThreads)) threads[i].join();
  clearing_done.store(true);
  threads[kThreads].join();
  const auto bytes = ReadBytes(path_);
  ASSERT_EQ(bytes.size() % 20, 0u);
  const auto records = ReadRecords(path_);
  std::set<std::uint32_t> times;
  for (const auto& r : records) {
    EXPECT_TRUE(DriftRecordValid(r));
    EXPECT_EQ(r.variance_ms + 1, static_cast<std::int32_t>(r.check_time));
    EXPECT_TRUE(times.insert(r.check_time).second) << "duplicate " << r.check_time;
  }
  // The clear only removed a prefix of the history: what is left of each thread is an unbroken run
  // of its newest records (or nothing, when the clear came after its last append).
  for (int t = 0; t < kThreads; ++t) {
    std::vector<std::uint32_t> mine;
    for (const auto& r : records)
      if (r.check_time / 1000 == static_cast<std::uint32_t>(t)) mine.push_back(r.check_time);
    for (std::size_t i = 1; i < mine.size(); ++i) EXPECT_EQ(mine[i], mine[i - 1] + 1);
    if (!mine.empty()) {
      EXPECT_EQ(mine.back(), static_cast<std::uint32_t>(t * 1000 + kEach));
    }
  }
}

TEST_F(DriftFileTest, ConcurrentAppendsWithoutClearLoseNothing) {
  Open();
  constexpr int kThreads = 4, kEach = 30;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < kEach; ++i)
        DriftFileAppend(i, static_cast<std::uint32_t>(1 + t * 1000 + i), 0, kReasonScheduled, "10.0.0.1", 7);
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(Records().size(), static_cast<std::size_t>(kThreads * kEach));
}

TEST_F(DriftFileTest, AppletLoadsWhileTheProviderAppends) {
  Open();
  constexpr std::uint32_t kCount = 150;
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (std::uint32_t i = 0; i < kCount; ++i)
      DriftFileAppend(static_cast<std::int32_t>(i), 100 + i, 0, kReasonScheduled, "10.0.0.1", 7);
    done.store(true);
  });
  DriftLog log;
  DriftLogSetPath(log, path_.c_str());
  std::uint32_t seen = 0, loads = 0;
  while (!done.load() || loads == 0) {
    if (DriftLogLoad(nullptr, log)) {
      ++loads;
      ASSERT_GE(log.record_count, seen);
      seen = log.record_count;
      for (std::uint32_t i = 0; i < log.record_count; ++i) {
        ASSERT_EQ(log.records[i].check_time, 100 + i);
        ASSERT_EQ(log.records[i].variance_ms, static_cast<std::int32_t>(i));
      }
      if (log.record_count) {
        EXPECT_EQ(log.average_interval, log.record_count > 1 ? 1u : 0u);
      }
    } else {
      EXPECT_EQ(log.last_error, 87u);   // caught in the middle of a write: reported, never misread
    }
  }
  writer.join();
  ASSERT_TRUE(DriftLogLoad(nullptr, log));
  EXPECT_EQ(log.record_count, kCount);
  EXPECT_EQ(log.end_shown, kCount);
  EXPECT_EQ(log.first_shown, kCount - 64);
}

TEST(DriftFilePathTest, LocalAndRemotePaths) {
  EXPECT_EQ(DriftFilePath("HOST"), "\\\\HOST\\admin$\\system32\\drift.kr");
  EXPECT_EQ(DriftFilePath("\\\\HOST"), "\\\\HOST\\admin$\\system32\\drift.kr");
  const std::string local = DriftFilePath("");
  ASSERT_GT(local.size(), 9u);
  EXPECT_EQ(local.substr(local.size() - 9), "\\drift.kr");
}

}  // namespace
