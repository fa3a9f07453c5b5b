// The sync status block, its notify event and the activity map between processes: a second and a
// third process open them (owner and readers), one pulse wakes the waiters of two other processes
// once each, and an owner's close leaves the block readable.
#include "provider/sync_status.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/shared.h"
#include "platform/sync.h"
#include "tests/shared_objects.h"
#include "timing/activity.h"

namespace {

// A forked child that runs body and exits with its result; the parent talks to it through pipes.
struct Child {
  pid_t pid = -1;
  int to_parent[2] = {-1, -1};
  int to_child[2] = {-1, -1};

  template <typename F>
  explicit Child(F body) {
    EXPECT_EQ(pipe(to_parent), 0);
    EXPECT_EQ(pipe(to_child), 0);
    pid = fork();
    if (pid == 0) {
      close(to_parent[0]);
      close(to_child[1]);
      _exit(body(*this));
    }
    close(to_parent[1]);
    close(to_child[0]);
  }
  // Child side.
  void Tell(char c) const { (void)!write(to_parent[1], &c, 1); }
  char Await() const {
    char c = 0;
    (void)!read(to_child[0], &c, 1);
    return c;
  }
  // Parent side.
  char Hear() const {
    char c = 0;
    return read(to_parent[0], &c, 1) == 1 ? c : 0;
  }
  void Say(char c) const { (void)!write(to_child[1], &c, 1); }
  int Exit() {
    int status = 0;
    waitpid(pid, &status, 0);
    close(to_parent[0]);
    close(to_child[1]);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
  }
};

class SyncStatusProcessTest : public ::testing::Test {
 protected:
  SharedObjectNamespace ns_;
};

// Waits for the notify event; counts the times it became set within 0.6 s (each wake waits for
// the pulse to end before looking again).
int CountWakes(platform::EventHandle notify) {
  int wakes = 0;
  for (int round = 0; round < 2; ++round) {
    if (platform::WaitForEvent(notify, round == 0 ? 5000 : 600) != platform::kWaitObject0) break;
    ++wakes;
    for (int i = 0; i < 200 && platform::WaitForEvent(notify, 0) == platform::kWaitObject0; ++i) platform::Sleep(5);
  }
  return wakes;
}

TEST_F(SyncStatusProcessTest, OwnerAndTwoReadersInThreeProcesses) {
  Child owner([](const Child& c) {
    if (!OpenSyncStatus(5, nullptr) || !OpenActivityMap()) return 1;
    MarkActivity(8);
    c.Tell('o');
    c.Await();   // until both readers looked
    CloseSyncStatus(true);
    CloseActivityMap();
    c.Tell('c');
    return 0;
  });
  ASSERT_EQ(owner.Hear(), 'o');
  auto reader = [](std::uint32_t expect_active) {
    return [expect_active](const Child& c) {
      const SyncStatusBlock* b = OpenSyncStatus(0, nullptr);
      if (!b || !OpenActivityMap()) return 1;
      const bool ok = b->size == 32 && b->owner_active == expect_active && b->owner_product == 5 &&
                      b->closed_mark == 1 && ActivityMapView()[8] == kActivityMark;
      c.Tell(ok ? 'y' : 'n');
      return ok ? 0 : 2;
    };
  };
  Child second(reader(1)), third(reader(1));
  EXPECT_EQ(second.Hear(), 'y');
  EXPECT_EQ(third.Hear(), 'y');
  EXPECT_EQ(second.Exit(), 0);
  EXPECT_EQ(third.Exit(), 0);
  owner.Say('g');
  EXPECT_EQ(owner.Hear(), 'c');
  EXPECT_EQ(owner.Exit(), 0);
}

TEST_F(SyncStatusProcessTest, OnePulseWakesWaitersInTwoOtherProcessesOnce) {
  auto waiter = [](const Child& c) {
    platform::EventHandle notify = nullptr;
    OpenSyncStatus(0, &notify);
    if (!notify) return 10;
    c.Tell('r');
    const int wakes = CountWakes(notify);
    CloseSyncStatus(false);
    return wakes;
  };
  Child a(waiter), b(waiter);
  ASSERT_EQ(a.Hear(), 'r');
  ASSERT_EQ(b.Hear(), 'r');
  platform::EventHandle notify = nullptr;
  OpenSyncStatus(0, &notify);
  ASSERT_NE(notify, nullptr);
  PulseSyncStatus();
  EXPECT_EQ(a.Exit(), 1);
  EXPECT_EQ(b.Exit(), 1);
  EXPECT_EQ(platform::WaitForEvent(notify, 0), platform::kWaitTimeout);
  CloseSyncStatus(false);
}

TEST_F(SyncStatusProcessTest, OwnersCloseInAnotherProcessLeavesTheBlockReadable) {
  Child owner([](const Child& c) {
    if (!OpenSyncStatus(6, nullptr)) return 1;
    c.Tell('o');
    c.Await();
    CloseSyncStatus(true);   // signs off and pulses
    return 0;
  });
  ASSERT_EQ(owner.Hear(), 'o');
  platform::EventHandle notify = nullptr;
  const SyncStatusBlock* b = OpenSyncStatus(0, &notify);   // after the fork: the child has its own
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->owner_active, 1u);
  EXPECT_EQ(b->owner_product, 6u);
  owner.Say('g');
  EXPECT_EQ(platform::WaitForEvent(notify, 5000), platform::kWaitObject0);   // the sign-off pulse
  EXPECT_EQ(owner.Exit(), 0);
  EXPECT_EQ(b->owner_active, 0u);
  EXPECT_EQ(b->closed_mark, 1u);
  EXPECT_EQ(b->size, 32u);
  CloseSyncStatus(false);
}

// Another process has made the object but not sized it yet: reading it is no block, not a fault.
TEST_F(SyncStatusProcessTest, ABlockNotYetSizedIsNoBlockUntilItIs) {
  const std::string name = platform::SharedObjectName(std::string(kGlobalPrefix) + kSyncStatusName);
  const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0660);   // as the family makes it
  ASSERT_GE(fd, 0);
  ASSERT_EQ(fchmod(fd, 0660), 0);
  SyncStatusBlock copy{};
  EXPECT_FALSE(ReadSyncStatus(copy));
  ASSERT_EQ(ftruncate(fd, sizeof copy), 0);
  EXPECT_TRUE(ReadSyncStatus(copy));
  EXPECT_EQ(copy.size, 0u);
  close(fd);
}

}  // namespace
