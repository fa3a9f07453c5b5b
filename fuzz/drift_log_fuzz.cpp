// Fuzz target: arbitrary bytes as a drift history file's contents, loaded by the applet's snapshot
// (from memory: the file reading around it is the same for every input) and written out as the
// summary report; or (the first byte chooses) the same bytes as records that skipped validation (what a snapshot holds after
// a failed load), rendered and described point by point, and drawn as the graph on a recording
// canvas of a size the bytes choose, then paged and pointed at.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "drift/drift_graph.h"
#include "drift/drift_log.h"
#include "drift/report.h"
#include "platform/recording_canvas.h"

namespace {

void Discard(void* context, const char* text, std::size_t length) {
  // Touch every byte so that a bad pointer or length shows up under the sanitizers.
  auto& sum = *static_cast<std::size_t*>(context);
  for (std::size_t i = 0; i < length; ++i) sum += static_cast<unsigned char>(text[i]);
}

void Exercise(DriftLog& log, std::uint8_t options) {
  log.local_time = options & 1;
  log.width_limit = (options >> 1) & 7;
  log.zero_fill = (options >> 4) & 1;
  std::size_t sum = 0;
  RenderDriftReport(log, "Universal Coordinated Time (GMT+0)", 0x65000000u + options, Discard, &sum);
  char text[512];
  for (std::int32_t i = -1; i <= static_cast<std::int32_t>(log.end_shown) && i < 200; ++i)
    DriftPointText(log, i, text, sizeof text);
  platform::RecordingCanvas canvas(1 + options * 3, 1 + options * 2);
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
  const std::uint8_t options = size ? data[0] : 0;
  // One of the two per input, chosen by the first byte: half the work per input, the same reach.
  if (options & 0x40) {
    DriftLog log;
    DriftLogSetPath(log, "drift.kr");
    DriftLogLoadBytes(log, data, size);
    DriftLogLoadBytes(log, data, size);   // unchanged size: the second load keeps what the first took
    if (log.records) Exercise(log, options);
  } else {
    DriftLog log;
    const std::uint32_t count = static_cast<std::uint32_t>(size / sizeof(DriftRecord));
    log.records.reset(new DriftRecord[count + 1]());
    if (count) std::memcpy(log.records.get(), data, count * sizeof(DriftRecord));
    log.record_count = count;
    log.per_screen = count < 64 ? count : 64;
    log.first_shown = count - log.per_screen;
    log.end_shown = count;
    DriftLogSetPath(log, size > 40 ? "C:\\NTP Server\\drift.kr" : "drift.kr");
    Exercise(log, options);
  }
  return 0;
}
