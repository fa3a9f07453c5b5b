// The host's wake-ups: a failure to make them leaves its Win32 code in the thread's last error, for
// the host's log line.
#include <gtest/gtest.h>

#include <csignal>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include "platform/error.h"
#include "platform/host.h"

namespace {

TEST(HostWakeups, NoDescriptorLeftFailsWithTooManyOpenFiles) {
  sigset_t saved_mask;
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &saved_mask), 0);
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  // The lowest free descriptor as the limit: the next descriptor the process makes is refused.
  const int lowest_free = ::dup(0);
  ASSERT_GE(lowest_free, 0);
  ::close(lowest_free);
  rlimit limit = saved;
  limit.rlim_cur = static_cast<rlim_t>(lowest_free);
  platform::SetLastError(0);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  const bool opened = platform::host::OpenWakeups();
  const std::uint32_t error = platform::LastError();
  ::setrlimit(RLIMIT_NOFILE, &saved);
  if (opened) platform::host::CloseWakeups();
  pthread_sigmask(SIG_SETMASK, &saved_mask, nullptr);
  EXPECT_FALSE(opened);
  EXPECT_EQ(error, platform::kErrorTooManyOpenFiles);
}

TEST(HostWakeups, OpenWaitAndCloseOnAWorkingSystem) {
  sigset_t saved_mask;
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &saved_mask), 0);
  ASSERT_TRUE(platform::host::OpenWakeups());
  EXPECT_EQ(platform::host::WaitWakeup(0), platform::host::Wake::Timeout);
  platform::host::CloseWakeups();
  pthread_sigmask(SIG_SETMASK, &saved_mask, nullptr);
}

}  // namespace
