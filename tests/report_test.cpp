// The synchronization summary report.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "config/defaults.h"
#include "drift/drift_log.h"
#include "drift/report.h"
#include "platform/error.h"
#include "platform/testing/fake.h"
#include "platform/file.h"
#include "tests/drift_test_util.h"
#include "tests/registry_fixture.h"
#include "timing/format.h"

namespace {

constexpr std::uint32_t kT0 = 1'700'000'000;   // Tue 14 Nov 2023 22:13:20 UTC
constexpr std::uint32_t kTen = 0x0100000A;      // 10.0.0.1
constexpr std::uint32_t kLan = 0x0101A8C0;      // 192.168.1.1

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    const auto end = text.find("\r\n", start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start) + "<no CRLF>");
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 2;
  }
  return lines;
}

void Collect(void* context, const char* text, std::size_t length) {
  static_cast<std::string*>(context)->append(text, length);
}

class ReportTest : public DriftFolderTest {
 protected:
  void SetUp() override {
    DriftFolderTest::SetUp();
    registry_.Clear(defaults::kNotepadTempKey);
  }
  // Loads the records into log_ from a file of the given name.
  void Load(const std::vector<DriftRecord>& records, const std::string& name = "host1.kr") {
    path_ = PathOf(name);
    WriteBytes(path_, RecordBytes(records));
    DriftLogReset(log_);
    DriftLogSetPath(log_, path_.c_str());
    ASSERT_TRUE(DriftLogLoad(nullptr, log_));
  }
  std::string Render() {
    std::string text;
    RenderDriftReport(log_, "Universal Coordinated Time (GMT+0)", kT0 + 86'400, Collect, &text);
    return text;
  }
  std::vector<std::string> RenderLines() { return Lines(Render()); }
  // The line that starts with prefix, or "" when none.
  std::string LineStarting(const std::string& prefix) {
    for (const auto& l : RenderLines())
      if (l.rfind(prefix, 0) == 0) return l;
    return "";
  }
  bool HasLine(const std::string& line) {
    for (const auto& l : RenderLines())
      if (l == line) return true;
    return false;
  }
  // The remembered temporary reports: value name -> the path it holds.
  std::map<std::string, std::string> Temps() {
    std::map<std::string, std::string> values;
    char name[256], path[4096];
    for (std::uint32_t i = 0; reg_enum_value(reg_local(), defaults::kNotepadTempKey, name, sizeof name, path, sizeof path, nullptr, i); ++i)
      values[name] = path;
    return values;
  }
  void Remember(const char* name, const std::string& path) {
    ASSERT_EQ(reg_set_string(reg_local(), defaults::kNotepadTempKey, name, path.c_str()), 1);
  }
  // A temporary report's path as the report writer names it: "KRG<hex>.tmp" in the temporary
  // folder; n tells this process's reports apart (a random number tells them from other processes').
  static std::string TempReport(unsigned n) {
    static const unsigned run = std::random_device{}() & 0xFFFFFF;
    char name[32];
    std::snprintf(name, sizeof name, "KRG%X%X.tmp", run, n);
    return platform::TempDirectory() + name;
  }
  RegistrySandbox registry_;
  DriftLog log_;
  std::string path_;
};

TEST_F(ReportTest, WholeReportLineByLine) {
  Load({
      MakeRecord(kT0, 99, kReasonScheduled, kTen, false, 41, kMachineChronwarden, 5),
      MakeRecord(kT0 + 60, 100, kReasonControlPanel, kAddressAveraged, true, 40, kMachineChronwarden, 77),
      MakeRecord(kT0 + 120, -5000, kReasonStartup, kAddressSelf, false, 0, kMachineChronwarden),
      MakeRecord(kT0 + 180, 0, kReasonTriggered, kLan, false, 31, kMachineFullClient, 9),
      MakeRecord(kT0 + 300, -250, kReasonPowerResume, kTen, false, 41, kMachineFullClient, -3),
      MakeRecord(kT0 + 360, 1000, kReasonSyncCheck, kTen, false, 41, kMachineChronwarden),
      MakeRecord(kT0 + 420, -5000, 100, kTen, true, 41, kMachineChronwarden),
      MakeRecord(kT0 + 480, 4999, kReasonScheduled, kAddressUnresolved, false, 41, kMachineChronwarden),
  });
  ASSERT_EQ(WriteDriftReport(nullptr, log_), 0u);
  const std::string written = PathOf("host1.txt");
  const std::vector<std::string> expected = {
      "Chronwarden - Windows Time provider and drift history",
      "Keeps this machine's clock honest: every check against a time source is recorded here.",
      "Raw Data report of the drift history file",
      "",
      "------------------------------",
      "SYNCHRONIZATION SUMMARY REPORT",
      "------------------------------",
      "",
      "Report Time and Data Source:",
      "",
      "    Report timezone: Universal Coordinated Time (GMT+0)",
      "        Report date: Thu 01 Jan 2026 00:00:00 UTC",
      "      Report source: " + path_,
      "",
      "Report Data Period:",
      "",
      "        Data points: 8",
      "       Data history: 8 minutes",
      "    Earliest record: Tue 14 Nov 2023 22:13:20 UTC",
      "      Latest record: Tue 14 Nov 2023 22:21:20 UTC",
      "   Average Interval: 1 minute, 8 seconds between data points",
      "",
      "Variance Summary:",
      "",
      "     Worst negative: -5000 ms (5 seconds, 0 milliseconds fast)",
      "     Worst positive: +4999 ms (4 seconds, 999 milliseconds slow)",
      "      Worst startup: -5000 ms (5 seconds, 0 milliseconds fast at startup)",
      "    Average startup: -2625 ms (2 seconds, 625 milliseconds fast at startup)",
      "     Average of all:  -506 ms (506 milliseconds faster than time sources)",
      "",
      "Clock Corrections:",
      "",
      "    25.00% - 2 checks caused clock corrections",
      "    75.00% - 6 checks did not cause clock corrections",
      "    37.50% - 3 variances were negative",
      "    50.00% - 4 variances were positive",
      "    12.50% - 1 variances were zero",
      "",
      "Clock Discipline (6 non-startup/resume variances summarized):",
      "",
      "    33.33% - under 100 ms (1/10 second)",
      "    16.67% - 100-249 ms",
      "     0.00% - 250-499 ms",
      "     0.00% - 500-999 ms",
      "    33.33% - 1000-4999 ms",
      "    16.67% - 5 seconds or more",
      "",
      "Reason for each Check:",
      "",
      "    25.00% - 2 Scheduled",
      "    12.50% - 1 Control Panel",
      "    12.50% - 1 Triggered",
      "    12.50% - 1 Startup",
      "    12.50% - 1 Power resume",
      "    12.50% - 1 Sync Check",
      "    12.50% - 1 Other",
      "",
      "",
      "----------------------------------",
      "INDIVIDUAL SYNCHRONIZATION RECORDS",
      "----------------------------------",
      "",
      "              Check Time      Time Source  Set  PhAdj   Check Reason  Seconds Variance from Time Source (Report Source)",
      "------------------------  ---------------  ---  -----  -------------  ---------------------------------------------------",
      "Tue 14 Nov 2023 22:13:20         10.0.0.1   N      +5      Scheduled  +0.099 (Chronwarden)",
      "Tue 14 Nov 2023 22:14:20    Averaged Time   Y          Control Panel  +0.100",
      "Tue 14 Nov 2023 22:15:20             Self   N                Startup  -5.000",
      "Tue 14 Nov 2023 22:16:20      192.168.1.1   N              Triggered   0.000 (Full Client)",
      "Tue 14 Nov 2023 22:18:20         10.0.0.1   N      -3   Power resume  -0.250",
      "Tue 14 Nov 2023 22:19:20         10.0.0.1   N       0     Sync Check  +1.000 (Chronwarden)",
      "Tue 14 Nov 2023 22:20:20         10.0.0.1   Y       0        Unknown  -5.000",
      "Tue 14 Nov 2023 22:21:20          Unknown   N       0      Scheduled  +4.999",
      "",
      "--End of Report--",
  };
  const auto bytes = ReadBytes(written);
  const std::vector<std::string> actual = Lines(std::string(bytes.begin(), bytes.end()));
  for (std::size_t i = 0; i < std::max(expected.size(), actual.size()); ++i)
    EXPECT_EQ(i < actual.size() ? actual[i] : "<missing>", i < expected.size() ? expected[i] : "<extra>") << "line " << i + 1;
}

TEST_F(ReportTest, StartupOnlyLogCannotShowDiscipline) {
  Load({MakeRecord(kT0, 40, kReasonStartup), MakeRecord(kT0 + 10, -60, kReasonStartup)});
  const auto lines = RenderLines();
  const auto it = std::find(lines.begin(), lines.end(), "Clock Discipline (0 non-startup/resume variances summarized):");
  ASSERT_NE(it, lines.end());
  EXPECT_EQ(*(it + 1), "");
  EXPECT_EQ(*(it + 2), "   Unable to display: all recorded variances were marked as startup/resumes");
  EXPECT_EQ(*(it + 3), "");
  EXPECT_EQ(*(it + 4), "Reason for each Check:");
  // Startup extremes: -60 beats +40.
  EXPECT_EQ(LineStarting("      Worst startup:"), "      Worst startup: -60 ms (60 milliseconds fast at startup)");
  EXPECT_EQ(LineStarting("    Average startup:"), "    Average startup: -10 ms (10 milliseconds fast at startup)");
}

TEST_F(ReportTest, HistogramBucketEdges) {
  const std::int32_t variances[] = {99, 100, 249, 250, 499, 500, 999, 1000, 4999, 5000, -5000, -99, INT32_MIN};
  std::vector<DriftRecord> records;
  std::uint32_t t = kT0;
  for (std::int32_t v : variances) records.push_back(MakeRecord(t++, v));
  const auto s = ComputeDriftReportStats(records.data(), static_cast<std::uint32_t>(records.size()));
  EXPECT_EQ(s.buckets[0], 2u);   // 99, -99
  EXPECT_EQ(s.buckets[1], 2u);   // 100, 249
  EXPECT_EQ(s.buckets[2], 2u);   // 250, 499
  EXPECT_EQ(s.buckets[3], 2u);   // 500, 999
  EXPECT_EQ(s.buckets[4], 2u);   // 1000, 4999
  EXPECT_EQ(s.buckets[5], 3u);   // 5000, -5000, -2^31
  const auto one = [](std::int32_t v) {
    DriftRecord r = MakeRecord(kT0, v);
    return ComputeDriftReportStats(&r, 1).buckets;
  };
  EXPECT_EQ(one(100)[1], 1u);
  EXPECT_EQ(one(99)[0], 1u);
  EXPECT_EQ(one(-5000)[5], 1u);
}

TEST_F(ReportTest, SingleRecordSpansOneSecondWithNoInterval) {
  Load({MakeRecord(kT0, 7)});
  EXPECT_TRUE(HasLine("       Data history: 1 second"));
  EXPECT_TRUE(HasLine("   Average Interval: No interval between data points"));
  EXPECT_TRUE(HasLine("    Earliest record: Tue 14 Nov 2023 22:13:20 UTC"));
  EXPECT_TRUE(HasLine("      Latest record: Tue 14 Nov 2023 22:13:20 UTC"));
}

TEST_F(ReportTest, WidthComesFromTheLongestValue) {
  Load({MakeRecord(kT0, 30), MakeRecord(kT0 + 60, -10)});
  EXPECT_TRUE(HasLine("     Worst negative: -10 ms (10 milliseconds fast)"));
  EXPECT_TRUE(HasLine("     Worst positive: +30 ms (30 milliseconds slow)"));
  EXPECT_TRUE(HasLine("     Average of all: +10 ms (10 milliseconds slower than time sources)"));
  EXPECT_TRUE(HasLine("      Worst startup:  +0 ms (0 milliseconds slow at startup)"));
  EXPECT_TRUE(HasLine("    Average startup:  +0 ms (0 milliseconds slow at startup)"));
}

TEST_F(ReportTest, AllPositiveVariancesShowWorstNegativeAsPlusZero) {
  Load({MakeRecord(kT0, 5), MakeRecord(kT0 + 60, 12)});
  EXPECT_TRUE(HasLine("     Worst negative:  +0 ms (0 milliseconds fast)"));
  EXPECT_TRUE(HasLine("     Worst positive: +12 ms (12 milliseconds slow)"));
  EXPECT_TRUE(HasLine("     0.00% - 0 variances were negative"));
  EXPECT_TRUE(HasLine("   100.00% - 2 variances were positive"));
}

TEST_F(ReportTest, SourcesSelfAndAveragedTime) {
  Load({MakeRecord(kT0, 1, kReasonScheduled, kAddressSelf), MakeRecord(kT0 + 1, 1, kReasonScheduled, kAddressAveraged)});
  const auto lines = RenderLines();
  const auto first = std::find_if(lines.begin(), lines.end(), [](const std::string& l) { return l.rfind("Tue", 0) == 0; });
  ASSERT_NE(first, lines.end());
  EXPECT_EQ(first->substr(24, 17), "             Self");
  EXPECT_EQ((first + 1)->substr(24, 17), "    Averaged Time");
}

TEST_F(ReportTest, VersionFortyShowsNoPhaseAdjustment) {
  Load({MakeRecord(kT0, 1, kReasonScheduled, kTen, false, 40, kMachineChronwarden, 12),
        MakeRecord(kT0 + 1, 1, kReasonScheduled, kTen, false, 41, kMachineChronwarden, 12)});
  EXPECT_TRUE(HasLine("Tue 14 Nov 2023 22:13:20         10.0.0.1   N              Scheduled  +0.001 (Chronwarden)"));
  EXPECT_TRUE(HasLine("Tue 14 Nov 2023 22:13:21         10.0.0.1   N     +12      Scheduled  +0.001"));
}

TEST_F(ReportTest, MachineTypeShownFirstAndOnChange) {
  Load({MakeRecord(kT0, 1, 1, kTen, false, 41, 0), MakeRecord(kT0 + 1, 1, 1, kTen, false, 41, kMachineNtpServer),
        MakeRecord(kT0 + 2, 1, 1, kTen, false, 41, kMachineNtpServer), MakeRecord(kT0 + 3, 1, 1, kTen, false, 41, 2)});
  std::vector<std::string> records;
  for (const auto& l : RenderLines())
    if (l.rfind("Tue", 0) == 0) records.push_back(l);
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(records[0].find('('), std::string::npos);   // code 0: nothing shown
  EXPECT_EQ(records[1].substr(records[1].size() - 13), " (NTP Server)");
  EXPECT_EQ(records[2].find('('), std::string::npos);
  EXPECT_EQ(records[3].substr(records[3].size() - 15), " (Slave Server)");
}

TEST_F(ReportTest, NtpServerPathsNameTheReferenceClock) {
  std::filesystem::create_directories(dir_ / "NTP Server");
  Load({MakeRecord(kT0, 1)}, "NTP Server/drift.kr");
  EXPECT_NE(LineStarting("              Check Time").find("Seconds Variance from Reference Clock (Report Source)"),
            std::string::npos);
}

TEST_F(ReportTest, EmptyLogWithoutOwnerStillWritesTheFrame) {
  Load({});
  const auto lines = RenderLines();
  EXPECT_TRUE(HasLine("        Data points: 0"));
  EXPECT_TRUE(HasLine("       Data history: N/A"));
  EXPECT_TRUE(HasLine("    Earliest record: N/A"));
  EXPECT_TRUE(HasLine("      Latest record: N/A"));
  EXPECT_TRUE(HasLine("   Average Interval: No interval between data points"));
  EXPECT_FALSE(HasLine("Variance Summary:"));
  EXPECT_FALSE(HasLine("Clock Corrections:"));
  EXPECT_EQ(lines.back(), "--End of Report--");
  EXPECT_EQ(WriteDriftReport(nullptr, log_), 0u);
  EXPECT_TRUE(std::filesystem::exists(dir_ / "host1.txt"));
}

TEST_F(ReportTest, WidthLimitAndZeroFillOptions) {
  Load({MakeRecord(kT0, 12'345), MakeRecord(kT0 + 1, 1'500)});
  log_.width_limit = 4;
  auto lines = RenderLines();
  std::vector<std::string> records;
  for (const auto& l : lines)
    if (l.rfind("Tue", 0) == 0) records.push_back(l);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_NE(records[0].find("Scheduled  +.999 (Chronwarden)"), std::string::npos) << records[0];
  EXPECT_NE(records[1].find("Scheduled  +.999"), std::string::npos) << records[1];   // " 1.500" is too long too
  log_.width_limit = 0;
  log_.zero_fill = 1;
  records.clear();
  for (const auto& l : RenderLines())
    if (l.rfind("Tue", 0) == 0) records.push_back(l);
  EXPECT_NE(records[0].find("+12.345"), std::string::npos);
  EXPECT_NE(records[1].find("+01.500"), std::string::npos) << records[1];
}

TEST_F(ReportTest, ReportPathNextToTheLog) {
  EXPECT_EQ(DriftReportPathFor("D:\\logs\\host1.kr"), "D:\\logs\\host1.txt");
  EXPECT_EQ(DriftReportPathFor("D:\\logs\\host1"), "D:\\logs\\host1.txt");
  EXPECT_EQ(DriftReportPathFor("drift"), "drift.txt");
  EXPECT_EQ(DriftReportPathFor("./logs.d/drift"), "./logs.d/drift.txt");
  EXPECT_EQ(DriftReportPathFor("a.b.kr"), "a.b.txt");
  EXPECT_EQ(DriftReportPathFor(std::string(300, 'x').c_str()), std::string(251, 'x') + ".txt");
}

struct Notices {
  std::vector<std::pair<NoticeIcon, std::string>> shown;
};

DriftUi OwnerWith(Notices& n) {
  DriftUi ui;
  ui.context = &n;
  ui.notify = [](const DriftUi& u, NoticeIcon icon, const char* caption, const char* text) {
    EXPECT_STREQ(caption, "Chronwarden");
    static_cast<Notices*>(u.context)->shown.emplace_back(icon, text);
  };
  return ui;
}

TEST_F(ReportTest, NoRecordsWithAnOwnerShowsANoticeAndWritesNothing) {
  Load({});
  Notices n;
  const DriftUi owner = OwnerWith(n);
  EXPECT_EQ(WriteDriftReport(&owner, log_), 232u);
  ASSERT_EQ(n.shown.size(), 1u);
  EXPECT_EQ(n.shown[0].first, NoticeIcon::Information);
  EXPECT_EQ(n.shown[0].second, "No data points in this record; nothing to display.\r\n");
  EXPECT_TRUE(platform::fake::ViewerOpened().empty());
  EXPECT_FALSE(std::filesystem::exists(dir_ / "host1.txt"));
}

TEST_F(ReportTest, WithAnOwnerTheReportGoesToATemporaryFileThatIsOpenedAndRemembered) {
  Load({MakeRecord(kT0, 1), MakeRecord(kT0 + 60, 2)});
  Notices n;
  const DriftUi owner = OwnerWith(n);
  ASSERT_EQ(WriteDriftReport(&owner, log_), 0u);
  const auto opened = platform::fake::ViewerOpened();
  ASSERT_EQ(opened.size(), 1u);
  const std::string name = std::filesystem::path(opened[0]).filename().string();
  EXPECT_EQ(name.substr(0, 3), "KRG");
  EXPECT_TRUE(std::filesystem::exists(opened[0]));
  const auto bytes = ReadBytes(opened[0]);
  const std::string text(bytes.begin(), bytes.end());
  EXPECT_NE(text.find("        Data points: 2\r\n"), std::string::npos);
  EXPECT_EQ(Temps(), (std::map<std::string, std::string>{{"1", opened[0]}}));
  DeleteNotepadTemps();
  EXPECT_FALSE(std::filesystem::exists(opened[0]));
  EXPECT_EQ(reg_key_exists(reg_local(), defaults::kNotepadTempKey), 0);
  EXPECT_TRUE(n.shown.empty());
}

TEST_F(ReportTest, CreationFailureIsReturned) {
  DriftLogSetPath(log_, (PathOf("missing") + "/host.kr").c_str());
  log_.records.reset(new DriftRecord[2]());
  log_.records[0] = MakeRecord(kT0, 1);
  log_.record_count = 1;
  EXPECT_EQ(WriteDriftReport(nullptr, log_), 3u);
  EXPECT_EQ(WriteDriftReportFile(log_, (PathOf("missing") + "/x.txt").c_str(), "UTC"), 3u);
  EXPECT_TRUE(platform::fake::ViewerOpened().empty());
  EXPECT_EQ(reg_key_exists(reg_local(), defaults::kNotepadTempKey), 0);
}

TEST_F(ReportTest, AReportBeingWrittenCannotBeOpenedTwice) {
  Load({MakeRecord(kT0, 1)});
  const std::string out = PathOf("busy.txt");
  platform::FileHandle holder = platform::FileCreate(out, platform::kGenericWrite, 0, platform::kCreateAlways, 0);
  ASSERT_NE(holder, nullptr);
  EXPECT_EQ(WriteDriftReportFile(log_, out.c_str(), "UTC"), 32u);
  platform::FileClose(holder);
  EXPECT_EQ(WriteDriftReportFile(log_, out.c_str(), "UTC"), 0u);
}

TEST_F(ReportTest, OpenInNotepadNumbersTheListAndSkipsItOnFailure) {
  Remember("7", "earlier.txt");
  Remember("12", "later.txt");
  EXPECT_TRUE(OpenInNotepad(nullptr, "one.txt", true));
  const std::map<std::string, std::string> expected = {{"7", "earlier.txt"}, {"12", "later.txt"}, {"13", "one.txt"}};
  EXPECT_EQ(Temps(), expected);
  EXPECT_TRUE(OpenInNotepad(nullptr, "service.log", false));
  EXPECT_EQ(Temps(), expected);
  platform::fake::FailViewer(true);
  EXPECT_FALSE(OpenInNotepad(nullptr, "two.txt", true));
  EXPECT_EQ(Temps(), expected);
  int x = 0, y = 0;
  EXPECT_FALSE(platform::fake::LastViewerOrigin(x, y));
}

TEST_F(ReportTest, OpenInNotepadReadsValueNamesOfAtMost31Characters) {
  // Both enumeration orders (as written, and by name) give: 31 characters, 32 characters, "3".
  Remember((std::string(30, '0') + "5").c_str(), "five.txt");
  Remember((std::string(30, '0') + "90").c_str(), "ninety.txt");   // cannot be read: the list ends here
  Remember("3", "three.txt");
  EXPECT_TRUE(OpenInNotepad(nullptr, "new.txt", true));
  EXPECT_EQ(Temps()["6"], "new.txt");
}

TEST_F(ReportTest, DeleteNotepadTempsIgnoresMissingFilesAndForgetsTheList) {
  const std::string a = TempReport(0xA), b = TempReport(0xB);
  WriteBytes(a, {1});
  WriteBytes(b, {2});
  Remember("1", a);
  Remember("2", TempReport(0xC));                                  // gone already
  reg_set_dword(reg_local(), defaults::kNotepadTempKey, "3", 5);   // not a path: skipped
  Remember("4", b);
  DeleteNotepadTemps();
  EXPECT_FALSE(std::filesystem::exists(a));
  EXPECT_FALSE(std::filesystem::exists(b));
  EXPECT_EQ(reg_key_exists(reg_local(), defaults::kNotepadTempKey), 0);
}

TEST_F(ReportTest, DeleteNotepadTempsStopsAtTheFirstValueItCannotRead) {
  const std::string a = TempReport(0xA), b = TempReport(0xB), c = TempReport(0xC);
  for (const auto& p : {a, b, c}) WriteBytes(p, {1});
  Remember("1", a);
  Remember(std::string(40, '2').c_str(), b);   // a name too long to read
  Remember("3", c);
  DeleteNotepadTemps();
  EXPECT_FALSE(std::filesystem::exists(a));
  EXPECT_TRUE(std::filesystem::exists(b));
  EXPECT_TRUE(std::filesystem::exists(c));
  EXPECT_EQ(reg_key_exists(reg_local(), defaults::kNotepadTempKey), 0);
}

// The list lives in the registry, which others may write (on Linux, the host's group): a value
// naming anything but a temporary report of the temporary folder is forgotten, never deleted.
TEST_F(ReportTest, DeleteNotepadTempsDeletesNothingButTemporaryReports) {
  const std::string victim = PathOf("victim.txt"), elsewhere = PathOf("KRG1F.tmp");
  const std::string not_hex = platform::TempDirectory() + "KRG-victim.tmp", report = TempReport(0xD);
  for (const auto& p : {victim, elsewhere, not_hex, report}) WriteBytes(p, {1});
  Remember("1", victim);
  Remember("2", elsewhere);   // the right name in another folder
  Remember("3", not_hex);
  Remember("4", platform::TempDirectory() + "KRGAB.tmp/../" + std::filesystem::path(victim).filename().string());
  Remember("5", report);
  DeleteNotepadTemps();
  EXPECT_TRUE(std::filesystem::exists(victim));
  EXPECT_TRUE(std::filesystem::exists(elsewhere));
  EXPECT_TRUE(std::filesystem::exists(not_hex));
  EXPECT_FALSE(std::filesystem::exists(report));
  EXPECT_EQ(reg_key_exists(reg_local(), defaults::kNotepadTempKey), 0);
  std::filesystem::remove(not_hex);
}

TEST_F(ReportTest, DeleteNotepadTempsWithoutAListDoesNothing) {
  DeleteNotepadTemps();
  EXPECT_EQ(reg_key_exists(reg_local(), defaults::kNotepadTempKey), 0);
}

TEST(ReportNamesTest, ProtocolNames) {
  const std::pair<int, const char*> cases[] = {
      {0, "Kairon II UDP"},          {1, "NTP/SNTP (RFC 1769)"},    {2, "Kairon I"},
      {3, "Lan Manager (NetBIOS)"},  {4, "TIME/ITP (RFC 868) UDP"}, {5, "TIME/ITP (RFC 868) TCP"},
      {6, "Kairon over HTTP"},       {7, "Kairon II TCP"},          {8, "Daytime (RFC 867) UDP"},
      {9, "Daytime (RFC 867) TCP"},  {10, "Kairon II Client"},      {11, "ICMP Timestamp"},
      {254, "N/A"},                  {255, "selected protocol"},    {12, "specified protocol"},
      {253, "specified protocol"}};
  for (const auto& [code, text] : cases) EXPECT_STREQ(ProtocolName(static_cast<std::uint8_t>(code)), text) << code;
}

TEST(ReportNamesTest, TimeZoneTexts) {
  char buf[128];
  ReportTimeZoneText(false, buf, sizeof buf);
  EXPECT_STREQ(buf, "Universal Coordinated Time (GMT+0)");
  ReportTimeZoneText(true, buf, sizeof buf);
  const std::string local = buf;
  ASSERT_GE(local.size(), 11u);
  const std::string tail = local.substr(local.size() - 11);   // " (GMT+0100)"
  EXPECT_EQ(tail.substr(0, 5), " (GMT") << local;
  EXPECT_TRUE(tail[5] == '+' || tail[5] == '-') << local;
  EXPECT_EQ(tail.back(), ')');
}

TEST_F(ReportTest, DataPointText) {
  Load({MakeRecord(kT0, 1'500, kReasonControlPanel, kAddressSelf, true, 41, 7, -2),
        MakeRecord(kT0 + 60, -250, kReasonStartup, kAddressAveraged, false, 0),
        MakeRecord(kT0 + 120, 0, kReasonScheduled, kTen, false, 40)});
  char text[512];
  ASSERT_TRUE(DriftPointText(log_, 0, text, sizeof text));
  EXPECT_STREQ(text,
               "Check #1: Tue 14 Nov 2023 22:13:20 UTC, control panel. Variance was +1.500 seconds.\r\n"
               "Time source: 127.0.0.1. Local clock was corrected. Phase adjust was -2.");
  ASSERT_TRUE(DriftPointText(log_, 1, text, sizeof text));
  EXPECT_STREQ(text,
               "Check #2: Tue 14 Nov 2023 22:14:20 UTC, startup. Variance was -0.250 seconds.\r\n"
               "Time source: Averaged Time. Local clock was not corrected. Phase adjust was unknown.");
  ASSERT_TRUE(DriftPointText(log_, 2, text, sizeof text));
  EXPECT_STREQ(text,
               "Check #3: Tue 14 Nov 2023 22:15:20 UTC, scheduled. Variance was 0.000 seconds.\r\n"
               "Time source: 10.0.0.1. Local clock was not corrected. Phase adjust was .");
  std::strcpy(text, "untouched");
  EXPECT_FALSE(DriftPointText(log_, 3, text, sizeof text));
  EXPECT_FALSE(DriftPointText(log_, -1, text, sizeof text));
  EXPECT_STREQ(text, "untouched");
  log_.local_time = true;
  ASSERT_TRUE(DriftPointText(log_, 0, text, sizeof text));
  EXPECT_NE(std::string(text).find(FormatLocalDate(kT0)), std::string::npos);
}

TEST_F(ReportTest, LocalTimeReportUsesLocalDates) {
  Load({MakeRecord(kT0, 1)});
  log_.local_time = true;
  const std::string when = FormatLocalDate(kT0);
  EXPECT_TRUE(HasLine("    Earliest record: " + when));
  std::string record_line;
  for (const auto& l : RenderLines())
    if (l.find("Scheduled  +0.001") != std::string::npos) record_line = l;
  char expected[32];
  std::snprintf(expected, sizeof expected, "%24s", when.c_str());
  EXPECT_EQ(record_line.substr(0, 24), std::string(expected).substr(0, 24));
}

}  // namespace

// The record lines are built without printf; the printf formats they stand for give the same bytes
// for any record: times from 1970 to past 2038, every variance from INT32_MIN to INT32_MAX, every
// address, flag, version and reason, in UTC and in local time, with and without the column's
// width limit and zero fill.
namespace {

std::string ReferenceRecordLines(const DriftLog& log, const DriftRecord* records, std::uint32_t count, int width) {
  std::string out;
  std::uint8_t last_type = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    const DriftRecord& r = records[i];
    std::string when = log.local_time ? FormatLocalDate(r.check_time) : FormatUtcDate(r.check_time);
    if (!log.local_time && when.size() >= 4) when.resize(when.size() - 4);
    const std::int64_t v = r.variance_ms;
    char number[64];
    std::snprintf(number, sizeof number, "%*.3f", width, static_cast<double>(v < 0 ? -v : v) / 1000.0);
    std::string seconds = number;
    if (log.width_limit && seconds.size() > log.width_limit) {
      for (char& c : seconds)
        if (c != '.') c = '9';
      seconds.erase(0, seconds.size() - log.width_limit);
    }
    if (log.zero_fill && !seconds.empty() && seconds[0] == ' ')
      for (std::size_t k = 0; k < seconds.size() && seconds[k] == ' '; ++k) seconds[k] = '0';
    char phase[16] = "";
    if (r.version >= kDriftRecordVersion) {
      const std::int32_t p = DriftPhaseAdjustment(r);
      std::snprintf(phase, sizeof phase, "%s%d", p > 0 ? "+" : "", p);
    }
    char line[512];
    std::snprintf(line, sizeof line, "%24s  %15s  %s  %5s  %13s  %s%s", when.c_str(), DriftSourceName(r.address).c_str(),
                  DriftClockSet(r) ? " Y " : " N ", phase, CheckReasonName(r.reason), v < 0 ? "-" : v == 0 ? " " : "+",
                  seconds.c_str());
    out += line;
    if (const std::uint8_t type = DriftMachineType(r); type != last_type) {
      out += std::string(" (") + MachineTypeName(type) + ")";
      last_type = type;
    }
    out += "\r\n";
  }
  return out;
}

}  // namespace

