// Test helper: appends drift records to FILE as the provider does, numbered from FIRST, and prints
// each number once its append has returned (so the record is on disk), until it is killed or, with
// COUNT, until it has appended COUNT records (exit code 0, or 1 when an append failed).
// Usage: drift_writer FILE FIRST [COUNT]
#include <cstdio>
#include <cstdlib>

#include "drift/drift_file.h"

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) return 2;
  if (!DriftFileOpenPath(argv[1])) return 3;
  const unsigned long first = std::strtoul(argv[2], nullptr, 10);
  const unsigned long count = argc == 4 ? std::strtoul(argv[3], nullptr, 10) : 0;
  for (unsigned long i = first; count == 0 || i < first + count; ++i) {
    if (!DriftFileAppend(static_cast<std::int64_t>(i), static_cast<std::uint32_t>(i), i & 1, kReasonScheduled,
                         "10.0.0.1", kMachineChronwarden))
      return 1;
    std::printf("%lu\n", i);
    std::fflush(stdout);
  }
  DriftFileClose();
  return 0;
}
