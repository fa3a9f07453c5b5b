// Threads, priorities, affinity and the multimedia timer on Windows.
#include <windows.h>
#include <mmsystem.h>

#include "platform/dialog_memory.h"
#include "platform/sys.h"
#include "platform/thread.h"

namespace platform {
namespace {

struct Start {
  ThreadFunction fn;
  void* arg;
};

DWORD WINAPI Trampoline(LPVOID p) {
  Start start = *static_cast<Start*>(p);
  delete static_cast<Start*>(p);
  start.fn(start.arg);
  return 0;
}

HANDLE H(ThreadHandle t) { return reinterpret_cast<HANDLE>(t); }

bool WaitAnsweringSends(ThreadHandle t, std::uint32_t timeout_ms) {
  HANDLE h = H(t);
  const ULONGLONG give_up = ::GetTickCount64() + timeout_ms;
  for (;;) {
    const ULONGLONG now = ::GetTickCount64();
    if (timeout_ms != INFINITE && now >= give_up) return false;
    const DWORD left = timeout_ms == INFINITE ? INFINITE : static_cast<DWORD>(give_up - now);
    const DWORD r = ::MsgWaitForMultipleObjects(1, &h, FALSE, left, QS_SENDMESSAGE);
    if (r == WAIT_OBJECT_0) return true;
    if (r != WAIT_OBJECT_0 + 1) return false;
    MSG msg;
    ::PeekMessageA(&msg, nullptr, 0, 0, PM_NOREMOVE | PM_QS_SENDMESSAGE);   // runs the sent messages
  }
}

}  // namespace

ThreadHandle sys::CreateThreadSuspended(ThreadFunction fn, void* arg) {
  auto* start = new Start{fn, arg};
  HANDLE h = ::CreateThread(nullptr, 0, Trampoline, start, CREATE_SUSPENDED, nullptr);
  if (!h) delete start;
  return reinterpret_cast<ThreadHandle>(h);
}

bool ResumeThread(ThreadHandle t) { return ::ResumeThread(H(t)) != static_cast<DWORD>(-1); }
bool sys::SetThreadPriority(ThreadHandle t, int priority) { return ::SetThreadPriority(H(t), priority) != FALSE; }
bool WaitForThread(ThreadHandle t, std::uint32_t timeout_ms) { return ::WaitForSingleObject(H(t), timeout_ms) == WAIT_OBJECT_0; }
bool WaitForThreadAnsweringSends(ThreadHandle t, std::uint32_t timeout_ms) {
  // In-memory windows (the sheet process) are written by other threads under the windows' lock,
  // which is let go for the wait.
  bool ended = false;
  platform::memory_ui::UnlockedWhile([&] { ended = WaitAnsweringSends(t, timeout_ms); });
  return ended;
}
void CloseThread(ThreadHandle t) {
  if (t) ::CloseHandle(H(t));
}

int sys::GetCurrentThreadPriority() { return ::GetThreadPriority(::GetCurrentThread()); }
bool sys::SetCurrentThreadPriority(int priority) { return ::SetThreadPriority(::GetCurrentThread(), priority) != FALSE; }
std::uint32_t CurrentThreadId() { return ::GetCurrentThreadId(); }

std::uint32_t sys::ProcessorCount() {
  SYSTEM_INFO info;
  ::GetSystemInfo(&info);
  return info.dwNumberOfProcessors;
}

bool sys::GetProcessAffinityMask(std::uint64_t& process_mask) {
  DWORD_PTR process = 0, system = 0;
  if (!::GetProcessAffinityMask(::GetCurrentProcess(), &process, &system)) return false;
  process_mask = process;
  return true;
}

bool sys::SetCurrentThreadAffinityMask(std::uint64_t mask) {
  return ::SetThreadAffinityMask(::GetCurrentThread(), static_cast<DWORD_PTR>(mask)) != 0;
}

void sys::TimeBeginPeriod(std::uint32_t ms) { ::timeBeginPeriod(ms); }
void sys::TimeEndPeriod(std::uint32_t ms) { ::timeEndPeriod(ms); }

}  // namespace platform

namespace platform {
void SetProcessPriorityNormal() { ::SetPriorityClass(::GetCurrentProcess(), NORMAL_PRIORITY_CLASS); }
}  // namespace platform
