// Test helper: appends drift records to FILE as the provider does, numbered from FIRST, and prints
// each number once its append has returned (so the record is on disk), until it is killed.
// Usage: drift_writer FILE FIRST
#include <cstdio>
#include <cstdlib>

#include "drift/drift_file.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  if (!DriftFileOpenPath(argv[1])) return 3;
  for (unsigned long i = std::strtoul(argv[2], nullptr, 10);; ++i) {
    DriftFileAppend(static_cast<std::int64_t>(i), static_cast<std::uint32_t>(i), i & 1, kReasonScheduled, "10.0.0.1",
                    kMachineChronwarden);
    std::printf("%lu\n", i);
    std::fflush(stdout);
  }
}
