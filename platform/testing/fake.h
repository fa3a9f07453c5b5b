// The fake machine of the tests (the test-only library cw_platform_testing, never in a product
// binary; it installs the platform's hook table, platform/sys.h). While the fake clock is on, the
// clock, counter, clock-interrupt facts, tick timer, priorities, affinity and timer resolution answer
// from here, and time moves only when a test moves it. Events, threads, locks and sockets stay
// real; network failures, refused registry writes and failing file writes and flushes can be
// injected. Used by tests on both targets.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>
#include "platform/tick_timer.h"

namespace platform::fake {

void Enable();    // turns the fake on with a fresh state (see below)
void Disable();   // back to the real system
bool Active();

// State, with the values Enable() sets.
void SetSystemTime(std::uint64_t file_time);   // system time (Enable: 2026-01-01 00:00 UTC); fine wall time follows it
void SetFineWallTimePrecise(bool precise);     // FineWallTimeIsPrecise's answer (Enable: false, a coarse system)
void AdvanceSystemTime(std::int64_t units);    // moves the system time by units of 100 ns
// Runs action once, inside the next system-time read (after the reader has started, before it returns):
// lets a test put a clock tick in the middle of a read.
void OnNextSystemTimeRead(std::function<void()> action);
// The same inside the next counter read (before the value is taken).
void OnNextCounterRead(std::function<void()> action);
void SetCounter(std::int64_t ticks);   // performance counter (Enable: 1,000,000)
void AdvanceCounter(std::int64_t ticks);
void SetFrequency(std::int64_t hz);            // counter frequency (Enable: 10,000,000)
void SetTimeIncrement(std::uint32_t units);    // clock interrupt interval, 100-ns (Enable: 156,250)
void FailCounter(bool fail);                   // PerformanceCounter fails
void FailFrequency(bool fail);                 // PerformanceFrequency fails
void FailAdjustment(bool fail);                // SystemTimeAdjustment fails
void SetAdjustmentDelta(std::int64_t units);   // SystemTimeAdjustment's adjustment minus increment, 100-ns (Enable: 0)
void FailTimerCreate(bool fail);               // CreateTickTimer returns nullptr
void FailTimerArm(bool fail);                  // ArmTickTimer fails
void FailThreadCreate(bool fail);              // CreateThreadSuspended returns nullptr

// The tick timer: armed timers do not fire by themselves; FireTick runs the armed callback now,
// on the calling thread, with the given system time halves.
bool TimerArmed();
void FireTick(std::uint32_t time_low, std::uint32_t time_high);

// Counts of calls that reached the (fake) system, by name: "TimeBeginPeriod", "TimeEndPeriod",
// "ProcessorCount", "GetProcessAffinityMask", "SetCurrentThreadAffinityMask", "SetCurrentThreadPriority",
// "SetThreadPriority" (of another thread: the fake gives no thread a real-time priority), and
// "FileRead" (every read of a file, which still reaches the real file).
std::uint32_t CallCount(std::string_view name);
void SetProcessorCount(std::uint32_t n);       // Enable: 4
void SetProcessAffinity(std::uint64_t mask);   // Enable: 0xF
std::uint64_t CurrentThreadAffinity();         // what the calling thread was last pinned to (0: never)

// Host names: while the fake is on, LookupHostV4 answers from this table (and "localhost") only;
// unknown names fail with 11001. LookupAddressV4 answers from it too (an address without a name fails).
void SetHostAddress(std::string_view name, std::uint32_t address_network_order);

// The text viewer: while the fake is on, OpenTextFileForUser starts nothing; it records the path
// (and the position, when one was given) and succeeds unless FailViewer(true).
void FailViewer(bool fail);
std::vector<std::string> ViewerOpened();   // paths handed to the viewer since Enable, oldest first
bool LastViewerOrigin(int& x, int& y);     // the position of the last viewer start; false without one

// Sleeps: while the fake is on, Sleep returns at once and records the time asked for (ms).
std::vector<std::uint32_t> Sleeps();   // since Enable, oldest first

// System message texts: an entry here is returned by SystemMessage before the system's own.
void SetSystemMessage(std::uint32_t code, std::string_view text);

// Network failures (0: none, the default). While set, every call of the operation fails at once
// with the given Winsock code as the last socket error; sockets stay real otherwise.
void FailHostLookup(int winsock_code);     // LookupHostV4 (e.g. 11001 host not found)
void FailSocketCreate(int winsock_code);   // CreateSocketV4 (e.g. 10024 too many sockets)
void FailSend(int winsock_code);           // SendTo (e.g. 10051 network unreachable)

// Start-up failures of the service side. While set (and the fake is on):
void FailNetStartup(int winsock_code);   // NetStartup returns the code (0: none)
// The nth CreateSyncEvent from now fails with ERROR_NOT_ENOUGH_MEMORY (1: the next one; 0: none).
void FailEventCreate(std::uint32_t nth);
// Creating the named section or event of exactly this Win32 name fails with the code (0: none).
void FailNamedObject(std::string_view name, std::uint32_t code);

// File writes and flushes: the nth FileWrite / FileFlush from now (1: the next one; 0: none), in
// any file, fails with the code (e.g. 112 disk full, 1117 I/O device error) and writes nothing.
void FailFileWrite(std::uint32_t nth, std::uint32_t code);
void FailFileFlush(std::uint32_t nth, std::uint32_t code);

// Runs action once, inside the next LookupHostV4 (before it answers): lets a test look at what
// holds while a name is being resolved.
void OnNextHostLookup(std::function<void()> action);

// Registry writes: while set (and the fake is on), RegSetValue of a value of exactly this name, in
// any key, stores nothing and returns the code (e.g. 5 access denied; 0: none).
void FailRegistryWrite(std::string_view value_name, std::uint32_t code);
// The names of the values RegSetValue stored since Enable, in any key, oldest first.
std::vector<std::string> RegistryWrites();

}   // namespace platform::fake

namespace platform {

// The applet's machine, whether or not the fake clock is on:
// -1 (default) asks the system; 0 makes AdminShareOpens, EnableTcbPrivilege and
// TokenHasAdministrators answer false, 1 true.
void SetAdministratorOverride(int answer);
// The next n moves (MoveFileReplacing) of a file whose path ends in file_name (any case) fail with
// 5 (access denied), as a loaded module file does; n = 0 stops it.
void FailMovesOf(std::string_view file_name, int n);

}   // namespace platform
