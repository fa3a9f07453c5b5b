// Threads on POSIX. "Time critical" is SCHED_FIFO at priority 50; when the process may not use
// real-time scheduling the thread carries on at normal priority.
#include "platform/thread.h"

#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "platform/dialog_memory.h"
#include "platform/error.h"
#include "platform/sys.h"

namespace platform {
namespace {

constexpr int kFifoPriority = 50;

struct ThreadState {
  std::mutex mutex;
  std::condition_variable cv;
  bool resumed = false;
  bool done = false;
  ThreadFunction fn = nullptr;
  void* arg = nullptr;
};

void* Trampoline(void* p) {
  std::shared_ptr<ThreadState> s(*static_cast<std::shared_ptr<ThreadState>*>(p));
  delete static_cast<std::shared_ptr<ThreadState>*>(p);
  {
    std::unique_lock lock(s->mutex);
    s->cv.wait(lock, [&] { return s->resumed; });
  }
  s->fn(s->arg);
  {
    std::lock_guard lock(s->mutex);
    s->done = true;
  }
  s->cv.notify_all();
  return nullptr;
}

bool ApplyPriority(pthread_t th, int priority) {
  sched_param param{};
  int policy = SCHED_OTHER;
  if (priority >= kPriorityTimeCritical) {
    policy = SCHED_FIFO;
    param.sched_priority = kFifoPriority;
  }
  int rc = pthread_setschedparam(th, policy, &param);
  if (rc != 0) {
    SetLastError(kErrorAccessDenied);  // carry on at normal priority
    return false;
  }
  return true;
}

std::atomic<std::uint32_t> g_next_id{1};
thread_local std::uint32_t t_id = 0;

}  // namespace

struct ThreadObject {
  pthread_t thread;
  std::shared_ptr<ThreadState> state;
};

ThreadHandle sys::CreateThreadSuspended(ThreadFunction fn, void* arg) {
  auto state = std::make_shared<ThreadState>();
  state->fn = fn;
  state->arg = arg;
  auto* handoff = new std::shared_ptr<ThreadState>(state);
  pthread_t th;
  if (pthread_create(&th, nullptr, Trampoline, handoff) != 0) {
    delete handoff;
    SetLastError(kErrorNotEnoughMemory);
    return nullptr;
  }
  return new ThreadObject{th, state};
}

bool ResumeThread(ThreadHandle t) {
  if (!t) return SetLastError(kErrorInvalidHandle), false;
  {
    std::lock_guard lock(t->state->mutex);
    t->state->resumed = true;
  }
  t->state->cv.notify_all();
  return true;
}

bool sys::SetThreadPriority(ThreadHandle t, int priority) {
  if (!t) return SetLastError(kErrorInvalidHandle), false;
  return ApplyPriority(t->thread, priority);
}

bool WaitForThread(ThreadHandle t, std::uint32_t timeout_ms) {
  if (!t) return false;
  std::unique_lock lock(t->state->mutex);
  auto done = [&] { return t->state->done; };
  if (timeout_ms == 0xFFFFFFFF) {
    t->state->cv.wait(lock, done);
    return true;
  }
  return t->state->cv.wait_for(lock, std::chrono::milliseconds(timeout_ms), done);
}

// No window system here: the only windows are in memory, whose calls from other threads wait for
// the windows' lock, which is let go for the wait.
bool WaitForThreadAnsweringSends(ThreadHandle t, std::uint32_t timeout_ms) {
  bool ended = false;
  memory_ui::UnlockedWhile([&] { ended = WaitForThread(t, timeout_ms); });
  return ended;
}

void CloseThread(ThreadHandle t) {
  if (!t) return;
  bool done = false;
  {
    std::lock_guard lock(t->state->mutex);
    done = t->state->done;
  }
  // A thread whose function has returned is joined: it is only unwinding, and a process that ends
  // meanwhile would do so beside a thread half gone (LeakSanitizer's stop of the threads at exit,
  // for one, fails on it). One still running is let go, as closing a handle does.
  if (done) pthread_join(t->thread, nullptr);
  else pthread_detach(t->thread);
  delete t;
}

int sys::GetCurrentThreadPriority() {
  int policy = SCHED_OTHER;
  sched_param param{};
  pthread_getschedparam(pthread_self(), &policy, &param);
  return (policy == SCHED_FIFO || policy == SCHED_RR) ? kPriorityTimeCritical : kPriorityNormal;
}

bool sys::SetCurrentThreadPriority(int priority) { return ApplyPriority(pthread_self(), priority); }

std::uint32_t CurrentThreadId() {
  if (t_id == 0) t_id = g_next_id.fetch_add(1);
  return t_id;
}

std::uint32_t sys::ProcessorCount() {
  long n = sysconf(_SC_NPROCESSORS_ONLN);
  return n > 0 ? static_cast<std::uint32_t>(n) : 1;
}

bool sys::GetProcessAffinityMask(std::uint64_t& mask) {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof set, &set) != 0) return SetLastError(kErrorAccessDenied), false;
  mask = 0;
  for (int i = 0; i < 64; ++i)
    if (CPU_ISSET(i, &set)) mask |= std::uint64_t{1} << i;
  return true;
}

bool sys::SetCurrentThreadAffinityMask(std::uint64_t mask) {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (int i = 0; i < 64; ++i)
    if (mask & (std::uint64_t{1} << i)) CPU_SET(i, &set);
  if (pthread_setaffinity_np(pthread_self(), sizeof set, &set) != 0) return SetLastError(kErrorInvalidParameter), false;
  return true;
}

// The nearest POSIX analogue of a finer multimedia timer: the thread's timer slack, in ns.
void sys::TimeBeginPeriod(std::uint32_t ms) { prctl(PR_SET_TIMERSLACK, ms > 0 ? 1UL : 0UL); }
void sys::TimeEndPeriod(std::uint32_t) { prctl(PR_SET_TIMERSLACK, 0UL); }

}  // namespace platform

namespace platform {
void SetProcessPriorityNormal() { (void)setpriority(PRIO_PROCESS, 0, 0); }
}  // namespace platform
