// The periodic tick timer on Windows: a waitable timer whose completion routine runs as an APC in
// the arming thread's alertable waits. The three timer functions are looked up in kernel32 once,
// with critical-error boxes suppressed, rather than imported.
#include <windows.h>

#include "platform/sys.h"

namespace platform {
namespace {

using CreateFn = HANDLE(WINAPI*)(LPSECURITY_ATTRIBUTES, BOOL, LPCSTR);
using SetFn = BOOL(WINAPI*)(HANDLE, const LARGE_INTEGER*, LONG, PTIMERAPCROUTINE, LPVOID, BOOL);
using CancelFn = BOOL(WINAPI*)(HANDLE);

struct TimerFunctions {
  CreateFn create = nullptr;
  SetFn set = nullptr;
  CancelFn cancel = nullptr;
};

template <typename F>
F Lookup(HMODULE module, const char* name) {
  return reinterpret_cast<F>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

const TimerFunctions& Functions() {
  static const TimerFunctions fns = [] {
    TimerFunctions f;
    UINT previous = ::SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);  // 0x8001
    HMODULE kernel32 = ::GetModuleHandleA("kernel32.dll");
    ::SetErrorMode(previous);
    if (!kernel32) return f;
    f.create = Lookup<CreateFn>(kernel32, "CreateWaitableTimerA");
    f.set = Lookup<SetFn>(kernel32, "SetWaitableTimer");
    f.cancel = Lookup<CancelFn>(kernel32, "CancelWaitableTimer");
    return f;
  }();
  return fns;
}

// Windows hands the completion routine the system time at which the timer was signalled; Wine
// hands the timer's due time instead (0 plus n periods here). The system time read now is the same
// value on Windows, where the routine runs within the tick that signalled it, and right under Wine.
VOID CALLBACK CompletionRoutine(LPVOID arg, DWORD, DWORD) {
  FILETIME now;
  ::GetSystemTimeAsFileTime(&now);
  reinterpret_cast<TickCallback>(arg)(now.dwLowDateTime, now.dwHighDateTime);
}

HANDLE H(TickTimerHandle t) { return reinterpret_cast<HANDLE>(t); }

}  // namespace

TickTimerHandle sys::CreateTickTimer() {
  const auto& f = Functions();
  if (!f.create || !f.set || !f.cancel) return nullptr;
  return reinterpret_cast<TickTimerHandle>(f.create(nullptr, FALSE, nullptr));
}

bool sys::ArmTickTimer(TickTimerHandle t, std::uint32_t period_ms, TickCallback callback) {
  LARGE_INTEGER due;
  due.QuadPart = 0;  // an absolute time in the past: fires at once
  return Functions().set(H(t), &due, static_cast<LONG>(period_ms), CompletionRoutine,
                         reinterpret_cast<LPVOID>(callback), FALSE) != FALSE;
}

void sys::CancelTickTimer(TickTimerHandle t) {
  if (t) Functions().cancel(H(t));
}
void sys::CloseTickTimer(TickTimerHandle t) {
  if (t) ::CloseHandle(H(t));
}

std::uint32_t sys::WaitForEventsAlertable(const EventHandle* events, std::uint32_t count, std::uint32_t timeout_ms) {
  return ::WaitForMultipleObjectsEx(count, reinterpret_cast<const HANDLE*>(events), FALSE, timeout_ms, TRUE);
}

}  // namespace platform
