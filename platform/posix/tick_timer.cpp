// The periodic tick timer on POSIX: a timerfd on CLOCK_MONOTONIC, polled together with the event
// in the owning thread's alertable wait, whose callback runs there (as a Win32 completion routine).
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>

#include "platform/clock.h"
#include "platform/error.h"
#include "platform/posix/event.h"
#include "platform/posix/tick_phase.h"
#include "platform/sys.h"

namespace platform {

struct TickTimerObject {
  int fd = -1;
  TickCallback callback = nullptr;
  long long period_ns = 0;
  long long lead_ns = 0;             // expiries fall this long after each clock tick
  posix::TickPhaseWatch watch;
};

namespace {

long long Now(clockid_t id) {
  timespec ts{};
  clock_gettime(id, &ts);
  return ts.tv_sec * 1'000'000'000LL + ts.tv_nsec;
}

// A fixed lead (us) from CHRONWARDEN_TICK_LEAD_US turns the measurement off; -1 when unset.
long long FixedLeadNs() {
  static const long long lead = [] {
    const char* env = std::getenv("CHRONWARDEN_TICK_LEAD_US");
    return env ? std::atoll(env) * 1000 : -1;
  }();
  return lead;
}

// The lead from `steps` freshly timed steps of the coarse clock (which also update the coarse
// system time's correction), or the fixed lead.
long long MeasureLead(long long period_ns, int steps) {
  if (FixedLeadNs() >= 0) return FixedLeadNs();
  std::array<long long, posix::kTickLagSamples> lags{};
  const int n = posix::MeasureCoarseSteps(steps, lags);
  return posix::TickLeadFromLags(std::span(lags.data(), static_cast<std::size_t>(n)), period_ns);
}

// Sets the expiries a lead after the clock ticks: CLOCK_MONOTONIC_COARSE holds the last tick's
// instant, and the timer fires a period and the lead after it, then every period (which keeps the
// phase for HZ 100, 250 and 1000).
bool SetPhase(TickTimerObject* t) {
  const long long first_ns = Now(CLOCK_MONOTONIC_COARSE) + t->period_ns + t->lead_ns;
  itimerspec setting{};
  setting.it_interval.tv_sec = static_cast<time_t>(t->period_ns / 1'000'000'000);
  setting.it_interval.tv_nsec = static_cast<long>(t->period_ns % 1'000'000'000);
  setting.it_value.tv_sec = static_cast<time_t>(first_ns / 1'000'000'000);
  setting.it_value.tv_nsec = static_cast<long>(first_ns % 1'000'000'000);
  if (timerfd_settime(t->fd, TFD_TIMER_ABSTIME, &setting, nullptr) != 0) return false;
  t->watch.Reset(t->lead_ns, t->period_ns);
  return true;
}

thread_local TickTimerObject* t_armed = nullptr;  // the timer this thread armed; its callbacks run here

}  // namespace


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
  // tick instead, a measured lead after it (platform/posix/tick_phase.h).
  // The lead is measured at the first arming of a period only: a timer armed again (the precise
  // clock ticks only while a measurement needs it) keeps the lead it had, and the watch below
  // measures again when the phase drifts.
  const long long period_ns = static_cast<long long>(period_ms) * 1'000'000;
  if (period_ns != t->period_ns || t->lead_ns <= 0) t->lead_ns = MeasureLead(period_ns, posix::kTickLagSamples);
  t->period_ns = period_ns;
  if (!SetPhase(t)) return SetLastError(kErrorInvalidParameter), false;
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

std::uint32_t sys::WaitForEventsAlertable(const EventHandle* events, std::uint32_t count, std::uint32_t timeout_ms) {
  constexpr std::uint32_t kMaxEvents = 8;   // this wait's callers wait on one or two
  if (!events || count == 0 || count > kMaxEvents) return SetLastError(kErrorInvalidParameter), kWaitFailed;
  for (std::uint32_t i = 0; i < count; ++i)
    if (!events[i]) return SetLastError(kErrorInvalidHandle), kWaitFailed;
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    for (std::uint32_t i = 0; i < count; ++i)
      if (posix::TryConsume(events[i])) return kWaitObject0 + i;
    pollfd fds[kMaxEvents + 1];
    fds[0] = {t_armed ? t_armed->fd : -1, POLLIN, 0};
    for (std::uint32_t i = 0; i < count; ++i) fds[i + 1] = {events[i]->fd, POLLIN, 0};
    int wait = -1;
    if (timeout_ms != kInfinite) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) return kWaitTimeout;
      wait = static_cast<int>(left);
    }
    int n = poll(fds, count + 1, wait);
    if (n < 0 && errno != EINTR) return SetLastError(kErrorInvalidHandle), kWaitFailed;
    if (n > 0 && (fds[0].revents & POLLIN) && t_armed) {
      std::uint64_t expirations;
      if (read(t_armed->fd, &expirations, sizeof expirations) == sizeof expirations) {
        std::uint64_t now = SystemTimeAsFileTime();
        t_armed->callback(static_cast<std::uint32_t>(now), static_cast<std::uint32_t>(now >> 32));
        const auto verdict =
            FixedLeadNs() < 0 ? t_armed->watch.Observe(Now(CLOCK_MONOTONIC), Now(CLOCK_MONOTONIC_COARSE))
                              : posix::TickPhaseWatch::kKeep;
        if (verdict != posix::TickPhaseWatch::kKeep) {
          const long long measured = MeasureLead(t_armed->period_ns, posix::kTickLagSamples);
          t_armed->lead_ns = verdict == posix::TickPhaseWatch::kLate
                                 ? std::max(measured, t_armed->lead_ns + posix::kTickLeadMarginNs)
                                 : measured;
          SetPhase(t_armed);
        }
        return kWaitIoCompletion;
      }
    }
  }
}

}  // namespace platform
