// The applet's snapshot of a drift history file.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "drift/drift_log.h"
#include "platform/error.h"
#include "platform/error_text.h"
#include "tests/drift_test_util.h"

namespace {

class DriftLogTest : public DriftFolderTest {
 protected:
  // Writes the bytes to a file and points the snapshot at it.
  std::string Prepare(const std::vector<std::uint8_t>& bytes, const std::string& name = "drift.kr") {
    const std::string path = PathOf(name);
    WriteBytes(path, bytes);
    DriftLogSetPath(log_, path.c_str());
    return path;
  }
  bool Load() { return DriftLogLoad(nullptr, log_); }
  DriftLog log_;
};

std::vector<DriftRecord> Sequence(std::uint32_t count, std::uint32_t start = 1000, std::uint32_t step = 60) {
  std::vector<DriftRecord> r;
  for (std::uint32_t i = 0; i < count; ++i) r.push_back(MakeRecord(start + i * step, static_cast<std::int32_t>(i)));
  return r;
}

TEST_F(DriftLogTest, EmptyFileLoadsWithNothingChanged) {
  Prepare({});
  ASSERT_TRUE(Load());
  EXPECT_EQ(log_.record_count, 0u);
  EXPECT_FALSE(log_.changed);
  EXPECT_EQ(log_.per_screen, 64u);
  EXPECT_EQ(log_.first_shown, 0u);
  EXPECT_EQ(log_.end_shown, 0u);
  EXPECT_TRUE(log_.follow_newest);
  EXPECT_EQ(log_.last_error, 0u);
  EXPECT_EQ(platform::LastError(), 0u);
}

TEST_F(DriftLogTest, SizesThatAreNotWholeRecordsAreRejected) {
  for (std::size_t size : {19u, 21u, 39u}) {
    DriftLogReset(log_);
    Prepare(std::vector<std::uint8_t>(size, 0), std::string("odd").append(std::to_string(size)).append(".kr"));
    EXPECT_FALSE(Load()) << size;
    EXPECT_EQ(log_.last_error, 87u) << size;
    EXPECT_EQ(platform::LastError(), 87u) << size;
  }
}

TEST_F(DriftLogTest, VersionAndCheckTimeLimits) {
  struct Case {
    std::uint8_t version;
    std::uint32_t time;
    bool ok;
  };
  const Case cases[] = {{0, 1, true},           {31, 1, true},  {40, 5, true},  {41, 0x7FFFFFFF, true},
                        {30, 1, false},         {42, 1, false}, {41, 0, false}, {41, 0x80000000u, false},
                        {255, 1, false},        {1, 1, false}};
  int n = 0;
  for (const auto& c : cases) {
    DriftLogReset(log_);
    Prepare(RecordBytes({MakeRecord(c.time, 5, kReasonScheduled, 0x0100000A, false, c.version)}),
            std::string("v").append(std::to_string(n++)).append(".kr"));
    EXPECT_EQ(Load(), c.ok) << int(c.version) << " " << c.time;
    if (!c.ok) {
      EXPECT_EQ(log_.last_error, 87u);
    }
  }
}

TEST_F(DriftLogTest, ABadRecordAfterGoodOnesRejectsTheWholeFile) {
  auto records = Sequence(5);
  records[3].version = 7;
  Prepare(RecordBytes(records));
  EXPECT_FALSE(Load());
  EXPECT_EQ(log_.last_error, 87u);
}

TEST_F(DriftLogTest, AFailedValidationIsReportedOnceThenTheUnchangedFileLoads) {
  auto records = Sequence(3);
  records[1].check_time = 0;
  Prepare(RecordBytes(records));
  EXPECT_FALSE(Load());
  EXPECT_TRUE(Load());   // the loaded size was taken before validation: callers handle the first failure
  EXPECT_FALSE(log_.changed);
}

TEST_F(DriftLogTest, FollowsTheNewestSeventyRecords) {
  Prepare(RecordBytes(Sequence(70)));
  ASSERT_TRUE(Load());
  EXPECT_TRUE(log_.changed);
  EXPECT_EQ(log_.record_count, 70u);
  EXPECT_EQ(log_.loaded_size, 1400u);
  EXPECT_EQ(log_.first_shown, 6u);
  EXPECT_EQ(log_.per_screen, 64u);
  EXPECT_EQ(log_.end_shown, 70u);
  EXPECT_EQ(log_.average_interval, 60u);
}

TEST_F(DriftLogTest, FewerThanAPageShowsThemAll) {
  Prepare(RecordBytes(Sequence(10)));
  ASSERT_TRUE(Load());
  EXPECT_EQ(log_.first_shown, 0u);
  EXPECT_EQ(log_.per_screen, 10u);
  EXPECT_EQ(log_.end_shown, 10u);
}

TEST_F(DriftLogTest, WithoutFollowNewestTheViewStays) {
  const std::string path = Prepare(RecordBytes(Sequence(70)));
  ASSERT_TRUE(Load());
  log_.follow_newest = false;
  log_.first_shown = 3;
  log_.end_shown = 67;
  WriteBytes(path, RecordBytes(Sequence(80)));
  ASSERT_TRUE(Load());
  EXPECT_TRUE(log_.changed);
  EXPECT_EQ(log_.record_count, 80u);
  EXPECT_EQ(log_.first_shown, 3u);
  EXPECT_EQ(log_.end_shown, 67u);
}

TEST_F(DriftLogTest, ReloadsOnlyWhenTheSizeChanges) {
  const std::string path = Prepare(RecordBytes(Sequence(2)));
  ASSERT_TRUE(Load());
  EXPECT_TRUE(log_.changed);
  log_.point_cache[0] = {11, 22};
  ASSERT_TRUE(Load());
  EXPECT_FALSE(log_.changed);
  EXPECT_EQ(log_.point_cache[0][0], 11);   // nothing touched
  WriteBytes(path, RecordBytes(Sequence(3)));
  ASSERT_TRUE(Load());
  EXPECT_TRUE(log_.changed);
  EXPECT_EQ(log_.record_count, 3u);
  EXPECT_EQ(log_.point_cache[0][0], 0);
}

TEST_F(DriftLogTest, AverageIntervalUsesUnsignedSteps) {
  // 100 -> 400 -> 250: steps 300 and -150 (wrapping), sum 150, mean 75.
  Prepare(RecordBytes({MakeRecord(100, 1), MakeRecord(400, 1), MakeRecord(250, 1)}));
  ASSERT_TRUE(Load());
  EXPECT_EQ(log_.average_interval, 75u);
  DriftLogReset(log_);
  Prepare(RecordBytes({MakeRecord(100, 1)}), "one.kr");
  ASSERT_TRUE(Load());
  EXPECT_EQ(log_.average_interval, 0u);
}

TEST_F(DriftLogTest, MissingFileFailsWithTheSystemCode) {
  DriftLogSetPath(log_, PathOf("absent.kr").c_str());
  EXPECT_FALSE(Load());
  EXPECT_EQ(log_.last_error, 2u);
}

TEST_F(DriftLogTest, EmptyPathWithoutAChooserFails) {
  EXPECT_FALSE(Load());
  EXPECT_NE(log_.last_error, 0u);
}

TEST_F(DriftLogTest, ResetKeepsPathAndFolder) {
  const std::string path = Prepare(RecordBytes(Sequence(70)));
  std::snprintf(log_.initial_dir, sizeof log_.initial_dir, "%s", "C:\\logs");
  ASSERT_TRUE(Load());
  log_.graph_word = 250;
  log_.point_cache[5] = {1, 2};
  EXPECT_TRUE(DriftLogReset(log_));
  EXPECT_EQ(log_.file, nullptr);
  EXPECT_EQ(log_.records, nullptr);
  EXPECT_EQ(log_.record_count, 0u);
  EXPECT_EQ(log_.loaded_size, 0u);
  EXPECT_EQ(log_.per_screen, 64u);
  EXPECT_EQ(log_.first_shown, 0u);
  EXPECT_EQ(log_.end_shown, 0u);
  EXPECT_EQ(log_.graph_word, 0u);
  EXPECT_EQ(log_.average_interval, 0u);
  EXPECT_TRUE(log_.follow_newest);
  EXPECT_FALSE(log_.changed);
  EXPECT_STREQ(log_.display_name, "");
  EXPECT_EQ(log_.point_cache[5][0], 0);
  EXPECT_EQ(std::string(log_.path), path);
  EXPECT_STREQ(log_.initial_dir, "C:\\logs");
  ASSERT_TRUE(Load());
  EXPECT_EQ(log_.record_count, 70u);
}

TEST(DriftLogBytesTest, ContentsInMemoryLoadAsAFileDoes) {
  DriftLog log;
  log.follow_newest = true;
  const auto bytes = RecordBytes({MakeRecord(100, 1), MakeRecord(400, -2), MakeRecord(700, 3)});
  ASSERT_TRUE(DriftLogLoadBytes(log, bytes.data(), bytes.size()));
  EXPECT_TRUE(log.changed);
  EXPECT_EQ(log.record_count, 3u);
  EXPECT_EQ(log.average_interval, 300u);
  EXPECT_EQ(log.end_shown, 3u);
  EXPECT_EQ(log.records[1].variance_ms, -2);
  ASSERT_TRUE(DriftLogLoadBytes(log, bytes.data(), bytes.size()));
  EXPECT_FALSE(log.changed);   // the same size: kept
  DriftLog torn;
  EXPECT_FALSE(DriftLogLoadBytes(torn, bytes.data(), bytes.size() - 1));
  EXPECT_EQ(torn.last_error, 87u);
  auto bad = RecordBytes({MakeRecord(100, 1), MakeRecord(0, 1)});   // check time 0
  EXPECT_FALSE(DriftLogLoadBytes(torn, bad.data(), bad.size()));
  EXPECT_EQ(torn.last_error, 87u);
}

TEST(DriftLogNameTest, DisplayNames) {
  const std::pair<const char*, const char*> cases[] = {
      {"C:\\WINDOWS\\system32\\DRIFT.KR", "C:\\WINDOWS\\system32\\DRIFT.KR"},
      {"D:\\logs\\host1.drift.kr", "host1.drift"},
      {"log.kr", "log"},
      {"logs/old", "old"},
      {"/var/lib/chronwarden/system32/drift.kr", "/var/lib/chronwarden/system32/drift.kr"},
      {"plain", "plain"}};
  for (const auto& [path, name] : cases) {
    DriftLog log;
    DriftLogSetPath(log, path);
    DriftLogDisplayName(log);
    EXPECT_STREQ(log.display_name, name) << path;
  }
}

std::string Question(const std::string& path, const char* reason) {
  char text[512];
  std::snprintf(text, sizeof text, "Could not load file %s; %s\r\n\r\nWould you like to try a different file?",
                path.c_str(), reason);
  return text;
}

// A user who answers from a script: the questions asked, the answers given, the files chosen.
struct ScriptedUser {
  std::vector<std::string> questions;
  std::vector<bool> answers;
  std::vector<std::string> files;   // empty entry: cancel
  int chooser_calls = 0;
};

DriftUi ScriptedUi(ScriptedUser& user) {
  DriftUi ui;
  ui.context = &user;
  ui.ask_yes_no = [](const DriftUi& u, const char* caption, const char* text) {
    auto& s = *static_cast<ScriptedUser*>(u.context);
    EXPECT_STREQ(caption, "Chronwarden");
    s.questions.emplace_back(text);
    if (s.answers.empty()) return false;
    const bool a = s.answers.front();
    s.answers.erase(s.answers.begin());
    return a;
  };
  ui.choose_file = [](const DriftUi& u, DriftLog& log) {
    auto& s = *static_cast<ScriptedUser*>(u.context);
    ++s.chooser_calls;
    if (s.files.empty() || s.files.front().empty()) return false;
    DriftLogSetPath(log, s.files.front().c_str());
    s.files.erase(s.files.begin());
    return true;
  };
  return ui;
}

TEST_F(DriftLogTest, UserIsAskedAboutACorruptFileAndCanGiveUp) {
  const std::string path = Prepare(std::vector<std::uint8_t>(21, 0));
  ScriptedUser user;
  user.answers = {false};
  const DriftUi ui = ScriptedUi(user);
  EXPECT_FALSE(DriftLogLoadWithUser(&ui, log_));
  ASSERT_EQ(user.questions.size(), 1u);
  EXPECT_EQ(user.questions[0], Question(path, "the file is either not a drift record file, or it is corrupted."));
  EXPECT_EQ(user.chooser_calls, 0);
}

TEST_F(DriftLogTest, UserCanPickAnotherFile) {
  Prepare(std::vector<std::uint8_t>(21, 0));
  const std::string good = PathOf("good.kr");
  WriteBytes(good, RecordBytes(Sequence(3)));
  ScriptedUser user;
  user.answers = {true};
  user.files = {good};
  const DriftUi ui = ScriptedUi(user);
  ASSERT_TRUE(DriftLogLoadWithUser(&ui, log_));
  EXPECT_EQ(user.chooser_calls, 1);
  EXPECT_EQ(std::string(log_.path), good);
  EXPECT_EQ(log_.record_count, 3u);
  EXPECT_STREQ(log_.display_name, "good");
}

TEST_F(DriftLogTest, MissingFileQuestionCarriesTheSystemText) {
  const std::string path = PathOf("absent.kr");
  DriftLogSetPath(log_, path.c_str());
  ScriptedUser user;
  user.answers = {true};
  user.files = {""};   // the chooser is cancelled
  const DriftUi ui = ScriptedUi(user);
  EXPECT_FALSE(DriftLogLoadWithUser(&ui, log_));
  ASSERT_EQ(user.questions.size(), 1u);
  char text[129] = {};
  SystemErrorText(2, text, 129);
  EXPECT_EQ(user.questions[0], Question(path, text));
  EXPECT_EQ(user.chooser_calls, 1);
  EXPECT_STREQ(log_.path, "");
}

TEST_F(DriftLogTest, NoPathMeansNoQuestion) {
  ScriptedUser user;
  user.files = {""};
  const DriftUi ui = ScriptedUi(user);
  EXPECT_FALSE(DriftLogLoadWithUser(&ui, log_));
  EXPECT_TRUE(user.questions.empty());
  EXPECT_EQ(user.chooser_calls, 1);
}

TEST_F(DriftLogTest, WithoutAnOwnerAFailureIsFinal) {
  Prepare(std::vector<std::uint8_t>(19, 0));
  EXPECT_FALSE(DriftLogLoadWithUser(nullptr, log_));
  EXPECT_EQ(platform::LastError(), 87u);
}

TEST(DriftLogErrorTextTest, Wording) {
  char buf[129];
  DriftLogErrorText(87, buf, sizeof buf);
  EXPECT_STREQ(buf, "the file is either not a drift record file, or it is corrupted.");
  DriftLogErrorText(5, buf, sizeof buf);
  char system[129];
  SystemErrorText(5, system, sizeof system);
  EXPECT_STREQ(buf, system);
}

}  // namespace
