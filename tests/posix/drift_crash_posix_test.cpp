// The drift history survives a writer killed at any moment: every record whose append returned is
// kept, and a torn tail is repaired by the next open, so the history stays readable. Writers in
// several processes appending at once lose nothing either, across a trim too.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <random>
#include <set>
#include <spawn.h>
#include <string>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "config/defaults.h"
#include "drift/drift_file.h"
#include "drift/drift_log.h"
#include "tests/drift_test_util.h"

#ifndef DRIFT_WRITER_PATH
#error "DRIFT_WRITER_PATH names the helper executable"
#endif

namespace {

// Starts the writer, waits until it has confirmed lines_first appends, lets it run delay_us more and
// kills it with SIGKILL; returns the numbers it confirmed.
std::set<std::uint32_t> RunAndKill(const std::string& file, std::uint32_t first, unsigned lines_first, unsigned delay_us) {
  int fds[2];
  EXPECT_EQ(::pipe(fds), 0);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(fds[1], 1);
    ::close(fds[0]);
    ::close(fds[1]);
    const std::string start = std::to_string(first);
    ::execl(DRIFT_WRITER_PATH, DRIFT_WRITER_PATH, file.c_str(), start.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(fds[1]);
  std::string out;
  char buf[4096];
  ssize_t n;
  while (static_cast<unsigned>(std::count(out.begin(), out.end(), '\n')) < lines_first &&
         (n = ::read(fds[0], buf, sizeof buf)) > 0)
    out.append(buf, static_cast<std::size_t>(n));
  ::usleep(delay_us);
  ::kill(pid, SIGKILL);
  int status = 0;
  ::waitpid(pid, &status, 0);
  while ((n = ::read(fds[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<std::size_t>(n));
  ::close(fds[0]);
  std::set<std::uint32_t> confirmed;
  std::size_t pos = 0;
  while (true) {
    const auto nl = out.find('\n', pos);
    if (nl == std::string::npos) break;   // a number cut by the kill is not a confirmation
    confirmed.insert(static_cast<std::uint32_t>(std::stoul(out.substr(pos, nl - pos))));
    pos = nl + 1;
  }
  return confirmed;
}

class DriftCrashTest : public DriftFolderTest {};

TEST_F(DriftCrashTest, KilledWritersNeverLoseAFlushedRecord) {
  const std::string path = PathOf("drift.kr");
  std::mt19937 rng(12345);
  std::set<std::uint32_t> confirmed_all;
  std::uint32_t next = 1;
  int torn_seen = 0;
  for (int round = 0; round < 300; ++round) {
    const auto confirmed = RunAndKill(path, next, rng() % 4, rng() % 1500);
    confirmed_all.insert(confirmed.begin(), confirmed.end());
    if (round % 10 == 5 && ReadBytes(path).size() % 20 == 0) {
      // A crash in the middle of a write: part of a record at the end.
      auto bytes = ReadBytes(path);
      bytes.resize(bytes.size() + 1 + rng() % 19, 0x29);
      WriteBytes(path, bytes);
    }
    const auto bytes = ReadBytes(path);
    if (bytes.size() % 20) ++torn_seen;
    const auto records = ReadRecords(path);
    std::set<std::uint32_t> present;
    for (const auto& r : records) present.insert(r.check_time);
    for (std::uint32_t c : confirmed_all) ASSERT_TRUE(present.count(c)) << "record " << c << " lost in round " << round;
    if (!records.empty()) next = std::max(next, records.back().check_time + 1);
  }
  EXPECT_GE(torn_seen, 20);
  EXPECT_GT(confirmed_all.size(), 100u) << "the writer hardly ever got to append";

  // The provider's next open repairs the tail; the applet then reads the whole history.
  ASSERT_TRUE(DriftFileOpenPath(path));
  DriftFileClose();
  EXPECT_EQ(ReadBytes(path).size() % 20, 0u);
  DriftLog log;
  DriftLogSetPath(log, path.c_str());
  ASSERT_TRUE(DriftLogLoad(nullptr, log));
  for (std::uint32_t i = 1; i < log.record_count; ++i) EXPECT_GT(log.records[i].check_time, log.records[i - 1].check_time);
  for (std::uint32_t i = 0; i < log.record_count; ++i)
    EXPECT_EQ(log.records[i].variance_ms, static_cast<std::int32_t>(log.records[i].check_time));
}

// Three processes append 300 records each to one file at once, starting 100 records below the cap,
// so that one of them trims the file while the others wait to append. Every record is there, once,
// and the trim kept exactly the newest half of what the file held.
TEST_F(DriftCrashTest, WritersInSeveralProcessesLoseNothing) {
  const std::string path = PathOf("drift.kr");
  constexpr std::uint32_t kFull = defaults::kDriftFileCapBytes / kDriftRecordSize;
  constexpr std::uint32_t kKept = defaults::kDriftFileKeepBytes / kDriftRecordSize;
  constexpr std::uint32_t kBelowCap = 100, kWriters = 3, kEach = 300;
  std::vector<DriftRecord> old;
  for (std::uint32_t i = 0; i < kFull - kBelowCap; ++i) old.push_back(MakeRecord(1 + i, static_cast<std::int32_t>(1 + i)));
  WriteBytes(path, RecordBytes(old));

  std::vector<pid_t> writers;
  for (std::uint32_t w = 0; w < kWriters; ++w) {
    const std::string first = std::to_string(1'000'000 * (w + 1)), count = std::to_string(kEach);
    char* argv[] = {const_cast<char*>(DRIFT_WRITER_PATH), const_cast<char*>(path.c_str()), const_cast<char*>(first.c_str()),
                    const_cast<char*>(count.c_str()), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    ASSERT_EQ(::posix_spawn(&pid, DRIFT_WRITER_PATH, &actions, nullptr, argv, environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    writers.push_back(pid);
  }
  for (const pid_t pid : writers) {
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a writer failed: " << status;
  }

  const auto records = ReadRecords(path);
  EXPECT_EQ(ReadBytes(path).size() % 20, 0u);
  EXPECT_EQ(records.size(), kKept + kWriters * kEach - kBelowCap);   // the newest half at the trim, then the rest
  std::set<std::uint32_t> present;
  std::vector<std::uint32_t> old_kept;
  std::uint32_t twice = 0, lost = 0;
  for (const auto& r : records) {
    twice += !present.insert(r.check_time).second;
    if (r.check_time < 1'000'000) old_kept.push_back(r.check_time);
  }
  for (std::uint32_t w = 0; w < kWriters; ++w)
    for (std::uint32_t i = 0; i < kEach; ++i) lost += present.count(1'000'000 * (w + 1) + i) == 0;
  EXPECT_EQ(lost, 0u) << "records lost of " << kWriters * kEach;
  EXPECT_EQ(twice, 0u) << "records there twice";
  // What was there before the appends: the newest of it that the trim kept, in order.
  std::vector<std::uint32_t> expected_old;
  for (std::uint32_t t = kFull - kKept + 1; t <= kFull - kBelowCap; ++t) expected_old.push_back(t);
  EXPECT_TRUE(old_kept == expected_old) << old_kept.size() << " older records kept, " << expected_old.size() << " expected";
}

}  // namespace
