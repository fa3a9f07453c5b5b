// Fuzz target: arbitrary bytes as a drift history snapshot (fuzz/drift_fuzz_input.h) written out
// as the synchronization summary report, every text it hands out copied so that a bad pointer or
// length shows up under the sanitizers. Inputs of more than 100 records are refused (not kept in the
// corpus): every record line goes through the same code, and no figure of the report changes its
// form beyond that count, so longer inputs would only make each run slower.
#include <cstddef>
#include <cstdint>

#include "drift/report.h"
#include "fuzz/drift_fuzz_input.h"

namespace {

void Discard(void*, const char* text, std::size_t length) { TouchFuzzText(text, length); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 100 * sizeof(DriftRecord) + 1) return -1;
  DriftLog log;
  const std::uint8_t options = DriftLogFromFuzzInput(log, data, size);
  if (log.records) RenderDriftReport(log, "Universal Coordinated Time (GMT+0)", 0x65000000u + options, Discard, nullptr);
  return 0;
}
