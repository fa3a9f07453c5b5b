// Events, waits, sleeping: the Win32 synchronisation objects the system is written against.
#pragma once
#include <cstdint>
#include <memory>

namespace platform {

struct EventObject;
using EventHandle = EventObject*;   // nullptr is "no event"

inline constexpr std::uint32_t kWaitObject0 = 0;            // WAIT_OBJECT_0: the first (or only) object is signalled
inline constexpr std::uint32_t kWaitIoCompletion = 0xC0;    // WAIT_IO_COMPLETION: an alertable wait ran a callback
inline constexpr std::uint32_t kWaitTimeout = 258;          // WAIT_TIMEOUT
inline constexpr std::uint32_t kWaitFailed = 0xFFFFFFFF;    // WAIT_FAILED
inline constexpr std::uint32_t kInfinite = 0xFFFFFFFF;      // INFINITE time-out

EventHandle CreateSyncEvent(bool manual_reset, bool initially_set);  // unnamed event; nullptr on failure (last error set)
bool SetEvent(EventHandle event);
bool ResetEvent(EventHandle event);
void CloseEvent(EventHandle event);          // nullptr is ignored

// Waits for one event, timeout in ms (kInfinite for none). Returns kWaitObject0, kWaitTimeout or kWaitFailed.
std::uint32_t WaitForEvent(EventHandle event, std::uint32_t timeout_ms);
// Waits until any of count events is set; returns kWaitObject0 + index of the first set one, kWaitTimeout or kWaitFailed.
std::uint32_t WaitForAnyEvent(const EventHandle* events, std::uint32_t count, std::uint32_t timeout_ms);

void Sleep(std::uint32_t ms);                // not alertable; under the fake clock it returns at once

struct EventCloser { void operator()(EventObject* e) const { CloseEvent(e); } };
using UniqueEvent = std::unique_ptr<EventObject, EventCloser>;   // owns an event

}  // namespace platform
