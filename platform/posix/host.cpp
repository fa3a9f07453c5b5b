// The host's system facilities on Linux.
#include "platform/host.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/timex.h>
#include <sys/un.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/error.h"
#include "platform/paths.h"
#include "platform/posix/win32_code.h"

namespace platform::host {
namespace {

int g_signal_fd = -1;
int g_step_fd = -1;
int g_root_fd = -1;   // the machine root's folder (WatchMachineRoot)
std::mutex g_log_lock;
bool g_log_stderr = false;

// A far-away absolute expiry: the timer exists only to be cancelled by a clock step.
bool ArmStepTimer() {
  itimerspec far{};
  far.it_value.tv_sec = INT_MAX;
  return timerfd_settime(g_step_fd, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &far, nullptr) == 0;
}

}  // namespace

bool OpenWakeups() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  if (const int err = pthread_sigmask(SIG_BLOCK, &set, nullptr)) return SetLastError(Win32CodeOfErrno(err)), false;
  g_signal_fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (g_signal_fd >= 0) g_step_fd = timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK);
  if (g_signal_fd < 0 || g_step_fd < 0 || !ArmStepTimer()) {
    const int err = errno;
    CloseWakeups();
    return SetLastError(Win32CodeOfErrno(err)), false;
  }
  return true;
}

Wake WaitWakeup(std::uint32_t timeout_ms) {
  pollfd fds[2] = {{g_signal_fd, POLLIN, 0}, {g_step_fd, POLLIN, 0}};
  const int n = poll(fds, 2, static_cast<int>(timeout_ms));
  if (n < 0 && errno == EINTR) return Wake::Timeout;
  if (n < 0) return SetLastError(Win32CodeOfErrno(errno)), Wake::Failed;
  if (n == 0) return Wake::Timeout;
  if (fds[0].revents & POLLIN) {
    signalfd_siginfo info{};
    if (read(g_signal_fd, &info, sizeof info) == sizeof info)
      return info.ssi_signo == SIGHUP ? Wake::Reload : Wake::Terminate;
  }
  if (fds[1].revents & POLLIN) {
    std::uint64_t expirations = 0;
    const bool stepped = read(g_step_fd, &expirations, sizeof expirations) < 0 && errno == ECANCELED;
    ArmStepTimer();   // a cancelled timer must be armed again
    if (stepped) return Wake::ClockStepped;
  }
  return Wake::Timeout;
}

void CloseWakeups() {
  if (g_signal_fd >= 0) close(g_signal_fd);
  if (g_step_fd >= 0) close(g_step_fd);
  g_signal_fd = g_step_fd = -1;
}

void OpenSystemLog(bool also_stderr) { g_log_stderr = also_stderr; }

void SystemLog(const char* ident, int level, const char* text) {
  std::lock_guard lock(g_log_lock);
  openlog(ident, LOG_PID | (g_log_stderr ? LOG_PERROR : 0), LOG_DAEMON);
  syslog(level, "%s", text);
  closelog();
}

void NotifyServiceManager(const char* state) { sd_notify(0, state); }

std::uint64_t BootTime100ns() {
  timespec ts{};
  clock_gettime(CLOCK_BOOTTIME, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 10'000'000 + static_cast<std::uint64_t>(ts.tv_nsec) / 100;
}

bool ReadKernelClock(KernelClock& out) {
  timex tx{};
  const int state = adjtimex(&tx);
  if (state < 0) return false;
  out.synchronized = (tx.status & STA_UNSYNC) == 0 && state != TIME_ERROR;
  out.offset_100ns = (tx.status & STA_NANO) ? tx.offset / 100 : tx.offset * 10;
  out.max_error_us = static_cast<std::uint32_t>(tx.maxerror);
  out.est_error_us = static_cast<std::uint32_t>(tx.esterror);
  out.leap = !out.synchronized ? 3 : (tx.status & STA_INS) ? 1 : (tx.status & STA_DEL) ? 2 : 0;
  out.constant = static_cast<std::int32_t>(tx.constant);
  return true;
}

int LocalDatagramRequest(const char* server_path, const void* request, std::size_t request_size, void* reply,
                         std::size_t reply_size, std::uint32_t timeout_ms) {
  sockaddr_un server{}, local{};
  server.sun_family = local.sun_family = AF_UNIX;
  if (!server_path || std::strlen(server_path) >= sizeof server.sun_path) return -1;
  std::strcpy(server.sun_path, server_path);
  std::string dir(server_path);
  dir = dir.substr(0, dir.rfind('/') + 1);
  const std::string own = dir + "chronwarden-host." + std::to_string(getpid()) + ".sock";
  if (own.size() >= sizeof local.sun_path) return -1;
  std::strcpy(local.sun_path, own.c_str());
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  unlink(local.sun_path);
  int got = -1;
  if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0) {
    chmod(local.sun_path, 0666);   // chronyd answers as its own user
    if (connect(fd, reinterpret_cast<sockaddr*>(&server), sizeof server) == 0 &&
        send(fd, request, request_size, 0) == static_cast<ssize_t>(request_size)) {
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(timeout_ms)) == 1) got = static_cast<int>(recv(fd, reply, reply_size, 0));
    }
    unlink(local.sun_path);
  }
  close(fd);
  return got;
}

bool WatchMachineRoot() {
  if (g_root_fd >= 0) ::close(g_root_fd);
  g_root_fd = ::open(MachineRoot().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  return g_root_fd >= 0;
}

bool MachineRootGone() {
  struct stat st {};
  // A deleted folder keeps no links; the descriptor still reaches it.
  return g_root_fd < 0 || ::fstat(g_root_fd, &st) != 0 || st.st_nlink == 0;
}

const char* ProgramPath() {
  static char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  path[n > 0 ? n : 0] = 0;
  return path;
}

}  // namespace platform::host
