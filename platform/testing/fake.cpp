// The fake machine: its state and controls, and the hook table that answers the platform's
// system calls from it while it is on (else from the backend).
// The controls keep one line each, as written (the formatter would spread each over five):
// clang-format off
#include "platform/testing/fake.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <functional>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/error.h"
#include "platform/file.h"
#include "platform/sys.h"

namespace platform {
namespace {

struct FakeState {
  std::uint64_t system_time = 0;
  bool fine_wall_precise = false;
  std::int64_t counter = 0;
  std::int64_t frequency = 0;
  std::uint32_t increment = 0;
  std::int64_t adjustment_delta = 0;   // adjustment - increment reported by SystemTimeAdjustment
  bool fail_counter = false, fail_frequency = false, fail_adjustment = false;
  bool fail_timer_create = false, fail_timer_arm = false, fail_thread_create = false;
  TickCallback armed = nullptr;
  std::uint32_t processors = 4;
  std::uint64_t process_affinity = 0xF;
  std::map<std::string, std::uint32_t, std::less<>> calls;
  std::map<std::uint32_t, std::string> messages;
  std::map<std::string, std::uint32_t, std::less<>> hosts;
  bool fail_viewer = false;
  std::vector<std::string> viewer_paths;
  bool viewer_placed = false;
  int viewer_x = 0, viewer_y = 0;
  std::vector<std::uint32_t> sleeps;   // Sleep requests, oldest first
  std::function<void()> on_next_read;
  std::function<void()> on_next_counter_read;
  int fail_lookup = 0, fail_socket = 0, fail_send = 0;
  int fail_net_startup = 0;
  std::uint32_t fail_event_nth = 0;
  std::map<std::string, std::uint32_t, std::less<>> fail_named;
  std::map<std::string, std::uint32_t, std::less<>> fail_reg_write;
  std::vector<std::string> reg_writes;   // names of the values stored, oldest first
  std::uint32_t fail_write_nth = 0, fail_write_code = 0, fail_flush_nth = 0, fail_flush_code = 0;
  std::function<void()> on_next_lookup;
};

std::atomic<bool> g_active{false};
std::mutex g_mutex;
FakeState g_state;
thread_local int t_priority = kPriorityNormal;
thread_local std::uint64_t t_affinity = 0;

// The one timer the fake hands out: told apart from the backend's timers by its address.
TickTimerObject* const kFakeTimer = reinterpret_cast<TickTimerObject*>(&g_state);

bool On() { return g_active.load(std::memory_order_acquire); }

template <typename F>
auto Locked(F f) {
  std::lock_guard lock(g_mutex);
  return f(g_state);
}

void Count(std::string_view name) {
  Locked([&](FakeState& s) { ++s.calls[std::string(name)]; return 0; });
}

}  // namespace

// ---- the fake's own controls ----
namespace fake {

void Enable() {
  std::lock_guard lock(g_mutex);
  g_state = FakeState{};
  g_state.system_time = 134116992000000000ULL;  // 2026-01-01 00:00:00 UTC
  g_state.counter = 1'000'000;
  g_state.frequency = 10'000'000;
  g_state.increment = 156'250;
  t_priority = kPriorityNormal;
  t_affinity = 0;
  g_active.store(true, std::memory_order_release);
}
void Disable() { g_active.store(false, std::memory_order_release); }
bool Active() { return On(); }

void SetSystemTime(std::uint64_t t) { Locked([&](FakeState& s) { s.system_time = t; return 0; }); }
void AdvanceSystemTime(std::int64_t u) { Locked([&](FakeState& s) { s.system_time += static_cast<std::uint64_t>(u); return 0; }); }
void OnNextSystemTimeRead(std::function<void()> a) { Locked([&](FakeState& s) { s.on_next_read = std::move(a); return 0; }); }
void OnNextCounterRead(std::function<void()> a) { Locked([&](FakeState& s) { s.on_next_counter_read = std::move(a); return 0; }); }
void SetCounter(std::int64_t t) { Locked([&](FakeState& s) { s.counter = t; return 0; }); }
void AdvanceCounter(std::int64_t t) { Locked([&](FakeState& s) { s.counter += t; return 0; }); }
void SetFrequency(std::int64_t hz) { Locked([&](FakeState& s) { s.frequency = hz; return 0; }); }
void SetTimeIncrement(std::uint32_t u) { Locked([&](FakeState& s) { s.increment = u; return 0; }); }
void FailCounter(bool f) { Locked([&](FakeState& s) { s.fail_counter = f; return 0; }); }
void FailFrequency(bool f) { Locked([&](FakeState& s) { s.fail_frequency = f; return 0; }); }
void FailAdjustment(bool f) { Locked([&](FakeState& s) { s.fail_adjustment = f; return 0; }); }
void SetHostAddress(std::string_view name, std::uint32_t a) {
  Locked([&](FakeState& s) { s.hosts[std::string(name)] = a; return 0; });
}
void FailViewer(bool f) { Locked([&](FakeState& s) { s.fail_viewer = f; return 0; }); }
std::vector<std::string> ViewerOpened() { return Locked([](FakeState& s) { return s.viewer_paths; }); }
bool LastViewerOrigin(int& x, int& y) {
  return Locked([&](FakeState& s) {
    x = s.viewer_x;
    y = s.viewer_y;
    return s.viewer_placed;
  });
}
void SetAdjustmentDelta(std::int64_t d) { Locked([&](FakeState& s) { s.adjustment_delta = d; return 0; }); }
void FailTimerCreate(bool f) { Locked([&](FakeState& s) { s.fail_timer_create = f; return 0; }); }
void FailTimerArm(bool f) { Locked([&](FakeState& s) { s.fail_timer_arm = f; return 0; }); }
void FailThreadCreate(bool f) { Locked([&](FakeState& s) { s.fail_thread_create = f; return 0; }); }

bool TimerArmed() { return Locked([](FakeState& s) { return s.armed != nullptr; }); }
void FireTick(std::uint32_t low, std::uint32_t high) {
  TickCallback cb = Locked([](FakeState& s) { return s.armed; });
  if (cb) cb(low, high);
}

std::uint32_t CallCount(std::string_view name) {
  return Locked([&](FakeState& s) {
    auto it = s.calls.find(name);
    return it == s.calls.end() ? 0u : it->second;
  });
}
void SetProcessorCount(std::uint32_t n) { Locked([&](FakeState& s) { s.processors = n; return 0; }); }
void SetProcessAffinity(std::uint64_t m) { Locked([&](FakeState& s) { s.process_affinity = m; return 0; }); }
std::uint64_t CurrentThreadAffinity() { return t_affinity; }

std::vector<std::uint32_t> Sleeps() {
  return Locked([](FakeState& s) { return s.sleeps; });
}

void SetSystemMessage(std::uint32_t code, std::string_view text) {
  Locked([&](FakeState& s) { s.messages[code] = std::string(text); return 0; });
}

void SetFineWallTimePrecise(bool precise) { Locked([&](FakeState& s) { s.fine_wall_precise = precise; return 0; }); }
void FailHostLookup(int code) { Locked([&](FakeState& s) { s.fail_lookup = code; return 0; }); }
void FailSocketCreate(int code) { Locked([&](FakeState& s) { s.fail_socket = code; return 0; }); }
void FailSend(int code) { Locked([&](FakeState& s) { s.fail_send = code; return 0; }); }
void FailNetStartup(int code) { Locked([&](FakeState& s) { s.fail_net_startup = code; return 0; }); }
void FailEventCreate(std::uint32_t nth) { Locked([&](FakeState& s) { s.fail_event_nth = nth; return 0; }); }
void FailNamedObject(std::string_view name, std::uint32_t code) {
  Locked([&](FakeState& s) { s.fail_named[std::string(name)] = code; return 0; });
}
void FailFileWrite(std::uint32_t nth, std::uint32_t code) {
  Locked([&](FakeState& s) { return s.fail_write_nth = nth, s.fail_write_code = code, 0; });
}
void FailFileFlush(std::uint32_t nth, std::uint32_t code) {
  Locked([&](FakeState& s) { return s.fail_flush_nth = nth, s.fail_flush_code = code, 0; });
}
void OnNextHostLookup(std::function<void()> action) {
  Locked([&](FakeState& s) { return s.on_next_lookup = std::move(action), 0; });
}
void FailRegistryWrite(std::string_view value_name, std::uint32_t code) {
  Locked([&](FakeState& s) { s.fail_reg_write[std::string(value_name)] = code; return 0; });
}
std::vector<std::string> RegistryWrites() {
  return Locked([](FakeState& s) { return s.reg_writes; });
}

}  // namespace fake

// ---- the machine's answers to the applet (whether or not the fake is on) ----
namespace {
std::atomic<int> g_admin_override{-1};
std::mutex g_moves_lock;
std::string g_fail_name;
int g_fail_count = 0;

// True (and one failure used up) when a move of path is to fail.
bool MoveShouldFail(std::string_view path) {
  std::lock_guard lock(g_moves_lock);
  if (g_fail_count <= 0 || g_fail_name.empty() || path.size() < g_fail_name.size()) return false;
  std::string_view tail = path.substr(path.size() - g_fail_name.size());
  for (std::size_t i = 0; i < tail.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(tail[i])) != std::tolower(static_cast<unsigned char>(g_fail_name[i])))
      return false;
  --g_fail_count;
  return true;
}
}  // namespace

