// The drift graph: scales, texts, layout and markers against a recording canvas; paging, picking,
// following the file and the window's controls through the in-memory dialog.
#include <gtest/gtest.h>

#include <algorithm>

#include "drift/drift_graph.h"
#include "drift/drift_graph_window.h"
#include "tests/drift_test_util.h"
#include "platform/dialog_memory.h"
#include "platform/file_chooser.h"
#include "platform/recording_canvas.h"
#include "resources/resources.h"

using platform::DrawCall;
using platform::DrawOp;
using platform::RecordingCanvas;
namespace colour = graph_colour;

namespace {

constexpr std::uint32_t kStart = 1'700'000'000;

// "<prefix><n>.kr" (built step by step: the operator+ chain trips a false warning of GCC 12).
std::string Name(const char* prefix, std::uint32_t n) {
  std::string name = prefix;
  name += std::to_string(n);
  name += ".kr";
  return name;
}

std::vector<DriftRecord> Records(std::uint32_t count, std::int32_t variance = 10) {
  std::vector<DriftRecord> records;
  for (std::uint32_t i = 0; i < count; ++i) records.push_back(MakeRecord(kStart + i * 600, variance));
  return records;
}

class DriftGraphTest : public DriftFolderTest {
 protected:
  void SetUp() override {
    DriftFolderTest::SetUp();
    platform::UseMemoryDialogs(true);
    resources::RegisterDialogs();
    platform::memory_ui::Reset();
    platform::memory_file_chooser::Reset();
  }
  void TearDown() override {
    platform::memory_ui::Reset();
    platform::memory_file_chooser::Reset();
    platform::UseMemoryDialogs(false);
    DriftFolderTest::TearDown();
  }
  // Writes the records to name and loads them as the window does (newest in view).
  DriftLog& Load(const std::vector<DriftRecord>& records, const std::string& name = "g.kr") {
    WriteBytes(PathOf(name), RecordBytes(records));
    DriftLogReset(log_);
    DriftLogSetPath(log_, PathOf(name).c_str());
    log_.follow_newest = true;
    EXPECT_TRUE(DriftLogLoad(nullptr, log_));
    return log_;
  }
  void Append(const std::vector<DriftRecord>& records, const std::string& name = "g.kr") {
    auto bytes = ReadBytes(PathOf(name));
    const auto more = RecordBytes(records);
    bytes.insert(bytes.end(), more.begin(), more.end());
    WriteBytes(PathOf(name), bytes);
  }
  // Opens the window on name; the in-memory dialog it runs in.
  platform::MemoryDialog* Open(const std::string& name = "g.kr", std::uint32_t allow_open = 0) {
    auto* d = OpenDriftGraph(nullptr, nullptr, false, allow_open, dir_.string().c_str(), PathOf(name).c_str());
    return dynamic_cast<platform::MemoryDialog*>(d);
  }
  static platform::ControlDrawing Redraw(platform::MemoryDialog& d) {
    d.Send(kGraphRedrawMessage, 0, 0);
    return platform::LastControlDrawing();
  }
  // The plot's origin in the window.
  static platform::DlgPoint PlotOrigin(platform::MemoryDialog& d) {
    const auto r = d.ControlRect(IDC_GRAPH_PLOT);
    return {r.left, r.top};
  }
  DriftLog log_;
};

// Marker boxes are (x - 2, y - 3, x + 2, y + 3): the point is the box's centre.
std::pair<int, int> PointOf(const DrawCall& marker) { return {marker.box.left + 2, marker.box.top + 3}; }

std::vector<DrawCall> Markers(const std::vector<DrawCall>& calls) {
  std::vector<DrawCall> out;
  for (const auto& c : calls)
    if ((c.op == DrawOp::Ellipse || c.op == DrawOp::RoundRect) && c.box.right - c.box.left == 4) out.push_back(c);
  return out;
}

}  // namespace

TEST(DriftGraphScaleTest, ListHasAutoThenEveryValueAsTimes) {
  EXPECT_EQ(DriftGraphScaleItemText(0), "Auto");
  EXPECT_EQ(DriftGraphScaleItemText(1), "1x");
  EXPECT_EQ(DriftGraphScaleItemText(1'800'000), "1800000x");
}

