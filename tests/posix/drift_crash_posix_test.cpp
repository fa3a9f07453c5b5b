// The drift history survives a writer killed at any moment: every record whose append returned is
// kept, and a torn tail is repaired by the next open, so the history stays readable.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <random>
#include <set>
#include <string>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

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

}  // namespace
