// The clock status check on an in-memory Client page ("Ntp" in the suites' names: one test at a
// time binds port 123): one scripted NTP server per test on a
// loopback address of this file's own (127.0.0.70 and up; its script answers the rows in turn), time
// moved only by the fake clock, the verdict's boundaries.
#include "applet/clock_status.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "platform/net.h"
#include "platform/sync.h"
#include "resources/resource_ids.h"
#include "tests/fake_ntp_server.h"
#include "tests/page_fixture.h"

namespace {

constexpr std::uint64_t kT0 = 134116992000000000ULL;   // 2026-01-01 00:00:00 UTC
constexpr std::int64_t kMs = 10'000;                   // 100-ns units
// What the NTP timestamps' fraction truncation may take off an offset (100-ns units): the scripted
// offsets are this much larger in magnitude, so that whole milliseconds come out whole.
constexpr std::int64_t kGrain = 5;

struct PlainLogic : platform::DialogLogic {};

class ClockStatusNtpTest : public PageTest {
 protected:
  void SetUp() override {
    PageTest::SetUp();
    ASSERT_EQ(platform::NetStartup(), 0);
    platform::fake::SetSystemTime(kT0);
    page_ = std::make_unique<platform::MemoryDialog>(*platform::FindDialogDescription(IDD_CLIENT), logic_);
  }
  void TearDown() override {
    page_.reset();
    g_applet.status_stop = nullptr;
    platform::NetCleanup();
    PageTest::TearDown();
  }
  // Row i (1-6) asks server.
  void SetRow(int i, const char* server) { page_->SetText(kServers[i - 1], server); }
  std::string Variance(int i) const { return page_->Text(kVariances[i - 1]); }
  std::string Stratum(int i) const { return page_->Text(kStrata[i - 1]); }
  std::string Verdict() const { return page_->Text(IDC_STATUS_TEXT); }
  int Icon() const { return page_->Icon(IDC_STATUS_ICON); }
  void Check() { EXPECT_EQ(CheckClockStatus(*page_), 1); }

