// The drift graph's logic: scales, texts, layout, drawing, hit testing, paging, following the file.
#include "drift/drift_graph.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "config/defaults.h"
#include "timing/format.h"

namespace {

using platform::Rect;
namespace colour = graph_colour;

// Records of the shown range that the snapshot really holds (a failed reload may have shrunk it).
std::uint32_t ShownCount(const DriftLog& log) {
  if (!log.records || log.first_shown >= log.record_count) return 0;
  const std::uint32_t end = std::min(log.end_shown, log.record_count);
  return std::min(end - log.first_shown, static_cast<std::uint32_t>(log.point_cache.size()));
}

std::string Format(const char* format, auto... args) {
  char text[256];
  std::snprintf(text, sizeof text, format, args...);
  return text;
}

}  // namespace

std::string DriftGraphScaleItemText(std::uint32_t item_data) {
  return item_data == kDriftGraphAuto ? "Auto" : Format("%ux", item_data);
}

std::int64_t DriftGraphLargestShown(const DriftLog& log) {
  std::int64_t largest = 0;
  const std::uint32_t shown = ShownCount(log);
  for (std::uint32_t j = 0; j < shown; ++j)
    largest = std::max(largest, std::abs(static_cast<std::int64_t>(log.records[log.first_shown + j].variance_ms)));
  return largest;
}

std::uint32_t DriftGraphAutoScale(const DriftLog& log) {
  const std::int64_t largest = DriftGraphLargestShown(log);
  for (std::size_t i = 1; i < kDriftGraphScales.size(); ++i)
    if (std::int64_t{kDriftGraphScales[i]} * 10 >= largest) return kDriftGraphScales[i];
  return kDriftGraphScales.back();
}

std::uint32_t DriftGraphScale(const DriftLog& log, std::uint32_t item_data) {
  return item_data == kDriftGraphAuto ? DriftGraphAutoScale(log) : item_data;
}

