// The in-memory dialogs behave as the system's do where window logic relies on it.
#include <gtest/gtest.h>

#include <thread>

#include "platform/dialog_memory.h"
#include "resources/resources.h"

using namespace platform;

namespace {

struct Recorder : DialogLogic {
  std::vector<std::pair<int, int>> commands;
  std::vector<std::uint32_t> messages;
  bool init(Dialog& d) override {
    d.SetText(IDC_SPECIAL_INTERVAL, "5");
    return true;
  }
  bool command(Dialog&, int id, int code) override {
    commands.emplace_back(id, code);
    return true;
  }
  std::intptr_t message(Dialog& d, std::uint32_t msg, std::uintptr_t, std::intptr_t lparam) override {
    messages.push_back(msg);
    if (msg == CW_MSG_WORK_DONE) d.End(lparam);
    return 0;
  }
};

struct DialogTest : ::testing::Test {
  void SetUp() override {
    resources::RegisterDialogs();
    UseMemoryDialogs(true);
    memory_ui::Reset();
  }
  void TearDown() override {
    memory_ui::Reset();
    UseMemoryDialogs(false);
  }
};

TEST_F(DialogTest, EveryTemplateIsDescribedWithItsSize) {
  for (int id : {IDD_CLIENT, IDD_SERVER, IDD_AGENT, IDD_SERVICE, IDD_CLIENT_W2K, IDD_WAIT, IDD_ABOUT, IDD_GRAPH})
    ASSERT_NE(FindDialogDescription(id), nullptr) << id;
  const DialogDesc* about = FindDialogDescription(IDD_ABOUT);
  EXPECT_STREQ(about->title, "About");
  EXPECT_EQ(about->w, 330);
  EXPECT_EQ(about->h, 286);
  EXPECT_STREQ(about->face, "MS Shell Dlg");
  EXPECT_EQ(about->points, 8);
  EXPECT_EQ(FindDialogDescription(IDD_GRAPH)->w, 438);
  EXPECT_EQ(FindDialogDescription(IDD_AGENT)->h, 286);
  EXPECT_EQ(FindDialogDescription(12345), nullptr);
}

TEST_F(DialogTest, SettingAnEditNotifiesAsTheSystemDoes) {
  Recorder logic;
  MemoryDialog d(*FindDialogDescription(IDD_CLIENT), logic);
  d.Start();
  EXPECT_EQ(d.Text(IDC_SPECIAL_INTERVAL), "5");
  ASSERT_EQ(logic.commands.size(), 2u);
  EXPECT_EQ(logic.commands[0], std::make_pair(IDC_SPECIAL_INTERVAL, kEnUpdate));
  EXPECT_EQ(logic.commands[1], std::make_pair(IDC_SPECIAL_INTERVAL, kEnChange));
  logic.commands.clear();
  d.SetText(IDC_STATUS_TEXT, "x");   // a static sends nothing
  EXPECT_TRUE(logic.commands.empty());
}

TEST_F(DialogTest, RadioButtonsOfAGroupExcludeEachOther) {
  Recorder logic;
  MemoryDialog d(*FindDialogDescription(IDD_SERVER), logic);
  d.Start();
  EXPECT_TRUE(d.Click(IDC_SERVE_ENABLED));
  d.Click(IDC_RELIABLE_ALWAYS);
  EXPECT_TRUE(d.Click(IDC_SERVE_AUTO));
  EXPECT_FALSE(d.Checked(IDC_SERVE_ENABLED));
  EXPECT_TRUE(d.Checked(IDC_SERVE_AUTO));
  EXPECT_TRUE(d.Checked(IDC_RELIABLE_ALWAYS));   // another group
  d.Click(IDC_NET_TIME);
  EXPECT_TRUE(d.Checked(IDC_NET_TIME));
  d.Click(IDC_NET_TIME);
  EXPECT_FALSE(d.Checked(IDC_NET_TIME));
  d.Enable(IDC_TEST_SERVER, false);
  EXPECT_FALSE(d.Click(IDC_TEST_SERVER));
  EXPECT_FALSE(d.Click(4242));
}

TEST_F(DialogTest, NumbersReadAsGetDlgItemIntDoes) {
  Recorder logic;
  MemoryDialog d(*FindDialogDescription(IDD_AGENT), logic);
  d.Start();
  bool ok = true;
  d.SetText(IDC_INTERVAL, "");
  EXPECT_EQ(d.Number(IDC_INTERVAL, &ok), 0u);
  EXPECT_FALSE(ok);
  d.SetText(IDC_INTERVAL, "  30");
  EXPECT_EQ(d.Number(IDC_INTERVAL, &ok), 30u);
  EXPECT_TRUE(ok);
  d.SetText(IDC_INTERVAL, "4294967296");
  EXPECT_EQ(d.Number(IDC_INTERVAL, &ok), 0u);
  EXPECT_FALSE(ok);
  d.SetNumber(IDC_INTERVAL, 4294967295u);
  EXPECT_EQ(d.Number(IDC_INTERVAL, &ok), 4294967295u);
}

TEST_F(DialogTest, ListsScrollBarsProgressAndClassCursors) {
  Recorder logic;
  MemoryDialog d(*FindDialogDescription(IDD_GRAPH), logic);
  d.Start();
  EXPECT_EQ(d.AddItem(IDC_GRAPH_SCALE, "Auto", 0), 0);
  EXPECT_EQ(d.AddItem(IDC_GRAPH_SCALE, "10x", 10), 1);
  d.Choose(IDC_GRAPH_SCALE, 1);
  EXPECT_EQ(d.ItemData(IDC_GRAPH_SCALE, d.Selection(IDC_GRAPH_SCALE)), 10);
  EXPECT_EQ(logic.commands.back(), std::make_pair(IDC_GRAPH_SCALE, kCbnSelChange));
  d.SetScrollRange(IDC_GRAPH_SCROLL, 0, 36);
  d.SetScrollPos(IDC_GRAPH_SCROLL, 99);
  EXPECT_EQ(d.Scroll(IDC_GRAPH_SCROLL).pos, 36);
  DlgRect r = d.ControlRect(IDC_GRAPH_PLOT);
  EXPECT_GT(r.right - r.left, 600);

  MemoryDialog w(*FindDialogDescription(IDD_WAIT), logic);
  w.Start();
  w.SetProgressRange(IDC_PROGRESS, 0, 30, 3);
  w.StepProgress(IDC_PROGRESS);
  w.StepProgress(IDC_PROGRESS);
  EXPECT_EQ(w.Progress(IDC_PROGRESS), 6);

  MemoryDialog about(*FindDialogDescription(IDD_ABOUT), logic);
  about.Start();
  about.SetClassCursor(IDC_LINK, IDC_CW_LINK);
  EXPECT_EQ(about.ClassCursor(IDC_LINK), IDC_CW_LINK);
  EXPECT_EQ(about.Icon(-1), 0);
}

TEST_F(DialogTest, AModalWindowEndsOnAMessagePostedFromAnotherThread) {
  struct Worker : Recorder {
    std::thread t;
    bool init(Dialog& d) override {
      t = std::thread([&d] { d.Post(CW_MSG_WORK_DONE, 0, 7); });
      return true;
    }
  } logic;
  EXPECT_EQ(RunModalDialog(IDD_WAIT, nullptr, logic), 7);
  logic.t.join();
  EXPECT_EQ(logic.messages, std::vector<std::uint32_t>{CW_MSG_WORK_DONE});
}

TEST_F(DialogTest, MessageBoxesAnswerFromTheQueueThenTheFirstButton) {
  memory_ui::AnswerNext(kIdNo);
  EXPECT_EQ(ShowMessageBox(nullptr, "q?", "Chronwarden", kMbYesNo), kIdNo);
  EXPECT_EQ(ShowMessageBox(nullptr, "q?", "Chronwarden", kMbYesNoCancel), kIdYes);
  EXPECT_EQ(ShowMessageBox(nullptr, "n", "Chronwarden", 0), kIdOk);
  ASSERT_EQ(memory_ui::Boxes().size(), 3u);
  EXPECT_EQ(memory_ui::Boxes()[0].text, "q?");
}

TEST_F(DialogTest, SheetPagesAreMadeWhenFirstShown) {
  Recorder a, b;
  SheetPage pages[] = {{IDD_SERVER, &a}, {IDD_ABOUT, &b}};
  MemorySheet sheet(SheetSpec{"Chronwarden", pages});
  ASSERT_TRUE(sheet.Start());
  EXPECT_EQ(sheet.title, "Chronwarden");
  EXPECT_TRUE(sheet.Show(1));
  sheet.Page(1).SetSheetTitle("T");
  EXPECT_EQ(sheet.title, "T");
  sheet.Page(0).SetSheetChanged(true);
  EXPECT_TRUE(sheet.Page(1).SheetChanged());
  EXPECT_TRUE(sheet.Apply(true));
  EXPECT_EQ(sheet.Result(), 1);
}

}  // namespace
