// Backend entry points (posix/ or win32/) behind the public functions that a test can answer
// instead, and the hook table through which it does. The product installs no table: each public
// function (platform/sys.cpp) is its backend's entry point behind one test of a null pointer.
// Only platform/ includes this header (the tests' fake machine lives in platform/testing/).
#pragma once
#include <cstddef>
#include <cstdint>
#include <string_view>
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/net.h"
#include "platform/registry.h"
#include "platform/shared.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "platform/tick_timer.h"

namespace platform::sys {

std::uint64_t SystemTimeAsFileTime();
std::uint64_t FineWallTimeAsFileTime();
bool FineWallTimeIsPrecise();
bool PerformanceCounter(std::int64_t& ticks);
bool PerformanceFrequency(std::int64_t& hz);
bool SystemTimeAdjustment(std::uint32_t& adjustment, std::uint32_t& increment, bool& disabled);

TickTimerHandle CreateTickTimer();
bool ArmTickTimer(TickTimerHandle timer, std::uint32_t period_ms, TickCallback callback);
void CancelTickTimer(TickTimerHandle timer);
void CloseTickTimer(TickTimerHandle timer);
std::uint32_t WaitForEventsAlertable(const EventHandle* events, std::uint32_t count, std::uint32_t timeout_ms);

ThreadHandle CreateThreadSuspended(ThreadFunction fn, void* arg);
bool SetThreadPriority(ThreadHandle thread, int priority);
int GetCurrentThreadPriority();
bool SetCurrentThreadPriority(int priority);
std::uint32_t ProcessorCount();
bool GetProcessAffinityMask(std::uint64_t& process_mask);
bool SetCurrentThreadAffinityMask(std::uint64_t mask);
void TimeBeginPeriod(std::uint32_t ms);
void TimeEndPeriod(std::uint32_t ms);
void Sleep(std::uint32_t ms);
bool SystemMessage(std::uint32_t code, char* buf, std::size_t size);
bool OpenTextFileForUser(std::string_view path, const int* origin_xy);
bool FileRead(FileHandle file, void* buf, std::uint32_t size, std::uint32_t& done);
bool FileWrite(FileHandle file, const void* buf, std::uint32_t size, std::uint32_t& done);
bool FileFlush(FileHandle file);

bool LookupHostV4(const char* host, std::uint32_t& address);
bool LookupAddressV4(std::uint32_t address, char* name, std::size_t size);
SocketHandle CreateSocketV4(int type, int protocol);
int SendTo(SocketHandle s, const void* data, std::size_t size, const SocketAddressV4& to);
int SendBatch(SocketHandle s, const Datagram* batch, std::size_t count);
int NetStartup();

EventHandle CreateSyncEvent(bool manual_reset, bool initially_set);
EventHandle CreateNamedEvent(const char* name);
SectionHandle CreateNamedSection(const char* name, std::uint32_t size, bool& already_existed);
SectionHandle OpenNamedSection(const char* name, std::uint32_t size);

std::uint32_t RegSetValue(RegKey key, const char* name, std::uint32_t type, const void* data, std::uint32_t size);

bool AdminShareOpens(std::string_view computer_name);
bool EnableTcbPrivilege();
bool TokenHasAdministrators();
bool MoveFileReplacing(std::string_view from, std::string_view to);

// The hook table: one entry per entry point above, each with its signature. A table that is
// installed answers every call of the public functions; its entries call the entry points above
// for whatever they leave to the system.
struct Hooks {
  decltype(&sys::SystemTimeAsFileTime) SystemTimeAsFileTime;
  decltype(&sys::FineWallTimeAsFileTime) FineWallTimeAsFileTime;
  decltype(&sys::FineWallTimeIsPrecise) FineWallTimeIsPrecise;
  decltype(&sys::PerformanceCounter) PerformanceCounter;
  decltype(&sys::PerformanceFrequency) PerformanceFrequency;
  decltype(&sys::SystemTimeAdjustment) SystemTimeAdjustment;
  decltype(&sys::CreateTickTimer) CreateTickTimer;
  decltype(&sys::ArmTickTimer) ArmTickTimer;
  decltype(&sys::CancelTickTimer) CancelTickTimer;
  decltype(&sys::CloseTickTimer) CloseTickTimer;
  decltype(&sys::WaitForEventsAlertable) WaitForEventsAlertable;
  decltype(&sys::CreateThreadSuspended) CreateThreadSuspended;
  decltype(&sys::SetThreadPriority) SetThreadPriority;
  decltype(&sys::GetCurrentThreadPriority) GetCurrentThreadPriority;
  decltype(&sys::SetCurrentThreadPriority) SetCurrentThreadPriority;
  decltype(&sys::ProcessorCount) ProcessorCount;
  decltype(&sys::GetProcessAffinityMask) GetProcessAffinityMask;
  decltype(&sys::SetCurrentThreadAffinityMask) SetCurrentThreadAffinityMask;
  decltype(&sys::TimeBeginPeriod) TimeBeginPeriod;
  decltype(&sys::TimeEndPeriod) TimeEndPeriod;
  decltype(&sys::Sleep) Sleep;
  decltype(&sys::SystemMessage) SystemMessage;
  decltype(&sys::OpenTextFileForUser) OpenTextFileForUser;
  decltype(&sys::FileRead) FileRead;
  decltype(&sys::FileWrite) FileWrite;
  decltype(&sys::FileFlush) FileFlush;
  decltype(&sys::LookupHostV4) LookupHostV4;
  decltype(&sys::LookupAddressV4) LookupAddressV4;
  decltype(&sys::CreateSocketV4) CreateSocketV4;
  decltype(&sys::SendTo) SendTo;
  decltype(&sys::SendBatch) SendBatch;
  decltype(&sys::NetStartup) NetStartup;
  decltype(&sys::CreateSyncEvent) CreateSyncEvent;
  decltype(&sys::CreateNamedEvent) CreateNamedEvent;
  decltype(&sys::CreateNamedSection) CreateNamedSection;
  decltype(&sys::OpenNamedSection) OpenNamedSection;
  decltype(&sys::RegSetValue) RegSetValue;
  decltype(&sys::AdminShareOpens) AdminShareOpens;
  decltype(&sys::EnableTcbPrivilege) EnableTcbPrivilege;
  decltype(&sys::TokenHasAdministrators) TokenHasAdministrators;
  decltype(&sys::MoveFileReplacing) MoveFileReplacing;
};
// Installs table (every entry set; it must outlive its use) in front of the backend; nullptr
// takes it away again. Only tests call it.
void InstallHooks(const Hooks* table);

}  // namespace platform::sys