  static constexpr int kServers[6] = {IDC_SERVER1, IDC_SERVER2, IDC_SERVER3, IDC_SERVER4, IDC_SERVER5, IDC_SERVER6};
  static constexpr int kStrata[6] = {IDC_STRATUM1, IDC_STRATUM2, IDC_STRATUM3, IDC_STRATUM4, IDC_STRATUM5, IDC_STRATUM6};
  static constexpr int kVariances[6] = {IDC_VARIANCE1, IDC_VARIANCE2, IDC_VARIANCE3,
                                        IDC_VARIANCE4, IDC_VARIANCE5, IDC_VARIANCE6};
  PlainLogic logic_;
  std::unique_ptr<platform::MemoryDialog> page_;
};

TEST_F(ClockStatusNtpTest, AllRowsEmptyOrDisabledLeaveTheVerdictUnknown) {
  SetRow(2, "127.0.0.70");
  page_->Enable(kVariances[1], false);   // a disabled row is not asked
  Check();
  EXPECT_EQ(Icon(), IDI_STATUS_UNKNOWN);
  EXPECT_EQ(Verdict(), "Clock synchronization status unknown");
  EXPECT_EQ(Variance(1), "");
  EXPECT_EQ(Stratum(1), "");
  EXPECT_EQ(Variance(2), "");
  EXPECT_EQ(page_->Font(kVariances[0]), platform::kFontDialog);   // the marking font is taken off again
}

TEST_F(ClockStatusNtpTest, AServerOneAndAHalfSecondsAheadIsOffByMoreThanASecond) {
  FakeNtpServer server("127.0.0.70", {{.offset = 1500 * kMs + kGrain, .stratum = 3}});
  SetRow(1, "  127.0.0.70 ");
  Check();
  EXPECT_EQ(Variance(1), "+1.500 secs");
  EXPECT_EQ(Stratum(1), "3");
  EXPECT_EQ(Icon(), IDI_STATUS_OFF);
  EXPECT_EQ(Verdict(), "Clock is NOT synchronized to within 1 second");
  EXPECT_EQ(page_->Font(kVariances[0]), platform::kFontDialog);
  EXPECT_EQ(page_->Font(kStrata[0]), platform::kFontDialog);
}

struct Boundary {
  std::int64_t first_ms, second_ms;   // two rows whose average is the boundary
  int icon;
  const char* verdict;
};

class ClockStatusNtpBoundaryTest : public ClockStatusNtpTest, public ::testing::WithParamInterface<Boundary> {};

TEST_P(ClockStatusNtpBoundaryTest, TheAverageVarianceDecides) {
  const Boundary b = GetParam();
  // One server answers both rows in turn (one scripted server per test: under Wine every loopback
  // address reaches the server bound last); absolute values are averaged.
  FakeNtpServer server("127.0.0.71", {{.offset = b.first_ms * kMs + kGrain}, {.offset = -b.second_ms * kMs - kGrain}});
  SetRow(1, "127.0.0.71");
  SetRow(4, "127.0.0.71");
  Check();
  EXPECT_EQ(Icon(), b.icon);
  EXPECT_EQ(Verdict(), b.verdict);
  EXPECT_EQ(Stratum(1), "2");
  EXPECT_EQ(Stratum(4), "2");
}

INSTANTIATE_TEST_SUITE_P(
    Verdicts, ClockStatusNtpBoundaryTest,
    ::testing::Values(Boundary{1000, 1000, IDI_STATUS_SYNCED, "Clock synchronized to within 1 second"},
                      Boundary{999, 1001, IDI_STATUS_SYNCED, "Clock synchronized to within 1 second"},
                      Boundary{1001, 1001, IDI_STATUS_OFF, "Clock is NOT synchronized to within 1 second"},
                      Boundary{2000, 2000, IDI_STATUS_OFF, "Clock is NOT synchronized to within 1 second"},
                      Boundary{2001, 2001, IDI_STATUS_BAD, "Clock is NOT synchronized"}));

TEST_F(ClockStatusNtpTest, StratumZeroIsClockNotSetAndCountsForNothing) {
  FakeNtpServer server("127.0.0.73", {{.stratum = 0}, {.offset = 20 * kMs + kGrain}});
  SetRow(1, "127.0.0.73");
  SetRow(2, "127.0.0.73");
  Check();
  EXPECT_EQ(Variance(1), "Clock Not Set");
  EXPECT_EQ(Stratum(1), "-");
  EXPECT_EQ(Variance(2), "+0.020 secs");
  EXPECT_EQ(Verdict(), "Clock synchronized to within 1 second");
}

TEST_F(ClockStatusNtpTest, AServerThatDoesNotAnswerShowsItsErrorAndADash) {
  FakeNtpServer silent("127.0.0.75", {{.silent = true}});
  SetRow(3, "127.0.0.75");
  Check();
  EXPECT_EQ(Variance(3), "Timed out");
  EXPECT_EQ(Stratum(3), "-");
  EXPECT_EQ(Icon(), IDI_STATUS_UNKNOWN);
}

TEST_F(ClockStatusNtpTest, AnUnreachableTargetMarksEveryRowAndCannotTellTheTime) {
  FakeNtpServer server("127.0.0.76", {{.offset = 10 * kMs + kGrain}, {.offset = -30 * kMs - kGrain}});
  std::snprintf(g_applet.target, sizeof g_applet.target, "%s", "NOSUCHHOST");
  SetRow(1, "127.0.0.76");
  SetRow(6, "127.0.0.76");
  Check();
  g_applet.target[0] = '\0';
  EXPECT_EQ(Variance(1), "+0.010 secs ???");
  EXPECT_EQ(Variance(6), "-0.030 secs ???");
  EXPECT_EQ(Icon(), IDI_STATUS_SYNCED);
  EXPECT_EQ(Verdict(), "Not able to determine time at machine");
}

TEST_F(ClockStatusNtpTest, ATargetThatAnswersNtpIsTheReference) {
  // The target runs 400 ms ahead; a server 500 ms ahead of this machine is 100 ms off the target.
  FakeNtpServer server("127.0.0.78", {{.offset = 400 * kMs}, {.offset = 500 * kMs + 2 * kGrain}});
  std::snprintf(g_applet.target, sizeof g_applet.target, "%s", "127.0.0.78");
  SetRow(2, "127.0.0.78");
  Check();
  g_applet.target[0] = '\0';
  EXPECT_EQ(Variance(2), "+0.100 secs");
  EXPECT_EQ(Verdict(), "Clock synchronized to within 1 second");
}

TEST_F(ClockStatusNtpTest, AStopBeforeTheRowsLeavesThemUntouched) {
  FakeNtpServer server("127.0.0.70", std::vector<FakeNtpReply>{FakeNtpReply{}});
  SetRow(1, "127.0.0.70");
  page_->SetText(kVariances[0], "before");
  g_applet.status_stop = platform::CreateSyncEvent(true, true);
  Check();
  platform::CloseEvent(g_applet.status_stop);
  g_applet.status_stop = nullptr;
  EXPECT_EQ(Verdict(), "Checking synchronization status....");
  EXPECT_EQ(Variance(1), "before");
  EXPECT_TRUE(server.Requests().empty());
}

TEST_F(ClockStatusNtpTest, SyncNowNeedsARunningServiceAManagedModeAndASettledSource) {
  RecordedServices::running = true;
  page_->SetText(IDC_TIME_SOURCE, "ntp.example");
  UpdateSyncNowButton(*page_);
  EXPECT_TRUE(page_->Enabled(IDC_SYNC_NOW));
  for (const char* source : {"Checking sources - please wait", "Looking up..."}) {
    page_->SetText(IDC_TIME_SOURCE, source);
    UpdateSyncNowButton(*page_);
    EXPECT_FALSE(page_->Enabled(IDC_SYNC_NOW)) << source;
  }
  page_->SetText(IDC_TIME_SOURCE, "ntp.example");
  page_->SetChecked(IDC_SYNC_NOSYNC, true);
  UpdateSyncNowButton(*page_);
  EXPECT_FALSE(page_->Enabled(IDC_SYNC_NOW));
  page_->SetChecked(IDC_SYNC_NOSYNC, false);
  RecordedServices::running = false;
  UpdateSyncNowButton(*page_);
  EXPECT_FALSE(page_->Enabled(IDC_SYNC_NOW));
}

TEST_F(ClockStatusNtpTest, TheTimeSourceComesFromTheAgentWhenItIsInstalledAndEnabled) {
  g_applet.settings.service_installed = 0;
  ShowCurrentTimeSource(*page_);
  EXPECT_EQ(page_->Text(IDC_TIME_SOURCE), "Unknown - Agent applet not installed");
  g_applet.settings.service_installed = 1;
  g_applet.settings.provider_enabled = 0;
  ShowCurrentTimeSource(*page_);
  EXPECT_EQ(page_->Text(IDC_TIME_SOURCE), "Unknown - Agent disabled");
  g_applet.settings.provider_enabled = 1;
  ShowCurrentTimeSource(*page_);
  EXPECT_EQ(page_->Text(IDC_TIME_SOURCE), "Unknown: no record");
  reg_set_string(reg_local(), kProviderKey, "Current Inbound Time Partner", "ntp.example");
  ShowCurrentTimeSource(*page_);
  EXPECT_EQ(page_->Text(IDC_TIME_SOURCE), "ntp.example");
}

TEST_F(ClockStatusNtpTest, WindowHasTextTrimsBlanks) {
  page_->SetText(IDC_SERVER1, " \t ");
  EXPECT_EQ(WindowHasText(*page_, IDC_SERVER1), 0);
  page_->SetText(IDC_SERVER1, " a ");
  EXPECT_EQ(WindowHasText(*page_, IDC_SERVER1), 1);
}

}  // namespace

