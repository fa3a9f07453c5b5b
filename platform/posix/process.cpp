// The process's figures from /proc/self and getrusage; the termination request through sigwait.
#include "platform/process.h"

#include <dirent.h>
#include <signal.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/error.h"

namespace platform {
namespace {

sigset_t g_termination;
bool g_caught = false;

std::uint64_t CountOpenFiles() {
  DIR* d = opendir("/proc/self/fd");
  if (!d) return 0;
  std::uint64_t n = 0;
  while (const dirent* e = readdir(d))
    if (e->d_name[0] != '.') ++n;
  closedir(d);
  return n > 0 ? n - 1 : 0;   // less the directory's own descriptor
}

}  // namespace

bool ReadProcessUsage(ProcessUsage& out) {
  out = {};
  rusage ru{};
  if (getrusage(RUSAGE_SELF, &ru) != 0) return SetLastError(kErrorGenFailure), false;
  out.cpu_seconds = static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
                    static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
  // /proc/self/stat: field 22 is the start time in clock ticks after boot, 23 the virtual size in
  // bytes, 24 the resident size in pages. The command name (field 2) may hold spaces: skip past ')'.
  FILE* f = std::fopen("/proc/self/stat", "r");
  if (!f) return SetLastError(kErrorFileNotFound), false;
  char line[1024] = {};
  const bool read = std::fgets(line, sizeof line, f) != nullptr;
  std::fclose(f);
  const char* p = read ? std::strrchr(line, ')') : nullptr;
  unsigned long long start_ticks = 0, vsize = 0, rss_pages = 0;
  if (!p || std::sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %llu %llu %llu",
                        &start_ticks, &vsize, &rss_pages) != 3)
    return SetLastError(kErrorInvalidData), false;
  out.virtual_bytes = vsize;
  out.resident_bytes = rss_pages * static_cast<unsigned long long>(sysconf(_SC_PAGESIZE));
  timespec now_real{}, now_boot{};
  clock_gettime(CLOCK_REALTIME, &now_real);
  clock_gettime(CLOCK_BOOTTIME, &now_boot);
  const double boot_unix = (static_cast<double>(now_real.tv_sec) + now_real.tv_nsec / 1e9) -
                           (static_cast<double>(now_boot.tv_sec) + now_boot.tv_nsec / 1e9);
  out.start_time_unix = boot_unix + static_cast<double>(start_ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
  out.open_files = CountOpenFiles();
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) out.max_files = limit.rlim_cur;
  return true;
}

bool CatchTerminationRequest() {
  sigemptyset(&g_termination);
  sigaddset(&g_termination, SIGTERM);
  sigaddset(&g_termination, SIGINT);
  // Blocked in every thread started from now on, so that only sigwait takes them.
  g_caught = pthread_sigmask(SIG_BLOCK, &g_termination, nullptr) == 0;
  return g_caught;
}

bool WaitTerminationRequest() {
  if (!g_caught) return false;
  int signal = 0;
  while (sigwait(&g_termination, &signal) != 0) {
  }
  return true;
}

}  // namespace platform
