// The sheet process end to end, as its front end meets it: a person played through the line
// protocol against the real `chronwarden applet --stdio`, on a machine root of the test's own.
// The machine "localhost" is a machine root under a network root of the test's own; its name reaches
// chronyd -x on 127.0.0.1 (the tests' NTP peer), and its time service is a stand-in program run by
// Chronwarden's supervisor.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "resources/resource_ids.h"
#include "tests/posix/sheet_process.h"

namespace fs = std::filesystem;
using json = nlohmann::json;

namespace {

constexpr const char* kProviderKey = "\\\\System\\CurrentControlSet\\Services\\W32Time\\TimeProviders\\Chronwarden";

class SheetProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("cw-sheet-" + std::to_string(::getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_ / "root");
    fs::create_directories(dir_ / "net" / "localhost");
    Env("CHRONWARDEN_ROOT", (dir_ / "root").string());
    Env("CHRONWARDEN_NETWORK_ROOT", (dir_ / "net").string());
    Env("CHRONWARDEN_SERVICE_BACKEND", "supervisor");
    Env("CHRONWARDEN_HOST", CHRONWARDEN_SOURCE_DIR "/tests/stand-in-service.sh");
    Env("CHRONWARDEN_MODULE", W32TMKR_PATH);
    Env("TZ", "UTC");
    ASSERT_EQ(Run("install --machine localhost --quiet"), 0);
    // One server, on the loopback: nothing is asked of any other machine.
    ASSERT_EQ(Run("config set sync_type=NTP ntp_client_enabled=1 server1=127.0.0.1 server2= --machine localhost --no-apply"), 0);
  }
  void TearDown() override {
    Run("service stop --machine localhost");
    for (auto& [name, value] : saved_) {
      if (value) ::setenv(name.c_str(), value->c_str(), 1);
      else ::unsetenv(name.c_str());
    }
    fs::remove_all(dir_);
  }
  void Env(const std::string& name, const std::string& value) {
    const char* old = std::getenv(name.c_str());
    saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
    ::setenv(name.c_str(), value.c_str(), 1);
  }
  // chronwarden with arguments (a shell's words); its exit code. Output goes to out when given.
  int Run(const std::string& args, std::string* out = nullptr) {
    const fs::path file = dir_ / "run.out";
    const std::string cmd = std::string("\"") + CHRONWARDEN_CLI_PATH + "\" " + args + " >\"" + file.string() + "\" 2>&1 </dev/null";
    const int status = std::system(cmd.c_str());
    if (out) {
      std::ifstream in(file);
      out->assign(std::istreambuf_iterator<char>(in), {});
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // A front end goes away (end) with an unapplied server typed, once with a question open: the
  // sheet is cancelled within a second and nothing was applied.
  void ExpectCleanEndWhenTheFrontEndGoes(bool with_question, const std::function<void(SheetProcess&)>& end);
  json ConfigShow() {
    std::string out;
    EXPECT_EQ(Run("config show --json --machine localhost", &out), 0);
    return json::parse(out, nullptr, false);
  }
  static std::function<bool(const json&)> Text(const std::string& text) {
    return [text](const json& c) { return c.value("text", "") == text; };
  }
  static std::function<bool(const json&)> TextHas(const std::string& part) {
    return [part](const json& c) { return c.value("text", "").find(part) != std::string::npos; };
  }
  static std::function<bool(const json&)> Enabled() {
    return [](const json& c) { return c.value("enabled", false) && c.value("visible", false); };
  }
  // The page index of a tab by its title.
  static int PageOf(const json& sheet, const std::string& title) {
    for (const auto& p : sheet["pages"])
      if (p["title"] == title) return p["window"].get<int>();
    return -1;
  }

  fs::path dir_;
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

std::vector<std::string> Sheet() { return {"applet", "--machine", "localhost", "--stdio"}; }

}  // namespace

TEST_F(SheetProcessTest, SendsTheFivePagesTheirTemplatesAndTheVersionLine) {
  SheetProcess p(Sheet());
  const json sheet = p.NextEvent("sheet");
  ASSERT_FALSE(sheet.is_null());
  EXPECT_EQ(sheet["title"], "Windows Time Service - LOCALHOST");
  std::vector<std::string> titles;
  for (const auto& page : sheet["pages"]) titles.push_back(page["title"]);
  EXPECT_EQ(titles, (std::vector<std::string>{"Client", "Server", "Agent", "Service", "About"}));
  const json& client = sheet["pages"][0];
  EXPECT_EQ(client["template"], IDD_CLIENT);
  EXPECT_EQ(sheet["base_units"], json({{"x", 6}, {"y", 13}}));
  bool has_server1 = false;
  for (const auto& c : client["controls"])
    if (c.value("id", 0) == IDC_SERVER1)
      has_server1 = c["kind"] == "edit" && c["x"] == 14 && c["y"] == 126 && c["w"] == 130 && c["h"] == 12;
  EXPECT_TRUE(has_server1);
  // The first page's full state: the version line is the title text.
  ASSERT_TRUE(p.WaitControl(0, IDC_TITLE, TextHas("Chronwarden Version ")));
  EXPECT_EQ(p.Control(0, IDC_SERVER1)["text"], "127.0.0.1");
  p.CloseInput();
  EXPECT_EQ(p.WaitExit(5000), 0);
}

TEST_F(SheetProcessTest, ASecondServerWithItsModeIsAppliedToTheRegistry) {
  SheetProcess p(Sheet());
  ASSERT_FALSE(p.NextEvent("sheet").is_null());
  ASSERT_TRUE(p.WaitControl(0, IDC_SERVER2, Enabled()));
  p.Send({{"do", "type"}, {"window", 0}, {"id", IDC_SERVER2}, {"text", "ntp2.example"}});
  ASSERT_TRUE(p.WaitControl(0, IDC_MODE2, Enabled()));
  ASSERT_GE(p.Control(0, IDC_MODE2)["items"].size(), 4u);
  p.Send({{"do", "choose"}, {"window", 0}, {"id", IDC_MODE2}, {"index", 3}});
  ASSERT_FALSE(p.Next([](const json& m) { return m.value("event", "") == "sheet_state" && m["apply_enabled"] == true; }).is_null());
  p.Send({{"do", "apply"}});
  ASSERT_FALSE(p.Next([](const json& m) { return m.value("event", "") == "sheet_state" && m["apply_enabled"] == false; }).is_null());
  const json config = ConfigShow();
  ASSERT_EQ(config["servers"].size(), 2u);
  EXPECT_EQ(config["servers"][1]["name"], "ntp2.example");
  EXPECT_EQ(config["servers"][1]["flags"], 0x8);
  p.Send({{"do", "ok"}});
  EXPECT_EQ(p.NextEvent("end")["result"], 1);
  EXPECT_EQ(p.WaitExit(5000), 0);
}

TEST_F(SheetProcessTest, SyncNowAsksToApplyFirstAndCancelChangesNothing) {
  SheetProcess p(Sheet());
  ASSERT_FALSE(p.NextEvent("sheet").is_null());
  ASSERT_TRUE(p.WaitControl(0, IDC_SYNC_NOW, Enabled()));
  p.Send({{"do", "type"}, {"window", 0}, {"id", IDC_SERVER2}, {"text", "unapplied.example"}});
  p.Send({{"do", "click"}, {"window", 0}, {"id", IDC_SYNC_NOW}});
  const json box = p.NextEvent("box");
  ASSERT_FALSE(box.is_null());
  EXPECT_EQ(box["caption"], "Chronwarden");
  EXPECT_EQ(box["icon"], "question");
  ASSERT_EQ(box["buttons"].size(), 3u);
  // While the question waits, the sheet takes nothing else.
  p.Send({{"do", "apply"}});
  EXPECT_EQ(p.NextEvent("error")["message"], "a question is waiting for its answer");
  p.Send({{"do", "answer"}, {"question", box["question"]}, {"answer", 2}});
  p.Send({{"do", "cancel"}});
  EXPECT_EQ(p.NextEvent("end")["result"], 0);
  EXPECT_EQ(p.WaitExit(5000), 0);
  EXPECT_EQ(ConfigShow()["servers"].size(), 1u);
}

TEST_F(SheetProcessTest, ClearHistoryAsksThenEmptiesTheListAndTheDriftFile) {
  // One source in the list, one check in the history.
  std::string hex(1024, '0');
  hex.replace(63 * 16, 16, "7f000001" "00e1f505");   // 127.0.0.1 at 100,000,000 s
  ASSERT_EQ(Run(std::string("reg set '") + kProviderKey + "' 'Last Used Time Source' --type binary --data " + hex +
                " --machine localhost"), 0);
  const fs::path drift = dir_ / "net" / "localhost" / "system32" / "drift.kr";
  ASSERT_EQ(Run("history append \"" + drift.string() + "\" --variance 12 --time 100000000"), 0);
  SheetProcess p(Sheet());
  const json sheet = p.NextEvent("sheet");
  const int agent = PageOf(sheet, "Agent");
  ASSERT_GE(agent, 0);
  p.Send({{"do", "tab"}, {"page", agent}});
  ASSERT_TRUE(p.WaitControl(agent, IDC_CLEAR_HISTORY, Enabled()));
  EXPECT_EQ(p.Control(agent, IDC_HISTORY)["items"].size(), 1u);
  p.Send({{"do", "click"}, {"window", agent}, {"id", IDC_CLEAR_HISTORY}});
  const json box = p.NextEvent("box");
  ASSERT_FALSE(box.is_null());
  p.Send({{"do", "answer"}, {"question", box["question"]}, {"answer", 6}});
  ASSERT_TRUE(p.WaitControl(agent, IDC_HISTORY, [](const json& c) { return c["items"].empty(); }));
  EXPECT_FALSE(p.Control(agent, IDC_CLEAR_HISTORY)["enabled"].get<bool>());
  EXPECT_EQ(fs::file_size(drift), 0u);
  p.Send({{"do", "cancel"}});
  EXPECT_EQ(p.WaitExit(5000), 0);
}

TEST_F(SheetProcessTest, TheGraphWindowSendsItsPictureAndDescribesTheClickedCheck) {
  const fs::path drift = dir_ / "net" / "localhost" / "system32" / "drift.kr";
  for (int i = 0; i < 10; ++i)
    ASSERT_EQ(Run("history append \"" + drift.string() + "\" --variance 0 --time " + std::to_string(1'700'000'000 + i * 600)), 0);
  SheetProcess p(Sheet());
  const json sheet = p.NextEvent("sheet");
  const int agent = PageOf(sheet, "Agent");
  p.Send({{"do", "tab"}, {"page", agent}});
  ASSERT_TRUE(p.WaitControl(agent, IDC_SHOW_GRAPH, Enabled()));
  p.Send({{"do", "click"}, {"window", agent}, {"id", IDC_SHOW_GRAPH}});
  const json open = p.NextEvent("open");
  ASSERT_FALSE(open.is_null());
  EXPECT_EQ(open["template"], IDD_GRAPH);
  const int graph = open["window"];
  const json picture = p.NextEvent("picture");
  ASSERT_FALSE(picture.is_null());
  EXPECT_EQ(picture["window"], graph);
  EXPECT_EQ(picture["id"], IDC_GRAPH_PLOT);
  EXPECT_EQ(picture["svg"].get<std::string>().rfind("<?xml", 0), 0u);
  // A person moves along the zero line until the hand shows over a point, and clicks there. Each
  // move is followed by a line the sheet refuses, whose error marks that the move was handled.
  int plot_x = 0, plot_y = 0, plot_w = 0, plot_h = 0;
  for (const auto& c : open["controls"])
    if (c.value("id", 0) == IDC_GRAPH_PLOT)
      plot_x = c["x"].get<int>() * 6 / 4, plot_y = c["y"].get<int>() * 13 / 8, plot_w = c["w"].get<int>() * 6 / 4,
      plot_h = c["h"].get<int>() * 13 / 8;
  ASSERT_GT(plot_w, 0);
  int hit_x = -1, hit_y = -1;
  for (int dy = -3; dy <= 3 && hit_x < 0; ++dy)
    for (int x = plot_x; x < plot_x + plot_w && hit_x < 0; x += 2) {
      p.Send({{"do", "mouse"}, {"window", graph}, {"x", x}, {"y", plot_y + plot_h / 2 + dy}});
      p.Send({{"do", "tab"}, {"page", 99}});
      for (json m; !(m = p.Next([](const json& e) { return e.value("event", "") == "window" || e.value("event", "") == "error"; })).is_null();) {
        if (m["event"] == "error") break;
        if (m.value("cursor", "") == "hand") hit_x = x, hit_y = plot_y + plot_h / 2 + dy;
      }
    }
  ASSERT_GE(hit_x, 0) << "no point under the mouse along the zero line";
  p.Send({{"do", "mouse"}, {"window", graph}, {"x", hit_x}, {"y", hit_y}, {"click", true}});
  ASSERT_TRUE(p.WaitControl(graph, IDC_GRAPH_DESCRIPTION, TextHas("Check #")));
  const std::string description = p.Control(graph, IDC_GRAPH_DESCRIPTION)["text"];
  EXPECT_NE(description.find("2023"), std::string::npos) << description;
  EXPECT_NE(description.find("Variance was 0.000 seconds."), std::string::npos) << description;
  p.Send({{"do", "close"}, {"window", graph}});
  EXPECT_EQ(p.NextEvent("close")["window"], graph);
  p.Send({{"do", "cancel"}});
  EXPECT_EQ(p.WaitExit(5000), 0);
}

TEST_F(SheetProcessTest, BadInputGetsAnErrorLineAndChangesNothing) {
  SheetProcess p(Sheet());
  ASSERT_FALSE(p.NextEvent("sheet").is_null());
  ASSERT_TRUE(p.WaitControl(0, IDC_SERVER2, Enabled()));
  const std::pair<std::string, std::string> cases[] = {
      {"not json\n", "not a JSON object: expected '{' at byte 1"},
      {"{\"do\":\"click\",\"id\":1,\"id\":2}\n", "not a JSON object: a key given twice at byte 28"},
      {"{\"id\":5}\n", "the message needs \"do\""},
      {"{\"do\":\"jump\"}\n", "unknown action"},
      {"{\"do\":\"click\",\"window\":42,\"id\":1}\n", "no such window"},
      {"{\"do\":\"click\",\"window\":0,\"id\":999999}\n", "no such control"},
      {"{\"do\":\"type\",\"window\":0,\"id\":" + std::to_string(IDC_SERVER2) + "}\n", "typing needs \"text\""},
      {"{\"do\":\"type\",\"window\":0,\"id\":" + std::to_string(IDC_SPECIAL_INTERVAL) + ",\"text\":\"12a\"}\n",
       "only digits can be typed in this box"},
      {"{\"do\":\"tab\",\"page\":9}\n", "no such page"},
      {"{\"do\":\"apply\"}\n", "Apply is not enabled"},
      {"{\"do\":\"answer\",\"question\":1,\"answer\":6}\n", "no such question is waiting"},
      {std::string(70000, ' ') + "x\n", "the line is longer than 65536 bytes"},
  };
  for (const auto& [line, message] : cases) {
    p.SendRaw(line);
    const json e = p.NextEvent("error");
    EXPECT_EQ(e["message"], message) << line.substr(0, 80);
  }
  EXPECT_FALSE(p.Sheet()["changed"].get<bool>());
  p.Send({{"do", "ok"}});
  EXPECT_EQ(p.WaitExit(5000), 0);
  EXPECT_EQ(ConfigShow()["servers"].size(), 1u);
}

void SheetProcessTest::ExpectCleanEndWhenTheFrontEndGoes(bool with_question,
                                                         const std::function<void(SheetProcess&)>& end) {
  SheetProcess p(Sheet());
  ASSERT_FALSE(p.NextEvent("sheet").is_null());
  ASSERT_TRUE(p.WaitControl(0, IDC_SYNC_NOW, [](const json& c) { return c.value("enabled", false); }));
  p.Send({{"do", "type"}, {"window", 0}, {"id", IDC_SERVER2}, {"text", "never.example"}});
  ASSERT_FALSE(p.Next([](const json& m) { return m.value("event", "") == "sheet_state" && m["changed"] == true; }).is_null());
  if (with_question) {
    p.Send({{"do", "click"}, {"window", 0}, {"id", IDC_SYNC_NOW}});
    ASSERT_FALSE(p.NextEvent("box").is_null());
  }
  end(p);
  EXPECT_EQ(p.NextEvent("end")["result"], 0);
  EXPECT_EQ(p.WaitExit(1000), 0);
  EXPECT_EQ(ConfigShow()["servers"].size(), 1u);
}

TEST_F(SheetProcessTest, ALostFrontEndCancelsWithinASecondLeavingNothingHalfApplied) {
  ExpectCleanEndWhenTheFrontEndGoes(false, [](SheetProcess& p) { p.CloseInput(); });
}

TEST_F(SheetProcessTest, SigtermWhileAQuestionWaitsEndsTheSheetCleanly) {
  ExpectCleanEndWhenTheFrontEndGoes(true, [](SheetProcess& p) { ::kill(p.Pid(), SIGTERM); });
}

TEST_F(SheetProcessTest, WithoutStdioTheCommandLineIsWrong) {
  EXPECT_EQ(Run("applet"), 2);
  EXPECT_EQ(Run("applet --stdio --bogus"), 2);
  std::string out;
  EXPECT_EQ(Run("applet --help", &out), 0);
  EXPECT_NE(out.find("Usage: chronwarden applet [--machine NAME] --stdio"), std::string::npos);
}

// Test Server on the Server page, judged by the Client page's status of the machine "localhost",
// whose NTP server is chronyd -x on 127.0.0.1.
TEST_F(SheetProcessTest, NtpTestServerJudgesTheServedTimeAgainstChronyd) {
  SheetProcess p(Sheet());
  const json sheet = p.NextEvent("sheet");
  ASSERT_TRUE(p.WaitControl(0, IDC_STATUS_TEXT, Text("Clock synchronized to within 1 second"), 30))
      << p.Control(0, IDC_STATUS_TEXT) << p.Control(0, IDC_VARIANCE1);
  const int server = PageOf(sheet, "Server");
  p.Send({{"do", "tab"}, {"page", server}});
  ASSERT_TRUE(p.WaitControl(server, IDC_SERVE_ENABLED, Enabled()));
  p.Send({{"do", "click"}, {"window", server}, {"id", IDC_SERVE_ENABLED}});
  ASSERT_TRUE(p.WaitControl(server, IDC_TEST_SERVER, Enabled()));
  p.Send({{"do", "click"}, {"window", server}, {"id", IDC_TEST_SERVER}});
  ASSERT_TRUE(p.WaitControl(server, IDC_TEST_RESULT, TextHas("The time being served appears relatively accurate."), 30))
      << p.Control(server, IDC_TEST_RESULT);
  p.Send({{"do", "cancel"}});
  EXPECT_EQ(p.WaitExit(5000), 0);
}
