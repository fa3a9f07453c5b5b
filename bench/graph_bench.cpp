// The drift graph: a full window (64 points) drawn to PNG and to SVG files by Cairo, the drawing
// logic alone on a recording canvas, and the Auto scale at every position of a full history.
#include <benchmark/benchmark.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "drift/drift_graph.h"
#include "drift/drift_log.h"
#include "platform/canvas.h"
#include "platform/recording_canvas.h"

namespace {

std::filesystem::path BenchDir() {
  static const std::filesystem::path dir = [] {
    auto d = std::filesystem::temp_directory_path() / "cw-graph-bench";
    std::filesystem::create_directories(d);
    return d;
  }();
  return dir;
}

// A loaded log of count records, one every 10 minutes, newest in view.
DriftLog& Loaded(std::uint32_t count) {
  static DriftLog log;
  const auto path = (BenchDir() / ("g" + std::to_string(count) + ".kr")).string();
  std::vector<DriftRecord> records(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    DriftRecord& r = records[i];
    r.version = 41;
    r.flags = static_cast<std::uint8_t>((7 << 1) | (i % 9 == 4));
    r.reason = i % 23 == 5 ? 255 : 1;
    r.check_time = 1'700'000'000 + i * 600;
    r.variance_ms = static_cast<std::int32_t>(std::lround(90 * std::sin(i / 6.0) + 25 * std::sin(i * 1.7)));
  }
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(records.data()), static_cast<std::streamsize>(count * sizeof(DriftRecord)));
  DriftLogReset(log);
  DriftLogSetPath(log, path.c_str());
  log.follow_newest = true;
  if (!DriftLogLoad(nullptr, log)) std::abort();
  return log;
}

void RenderTo(benchmark::State& state, platform::ImageFormat format, const char* name) {
  DriftLog& log = Loaded(64);
  const auto path = (BenchDir() / name).string();
  for (auto _ : state) {
    auto canvas = platform::CreateImageCanvas(format, path, 636, 308);
    DrawDriftGraph(*canvas, &log, 40, 0);
    if (!canvas->Finish()) state.SkipWithError("picture not written");
  }
}

void BM_GraphWindowPng(benchmark::State& state) { RenderTo(state, platform::ImageFormat::Png, "bench.png"); }
BENCHMARK(BM_GraphWindowPng)->Unit(benchmark::kMillisecond);

void BM_GraphWindowSvg(benchmark::State& state) { RenderTo(state, platform::ImageFormat::Svg, "bench.svg"); }
BENCHMARK(BM_GraphWindowSvg)->Unit(benchmark::kMillisecond);

// The drawing logic alone: what a window's redraw costs before GDI or Cairo paint anything.
void BM_GraphDrawLogic(benchmark::State& state) {
  DriftLog& log = Loaded(64);
  for (auto _ : state) {
    platform::RecordingCanvas canvas(636, 308);
    benchmark::DoNotOptimize(DrawDriftGraph(canvas, &log, 40, 0));
  }
}
BENCHMARK(BM_GraphDrawLogic)->Unit(benchmark::kMicrosecond);

// The Auto choice at every first shown record of a full 16,384-record history (16,321 pages).
void BM_GraphAutoScaleFullHistory(benchmark::State& state) {
  DriftLog& log = Loaded(16'384);
  std::uint64_t sum = 0;
  for (auto _ : state) {
    for (std::uint32_t first = 0; first + log.per_screen <= log.record_count; ++first) {
      log.first_shown = first;
      log.end_shown = first + log.per_screen;
      sum += DriftGraphAutoScale(log);
    }
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations() * (log.record_count - log.per_screen + 1));
}
BENCHMARK(BM_GraphAutoScaleFullHistory)->Unit(benchmark::kMillisecond);

}  // namespace
