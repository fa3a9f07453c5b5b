// The running process as a monitoring system sees it (the figures every Prometheus exporter gives
// as process_*), and the request to end it (SIGTERM / SIGINT, Ctrl-C / Ctrl-Break on Windows).
#pragma once
#include <cstdint>

namespace platform {

struct ProcessUsage {
  double cpu_seconds = 0;              // user + system time
  std::uint64_t resident_bytes = 0;
  std::uint64_t virtual_bytes = 0;
  double start_time_unix = 0;          // seconds since 1970 (UTC)
  std::uint64_t open_files = 0;        // file descriptors / handles in use
  std::uint64_t max_files = 0;         // their limit (0 when there is none)
};
// False when the figures cannot be read (last error set).
bool ReadProcessUsage(ProcessUsage& out);

// Takes over the termination request: from now on SIGTERM and SIGINT (Windows: the console's
// Ctrl-C, Ctrl-Break and close) no longer end the process but wake WaitTerminationRequest.
bool CatchTerminationRequest();
// Blocks until the termination request came. False when none can come (not taken over).
bool WaitTerminationRequest();

}  // namespace platform
