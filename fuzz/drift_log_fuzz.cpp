// Fuzz target: arbitrary bytes as a drift history snapshot (fuzz/drift_fuzz_input.h), its shown
// page described point by point, and drawn as the graph on a canvas of a size the bytes choose,
// then paged and pointed at. The report of the same snapshots is drift_report_fuzz's.
#include <cstddef>
#include <cstdint>

#include "drift/drift_graph.h"
#include "drift/report.h"
#include "fuzz/drift_fuzz_input.h"
#include "platform/canvas.h"

namespace {

// A canvas that draws nothing and keeps nothing: fixed text metrics (6 x 11 pixels a character),
// every text touched.
class NullCanvas : public platform::Canvas {
 public:
  NullCanvas(int width, int height) : width_(width), height_(height) {}
  int Width() const override { return width_; }
  int Height() const override { return height_; }
  void SetPen(platform::Colour) override {}
  void SetBrush(platform::Colour) override {}
  void SetHollowBrush() override {}
  void SetTextColor(platform::Colour) override {}
  void SetFont(std::string_view face, int) override { TouchFuzzText(face.data(), face.size()); }
  void Fill(const platform::Rect&, platform::Colour) override {}
  void MoveTo(int, int) override {}
  void LineTo(int, int) override {}
  void Ellipse(const platform::Rect&) override {}
  void RoundRect(const platform::Rect&, int, int) override {}
  void Text(int, int, std::string_view text, platform::TextAlign) override { TouchFuzzText(text.data(), text.size()); }
  platform::TextSize Measure(std::string_view text) override {
    TouchFuzzText(text.data(), text.size());
    return {static_cast<int>(text.size()) * 6, 11};
  }
  void Clip(const platform::Rect&) override {}

 private:
  int width_, height_;
};

void Exercise(DriftLog& log, std::uint8_t options) {
  // Described: the shown page's first and last points, one the bytes choose, the ones just outside
  // the page, and a negative index (each test walks every point; the fuzzer varies the records).
  char text[512];
  const auto first = static_cast<std::int32_t>(log.first_shown), end = static_cast<std::int32_t>(log.end_shown);
  const std::int32_t chosen = first + (log.per_screen ? static_cast<std::int32_t>(options % log.per_screen) : 0);
  for (const std::int32_t i : {-1, first - 1, first, chosen, end - 1, end}) DriftPointText(log, i, text, sizeof text);
  NullCanvas canvas(1 + options * 3, 1 + options * 2);
  const std::uint32_t scale = options & 0x80 ? kDriftGraphScales[options % kDriftGraphScales.size()] : kDriftGraphAuto;
  for (const auto action : {ScrollAction::Other, ScrollAction::PageLeft, ScrollAction::LineRight, ScrollAction::Right}) {
    DriftGraphScroll(log, action, options);
    DrawDriftGraph(canvas, &log, static_cast<std::int32_t>(options % 80) - 1, scale);
    // Pointed at near three of the points (each test walks them all): the first, the last, one the
    // bytes choose.
    for (const std::size_t i : {std::size_t{0}, log.point_cache.size() - 1, options % log.point_cache.size()})
      DriftGraphHitTest(log, log.point_cache[i][0] + (options & 7), log.point_cache[i][1] - (options & 15));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  DriftLog log;
  const std::uint8_t options = DriftLogFromFuzzInput(log, data, size);
  if (log.records) Exercise(log, options);
  return 0;
}
