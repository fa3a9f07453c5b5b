// A periodic timer whose callback runs on the thread that armed it, during that thread's alertable
// waits: the Win32 waitable timer with a completion routine (POSIX: timerfd + epoll).
#pragma once
#include <cstdint>
#include "platform/sync.h"

namespace platform {

struct TickTimerObject;
using TickTimerHandle = TickTimerObject*;

// Handed the system time (SystemTimeAsFileTime) at which the timer fired, split in 32-bit halves.
using TickCallback = void (*)(std::uint32_t time_low, std::uint32_t time_high);

TickTimerHandle CreateTickTimer();           // nullptr when the system has no such timer
// Arms the timer to fire at once and then every period_ms; callbacks run in this thread's alertable waits.
bool ArmTickTimer(TickTimerHandle timer, std::uint32_t period_ms, TickCallback callback);
void CancelTickTimer(TickTimerHandle timer);
void CloseTickTimer(TickTimerHandle timer);
// Alertable wait on any of count events (WaitForMultipleObjectsEx(..., FALSE, ..., TRUE)):
// kWaitObject0 + i for the first set, kWaitIoCompletion after running due timer callbacks,
// kWaitTimeout or kWaitFailed.
std::uint32_t WaitForEventsAlertable(const EventHandle* events, std::uint32_t count, std::uint32_t timeout_ms);
// The same on one event (WaitForSingleObjectEx(..., TRUE)).
inline std::uint32_t WaitForEventAlertable(EventHandle event, std::uint32_t timeout_ms) {
  return WaitForEventsAlertable(&event, 1, timeout_ms);
}

}  // namespace platform
