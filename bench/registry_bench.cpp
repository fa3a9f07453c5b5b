// The registry layer over the Linux store: cost of one read and one write (each opens its key,
// runs one transaction and closes the key again).
//   build/linux/bench/registry_bench
#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>

#include "config/registry.h"
#include "platform/paths.h"

namespace {

// A fresh machine root for the life of the object.
class FreshRoot {
 public:
  FreshRoot() : root_(std::filesystem::temp_directory_path() / "cw-registry-bench") {
    std::filesystem::remove_all(root_);
    platform::SetEnvironmentValue("CHRONWARDEN_ROOT", root_.string().c_str());
  }
  ~FreshRoot() {
    std::filesystem::remove_all(root_);
    platform::SetEnvironmentValue("CHRONWARDEN_ROOT", nullptr);
  }

 private:
  std::filesystem::path root_;
};

void BM_GetDword(benchmark::State& state) {
  FreshRoot root;
  reg_set_dword(reg_local(), "", "Value", 42);
  for (auto _ : state) benchmark::DoNotOptimize(reg_get_dword(reg_local(), "", "Value", 0));
}
BENCHMARK(BM_GetDword);

void BM_GetBoolOfAWord(benchmark::State& state) {
  FreshRoot root;
  reg_set_bool(reg_local(), "", "Flag", 1);
  for (auto _ : state) benchmark::DoNotOptimize(reg_get_bool(reg_local(), "", "Flag", 0));
}
BENCHMARK(BM_GetBoolOfAWord);

void BM_SetDword(benchmark::State& state) {
  FreshRoot root;
  std::uint32_t n = 0;
  for (auto _ : state) reg_set_dword(reg_local(), "", "Value", ++n);
}
BENCHMARK(BM_SetDword);

void BM_SetStringDeepKey(benchmark::State& state) {
  FreshRoot root;
  for (auto _ : state) reg_set_string(reg_local(), "\\\\System\\CurrentControlSet\\Services\\W32Time\\TimeProviders\\Chronwarden", "Service Running", "True");
}
BENCHMARK(BM_SetStringDeepKey);

}  // namespace
