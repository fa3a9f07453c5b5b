// Events and waits on POSIX.
#include "platform/sync.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "platform/error.h"
#include "platform/posix/event.h"
#include "platform/sys.h"

namespace platform {
namespace {

void Raise(int fd) { std::uint64_t one = 1; (void)!write(fd, &one, sizeof one); }
void Drain(int fd) { std::uint64_t v; (void)!read(fd, &v, sizeof v); }

}  // namespace

namespace posix {
bool TryConsume(EventObject* e) {
  // A named event's state is its shared word; the local flag only mirrors it for poll().
  if (e->named) return NamedIsSet(e);
  std::lock_guard lock(e->mutex);
  if (!e->set) return false;
  if (!e->manual_reset) {
    e->set = false;
    Drain(e->fd);
  }
  return true;
}
void SetLocalLocked(EventObject* e, bool set) {
  if (e->set == set) return;
  e->set = set;
  if (set)
    Raise(e->fd);
  else
    Drain(e->fd);
}
}  // namespace posix

EventHandle sys::CreateSyncEvent(bool manual_reset, bool initially_set) {
  int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (fd < 0) {
    SetLastError(kErrorNotEnoughMemory);
    return nullptr;
  }
  auto* e = new EventObject;
  e->manual_reset = manual_reset;
  e->fd = fd;
  if (initially_set) SetEvent(e);
  return e;
}

bool SetEvent(EventHandle e) {
  if (!e) return SetLastError(kErrorInvalidHandle), false;
  if (e->named) return posix::SetNamed(e, true), true;
  std::lock_guard lock(e->mutex);
  posix::SetLocalLocked(e, true);
  return true;
}

bool ResetEvent(EventHandle e) {
  if (!e) return SetLastError(kErrorInvalidHandle), false;
  if (e->named) return posix::SetNamed(e, false), true;
  std::lock_guard lock(e->mutex);
  posix::SetLocalLocked(e, false);
  return true;
}

void CloseEvent(EventHandle e) {
  if (!e) return;
  if (e->named) posix::CloseNamed(e);
  close(e->fd);
  delete e;
}

std::uint32_t WaitForAnyEvent(const EventHandle* events, std::uint32_t count, std::uint32_t timeout_ms) {
  if (count == 0 || !events) return SetLastError(kErrorInvalidParameter), kWaitFailed;
  // Each event's eventfd, then the sockets bound to events (SelectSocketEvent): readable data on
  // such a socket sets its event, as Winsock's FD_READ does.
  std::vector<pollfd> fds(count);
  std::vector<std::uint32_t> bound;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (!events[i]) return SetLastError(kErrorInvalidHandle), kWaitFailed;
    fds[i] = {events[i]->fd, POLLIN, 0};
    std::lock_guard<std::mutex> hold(events[i]->mutex);
    if (events[i]->socket_fd >= 0) {
      fds.push_back({events[i]->socket_fd, POLLIN, 0});
      bound.push_back(i);
    }
  }
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  // The lowest auto-reset event whose socket poll found readable: it is returned by this wait
  // directly, without raising its eventfd only to drain it again (two system calls per datagram
  // burst on a busy responder).
  std::uint32_t ready = count;
  bool polled = false;
  const auto poll_fds = [&](int wait) {
    polled = true;
    if (poll(fds.data(), fds.size(), wait) < 0 && errno != EINTR) return false;
    for (std::size_t b = 0; b < bound.size(); ++b) {
      if (!(fds[count + b].revents & (POLLIN | POLLERR))) continue;
      EventObject* e = events[bound[b]];
      std::lock_guard<std::mutex> hold(e->mutex);
      if (e->socket_fd != fds[count + b].fd) continue;
      if (e->manual_reset) posix::SetLocalLocked(e, true);
      else ready = std::min(ready, bound[b]);
    }
    return true;
  };
  // The sockets are looked at on every wait, also when an event is set already: an event that
  // stays set (a named event's word left set by another process) never keeps an earlier socket's
  // requests unseen.
  if (!bound.empty() && std::any_of(events, events + count, [](EventObject* e) {
        std::lock_guard<std::mutex> hold(e->mutex);
        return e->set;
      }) && !poll_fds(0))
    return SetLastError(kErrorInvalidHandle), kWaitFailed;
  for (;;) {
    for (std::uint32_t i = 0; i < count; ++i)
      if (posix::TryConsume(events[i]) || i == ready) return kWaitObject0 + i;
    int wait = -1;
    if (timeout_ms != kInfinite) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      // A wait already due (a time-out of 0) still looks at the sockets once: their data is there.
      if (left <= 0 && (polled || bound.empty())) return kWaitTimeout;
      wait = static_cast<int>(std::max<long long>(left, 0));
    }
    if (!poll_fds(wait)) return SetLastError(kErrorInvalidHandle), kWaitFailed;
  }
}

std::uint32_t WaitForEvent(EventHandle event, std::uint32_t timeout_ms) {
  return WaitForAnyEvent(&event, 1, timeout_ms);
}

void sys::Sleep(std::uint32_t ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

}  // namespace platform
