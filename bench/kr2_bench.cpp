// The fleet view's sweep: KR2 status and identity of 200 machines, each a responder on its own
// loopback socket (127.0.0.1, a port each) served by its own thread, asked over one socket with
// every request in flight together.
#include <benchmark/benchmark.h>

#include <vector>

#include "applet/kr2_client.h"
#include "tests/kr2_loopback.h"

namespace {

void BM_MonitorSweep200(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  ResetKr2ForTest(1'600'000'000, "BENCH");
  SetKr2Prohibited(false);
  LoopbackKr2Responders responders;
  if (!responders.Start(count)) {
    state.SkipWithError("could not open the responders' sockets");
    return;
  }
  std::size_t answered = 0, sweeps = 0;
  for (auto _ : state) {
    std::vector<Kr2SweepEntry> machines;
    for (const auto& a : responders.addresses) machines.push_back(Kr2SweepEntry{a});
    Kr2Sweep(machines, 2000);
    for (const auto& m : machines) answered += m.have_status && m.have_identity;
    ++sweeps;
  }
  state.counters["answered_per_sweep"] = static_cast<double>(answered) / static_cast<double>(sweeps);
}
BENCHMARK(BM_MonitorSweep200)->Arg(200)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