TEST_F(ReportTest, RecordLinesAreTheBytesOfTheirPrintfFormats) {
  std::uint64_t seed = 0x9E3779B97F4A7C15ULL;
  const auto next = [&] { return seed = seed * 6364136223846793005ULL + 1442695040888963407ULL, std::uint32_t(seed >> 32); };
  constexpr std::uint32_t kCount = 4000;
  std::vector<DriftRecord> records(kCount);
  const std::int32_t extremes[] = {0, 1, -1, 999, -1000, 1001, INT32_MAX, INT32_MIN, 123456789, -99999};
  const std::uint32_t addresses[] = {0, 0xFFFFFFFFu, kAddressSelf, kAddressAveraged, kTen, kLan, 0x01020304};
  for (std::uint32_t i = 0; i < kCount; ++i) {
    DriftRecord& r = records[i];
    r = MakeRecord(i < 100 ? i * 86'399 : i % 97 == 0 ? 0x80000000u + next() % 1000 : next(), 0);
    r.variance_ms = i % 3 == 0 ? extremes[i % 10] : static_cast<std::int32_t>(next());
    r.address = i % 2 ? addresses[i % 7] : next();
    r.flags = static_cast<std::uint8_t>(next());
    constexpr std::uint8_t kReasons[] = {1, 2, 3, 4, 5, 8, 9, 255, 253, 254, 7, 6};
    r.reason = i % 5 == 0 ? static_cast<std::uint8_t>(next()) : kReasons[i % 12];
    r.version = static_cast<std::uint8_t>(i % 4 == 0 ? next() : kDriftRecordVersion);
    const std::uint32_t phase = next();
    std::memcpy(r.phase, &phase, sizeof r.phase);
  }
  const auto rendered = [&](DriftLog& log) {
    log.records.reset(new DriftRecord[kCount]);
    std::copy(records.begin(), records.end(), log.records.get());
    log.record_count = kCount;
    std::string text;
    RenderDriftReport(log, "zone", kT0, Collect, &text);
    const auto from = text.find("---\r\n", text.find("Check Time")) + 5;
    return text.substr(from, text.find("\r\n--End of Report--") - from);
  };
  std::int64_t largest = 0;
  for (const auto& r : records) largest = std::max<std::int64_t>(largest, std::abs(std::int64_t(r.variance_ms)));
  char text[64];
  std::snprintf(text, sizeof text, "%.3f", static_cast<double>(largest) / 1000.0);
  for (const bool local : {false, true})
    for (const std::uint32_t limit : {0u, 6u})
      for (const std::uint32_t fill : {0u, 1u}) {
        DriftLog log;
        log.local_time = local;
        log.width_limit = limit;
        log.zero_fill = fill;
        const int width = std::max(static_cast<int>(limit), static_cast<int>(std::strlen(text)));
        EXPECT_EQ(rendered(log), ReferenceRecordLines(log, records.data(), kCount, width))
            << "local " << local << " limit " << limit << " fill " << fill;
      }
}
