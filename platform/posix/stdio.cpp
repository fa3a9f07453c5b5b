// Standard input and output on POSIX; termination signals end the input through a self-pipe.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "platform/stdio.h"
#include "platform/stdio_sys.h"

namespace platform {
namespace {

int g_stop_pipe[2] = {-1, -1};

void OnSignal(int) {
  const char byte = 1;
  [[maybe_unused]] const ssize_t n = ::write(g_stop_pipe[1], &byte, 1);
}

}  // namespace

void EndInputOnTermination() {
  if (g_stop_pipe[0] >= 0 || ::pipe2(g_stop_pipe, O_CLOEXEC | O_NONBLOCK) != 0) return;
  struct sigaction sa{};
  sa.sa_handler = OnSignal;
  sigemptyset(&sa.sa_mask);
  for (const int s : {SIGTERM, SIGHUP, SIGINT}) ::sigaction(s, &sa, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
}

void EndInput() {
  if (g_stop_pipe[1] >= 0) OnSignal(0);
}

long sys::ReadStandardInput(char* buf, std::size_t size) {
  for (;;) {
    pollfd fds[2] = {{0, POLLIN, 0}, {g_stop_pipe[0], POLLIN, 0}};
    const int r = ::poll(fds, g_stop_pipe[0] >= 0 ? 2 : 1, -1);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) return -1;
    if (fds[1].revents & POLLIN) return 0;
    const ssize_t n = ::read(0, buf, size);
    if (n < 0 && errno == EINTR) continue;
    return long(n);
  }
}

bool sys::WriteStandardOutput(std::string_view bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(1, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += std::size_t(n);
  }
  return true;
}

}  // namespace platform
