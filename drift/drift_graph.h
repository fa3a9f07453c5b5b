// The drift graph: the variance of up to 64 consecutive records of a drift log against a fixed grid
// of 19 lines, a vertical scale chosen from a list or automatically, markers coloured by the size of
// the variance, paging through older records, picking a point. Everything here is the graph's own
// logic and draws through platform::Canvas; the window (drift/drift_graph_window.h), the command
// line and the tests all draw with these functions, so they show the same picture.
#pragma once
#include <array>
#include <cstdint>
#include <string>

#include "drift/drift_log.h"
#include "platform/canvas.h"

// Milliseconds per vertical division offered by the scale list, in list order after "Auto".
inline constexpr std::array<std::uint32_t, 17> kDriftGraphScales = {
    1, 10, 25, 50, 100, 250, 500, 1'000, 2'500, 5'000, 10'000, 30'000, 60'000, 120'000, 300'000, 600'000, 1'800'000};
inline constexpr std::uint32_t kDriftGraphAuto = 0;   // the "Auto" item's data

// Marker thresholds (ms of absolute variance, whatever the scale): yellow from 56, red above 127.
inline constexpr std::int64_t kDriftGraphYellowMs = 56;
inline constexpr std::int64_t kDriftGraphRedMs = 127;

namespace graph_colour {
inline constexpr platform::Colour kBlack = platform::Rgb(0, 0, 0);
inline constexpr platform::Colour kWhite = platform::Rgb(255, 255, 255);
inline constexpr platform::Colour kGreen = platform::Rgb(0, 255, 0);        // axis labels, corrected checks
inline constexpr platform::Colour kYellow = platform::Rgb(255, 255, 0);     // 56 to 127 ms
inline constexpr platform::Colour kRed = platform::Rgb(255, 0, 0);          // above 127 ms
inline constexpr platform::Colour kDarkGreen = platform::Rgb(0, 112, 0);    // grid
inline constexpr platform::Colour kGrey = platform::Rgb(127, 127, 127);     // joining line, ordinary marker outline
inline constexpr platform::Colour kBlue = platform::Rgb(0, 0, 255);         // startup rings
}  // namespace graph_colour

inline constexpr const char* kDriftGraphFont = "MS Shell Dlg";
inline constexpr int kDriftGraphFontPoints = 7;

// The scale list item text: "Auto" for 0, else "%dx" of the value ("1x", "1800000x").
std::string DriftGraphScaleItemText(std::uint32_t item_data);
// The largest absolute variance among the shown records (ms, 64-bit so -2^31 stays positive).
std::int64_t DriftGraphLargestShown(const DriftLog& log);
// ms per division for "Auto": the first of 10, 25, ... 1,800,000 whose tenfold is at least the
// largest shown variance (1 is never chosen); 1,800,000 when none is.
std::uint32_t DriftGraphAutoScale(const DriftLog& log);
// The scale of the selected list item: its data, or the Auto choice for 0.
std::uint32_t DriftGraphScale(const DriftLog& log, std::uint32_t item_data);
// "1 millisecond", "250 milliseconds", "1 second", "2.5 seconds", "5 seconds", "1 minute", "2 minutes".
std::string DriftGraphScaleText(std::uint32_t scale_ms);
// The label above the plot: no records / one record / "Variance for checks F+1 through E (of N)
// \r\nEach vertical division represents <scale text>".
std::string DriftGraphLabelText(const DriftLog& log, std::uint32_t scale_ms);
// The description below the plot when no drawn point is selected: the average check frequency.
std::string DriftGraphIdleText(const DriftLog& log);

inline constexpr const char* kDriftGraphWaitingLabel = "Waiting for data...";
inline constexpr const char* kDriftGraphWaitingText =
    "Waiting for more data. Every time the clock is checked, another data point is added. "
    "Two or more data points are needed for graphing.";
inline constexpr const char* kDriftGraphInsufficient =
    "Insufficient data points to graph. At least two samples required.";

// Where the plot puts things, for a surface of the given size (pixels).
struct DriftGraphLayout {
  int division = 0;      // D: height of one division = height / 20
  int top = 0;           // T: (height - (D + 1) * 19) / 2
  int zero_y = 0;        // T + 10 D: the zero line
  int label_width = 0;   // L: width of "%d " of -9 * scale; labels end here
  int char_width = 0;    // width of "7"
  int char_height = 0;
  int grid_left = 0;     // L + one character
  int x0 = 0;            // L + two characters: the first point
  double step = 0;       // (width - x0) / records per screen
};
// Measures in the canvas's current font.
DriftGraphLayout DriftGraphLayoutFor(platform::Canvas& canvas, std::uint32_t scale_ms, std::uint32_t per_screen);
// The pixel row of a variance: T + 10 D - variance / scale * D, truncated; kept within +-2^20 so
// that no variance overflows a coordinate (clipping hides such points anyway).
int DriftGraphPointY(const DriftGraphLayout& layout, std::int32_t variance_ms, std::uint32_t scale_ms);

// A marker's outline and fill and its shape (corrected checks are ellipses, others rounded boxes).
struct DriftMarkerStyle {
  platform::Colour pen, brush;
  bool ellipse;
};
DriftMarkerStyle DriftGraphMarkerStyle(const DriftRecord& record);

// What one plot pass produced for the window's two texts.
struct DriftGraphTexts {
  std::string label;           // for 6006
  std::string description;     // for 6002, unless keep_description
  bool keep_description = false;   // the selected point was drawn: its text stays
  std::uint32_t scale = 0;     // the scale used (also left in the log's graph word)
};

// Draws the whole plot: black background, axis labels, grid, joining line, startup and selection
// rings, markers; fills the log's point cache. log may be null (nothing loaded). selected: record
// index or -1. item_data: the scale list's selected item data (0: Auto).
DriftGraphTexts DrawDriftGraph(platform::Canvas& canvas, DriftLog* log, std::int32_t selected, std::uint32_t item_data);

// The record under a point of the plot (pixels): the first shown record whose cached point lies
// within 3 pixels across and 7 up or down; -1 when none.
std::int32_t DriftGraphHitTest(const DriftLog& log, int x, int y);
inline constexpr int kDriftGraphHitX = 3;
inline constexpr int kDriftGraphHitY = 7;

// Scroll bar requests (the SB_* codes of a horizontal scroll bar).
enum class ScrollAction : std::uint8_t { LineLeft, LineRight, PageLeft, PageRight, Thumb, Left, Right, Other };
// Moves the shown range; pos is the thumb position for Thumb. True when the range moved (the
// scroll bar's position and the plot must follow).
bool DriftGraphScroll(DriftLog& log, ScrollAction action, std::int64_t pos);

// The scroll bar and button state a log calls for.
struct DriftGraphControlState {
  std::uint32_t scroll_max = 0;   // range 0 .. first shown record
  std::uint32_t scroll_pos = 0;   // the first shown record
  bool scroll_enabled = false;    // 65 records or more
  bool raw_data_enabled = false;  // 2 records or more
};
DriftGraphControlState DriftGraphControls(const DriftLog& log);

// The 2-second tick: reloads the log when the newest records are in view (never while older ones
// are). True when the reload found the file changed (controls and plot must follow); a failed
// reload is false and leaves everything as it was shown.
bool DriftGraphFollow(DriftLog& log);
inline constexpr std::uint32_t kDriftGraphTimerId = 1;
inline constexpr std::uint32_t kDriftGraphTimerMs = 2'000;
