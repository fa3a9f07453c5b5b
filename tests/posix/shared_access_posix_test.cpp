// The family's shared objects against other users and misbehaving processes: they are made mode
// 0660 and go away with their last holder; one squatted by another user is refused and replaced by
// one of the process's own; a view of an object cut short does not fault; a named event left set
// does not hide a socket's requests from a wait.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/net.h"
#include "platform/shared.h"
#include "platform/sync.h"
#include "tests/shared_objects.h"

namespace {

constexpr const char* kName = "Global\\cw-access-test";
constexpr std::uint32_t kSize = 256;
constexpr uid_t kNobody = 65534;

class SharedAccessTest : public ::testing::Test {
 protected:
  void TearDown() override { platform::DeleteNamedObject(kName); }
  SharedObjectNamespace ns_;
  const std::string posix_ = platform::SharedObjectName(kName);
};

bool Exists(const std::string& posix_name) {
  const int fd = shm_open(posix_name.c_str(), O_RDONLY, 0);
  if (fd >= 0) close(fd);
  return fd >= 0;
}

// Runs body in a child process as nobody; its exit status (255 when it could not become nobody).
template <typename F>
int AsNobody(F body) {
  const pid_t pid = fork();
  if (pid == 0) {
    if (setgroups(0, nullptr) != 0 || setresgid(kNobody, kNobody, kNobody) != 0 || setresuid(kNobody, kNobody, kNobody) != 0) _exit(255);
    _exit(body());
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 254;
}

TEST_F(SharedAccessTest, ObjectsAreTheFamilysOnlyAndGoWithTheirLastHolder) {
  bool existed = true;
  platform::SectionHandle a = platform::CreateNamedSection(kName, kSize, existed);
  ASSERT_NE(a, nullptr);
  EXPECT_FALSE(existed);
  struct stat st {};
  ASSERT_EQ(stat(("/dev/shm" + posix_).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0660u);   // once 0666: every user could write it
  platform::SectionHandle b = platform::CreateNamedSection(kName, kSize, existed);
  ASSERT_NE(b, nullptr);
  EXPECT_TRUE(existed);
  platform::CloseSection(a);
  EXPECT_TRUE(Exists(posix_));   // b still holds it
  platform::CloseSection(b);
  EXPECT_FALSE(Exists(posix_));   // once left in /dev/shm for good
}

TEST_F(SharedAccessTest, AnotherUsersWritesAreRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to act as nobody";
  bool existed = false;
  platform::SectionHandle s = platform::CreateNamedSection(kName, kSize, existed);
  ASSERT_NE(s, nullptr);
  const std::string path = posix_;
  EXPECT_EQ(AsNobody([&] { return shm_open(path.c_str(), O_RDWR, 0) >= 0 ? 0 : 1; }), 1);
  platform::CloseSection(s);
}

TEST_F(SharedAccessTest, AnObjectSquattedByAnotherUserIsRefusedAndLogged) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to act as nobody";
  const std::string path = posix_;
  ASSERT_EQ(AsNobody([&] {   // readable and writable by all, the right size: still not the family's
    const int fd = shm_open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
    return fd >= 0 && fchmod(fd, 0666) == 0 && ftruncate(fd, kSize) == 0 ? 0 : 1;
  }), 0);
  bool existed = true;
  platform::SectionHandle s = platform::CreateNamedSection(kName, kSize, existed);
  ASSERT_NE(s, nullptr);
  EXPECT_FALSE(existed);
  const std::string notice = platform::TakeSharedObjectNotice();
  EXPECT_NE(notice.find("The shared object " + path + " is not this product's (it belongs to user 65534)"), std::string::npos) << notice;
  EXPECT_NE(notice.find("using " + path + "." + std::to_string(getpid()) + ".0 instead"), std::string::npos) << notice;
  auto* words = static_cast<std::uint32_t*>(platform::MapSection(s, kSize, true));
  ASSERT_NE(words, nullptr);
  words[1] = 7;
  // The intruder's object is untouched, and readers do not take it for the family's.
  const int fd = shm_open(path.c_str(), O_RDONLY, 0);
  std::uint32_t theirs = 1;
  ASSERT_EQ(pread(fd, &theirs, 4, 4), 4);
  close(fd);
  EXPECT_EQ(theirs, 0u);
  EXPECT_EQ(platform::OpenNamedSection(kName, kSize), nullptr);
  platform::UnmapSection(words, kSize);
  platform::CloseSection(s);
  EXPECT_FALSE(Exists(path + "." + std::to_string(getpid()) + ".0"));
}

TEST_F(SharedAccessTest, AViewOfAnObjectCutShortDoesNotFault) {
  bool existed = false;
  platform::SectionHandle s = platform::CreateNamedSection(kName, kSize, existed);
  ASSERT_NE(s, nullptr);
  auto* words = static_cast<volatile std::uint32_t*>(platform::MapSection(s, kSize, true));
  ASSERT_NE(words, nullptr);
  words[3] = 5;
  const std::string path = posix_;
  EXPECT_EXIT(
      {
        const int fd = shm_open(path.c_str(), O_RDWR, 0);
        if (fd < 0 || ftruncate(fd, 0) != 0) std::_Exit(2);
        const std::uint32_t seen = words[3];   // once SIGBUS, which ended the process
        words[3] = 6;
        std::_Exit(seen == 0 && words[3] == 6 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  platform::UnmapSection(const_cast<std::uint32_t*>(words), kSize);
  platform::CloseSection(s);
}

TEST_F(SharedAccessTest, ANamedEventLeftSetDoesNotHideASocketsRequests) {
  ASSERT_EQ(platform::NetStartup(), 0);
  platform::EventHandle notify = platform::CreateNamedEvent(kName);
  platform::EventHandle client = platform::CreateSyncEvent(false, false);
  ASSERT_NE(notify, nullptr);
  ASSERT_NE(client, nullptr);
  const platform::SocketHandle s = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
  platform::SocketAddressV4 here{platform::kFamilyInet, 0, platform::InetAddr("127.0.0.1")};
  ASSERT_TRUE(platform::BindV4(s, here));
  ASSERT_TRUE(platform::SocketName(s, here));
  ASSERT_TRUE(platform::SelectSocketEvent(s, client, true));
  platform::SetEvent(notify);   // and never reset, as a process killed mid-pulse leaves it
  ASSERT_EQ(platform::SendTo(s, "x", 1, here), 1);
  const platform::EventHandle events[] = {client, notify};
  EXPECT_EQ(platform::WaitForAnyEvent(events, 2, 1000), platform::kWaitObject0);   // once 1, for ever
  platform::SelectSocketEvent(s, client, false);
  platform::CloseSocket(s);
  platform::CloseEvent(client);
  platform::CloseEvent(notify);
  platform::NetCleanup();
}

}  // namespace
