// The public functions over the backend's entry points (platform/sys.h): the hook table a test
// installed, else the backend.
#include "platform/sys.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <utility>

#include "platform/machine.h"

namespace platform {
namespace {

std::atomic<const sys::Hooks*> g_hooks{nullptr};

// The installed table's entry, else the backend's entry point.
template <auto Entry, auto Backend, typename... Args>
auto Call(Args&&... args) {
  if (const sys::Hooks* hooks = g_hooks.load(std::memory_order_acquire)) return (hooks->*Entry)(std::forward<Args>(args)...);
  return Backend(std::forward<Args>(args)...);
}

std::mutex g_viewer_hook_lock;
std::function<bool(std::string_view)> g_viewer_hook;

}   // namespace

void sys::InstallHooks(const Hooks* table) { g_hooks.store(table, std::memory_order_release); }

// ---- clock.h ----
std::uint64_t SystemTimeAsFileTime() { return Call<&sys::Hooks::SystemTimeAsFileTime, &sys::SystemTimeAsFileTime>(); }
std::uint64_t FineWallTimeAsFileTime() { return Call<&sys::Hooks::FineWallTimeAsFileTime, &sys::FineWallTimeAsFileTime>(); }
bool FineWallTimeIsPrecise() { return Call<&sys::Hooks::FineWallTimeIsPrecise, &sys::FineWallTimeIsPrecise>(); }
bool PerformanceCounter(std::int64_t& ticks) { return Call<&sys::Hooks::PerformanceCounter, &sys::PerformanceCounter>(ticks); }
bool PerformanceFrequency(std::int64_t& hz) { return Call<&sys::Hooks::PerformanceFrequency, &sys::PerformanceFrequency>(hz); }
bool SystemTimeAdjustment(std::uint32_t& adjustment, std::uint32_t& increment, bool& disabled) {
  return Call<&sys::Hooks::SystemTimeAdjustment, &sys::SystemTimeAdjustment>(adjustment, increment, disabled);
}
void GetSystemTimeNow(SystemTime& out) { FileTimeToSystemTime(SystemTimeAsFileTime(), out); }
void GetLocalTimeNow(SystemTime& out) {
  std::uint64_t local = 0;
  FileTimeToLocalFileTime(SystemTimeAsFileTime(), local);
  FileTimeToSystemTime(local, out);
}

// ---- tick_timer.h, sync.h ----
TickTimerHandle CreateTickTimer() { return Call<&sys::Hooks::CreateTickTimer, &sys::CreateTickTimer>(); }
bool ArmTickTimer(TickTimerHandle timer, std::uint32_t period_ms, TickCallback callback) {
  return Call<&sys::Hooks::ArmTickTimer, &sys::ArmTickTimer>(timer, period_ms, callback);
}
void CancelTickTimer(TickTimerHandle timer) { Call<&sys::Hooks::CancelTickTimer, &sys::CancelTickTimer>(timer); }
void CloseTickTimer(TickTimerHandle timer) { Call<&sys::Hooks::CloseTickTimer, &sys::CloseTickTimer>(timer); }
std::uint32_t WaitForEventsAlertable(const EventHandle* events, std::uint32_t count, std::uint32_t timeout_ms) {
  return Call<&sys::Hooks::WaitForEventsAlertable, &sys::WaitForEventsAlertable>(events, count, timeout_ms);
}
EventHandle CreateSyncEvent(bool manual_reset, bool initially_set) {
  return Call<&sys::Hooks::CreateSyncEvent, &sys::CreateSyncEvent>(manual_reset, initially_set);
}
void Sleep(std::uint32_t ms) { Call<&sys::Hooks::Sleep, &sys::Sleep>(ms); }

// ---- thread.h ----
ThreadHandle CreateThreadSuspended(ThreadFunction fn, void* arg) {
  return Call<&sys::Hooks::CreateThreadSuspended, &sys::CreateThreadSuspended>(fn, arg);
}
bool SetThreadPriority(ThreadHandle thread, int priority) {
  return Call<&sys::Hooks::SetThreadPriority, &sys::SetThreadPriority>(thread, priority);
}
int GetCurrentThreadPriority() { return Call<&sys::Hooks::GetCurrentThreadPriority, &sys::GetCurrentThreadPriority>(); }
bool SetCurrentThreadPriority(int priority) {
  return Call<&sys::Hooks::SetCurrentThreadPriority, &sys::SetCurrentThreadPriority>(priority);
}
std::uint32_t ProcessorCount() { return Call<&sys::Hooks::ProcessorCount, &sys::ProcessorCount>(); }
bool GetProcessAffinityMask(std::uint64_t& mask) { return Call<&sys::Hooks::GetProcessAffinityMask, &sys::GetProcessAffinityMask>(mask); }
bool SetCurrentThreadAffinityMask(std::uint64_t mask) {
  return Call<&sys::Hooks::SetCurrentThreadAffinityMask, &sys::SetCurrentThreadAffinityMask>(mask);
}
void TimeBeginPeriod(std::uint32_t ms) { Call<&sys::Hooks::TimeBeginPeriod, &sys::TimeBeginPeriod>(ms); }
void TimeEndPeriod(std::uint32_t ms) { Call<&sys::Hooks::TimeEndPeriod, &sys::TimeEndPeriod>(ms); }

// ---- error.h ----
bool SystemMessage(std::uint32_t code, char* buf, std::size_t size) {
  return Call<&sys::Hooks::SystemMessage, &sys::SystemMessage>(code, buf, size);
}

// ---- file.h ----
void SetTextViewerHook(std::function<bool(std::string_view path)> hook) {
  std::lock_guard lock(g_viewer_hook_lock);
  g_viewer_hook = std::move(hook);
}
bool OpenTextFileForUser(std::string_view path, const int* origin_xy) {
  std::function<bool(std::string_view)> hook;
  {
    std::lock_guard lock(g_viewer_hook_lock);
    hook = g_viewer_hook;
  }
  if (hook) return hook(path);
  return Call<&sys::Hooks::OpenTextFileForUser, &sys::OpenTextFileForUser>(path, origin_xy);
}
bool FileRead(FileHandle file, void* buf, std::uint32_t size, std::uint32_t& done) {
  return Call<&sys::Hooks::FileRead, &sys::FileRead>(file, buf, size, done);
}
bool FileWrite(FileHandle file, const void* buf, std::uint32_t size, std::uint32_t& done) {
  return Call<&sys::Hooks::FileWrite, &sys::FileWrite>(file, buf, size, done);
}
bool FileFlush(FileHandle file) { return Call<&sys::Hooks::FileFlush, &sys::FileFlush>(file); }

// ---- net.h ----
bool LookupHostV4(const char* host, std::uint32_t& address) { return Call<&sys::Hooks::LookupHostV4, &sys::LookupHostV4>(host, address); }
bool LookupAddressV4(std::uint32_t address, char* name, std::size_t size) {
  return Call<&sys::Hooks::LookupAddressV4, &sys::LookupAddressV4>(address, name, size);
}
SocketHandle CreateSocketV4(int type, int protocol) { return Call<&sys::Hooks::CreateSocketV4, &sys::CreateSocketV4>(type, protocol); }
int SendTo(SocketHandle s, const void* data, std::size_t size, const SocketAddressV4& to) {
  return Call<&sys::Hooks::SendTo, &sys::SendTo>(s, data, size, to);
}
int SendBatch(SocketHandle s, const Datagram* batch, std::size_t count) {
  return Call<&sys::Hooks::SendBatch, &sys::SendBatch>(s, batch, count);
}
int NetStartup() { return Call<&sys::Hooks::NetStartup, &sys::NetStartup>(); }

// ---- shared.h ----
EventHandle CreateNamedEvent(const char* name) { return Call<&sys::Hooks::CreateNamedEvent, &sys::CreateNamedEvent>(name); }
SectionHandle CreateNamedSection(const char* name, std::uint32_t size, bool& already_existed) {
  already_existed = false;
  return Call<&sys::Hooks::CreateNamedSection, &sys::CreateNamedSection>(name, size, already_existed);
}
SectionHandle OpenNamedSection(const char* name, std::uint32_t size) {
  return Call<&sys::Hooks::OpenNamedSection, &sys::OpenNamedSection>(name, size);
}

// ---- registry.h ----
std::uint32_t RegSetValue(RegKey key, const char* name, std::uint32_t type, const void* data, std::uint32_t size) {
  return Call<&sys::Hooks::RegSetValue, &sys::RegSetValue>(key, name, type, data, size);
}

// ---- machine.h ----
bool AdminShareOpens(std::string_view computer_name) { return Call<&sys::Hooks::AdminShareOpens, &sys::AdminShareOpens>(computer_name); }
bool EnableTcbPrivilege() { return Call<&sys::Hooks::EnableTcbPrivilege, &sys::EnableTcbPrivilege>(); }
bool TokenHasAdministrators() { return Call<&sys::Hooks::TokenHasAdministrators, &sys::TokenHasAdministrators>(); }
bool MoveFileReplacing(std::string_view from, std::string_view to) {
  return Call<&sys::Hooks::MoveFileReplacing, &sys::MoveFileReplacing>(from, to);
}

}   // namespace platform