void SetAdministratorOverride(int answer) { g_admin_override = answer; }
void FailMovesOf(std::string_view file_name, int n) {
  std::lock_guard lock(g_moves_lock);
  g_fail_name = file_name;
  g_fail_count = n;
}

// ---- the hook table: the fake while it is on, else the backend ----
namespace {
namespace hook {
std::uint64_t SystemTimeAsFileTime() {
  if (On()) {
    auto action = Locked([](FakeState& s) { return std::exchange(s.on_next_read, nullptr); });
    if (action) action();
    return Locked([](FakeState& s) { return s.system_time; });
  }
  return sys::SystemTimeAsFileTime();
}
std::uint64_t FineWallTimeAsFileTime() {
  if (On()) return Locked([](FakeState& s) { return s.system_time; });
  return sys::FineWallTimeAsFileTime();
}
bool FineWallTimeIsPrecise() {
  if (On()) return Locked([](FakeState& s) { return s.fine_wall_precise; });
  return sys::FineWallTimeIsPrecise();
}
bool PerformanceCounter(std::int64_t& ticks) {
  if (!On()) return sys::PerformanceCounter(ticks);
  auto action = Locked([](FakeState& s) { return std::exchange(s.on_next_counter_read, nullptr); });
  if (action) action();
  return Locked([&](FakeState& s) {
    if (s.fail_counter) return false;
    ticks = s.counter;
    return true;
  });
}
bool PerformanceFrequency(std::int64_t& hz) {
  if (!On()) return sys::PerformanceFrequency(hz);
  return Locked([&](FakeState& s) {
    if (s.fail_frequency) return false;
    hz = s.frequency;
    return true;
  });
}
bool SystemTimeAdjustment(std::uint32_t& adjustment, std::uint32_t& increment, bool& disabled) {
  if (!On()) return sys::SystemTimeAdjustment(adjustment, increment, disabled);
  return Locked([&](FakeState& s) {
    if (s.fail_adjustment) return false;
    increment = s.increment;
    adjustment = static_cast<std::uint32_t>(static_cast<std::int64_t>(s.increment) + s.adjustment_delta);
    disabled = s.adjustment_delta == 0;
    return true;
  });
}

TickTimerHandle CreateTickTimer() {
  if (!On()) return sys::CreateTickTimer();
  Count("CreateTickTimer");
  return Locked([](FakeState& s) { return s.fail_timer_create ? nullptr : kFakeTimer; });
}
bool ArmTickTimer(TickTimerHandle timer, std::uint32_t period_ms, TickCallback callback) {
  if (timer != kFakeTimer) return sys::ArmTickTimer(timer, period_ms, callback);
  return Locked([&](FakeState& s) {
    if (s.fail_timer_arm) return false;
    s.armed = callback;
    return true;
  });
}
void CancelTickTimer(TickTimerHandle timer) {
  if (timer != kFakeTimer) return sys::CancelTickTimer(timer);
  Locked([](FakeState& s) { s.armed = nullptr; return 0; });
}
void CloseTickTimer(TickTimerHandle timer) {
  if (timer != kFakeTimer) sys::CloseTickTimer(timer);
}
std::uint32_t WaitForEventsAlertable(const EventHandle* events, std::uint32_t count, std::uint32_t timeout_ms) {
  if (On()) return WaitForAnyEvent(events, count, timeout_ms);  // fake ticks run on the test's thread
  return sys::WaitForEventsAlertable(events, count, timeout_ms);
}

ThreadHandle CreateThreadSuspended(ThreadFunction fn, void* arg) {
  if (On() && Locked([](FakeState& s) { return s.fail_thread_create; })) {
    SetLastError(kErrorNotEnoughMemory);
    return nullptr;
  }
  return sys::CreateThreadSuspended(fn, arg);
}
bool SetThreadPriority(ThreadHandle thread, int priority) {
  if (!On()) return sys::SetThreadPriority(thread, priority);
  Count("SetThreadPriority");
  return true;
}
int GetCurrentThreadPriority() { return On() ? t_priority : sys::GetCurrentThreadPriority(); }
bool SetCurrentThreadPriority(int priority) {
  if (!On()) return sys::SetCurrentThreadPriority(priority);
  Count("SetCurrentThreadPriority");
  t_priority = priority;
  return true;
}
std::uint32_t ProcessorCount() {
  if (!On()) return sys::ProcessorCount();
  Count("ProcessorCount");
  return Locked([](FakeState& s) { return s.processors; });
}
bool GetProcessAffinityMask(std::uint64_t& mask) {
  if (!On()) return sys::GetProcessAffinityMask(mask);
  Count("GetProcessAffinityMask");
  mask = Locked([](FakeState& s) { return s.process_affinity; });
  return true;
}
bool SetCurrentThreadAffinityMask(std::uint64_t mask) {
  if (!On()) return sys::SetCurrentThreadAffinityMask(mask);
  Count("SetCurrentThreadAffinityMask");
  t_affinity = mask;
  return true;
}
void TimeBeginPeriod(std::uint32_t ms) {
  if (On()) return Count("TimeBeginPeriod");
  sys::TimeBeginPeriod(ms);
}
void TimeEndPeriod(std::uint32_t ms) {
  if (On()) return Count("TimeEndPeriod");
  sys::TimeEndPeriod(ms);
}
void Sleep(std::uint32_t ms) {
  if (!On()) return sys::Sleep(ms);
  Locked([&](FakeState& s) { s.sleeps.push_back(ms); });
}
bool SystemMessage(std::uint32_t code, char* buf, std::size_t size) {
  if (On()) {
    std::string text;
    bool found = Locked([&](FakeState& s) {
      auto it = s.messages.find(code);
      if (it == s.messages.end()) return false;
      text = it->second;
      return true;
    });
    if (found) {
      if (size == 0) return false;
      std::memset(buf, 0, size);
      std::memcpy(buf, text.data(), std::min(text.size(), size - 1));
      return true;
    }
  }
  return sys::SystemMessage(code, buf, size);
}

bool OpenTextFileForUser(std::string_view path, const int* origin_xy) {
  if (!On()) return sys::OpenTextFileForUser(path, origin_xy);
  return Locked([&](FakeState& s) {
    if (s.fail_viewer) {
      SetLastError(kErrorFileNotFound);
      return false;
    }
    s.viewer_paths.emplace_back(path);
    s.viewer_placed = origin_xy != nullptr;
    s.viewer_x = origin_xy ? origin_xy[0] : 0;
    s.viewer_y = origin_xy ? origin_xy[1] : 0;
    return true;
  });
}

// Network: an injected failure while the fake is on, else the backend.
int InjectedFailure(int FakeState::*which) {
  if (!On()) return 0;
  const int code = Locked([&](FakeState& s) { return s.*which; });
  if (code != 0) SetLastSocketError(code);
  return code;
}

// Under the fake no lookup leaves the process: the host table answers, "localhost" is the loopback,
// and every other name is unknown (11001).
bool LookupHostV4(const char* host, std::uint32_t& address) {
  if (!On()) return sys::LookupHostV4(host, address);
  std::function<void()> action;
  Locked([&](FakeState& s) { return action.swap(s.on_next_lookup), 0; });
  if (action) action();
  if (InjectedFailure(&FakeState::fail_lookup)) return false;
  const std::string_view name = host ? host : "";
  const bool found = Locked([&](FakeState& s) {
    auto it = s.hosts.find(name);
    if (it == s.hosts.end()) return false;
    address = it->second;
    return true;
  });
  if (found) return true;
  if (name == "localhost") return sys::LookupHostV4(host, address);
  SetLastSocketError(kWsaHostNotFound);
  return false;
}
// Reverse look-ups under the fake answer from the same table (the first name of the address);
// an address without one has no name.
bool LookupAddressV4(std::uint32_t address, char* name, std::size_t size) {
  if (!On()) return sys::LookupAddressV4(address, name, size);
  if (!name || size == 0) return false;
  name[0] = 0;
  if (InjectedFailure(&FakeState::fail_lookup)) return false;
  return Locked([&](FakeState& s) {
    for (const auto& [host, a] : s.hosts)
      if (a == address) {
        std::snprintf(name, size, "%s", host.c_str());
        return true;
      }
    return false;
  });
}
SocketHandle CreateSocketV4(int type, int protocol) {
  if (InjectedFailure(&FakeState::fail_socket)) return kInvalidSocket;
  return sys::CreateSocketV4(type, protocol);
}
int SendTo(SocketHandle s, const void* data, std::size_t size, const SocketAddressV4& to) {
  if (InjectedFailure(&FakeState::fail_send)) return -1;
  return sys::SendTo(s, data, size, to);
}
int SendBatch(SocketHandle s, const Datagram* batch, std::size_t count) {
  if (count && InjectedFailure(&FakeState::fail_send)) return -1;
  return sys::SendBatch(s, batch, count);
}

// Service-side start-up: injected failures while the fake is on, else the backend.
int NetStartup() {
  const int code = On() ? Locked([](FakeState& s) { return s.fail_net_startup; }) : 0;
  return code ? code : sys::NetStartup();
}
EventHandle CreateSyncEvent(bool manual_reset, bool initially_set) {
  if (On() && Locked([](FakeState& s) { return s.fail_event_nth != 0 && --s.fail_event_nth == 0; })) {
    SetLastError(kErrorNotEnoughMemory);
    return nullptr;
  }
  return sys::CreateSyncEvent(manual_reset, initially_set);
}
std::uint32_t NamedFailure(const char* name) {
  if (!On() || !name) return 0;
  const std::uint32_t code = Locked([&](FakeState& s) {
    auto it = s.fail_named.find(std::string_view(name));
    return it == s.fail_named.end() ? 0u : it->second;
  });
  if (code) SetLastError(code);
  return code;
}
EventHandle CreateNamedEvent(const char* name) {
  return NamedFailure(name) ? nullptr : sys::CreateNamedEvent(name);
}
SectionHandle CreateNamedSection(const char* name, std::uint32_t size, bool& already_existed) {
  already_existed = false;
  return NamedFailure(name) ? nullptr : sys::CreateNamedSection(name, size, already_existed);
}
SectionHandle OpenNamedSection(const char* name, std::uint32_t size) {
  return NamedFailure(name) ? nullptr : sys::OpenNamedSection(name, size);
}

// Registry writes: an injected failure while the fake is on, else the backend.
std::uint32_t RegSetValue(RegKey key, const char* name, std::uint32_t type, const void* data, std::uint32_t size) {
  if (On() && name) {
    const std::uint32_t code = Locked([&](FakeState& s) {
      auto it = s.fail_reg_write.find(std::string_view(name));
      return it == s.fail_reg_write.end() ? 0u : it->second;
    });
    if (code) return code;
  }
  const std::uint32_t status = sys::RegSetValue(key, name, type, data, size);
  if (On() && status == 0)
    Locked([&](FakeState& s) {
      s.reg_writes.emplace_back(name ? name : "");
      return 0;
    });
  return status;
}

// File reads are counted; writes and flushes: an injected failure while the fake is on, else the backend.
std::uint32_t NthFailure(std::uint32_t FakeState::*nth, std::uint32_t FakeState::*code) {
  if (!On()) return 0;
  const std::uint32_t failure = Locked([&](FakeState& s) {
    return s.*nth != 0 && --(s.*nth) == 0 ? s.*code : 0u;
  });
  if (failure) SetLastError(failure);
  return failure;
}
bool FileRead(FileHandle file, void* buf, std::uint32_t size, std::uint32_t& done) {
  if (On()) Count("FileRead");
  return sys::FileRead(file, buf, size, done);
}
bool FileWrite(FileHandle file, const void* buf, std::uint32_t size, std::uint32_t& done) {
  done = 0;
  if (NthFailure(&FakeState::fail_write_nth, &FakeState::fail_write_code)) return false;
  return sys::FileWrite(file, buf, size, done);
}
bool FileFlush(FileHandle file) {
  if (NthFailure(&FakeState::fail_flush_nth, &FakeState::fail_flush_code)) return false;
  return sys::FileFlush(file);
}

// The administrator steps: the override when a test set one, else the backend.
bool AdminShareOpens(std::string_view computer_name) {
  return g_admin_override >= 0 ? g_admin_override == 1 : sys::AdminShareOpens(computer_name);
}
bool EnableTcbPrivilege() { return g_admin_override >= 0 ? g_admin_override == 1 : sys::EnableTcbPrivilege(); }
bool TokenHasAdministrators() { return g_admin_override >= 0 ? g_admin_override == 1 : sys::TokenHasAdministrators(); }
bool MoveFileReplacing(std::string_view from, std::string_view to) {
  if (MoveShouldFail(from)) return SetLastError(kErrorAccessDenied), false;
  return sys::MoveFileReplacing(from, to);
}

}  // namespace hook

const sys::Hooks kHooks{
    .SystemTimeAsFileTime = hook::SystemTimeAsFileTime,
    .FineWallTimeAsFileTime = hook::FineWallTimeAsFileTime,
    .FineWallTimeIsPrecise = hook::FineWallTimeIsPrecise,
    .PerformanceCounter = hook::PerformanceCounter,
    .PerformanceFrequency = hook::PerformanceFrequency,
    .SystemTimeAdjustment = hook::SystemTimeAdjustment,
    .CreateTickTimer = hook::CreateTickTimer,
    .ArmTickTimer = hook::ArmTickTimer,
    .CancelTickTimer = hook::CancelTickTimer,
    .CloseTickTimer = hook::CloseTickTimer,
    .WaitForEventsAlertable = hook::WaitForEventsAlertable,
    .CreateThreadSuspended = hook::CreateThreadSuspended,
    .SetThreadPriority = hook::SetThreadPriority,
    .GetCurrentThreadPriority = hook::GetCurrentThreadPriority,
    .SetCurrentThreadPriority = hook::SetCurrentThreadPriority,
    .ProcessorCount = hook::ProcessorCount,
    .GetProcessAffinityMask = hook::GetProcessAffinityMask,
    .SetCurrentThreadAffinityMask = hook::SetCurrentThreadAffinityMask,
    .TimeBeginPeriod = hook::TimeBeginPeriod,
    .TimeEndPeriod = hook::TimeEndPeriod,
    .Sleep = hook::Sleep,
    .SystemMessage = hook::SystemMessage,
    .OpenTextFileForUser = hook::OpenTextFileForUser,
    .FileRead = hook::FileRead,
    .FileWrite = hook::FileWrite,
    .FileFlush = hook::FileFlush,
    .LookupHostV4 = hook::LookupHostV4,
    .LookupAddressV4 = hook::LookupAddressV4,
    .CreateSocketV4 = hook::CreateSocketV4,
    .SendTo = hook::SendTo,
    .SendBatch = hook::SendBatch,
    .NetStartup = hook::NetStartup,
    .CreateSyncEvent = hook::CreateSyncEvent,
    .CreateNamedEvent = hook::CreateNamedEvent,
    .CreateNamedSection = hook::CreateNamedSection,
    .OpenNamedSection = hook::OpenNamedSection,
    .RegSetValue = hook::RegSetValue,
    .AdminShareOpens = hook::AdminShareOpens,
    .EnableTcbPrivilege = hook::EnableTcbPrivilege,
    .TokenHasAdministrators = hook::TokenHasAdministrators,
    .MoveFileReplacing = hook::MoveFileReplacing,
};
// Installed with the test library itself: every call of the platform passes the fake from the
// program's start, as the fake's controls expect (it answers only while it is on).
[[maybe_unused]] const bool g_hooks_installed = (sys::InstallHooks(&kHooks), true);

}  // namespace
}  // namespace platform
