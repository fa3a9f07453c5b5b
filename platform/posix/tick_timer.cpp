// The periodic tick timer on POSIX: a timerfd on CLOCK_MONOTONIC, polled together with the event
// in the owning thread's alertable wait, whose callback runs there (as a Win32 completion routine).
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>

#include "platform/clock.h"
#include "platform/error.h"
#include "platform/posix/event.h"
#include "platform/sys.h"

namespace platform {

struct TickTimerObject {
  int fd = -1;
  TickCallback callback = nullptr;
};

namespace {
// How long after a clock tick the timer fires: enough for the tick to have updated the coarse
// clock, little enough that the baseline is taken close to the tick.
long long TickLeadNs() {
  static const long long lead = [] {
    const char* env = std::getenv("CHRONWARDEN_TICK_LEAD_US");
    return (env ? std::atoll(env) : 150) * 1000;
  }();
  return lead;
}
thread_local TickTimerObject* t_armed = nullptr;  // the timer this thread armed; its callbacks run here
}

TickTimerHandle sys::CreateTickTimer() {
  int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  if (fd < 0) return nullptr;
  auto* t = new TickTimerObject;
  t->fd = fd;
  return t;
}

bool sys::ArmTickTimer(TickTimerHandle t, std::uint32_t period_ms, TickCallback callback) {
  if (!t || !callback) return SetLastError(kErrorInvalidHandle), false;
  // Windows timers expire at clock interrupts, so the first callback after a tick sees the new
  // system time at once. Linux timers are not tied to the tick; phase-lock the expiries to the
  // tick instead: CLOCK_MONOTONIC_COARSE holds the last tick's instant, and expiries fall a short
  // lead after it (and every period_ms after that, which keeps the phase for HZ 100, 250 and 1000).
  timespec tick{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &tick);
  const long long period_ns = static_cast<long long>(period_ms) * 1'000'000;
  const long long first_ns = tick.tv_sec * 1'000'000'000LL + tick.tv_nsec + period_ns + TickLeadNs();
  itimerspec setting{};
  setting.it_interval.tv_sec = static_cast<time_t>(period_ns / 1'000'000'000);
  setting.it_interval.tv_nsec = static_cast<long>(period_ns % 1'000'000'000);
  setting.it_value.tv_sec = static_cast<time_t>(first_ns / 1'000'000'000);
  setting.it_value.tv_nsec = static_cast<long>(first_ns % 1'000'000'000);
  if (timerfd_settime(t->fd, TFD_TIMER_ABSTIME, &setting, nullptr) != 0) return SetLastError(kErrorInvalidParameter), false;
  t->callback = callback;
  t_armed = t;
  return true;
}

void sys::CancelTickTimer(TickTimerHandle t) {
  if (!t) return;
  itimerspec off{};
  timerfd_settime(t->fd, 0, &off, nullptr);
  t->callback = nullptr;
  if (t_armed == t) t_armed = nullptr;
}

void sys::CloseTickTimer(TickTimerHandle t) {
  if (!t) return;
  if (t_armed == t) t_armed = nullptr;
  close(t->fd);
  delete t;
}

std::uint32_t sys::WaitForEventAlertable(EventHandle event, std::uint32_t timeout_ms) {
  if (!event) return SetLastError(kErrorInvalidHandle), kWaitFailed;
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    if (posix::TryConsume(event)) return kWaitObject0;
    pollfd fds[2] = {{event->fd, POLLIN, 0}, {t_armed ? t_armed->fd : -1, POLLIN, 0}};
    int wait = -1;
    if (timeout_ms != kInfinite) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) return kWaitTimeout;
      wait = static_cast<int>(left);
    }
    int n = poll(fds, 2, wait);
    if (n < 0 && errno != EINTR) return SetLastError(kErrorInvalidHandle), kWaitFailed;
    if (n > 0 && (fds[1].revents & POLLIN) && t_armed) {
      std::uint64_t expirations;
      if (read(t_armed->fd, &expirations, sizeof expirations) == sizeof expirations) {
        std::uint64_t now = SystemTimeAsFileTime();
        t_armed->callback(static_cast<std::uint32_t>(now), static_cast<std::uint32_t>(now >> 32));
        return kWaitIoCompletion;
      }
    }
  }
}

}  // namespace platform
