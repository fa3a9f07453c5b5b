// Events and waits on Windows: the handles are the kernel's own.
#include <windows.h>

#include <vector>

#include "platform/sync.h"
#include "platform/sys.h"

namespace platform {
namespace {
HANDLE H(EventHandle e) { return reinterpret_cast<HANDLE>(e); }
}  // namespace

EventHandle sys::CreateSyncEvent(bool manual_reset, bool initially_set) {
  return reinterpret_cast<EventHandle>(::CreateEventA(nullptr, manual_reset, initially_set, nullptr));
}
bool SetEvent(EventHandle e) { return ::SetEvent(H(e)) != FALSE; }
bool ResetEvent(EventHandle e) { return ::ResetEvent(H(e)) != FALSE; }
void CloseEvent(EventHandle e) {
  if (e) ::CloseHandle(H(e));
}

std::uint32_t WaitForEvent(EventHandle e, std::uint32_t timeout_ms) { return ::WaitForSingleObject(H(e), timeout_ms); }

std::uint32_t WaitForAnyEvent(const EventHandle* events, std::uint32_t count, std::uint32_t timeout_ms) {
  std::vector<HANDLE> handles(events, events + count);
  return ::WaitForMultipleObjects(count, handles.data(), FALSE, timeout_ms);
}

void sys::Sleep(std::uint32_t ms) { ::Sleep(ms); }

}  // namespace platform