// The command line asks every row at once and does not pause; the page asks them in turn. Both
// write the same texts, fonts and verdict.
TEST_F(ClockStatusNtpTest, AllAtOnceWritesWhatTheRowsInTurnWrite) {
  const FakeNtpReply reply{.offset = -250 * kMs - kGrain, .stratum = 4};
  FakeNtpServer server("127.0.0.72", {reply, reply, reply, reply});
  SetRow(1, "127.0.0.72");
  SetRow(2, "127.0.0.79");   // nothing answers there
  SetRow(3, "127.0.0.72");
  SetRow(6, "127.0.0.72");
  page_->Enable(kVariances[5], false);
  const auto shown = [&] {
    std::string all = Verdict();
    all.append("|").append(std::to_string(Icon()));
    for (int i = 1; i <= 6; ++i) {
      const auto font = page_->Font(kVariances[i - 1]);
      all.append("|").append(Variance(i)).append("/").append(Stratum(i)).append("/");
      all.append(font.face).append(std::to_string(font.weight));
    }
    return all;
  };
  Check();
  const std::string in_turn = shown();
  EXPECT_EQ(Variance(1), "-0.250 secs");
  EXPECT_EQ(Variance(3), "-0.250 secs");
  for (int i = 1; i <= 6; ++i) page_->SetText(kVariances[i - 1], ""), page_->SetText(kStrata[i - 1], "");
  page_->SetText(IDC_STATUS_TEXT, "");
  EXPECT_EQ(CheckClockStatus(*page_, kStatusAllAtOnce), 1);
  EXPECT_EQ(shown(), in_turn);
}

// The check's record is what the command line and the server test draw: the rows' texts and the
// verdict, with no page at all; a disabled row is not asked and an empty one has no texts.
TEST_F(ClockStatusNtpTest, TheRecordCarriesWhatThePageWouldShow) {
  const FakeNtpReply reply{.offset = 40 * kMs + kGrain, .stratum = 2};
  FakeNtpServer server("127.0.0.73", {reply});
  ClockStatusQuestion question;
  question.servers[0] = " 127.0.0.73 ";
  question.servers[2] = "127.0.0.73";
  question.enabled[2] = false;
  const ClockStatusResult r = CheckClockStatusOf(question, kStatusAllAtOnce);
  EXPECT_FALSE(r.stopped);
  EXPECT_EQ(r.rows[0].server, "127.0.0.73");
  EXPECT_TRUE(r.rows[0].asked);
  EXPECT_EQ(r.rows[0].stratum, "2");
  EXPECT_EQ(r.rows[0].variance, "+0.040 secs");
  EXPECT_EQ(r.rows[1].server, "");
  EXPECT_EQ(r.rows[1].variance, "");
  EXPECT_FALSE(r.rows[2].asked);
  EXPECT_EQ(r.rows[2].variance, "");
  EXPECT_EQ(r.icon, IDI_STATUS_SYNCED);
  EXPECT_EQ(r.line, "Clock synchronized to within 1 second");
  EXPECT_EQ(page_->Text(IDC_STATUS_TEXT), "Status Unknown") << "the record's check writes no page";
}