TEST(DriftGraphScaleTest, ScaleTexts) {
  EXPECT_EQ(DriftGraphScaleText(1), "1 millisecond");
  EXPECT_EQ(DriftGraphScaleText(250), "250 milliseconds");
  EXPECT_EQ(DriftGraphScaleText(1'000), "1 second");
  EXPECT_EQ(DriftGraphScaleText(2'500), "2.5 seconds");
  EXPECT_EQ(DriftGraphScaleText(5'000), "5 seconds");
  EXPECT_EQ(DriftGraphScaleText(30'000), "30 seconds");
  EXPECT_EQ(DriftGraphScaleText(60'000), "1 minute");
  EXPECT_EQ(DriftGraphScaleText(120'000), "2 minutes");
  EXPECT_EQ(DriftGraphScaleText(1'800'000), "30 minutes");
}

TEST_F(DriftGraphTest, AutoScaleOfLargestShownVariance) {
  auto records = Records(10, 0);
  records[3].variance_ms = -95;
  EXPECT_EQ(DriftGraphAutoScale(Load(records)), 10u);
  records[3].variance_ms = 101;
  EXPECT_EQ(DriftGraphAutoScale(Load(records, "b.kr")), 25u);
  EXPECT_EQ(DriftGraphAutoScale(Load(Records(10, 0), "c.kr")), 10u);   // 1 is never chosen
  records[3].variance_ms = INT32_MIN;                                   // nothing fits: the largest
  EXPECT_EQ(DriftGraphAutoScale(Load(records, "d.kr")), 1'800'000u);
  EXPECT_EQ(DriftGraphScale(log_, 250), 250u);                          // a chosen item is its value
}

TEST_F(DriftGraphTest, AutoScaleLooksOnlyAtShownRecords) {
  auto records = Records(100, 5);
  records[0].variance_ms = 100'000;   // paged out: the newest 64 are shown
  EXPECT_EQ(DriftGraphAutoScale(Load(records)), 10u);
  DriftGraphScroll(log_, ScrollAction::Left, 0);
  EXPECT_EQ(DriftGraphAutoScale(log_), 10'000u);
}

TEST_F(DriftGraphTest, LabelTexts) {
  EXPECT_EQ(DriftGraphLabelText(Load({}), 10),
            "No data points available\r\nAt least two data points required for graphing");
  EXPECT_EQ(DriftGraphLabelText(Load(Records(1), "one.kr"), 10),
            "Only one data point available\r\nAt least two data points required for graphing");
  EXPECT_EQ(DriftGraphLabelText(Load(Records(100), "h.kr"), 2'500),
            "Variance for checks 37 through 100 (of 100)\r\nEach vertical division represents 2.5 seconds");
}

TEST_F(DriftGraphTest, FewerThanTwoRecordsWaitForData) {
  for (std::uint32_t n : {0u, 1u}) {
    RecordingCanvas canvas(636, 308);
    const auto texts = DrawDriftGraph(canvas, &Load(Records(n), Name("w", n)), -1, 0);
    EXPECT_EQ(texts.label, "Waiting for data...");
    EXPECT_EQ(texts.description, kDriftGraphWaitingText);
    const auto text = canvas.Of(DrawOp::Text);
    ASSERT_EQ(text.size(), 1u);
    EXPECT_EQ(text[0].text, "Insufficient data points to graph. At least two samples required.");
    EXPECT_EQ(text[0].x, 30);
    EXPECT_EQ(text[0].y, 30);
    EXPECT_EQ(text[0].text_colour, colour::kGreen);
    ASSERT_FALSE(canvas.Of(DrawOp::Fill).empty());
    EXPECT_EQ(canvas.Of(DrawOp::Fill)[0].brush, colour::kBlack);
  }
  RecordingCanvas canvas(636, 308);
  EXPECT_EQ(DrawDriftGraph(canvas, nullptr, -1, 0).label, "Waiting for data...");
}

TEST_F(DriftGraphTest, LayoutAxisLabelsAndGrid) {
  RecordingCanvas canvas(636, 308, 6, 11);
  const auto texts = DrawDriftGraph(canvas, &Load(Records(10, 40)), -1, 0);
  EXPECT_EQ(texts.scale, 10u);
  EXPECT_EQ(log_.graph_word, 10u);
  EXPECT_EQ(canvas.font_face, "MS Shell Dlg");
  EXPECT_EQ(canvas.font_points, 7);
  // D = 308 / 20 = 15; T = (308 - 16 * 19) / 2 = 2; zero line at 152; "-90 " is 24 pixels wide.
  const auto labels = canvas.Of(DrawOp::Text);
  ASSERT_EQ(labels.size(), 19u);
  EXPECT_EQ(labels[0].text, "90");
  EXPECT_EQ(labels[9].text, "0");
  EXPECT_EQ(labels[18].text, "-90");
  EXPECT_EQ(labels[9].x, 24);
  EXPECT_EQ(labels[9].y, 152 - 11 / 2);
  EXPECT_EQ(labels[0].y, 152 - 9 * 15 - 5);
  EXPECT_EQ(labels[0].align, platform::TextAlign::Right);
  EXPECT_EQ(labels[0].text_colour, colour::kGreen);
  const auto lines = canvas.Of(DrawOp::Line);
  std::vector<DrawCall> grid;
  std::copy_if(lines.begin(), lines.end(), std::back_inserter(grid), [](auto& c) { return c.pen == colour::kDarkGreen; });
  ASSERT_EQ(grid.size(), 19u);
  EXPECT_EQ(grid[0].box, (platform::Rect{30, 17, 636, 17}));
  EXPECT_EQ(grid[9].box, (platform::Rect{30, 152, 636, 152}));
  EXPECT_EQ(grid[18].box, (platform::Rect{30, 287, 636, 287}));
  ASSERT_FALSE(canvas.Of(DrawOp::Clip).empty());
  EXPECT_EQ(canvas.Of(DrawOp::Clip)[0].box, (platform::Rect{0, 0, 636, 308}));
}

TEST_F(DriftGraphTest, PointsSpreadOverTheWidthAndJoinedInGrey) {
  RecordingCanvas canvas(636, 308, 6, 11);
  DrawDriftGraph(canvas, &Load(Records(10, 0)), -1, 0);
  // x0 = 24 + 12 = 36; step = (636 - 36) / 10 = 60.
  const auto markers = Markers(canvas.calls);
  ASSERT_EQ(markers.size(), 10u);
  for (int j = 0; j < 10; ++j) {
    EXPECT_EQ(PointOf(markers[j]), std::make_pair(36 + 60 * j, 152));
    EXPECT_EQ(log_.point_cache[j][0], 36 + 60 * j);
    EXPECT_EQ(log_.point_cache[j][1], 152);
  }
  std::vector<DrawCall> joins;
  for (const auto& c : canvas.Of(DrawOp::Line))
    if (c.pen == colour::kGrey) joins.push_back(c);
  ASSERT_EQ(joins.size(), 9u);   // the first point is only moved to
  EXPECT_EQ(joins[0].box, (platform::Rect{36, 152, 96, 152}));
}

TEST_F(DriftGraphTest, MarkerPositionsAndColoursWhateverTheScale) {
  auto records = Records(4, 0);
  records[0] = MakeRecord(kStart, -300);
  records[1] = MakeRecord(kStart + 1, 60);
  records[2] = MakeRecord(kStart + 2, 55, kReasonScheduled, 0x0100000A, true);
  records[3] = MakeRecord(kStart + 3, 55);
  for (std::uint32_t scale : {100u, 1u, 1'800'000u}) {
    RecordingCanvas canvas(636, 308, 6, 11);
    DrawDriftGraph(canvas, &Load(records, Name("m", scale)), -1, scale);
    const auto markers = Markers(canvas.calls);
    ASSERT_EQ(markers.size(), 4u);
    EXPECT_EQ(markers[0].pen, colour::kRed);
    EXPECT_EQ(markers[0].brush, colour::kRed);
    EXPECT_EQ(markers[0].op, DrawOp::RoundRect);
    EXPECT_EQ(markers[0].corner, 2);
    EXPECT_EQ(markers[1].brush, colour::kYellow);
    EXPECT_EQ(markers[2].op, DrawOp::Ellipse);   // the clock was set
    EXPECT_EQ(markers[2].brush, colour::kGreen);
    EXPECT_EQ(markers[2].pen, colour::kGreen);
    EXPECT_EQ(markers[3].op, DrawOp::RoundRect);
    EXPECT_EQ(markers[3].brush, colour::kWhite);
    EXPECT_EQ(markers[3].pen, colour::kGrey);
    if (scale == 100) {
      EXPECT_EQ(PointOf(markers[0]).second, 152 + 3 * 15);   // three divisions below zero
    }
  }
}

TEST_F(DriftGraphTest, ThresholdsAre56And127Milliseconds) {
  EXPECT_EQ(DriftGraphMarkerStyle(MakeRecord(kStart, 55)).brush, colour::kWhite);
  EXPECT_EQ(DriftGraphMarkerStyle(MakeRecord(kStart, -56)).brush, colour::kYellow);
  EXPECT_EQ(DriftGraphMarkerStyle(MakeRecord(kStart, 127)).brush, colour::kYellow);
  EXPECT_EQ(DriftGraphMarkerStyle(MakeRecord(kStart, -128)).brush, colour::kRed);
  EXPECT_EQ(DriftGraphMarkerStyle(MakeRecord(kStart, INT32_MIN)).brush, colour::kRed);
  EXPECT_TRUE(DriftGraphMarkerStyle(MakeRecord(kStart, 200, kReasonScheduled, 0, true)).ellipse);
}

TEST_F(DriftGraphTest, StartupRingsBehindAndSelectionRing) {
  auto records = Records(3, 0);
  records[1].reason = kReasonStartup;
  RecordingCanvas canvas(636, 308, 6, 11);
  const auto texts = DrawDriftGraph(canvas, &Load(records), 1, 0);
  EXPECT_TRUE(texts.keep_description);
  const auto ellipses = canvas.Of(DrawOp::Ellipse);
  const auto ring = std::find_if(ellipses.begin(), ellipses.end(), [](auto& c) { return c.box.right - c.box.left == 10; });
  ASSERT_NE(ring, ellipses.end());
  EXPECT_EQ(ring->pen, colour::kBlue);
  EXPECT_EQ(ring->brush, colour::kBlue);
  const auto [x, y] = std::make_pair(log_.point_cache[1][0], log_.point_cache[1][1]);
  EXPECT_EQ(ring->box, (platform::Rect{x - 5, y - 5, x + 5, y + 5}));
  const auto sel = std::find_if(ellipses.begin(), ellipses.end(), [](auto& c) { return c.box.right - c.box.left == 12; });
  ASSERT_NE(sel, ellipses.end());
  EXPECT_EQ(sel->pen, colour::kWhite);
  EXPECT_FALSE(sel->brush.has_value());   // hollow
  // Order: the ring, the selection, then the marker on top.
  EXPECT_LT(ring - ellipses.begin(), sel - ellipses.begin());
  EXPECT_EQ(ellipses.size(), 2u);   // the markers here are rounded boxes
}

TEST_F(DriftGraphTest, DescriptionIsTheAverageUnlessTheSelectionIsDrawn) {
  RecordingCanvas canvas(636, 308);
  auto texts = DrawDriftGraph(canvas, &Load(Records(100)), -1, 0);
  EXPECT_FALSE(texts.keep_description);
  EXPECT_EQ(texts.description, "Average check frequency: 10 minutes\r\nClick a data point to see its value");
  texts = DrawDriftGraph(canvas, &log_, 3, 0);   // selected but paged out
  EXPECT_FALSE(texts.keep_description);
  auto same = Records(2);
  same[1].check_time = same[0].check_time;
  EXPECT_EQ(DrawDriftGraph(canvas, &Load(same, "s.kr"), -1, 0).description,
            "Average check frequency: unknown\r\nClick a data point to see its value");
}

TEST_F(DriftGraphTest, HitTestThreeAcrossSevenUpFirstMatchWins) {
  Load(Records(10, 0));
  RecordingCanvas canvas(636, 308, 6, 11);
  DrawDriftGraph(canvas, &log_, -1, 0);
  const int x = log_.point_cache[4][0], y = log_.point_cache[4][1];
  EXPECT_EQ(DriftGraphHitTest(log_, x + 4, y), -1);   // 4 pixels to the side
  EXPECT_EQ(DriftGraphHitTest(log_, x - 4, y), -1);
  EXPECT_EQ(DriftGraphHitTest(log_, x + 3, y), 4);
  EXPECT_EQ(DriftGraphHitTest(log_, x, y - 7), 4);    // 7 pixels above
  EXPECT_EQ(DriftGraphHitTest(log_, x, y + 7), 4);
  EXPECT_EQ(DriftGraphHitTest(log_, x, y - 8), -1);
  log_.point_cache[5] = log_.point_cache[4];          // two points on one spot: the first
  EXPECT_EQ(DriftGraphHitTest(log_, x, y), 4);
}

TEST_F(DriftGraphTest, ScrollActions) {
  Load(Records(100));
  EXPECT_EQ(log_.first_shown, 36u);
  EXPECT_EQ(log_.end_shown, 100u);
  EXPECT_FALSE(DriftGraphScroll(log_, ScrollAction::LineRight, 0));   // limited to N - P
  EXPECT_TRUE(DriftGraphScroll(log_, ScrollAction::LineLeft, 0));
  EXPECT_EQ(log_.first_shown, 35u);
  EXPECT_EQ(log_.end_shown, 99u);
  EXPECT_TRUE(DriftGraphScroll(log_, ScrollAction::PageLeft, 0));
  EXPECT_EQ(log_.first_shown, 0u);                                      // negative becomes 0
  EXPECT_TRUE(DriftGraphScroll(log_, ScrollAction::Thumb, 20));
  EXPECT_EQ(log_.first_shown, 20u);
  EXPECT_TRUE(DriftGraphScroll(log_, ScrollAction::Thumb, 500));
  EXPECT_EQ(log_.first_shown, 36u);
  EXPECT_TRUE(DriftGraphScroll(log_, ScrollAction::Left, 0));
  EXPECT_TRUE(DriftGraphScroll(log_, ScrollAction::PageRight, 0));
  EXPECT_EQ(log_.first_shown, 36u);
  EXPECT_FALSE(DriftGraphScroll(log_, ScrollAction::Other, 3));
  EXPECT_FALSE(DriftGraphScroll(log_, ScrollAction::Right, 0));
}

// ---- The window, through the in-memory dialog ----

TEST_F(DriftGraphTest, WindowWithFewRecordsShowsAllAndDisablesScrolling) {
  for (std::uint32_t n : {2u, 64u}) {
    const std::string name = Name("few", n);
    WriteBytes(PathOf(name), RecordBytes(Records(n)));
    auto* d = Open(name);
    ASSERT_NE(d, nullptr);
    EXPECT_FALSE(d->Enabled(IDC_GRAPH_SCROLL));
    EXPECT_TRUE(d->Enabled(IDC_GRAPH_RAW_DATA));
    EXPECT_FALSE(d->Visible(IDC_GRAPH_OPEN_FILE));
    EXPECT_EQ(d->Scroll(IDC_GRAPH_SCROLL).max, 0);
    const auto drawing = Redraw(*d);
    EXPECT_EQ(Markers(drawing.calls).size(), n);
    char want[64];
    std::snprintf(want, sizeof want, "Variance for checks 1 through %u (of %u)", n, n);
    EXPECT_EQ(d->Text(IDC_GRAPH_LABEL).rfind(want, 0), 0u);
  }
}

TEST_F(DriftGraphTest, WindowStartState) {
  WriteBytes(PathOf("drift.kr"), RecordBytes(Records(100)));
  auto* d = Open("drift.kr", 1);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->Title(), "Kairon II Drift Data: " + PathOf("drift.kr"));
  ASSERT_EQ(d->ItemCount(IDC_GRAPH_SCALE), 18);
  EXPECT_EQ(d->ItemText(IDC_GRAPH_SCALE, 0), "Auto");
  EXPECT_EQ(d->ItemData(IDC_GRAPH_SCALE, 0), 0);
  EXPECT_EQ(d->ItemText(IDC_GRAPH_SCALE, 17), "1800000x");
  EXPECT_EQ(d->ItemData(IDC_GRAPH_SCALE, 17), 1'800'000);
  EXPECT_EQ(d->Selection(IDC_GRAPH_SCALE), 0);
  EXPECT_EQ(d->Text(IDC_GRAPH_LABEL), "");
  EXPECT_EQ(d->Text(IDC_GRAPH_DESCRIPTION), "");
  EXPECT_TRUE(d->Enabled(IDC_GRAPH_SCROLL));
  EXPECT_EQ(d->Scroll(IDC_GRAPH_SCROLL).max, 36);
  EXPECT_EQ(d->Scroll(IDC_GRAPH_SCROLL).pos, 36);
  EXPECT_TRUE(d->Visible(IDC_GRAPH_OPEN_FILE));
  EXPECT_TRUE(d->TimerRunning(1));
  EXPECT_EQ(d->TimerPeriod(1), 2000u);
  Redraw(*d);
  EXPECT_EQ(d->Text(IDC_GRAPH_LABEL),
            "Variance for checks 37 through 100 (of 100)\r\nEach vertical division represents 10 milliseconds");
}

TEST_F(DriftGraphTest, WindowPageLeftFrom100Records) {
  WriteBytes(PathOf("g.kr"), RecordBytes(Records(100)));
  auto* d = Open();
  ASSERT_NE(d, nullptr);
  d->ScrollBar(IDC_GRAPH_SCROLL, platform::kSbPageLeft);
  EXPECT_EQ(d->Scroll(IDC_GRAPH_SCROLL).pos, 0);
  EXPECT_EQ(d->DeliverPosted(), 1);   // the redraw request
  EXPECT_EQ(d->Text(IDC_GRAPH_LABEL).substr(0, 41), "Variance for checks 1 through 64 (of 100)");
  d->ScrollBar(IDC_GRAPH_SCROLL, platform::kSbThumbTrack, 10);
  EXPECT_EQ(d->Scroll(IDC_GRAPH_SCROLL).pos, 10);
  d->ScrollBar(IDC_GRAPH_SCROLL, platform::kSbEndScroll);
  d->DeliverPosted();
  EXPECT_EQ(d->Text(IDC_GRAPH_LABEL).substr(0, 42), "Variance for checks 11 through 74 (of 100)");
}

TEST_F(DriftGraphTest, WindowFollowsTheNewestButNotWhileOlderAreShown) {
  WriteBytes(PathOf("g.kr"), RecordBytes(Records(100)));
  auto* d = Open();
  ASSERT_NE(d, nullptr);
  Append({MakeRecord(kStart + 100 * 600, 3)});
  ASSERT_TRUE(d->FireTimer(1));
  EXPECT_EQ(d->Scroll(IDC_GRAPH_SCROLL).pos, 37);
  EXPECT_TRUE(d->TimerRunning(1));
  d->DeliverPosted();
  EXPECT_EQ(d->Text(IDC_GRAPH_LABEL).substr(0, 43), "Variance for checks 38 through 101 (of 101)");

  d->ScrollBar(IDC_GRAPH_SCROLL, platform::kSbPageLeft);   // older records in view
  d->DeliverPosted();
  Append({MakeRecord(kStart + 101 * 600, 3), MakeRecord(kStart + 102 * 600, 3)});
  ASSERT_TRUE(d->FireTimer(1));
  EXPECT_EQ(d->DeliverPosted(), 0);
  EXPECT_EQ(d->Scroll(IDC_GRAPH_SCROLL).pos, 0);
  Redraw(*d);
  EXPECT_EQ(d->Text(IDC_GRAPH_LABEL).substr(0, 41), "Variance for checks 1 through 64 (of 101)");

  d->ScrollBar(IDC_GRAPH_SCROLL, platform::kSbRight);      // back to the newest: followed again
  d->DeliverPosted();
  ASSERT_TRUE(d->FireTimer(1));
  d->DeliverPosted();
  EXPECT_EQ(d->Text(IDC_GRAPH_LABEL).substr(0, 43), "Variance for checks 40 through 103 (of 103)");
}

TEST_F(DriftGraphTest, WindowTimerReloadFailureLeavesThePlot) {
  WriteBytes(PathOf("g.kr"), RecordBytes(Records(10)));
  auto* d = Open();
  ASSERT_NE(d, nullptr);
  Redraw(*d);
  const std::string label = d->Text(IDC_GRAPH_LABEL);
  auto bytes = ReadBytes(PathOf("g.kr"));
  bytes.push_back(0);   // not whole records
  WriteBytes(PathOf("g.kr"), bytes);
  ASSERT_TRUE(d->FireTimer(1));
  EXPECT_EQ(d->DeliverPosted(), 0);
  EXPECT_EQ(d->Text(IDC_GRAPH_LABEL), label);
  EXPECT_TRUE(d->TimerRunning(1));
}

TEST_F(DriftGraphTest, WindowClickSelectsWithinSevenAboveNotFourAside) {
  WriteBytes(PathOf("g.kr"), RecordBytes(Records(10, 0)));
  auto* d = Open();
  ASSERT_NE(d, nullptr);
  const auto drawing = Redraw(*d);
  const auto [px, py] = PointOf(Markers(drawing.calls)[4]);
  const auto o = PlotOrigin(*d);
  d->LeftUp({o.x + px + 4, o.y + py});
  d->DeliverPosted();
  EXPECT_EQ(d->Text(IDC_GRAPH_DESCRIPTION).rfind("Average check frequency", 0), 0u);
  d->MouseMove({o.x + px, o.y + py - 7});
  EXPECT_EQ(d->CurrentCursorResource(), IDC_CW_GRAPH_HAND);
  d->LeftUp({o.x + px, o.y + py - 7});
  EXPECT_EQ(d->Text(IDC_GRAPH_DESCRIPTION).rfind("Check #5: ", 0), 0u);
  const auto selected = Redraw(*d);
  EXPECT_EQ(d->Text(IDC_GRAPH_DESCRIPTION).rfind("Check #5: ", 0), 0u);   // kept while drawn
  const auto rings = selected.Of(DrawOp::Ellipse);
  ASSERT_EQ(rings.size(), 1u);
  EXPECT_EQ(rings[0].box, (platform::Rect{px - 6, py - 6, px + 6, py + 6}));
  d->MouseMove({o.x + px + 4, o.y + py});
  EXPECT_EQ(d->CurrentCursor(), platform::CursorShape::Arrow);
  EXPECT_EQ(d->CurrentCursorResource(), 0);
  d->LeftUp({o.x + 1, o.y + 1});   // elsewhere: no selection
  d->DeliverPosted();
  EXPECT_TRUE(platform::LastControlDrawing().Of(DrawOp::Ellipse).empty());
  EXPECT_EQ(d->Text(IDC_GRAPH_DESCRIPTION).rfind("Average check frequency", 0), 0u);
}

TEST_F(DriftGraphTest, WindowScaleChoiceRedraws) {
  WriteBytes(PathOf("g.kr"), RecordBytes(Records(10, 40)));
  auto* d = Open();
  ASSERT_NE(d, nullptr);
  d->Choose(IDC_GRAPH_SCALE, 8);   // 1000x
  EXPECT_EQ(d->DeliverPosted(), 1);
  EXPECT_NE(d->Text(IDC_GRAPH_LABEL).find("represents 1 second"), std::string::npos);
  EXPECT_EQ(platform::LastControlDrawing().Of(DrawOp::Text)[0].text, "9000");
}

TEST_F(DriftGraphTest, WindowOpenFileChoosesAnotherLog) {
  WriteBytes(PathOf("g.kr"), RecordBytes(Records(10)));
  WriteBytes(PathOf("other.kr"), RecordBytes(Records(70)));
  auto* d = Open("g.kr", 1);
  ASSERT_NE(d, nullptr);
  d->Click(IDC_GRAPH_OPEN_FILE);   // cancelled: nothing changes
  ASSERT_EQ(platform::memory_file_chooser::Requests().size(), 1u);
  const auto request = platform::memory_file_chooser::Requests()[0];
  EXPECT_EQ(request.title, "Select Kairon II Sync Log File");
  EXPECT_EQ(request.pattern, "*.KR");
  EXPECT_EQ(request.default_ext, "KR");
  EXPECT_EQ(request.initial_dir, dir_.string());
  EXPECT_EQ(d->Title(), "Kairon II Drift Data: g");
  platform::memory_file_chooser::AnswerNext(PathOf("other.kr"));
  d->Click(IDC_GRAPH_OPEN_FILE);
  EXPECT_EQ(d->Title(), "Kairon II Drift Data: other");
  EXPECT_TRUE(d->Enabled(IDC_GRAPH_SCROLL));
  EXPECT_EQ(d->Scroll(IDC_GRAPH_SCROLL).pos, 6);
  d->DeliverPosted();
  EXPECT_EQ(d->Text(IDC_GRAPH_LABEL).substr(0, 40), "Variance for checks 7 through 70 (of 70)");
}

TEST_F(DriftGraphTest, WindowOpenFileGivenUpCloses) {
  WriteBytes(PathOf("g.kr"), RecordBytes(Records(10)));
  WriteBytes(PathOf("bad.kr"), {1, 2, 3});
  auto* d = Open("g.kr", 1);
  ASSERT_NE(d, nullptr);
  platform::memory_file_chooser::AnswerNext(PathOf("bad.kr"));
  platform::memory_ui::AnswerNext(platform::kIdNo);   // "Would you like to try a different file?"
  d->Click(IDC_GRAPH_OPEN_FILE);
  EXPECT_TRUE(d->HasEnded());
  ASSERT_EQ(d->PostsToParent().size(), 1u);
  EXPECT_EQ(d->PostsToParent()[0].msg, kGraphClosedMessage);
}

TEST_F(DriftGraphTest, WindowThatCannotLoadIsNotOpened) {
  platform::memory_ui::AnswerNext(platform::kIdNo);
  EXPECT_EQ(OpenDriftGraph(nullptr, nullptr, false, 0, "", PathOf("missing.kr").c_str()), nullptr);
  const auto boxes = platform::memory_ui::Boxes();
  ASSERT_EQ(boxes.size(), 1u);
  EXPECT_EQ(boxes[0].text.rfind("Could not load file ", 0), 0u);
  const auto modeless = platform::memory_ui::Modeless();
  ASSERT_EQ(modeless.size(), 1u);
  ASSERT_EQ(modeless[0]->PostsToParent().size(), 1u);
  EXPECT_EQ(modeless[0]->PostsToParent()[0].msg, kGraphClosedMessage);
}

TEST_F(DriftGraphTest, WindowCloseStopsTheTimerAndTellsTheParent) {
  WriteBytes(PathOf("g.kr"), RecordBytes(Records(10)));
  auto* d = Open();
  ASSERT_NE(d, nullptr);
  d->CloseBox();
  EXPECT_TRUE(d->HasEnded());
  EXPECT_FALSE(d->TimerRunning(1));
  ASSERT_EQ(d->PostsToParent().size(), 1u);
  EXPECT_EQ(d->PostsToParent()[0].msg, 3029u);
}

TEST_F(DriftGraphTest, ModalWindowEndsWithTheLoadError) {
  auto log = std::make_unique<DriftLog>();
  DriftLogSetPath(*log, PathOf("missing.kr").c_str());
  DriftGraphWindow window(std::move(log), false);
  platform::memory_ui::AnswerNext(platform::kIdNo);
  EXPECT_EQ(platform::RunModalDialog(IDD_GRAPH, nullptr, window), 2);   // file not found
}