std::string DriftGraphScaleText(std::uint32_t scale_ms) {
  std::string text;
  if (scale_ms == 1) return "1 millisecond";
  if (scale_ms < 1'000) return Format("%u milliseconds", scale_ms);
  if (scale_ms == 1'000) return "1 second";
  if (scale_ms < 60'000) text = Format("%0.1f seconds", scale_ms / 1'000.0);
  else if (scale_ms == 60'000) return "1 minute";
  else text = Format("%0.1f minutes", scale_ms / 60'000.0);
  // "5.0 seconds" reads "5 seconds".
  if (const auto dot = text.find('.'); dot != std::string::npos && text.compare(dot, 2, ".0") == 0) text.erase(dot, 2);
  return text;
}

std::string DriftGraphLabelText(const DriftLog& log, std::uint32_t scale_ms) {
  if (log.record_count == 0) return "No data points available\r\nAt least two data points required for graphing";
  if (log.record_count == 1) return "Only one data point available\r\nAt least two data points required for graphing";
  return Format("Variance for checks %u through %u (of %u)\r\nEach vertical division represents %s",
                log.first_shown + 1, log.end_shown, log.record_count, DriftGraphScaleText(scale_ms).c_str());
}

std::string DriftGraphIdleText(const DriftLog& log) {
  return Format("Average check frequency: %s\r\nClick a data point to see its value",
                log.average_interval ? FormatDurationSeconds(log.average_interval) : "unknown");
}

DriftGraphLayout DriftGraphLayoutFor(platform::Canvas& canvas, std::uint32_t scale_ms, std::uint32_t per_screen) {
  DriftGraphLayout l;
  l.division = canvas.Height() / 20;
  l.top = (canvas.Height() - (l.division + 1) * 19) / 2;
  l.zero_y = l.top + 10 * l.division;
  const auto seven = canvas.Measure("7");
  l.char_width = seven.width;
  l.char_height = seven.height;
  l.label_width = canvas.Measure(Format("%lld ", -9LL * scale_ms)).width;
  l.grid_left = l.label_width + l.char_width;
  l.x0 = l.label_width + 2 * l.char_width;
  l.step = per_screen ? static_cast<double>(canvas.Width() - l.x0) / per_screen : 0.0;
  return l;
}

int DriftGraphPointY(const DriftGraphLayout& layout, std::int32_t variance_ms, std::uint32_t scale_ms) {
  constexpr double kLimit = 1 << 20;
  const double y = layout.zero_y - static_cast<double>(variance_ms) / scale_ms * layout.division;
  return static_cast<int>(std::clamp(y, -kLimit, kLimit));
}

DriftMarkerStyle DriftGraphMarkerStyle(const DriftRecord& record) {
  const std::int64_t size = std::abs(static_cast<std::int64_t>(record.variance_ms));
  const bool set = DriftClockSet(record);
  if (size > kDriftGraphRedMs) return {colour::kRed, colour::kRed, set};
  if (size >= kDriftGraphYellowMs) return {colour::kYellow, colour::kYellow, set};
  if (set) return {colour::kGreen, colour::kGreen, true};
  return {colour::kGrey, colour::kWhite, false};
}

DriftGraphTexts DrawDriftGraph(platform::Canvas& canvas, DriftLog* log, std::int32_t selected, std::uint32_t item_data) {
  DriftGraphTexts texts;
  const Rect area{0, 0, canvas.Width(), canvas.Height()};
  canvas.SetTextColor(colour::kGreen);
  canvas.Fill(area, colour::kBlack);
  canvas.SetFont(kDriftGraphFont, kDriftGraphFontPoints);
  if (!log || !log->records || log->record_count < 2) {
    texts.label = kDriftGraphWaitingLabel;
    texts.description = kDriftGraphWaitingText;
    canvas.Text(30, 30, kDriftGraphInsufficient, platform::TextAlign::Left);
    return texts;
  }

  canvas.Clip(area);
  texts.scale = DriftGraphScale(*log, item_data);
  log->graph_word = texts.scale;
  texts.label = DriftGraphLabelText(*log, texts.scale);
  const DriftGraphLayout l = DriftGraphLayoutFor(canvas, texts.scale, log->per_screen);

  canvas.SetPen(colour::kGreen);
  for (int k = 9; k >= -9; --k) {
    const int line_y = l.zero_y - k * l.division;
    canvas.Text(l.label_width, line_y - l.char_height / 2, Format("%lld", static_cast<long long>(k) * texts.scale),
                platform::TextAlign::Right);
  }
  canvas.SetPen(colour::kDarkGreen);
  for (int i = 1; i <= 19; ++i) {
    canvas.MoveTo(l.grid_left, l.top + i * l.division);
    canvas.LineTo(area.right, l.top + i * l.division);
  }

  const std::uint32_t shown = ShownCount(*log);
  for (std::uint32_t j = 0; j < shown; ++j) {
    const std::uint32_t index = log->first_shown + j;
    const DriftRecord& r = log->records[index];
    const int x = static_cast<int>(l.x0 + j * l.step);
    const int y = DriftGraphPointY(l, r.variance_ms, texts.scale);
    log->point_cache[j] = {x, y};
    canvas.SetPen(colour::kGrey);
    if (j == 0) canvas.MoveTo(x, y);
    else canvas.LineTo(x, y);
    if (r.reason == kReasonStartup) {
      canvas.SetPen(colour::kBlue);
      canvas.SetBrush(colour::kBlue);
      canvas.Ellipse({x - 5, y - 5, x + 5, y + 5});
    }
    if (selected >= 0 && index == static_cast<std::uint32_t>(selected)) {
      canvas.SetPen(colour::kWhite);
      canvas.SetHollowBrush();
      canvas.Ellipse({x - 6, y - 6, x + 6, y + 6});
      texts.keep_description = true;
    }
    const DriftMarkerStyle style = DriftGraphMarkerStyle(r);
    canvas.SetPen(style.pen);
    canvas.SetBrush(style.brush);
    const Rect box{x - 2, y - 3, x + 2, y + 3};
    if (style.ellipse) canvas.Ellipse(box);
    else canvas.RoundRect(box, 2, 2);
  }
  if (!texts.keep_description) texts.description = DriftGraphIdleText(*log);
  return texts;
}

std::int32_t DriftGraphHitTest(const DriftLog& log, int x, int y) {
  const std::uint32_t shown = ShownCount(log);
  for (std::uint32_t j = 0; j < shown; ++j) {
    const auto [px, py] = log.point_cache[j];
    if (std::abs(x - px) <= kDriftGraphHitX && std::abs(y - py) <= kDriftGraphHitY)
      return static_cast<std::int32_t>(log.first_shown + j);
  }
  return -1;
}

bool DriftGraphScroll(DriftLog& log, ScrollAction action, std::int64_t pos) {
  const std::int64_t f = log.first_shown, p = log.per_screen, n = log.record_count;
  std::int64_t next = f;
  switch (action) {
    case ScrollAction::LineLeft: next = f - 1; break;
    case ScrollAction::LineRight: next = f + 1; break;
    case ScrollAction::PageLeft: next = f - p; break;
    case ScrollAction::PageRight: next = f + p; break;
    case ScrollAction::Thumb: next = pos; break;
    case ScrollAction::Left: next = 0; break;
    case ScrollAction::Right: next = n - p; break;
    case ScrollAction::Other: break;
  }
  next = next < 0 ? 0 : std::min(next, std::max<std::int64_t>(n - p, 0));
  if (next == f) return false;
  log.first_shown = static_cast<std::uint32_t>(next);
  log.end_shown = log.first_shown + log.per_screen;
  return true;
}

DriftGraphControlState DriftGraphControls(const DriftLog& log) {
  return {.scroll_max = log.first_shown,
          .scroll_pos = log.first_shown,
          .scroll_enabled = log.record_count >= defaults::kDriftRecordsPerScreen + 1,
          .raw_data_enabled = log.record_count >= 2};
}

bool DriftGraphFollow(DriftLog& log) {
  if (log.end_shown < log.record_count) return false;   // older records in view: the view stays
  return DriftLogLoad(nullptr, log) && log.changed;
}
