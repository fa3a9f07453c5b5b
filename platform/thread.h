// Threads, priorities, affinity and the multimedia timer resolution.
#pragma once
#include <cstdint>

namespace platform {

struct ThreadObject;
using ThreadHandle = ThreadObject*;

inline constexpr int kPriorityNormal = 0;          // THREAD_PRIORITY_NORMAL
inline constexpr int kPriorityTimeCritical = 15;   // THREAD_PRIORITY_TIME_CRITICAL (POSIX: SCHED_FIFO, or normal when not permitted)

using ThreadFunction = void (*)(void* arg);

ThreadHandle CreateThreadSuspended(ThreadFunction fn, void* arg);  // runs fn(arg) once resumed; nullptr on failure
bool ResumeThread(ThreadHandle thread);
bool SetThreadPriority(ThreadHandle thread, int priority);         // Win32 priority numbers
bool WaitForThread(ThreadHandle thread, std::uint32_t timeout_ms); // true when it ended within the time-out
// WaitForThread on a window's thread: what other threads send to this thread's windows is answered
// while it waits (a worker writing to the windows cannot hang on them); posted messages wait.
bool WaitForThreadAnsweringSends(ThreadHandle thread, std::uint32_t timeout_ms);
void CloseThread(ThreadHandle thread);       // releases the handle; a running thread goes on (detached)

int GetCurrentThreadPriority();              // Win32 priority number of the calling thread
bool SetCurrentThreadPriority(int priority); // Win32 priority number
std::uint32_t CurrentThreadId();             // never 0

std::uint32_t ProcessorCount();                                    // GetSystemInfo's processor count
bool GetProcessAffinityMask(std::uint64_t& process_mask);          // processors the process may run on
bool SetCurrentThreadAffinityMask(std::uint64_t mask);             // pins the calling thread

// The whole process back to the normal priority class (SetPriorityClass NORMAL_PRIORITY_CLASS;
// POSIX: nice 0 where the process may raise itself to it, else unchanged).
void SetProcessPriorityNormal();

void TimeBeginPeriod(std::uint32_t ms);      // timeBeginPeriod; POSIX: lowers the thread's timer slack
void TimeEndPeriod(std::uint32_t ms);        // timeEndPeriod; POSIX: restores the default timer slack

}  // namespace platform
