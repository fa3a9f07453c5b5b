// The drift history: appends (each flushed to disk), loading a full 16,384-record file, and the
// summary report of it.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "drift/drift_file.h"
#include "drift/drift_log.h"
#include "drift/report.h"

namespace {

std::filesystem::path BenchDir() {
  static const std::filesystem::path dir = [] {
    auto d = std::filesystem::temp_directory_path() / "cw-drift-bench";
    std::filesystem::create_directories(d);
    return d;
  }();
  return dir;
}

// A full file: 16,384 records, one a minute, variances spread over every histogram bucket.
std::string FullFile() {
  const auto path = (BenchDir() / "full.kr").string();
  std::vector<DriftRecord> records(16'384);
  for (std::uint32_t i = 0; i < records.size(); ++i) {
    DriftRecord& r = records[i];
    r.version = 41;
    r.flags = static_cast<std::uint8_t>((7 << 1) | (i % 7 == 0));
    r.reason = i % 50 == 0 ? 255 : 1;
    r.check_time = 1'700'000'000 + i * 60;
    r.variance_ms = static_cast<std::int32_t>((i * 7919) % 12'000) - 6'000;
    r.address = i % 3 ? 0x0100000A : 0;
  }
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(reinterpret_cast<const char*>(records.data()), static_cast<std::streamsize>(records.size() * sizeof(DriftRecord)));
  return path;
}

void BM_AppendFlushed(benchmark::State& state) {
  const auto path = (BenchDir() / "append.kr").string();
  std::filesystem::remove(path);
  DriftFileOpenPath(path);
  std::uint32_t t = 1'700'000'000;
  for (auto _ : state) DriftFileAppend(-12, ++t, 0, 1, "10.0.0.1", 7);
  DriftFileClose();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AppendFlushed)->Unit(benchmark::kMicrosecond);

void BM_LoadFull(benchmark::State& state) {
  const auto path = FullFile();
  DriftLog log;
  DriftLogSetPath(log, path.c_str());
  for (auto _ : state) {
    DriftLogReset(log);
    if (!DriftLogLoad(nullptr, log)) state.SkipWithError("load failed");
    benchmark::DoNotOptimize(log.average_interval);
  }
  state.SetBytesProcessed(state.iterations() * 327'680);
}
BENCHMARK(BM_LoadFull)->Unit(benchmark::kMicrosecond);

void Discard(void* context, const char*, std::size_t length) { *static_cast<std::size_t*>(context) += length; }

void BM_ReportFullRender(benchmark::State& state) {
  const auto path = FullFile();
  DriftLog log;
  DriftLogSetPath(log, path.c_str());
  DriftLogLoad(nullptr, log);
  std::size_t bytes = 0;
  for (auto _ : state) RenderDriftReport(log, "Universal Coordinated Time (GMT+0)", 1'800'000'000, Discard, &bytes);
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}
BENCHMARK(BM_ReportFullRender)->Unit(benchmark::kMillisecond);

void BM_ReportFullToFile(benchmark::State& state) {
  const auto path = FullFile();
  const auto out = (BenchDir() / "full.txt").string();
  DriftLog log;
  DriftLogSetPath(log, path.c_str());
  DriftLogLoad(nullptr, log);
  for (auto _ : state)
    if (WriteDriftReportFile(log, out.c_str(), "Universal Coordinated Time (GMT+0)")) state.SkipWithError("write failed");
}
BENCHMARK(BM_ReportFullToFile)->Unit(benchmark::kMillisecond);

}  // namespace
