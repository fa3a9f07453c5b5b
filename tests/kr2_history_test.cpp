// The KR2 responder's drift history commands on the provider's own drift file: 160 over a full
// history beside other sources' status requests, and 129 keeping the history it empties.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <utility>
#include <vector>

#include "config/defaults.h"
#include "drift/drift_log.h"
#include "platform/testing/fake.h"
#include "platform/net.h"
#include "provider/kr2_responder.h"
#include "provider/provider.h"
#include "tests/drift_test_util.h"
#include "tests/kr2_test_util.h"

namespace {

constexpr std::uint32_t kFullHistory = defaults::kDriftFileCapBytes / kDriftRecordSize;   // 16,384 records
constexpr std::uint32_t kFirstTime = 1'700'000'000;
const std::uint32_t kFlooder = platform::HostToNet32(0x7F000002);
const std::uint32_t kStation = platform::HostToNet32(0x7F000003);

// Datagrams from several sources, received in order; each reply is kept with where it went.
struct SourcesSocket final : Kr2Socket {
  std::deque<std::pair<std::vector<std::uint8_t>, std::uint32_t>> queued;
  std::vector<std::pair<std::vector<std::uint8_t>, std::uint32_t>> sent;
  void Push(std::uint8_t code, std::uint32_t argument, std::uint32_t from) {
    queued.emplace_back(Kr2Request(code, argument), from);
  }
  int Receive(std::uint8_t* buf, std::size_t size, platform::SocketAddressV4& from) override {
    if (queued.empty()) return -1;
    auto [d, source] = std::move(queued.front());
    queued.pop_front();
    const std::size_t n = std::min(d.size(), size);
    std::memcpy(buf, d.data(), n);
    from = {platform::kFamilyInet, platform::HostToNet16(40000), source};
    return static_cast<int>(n);
  }
  int Send(const void* data, std::size_t size, const platform::SocketAddressV4& to) override {
    const auto* p = static_cast<const std::uint8_t*>(data);
    sent.emplace_back(std::vector<std::uint8_t>(p, p + size), to.address);
    return static_cast<int>(size);
  }
};

class Kr2HistoryTest : public DriftFolderTest {
 protected:
  void SetUp() override {
    DriftFolderTest::SetUp();
    ResetKr2ForTest(1'600'000'000, "HISTORY");
    SetKr2Prohibited(true);   // 160 allowed
    path_ = PathOf(defaults::kDriftFileName);
  }
  // The history, check times from kFirstTime a minute apart, variance = index; the provider's file opened.
  void OpenHistory(std::uint32_t count) {
    std::vector<DriftRecord> records;
    for (std::uint32_t i = 0; i < count; ++i) records.push_back(MakeRecord(kFirstTime + 60 * i, static_cast<std::int32_t>(i)));
    WriteBytes(path_, RecordBytes(records));
    ASSERT_TRUE(DriftFileOpenPath(path_));
  }
  static DriftRecord RecordOf(const std::vector<std::uint8_t>& reply) {
    DriftRecord r{};
    EXPECT_EQ(reply.size(), sizeof r);
    std::memcpy(&r, reply.data(), std::min(reply.size(), sizeof r));
    return r;
  }
  std::string path_;
  Kr2SystemMachine machine_{g_provider.settings, nullptr, 32768, kProviderName};
};

// One source floods 160 over a full history (asking for the newest records, the far end of the
// file); another asks for its status in between. Every request is answered, and each 160 costs a
// read or two of the file, never one read per record (which made a full history's 160 take as long
// as 60 ms, so that a flood of them left the other sources unanswered).
TEST_F(Kr2HistoryTest, AFloodOf160OverAFullHistoryReadsTheFileOnceARequest) {
  OpenHistory(kFullHistory);
  SourcesSocket socket;
  constexpr std::uint32_t kFlood = 300, kStatusEvery = 50;
  for (std::uint32_t i = 0; i < kFlood; ++i) {
    socket.Push(kKr2DriftAfter, kFirstTime + 60 * (kFullHistory - 1 - i % 100) - 1, kFlooder);
    if (i % kStatusEvery == 0) socket.Push(kKr2Status, 0, kStation);
  }
  const std::uint32_t reads_before = platform::fake::CallCount("FileRead");
  while (!socket.queued.empty()) ASSERT_EQ(g_provider.kr2.HandleRequestWith(socket, machine_), Kr2Outcome::Answered);
  const std::uint32_t reads = platform::fake::CallCount("FileRead") - reads_before;

  std::uint32_t records = 0, statuses = 0;
  for (const auto& [reply, to] : socket.sent) {
    if (to == kStation) {
      EXPECT_EQ(reply.size(), sizeof(LocalStatusRecord));
      ++statuses;
    } else {
      EXPECT_EQ(RecordOf(reply).variance_ms, static_cast<std::int32_t>(kFullHistory - 1 - records % 100));
      ++records;
    }
  }
  EXPECT_EQ(records, kFlood);
  EXPECT_EQ(statuses, kFlood / kStatusEvery);
  EXPECT_LE(reads, 2 * kFlood);
}

// The same through the real listen socket and the provider's own machine: one wake-up answers a
// batch of 160 from one client and the status another asks after them.
TEST_F(Kr2HistoryTest, OneWakeUpAnswers160OverAFullHistoryAndAnotherClientsStatus) {
  OpenHistory(kFullHistory);
  ASSERT_EQ(platform::NetStartup(), 0);
  const auto bound = [] {
    const platform::SocketHandle s = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
    EXPECT_TRUE(platform::BindV4(s, {platform::kFamilyInet, 0, platform::InetAddr("127.0.0.1")}));
    EXPECT_TRUE(platform::SetReceiveTimeout(s, 2000));
    return s;
  };
  const platform::SocketHandle listen = bound(), flooder = bound(), station = bound();
  platform::SocketAddressV4 address{};
  ASSERT_TRUE(platform::SocketName(listen, address));
  const auto send = [&](platform::SocketHandle from, std::uint8_t code, std::uint32_t argument) {
    const auto request = Kr2Request(code, argument);
    ASSERT_EQ(platform::SendTo(from, request.data(), request.size(), address), static_cast<int>(request.size()));
  };
  constexpr std::uint32_t kFlood = kKr2Batch - 1;
  for (std::uint32_t i = 0; i < kFlood; ++i) send(flooder, kKr2DriftAfter, kFirstTime + 60 * (kFullHistory - 1 - i) - 1);
  send(station, kKr2Status, 0);
  const std::uint32_t reads_before = platform::fake::CallCount("FileRead");
  g_provider.kr2.HandleRequest(listen, g_provider.settings, nullptr);
  EXPECT_LE(platform::fake::CallCount("FileRead") - reads_before, 2 * kFlood);

  std::uint8_t buf[600];
  EXPECT_EQ(platform::ReceiveFrom(station, buf, sizeof buf, nullptr), static_cast<int>(sizeof(LocalStatusRecord)));
  for (std::uint32_t i = 0; i < kFlood; ++i) {
    const int n = platform::ReceiveFrom(flooder, buf, sizeof buf, nullptr);
    ASSERT_EQ(n, static_cast<int>(sizeof(DriftRecord))) << i;
    EXPECT_EQ(RecordOf({buf, buf + n}).variance_ms, static_cast<std::int32_t>(kFullHistory - 1 - i));
  }
  for (const auto s : {listen, flooder, station}) platform::CloseSocket(s);
  platform::NetCleanup();
}

// A clear asked over the network keeps the history it empties as drift.kr.1, which reads as any
// drift history; the next clear replaces it.
TEST_F(Kr2HistoryTest, ClearKeepsTheEmptiedHistoryAsThePreviousGeneration) {
  OpenHistory(3);
  SourcesSocket socket;
  const std::uint32_t loopback = platform::HostToNet32(0x7F000001);
  socket.Push(kKr2StatusClear, 0, loopback);
  ASSERT_EQ(g_provider.kr2.HandleRequestWith(socket, machine_), Kr2Outcome::Answered);
  EXPECT_TRUE(ReadBytes(path_).empty());
  const std::string previous = path_ + ".1";
  DriftLog log;
  DriftLogSetPath(log, previous.c_str());
  ASSERT_TRUE(DriftLogLoad(nullptr, log));
  ASSERT_EQ(log.record_count, 3u);
  EXPECT_EQ(log.records[2].variance_ms, 2);
  DriftLogReset(log);

  DriftFileAppend(-7, kFirstTime + 1000, 0, kReasonScheduled, "10.0.0.1", kMachineChronwarden);
  socket.Push(kKr2StatusClear, 1, loopback);   // not the same bytes as the last request
  ASSERT_EQ(g_provider.kr2.HandleRequestWith(socket, machine_), Kr2Outcome::Answered);
  EXPECT_TRUE(ReadBytes(path_).empty());
  const auto kept = ReadRecords(previous);
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(kept[0].variance_ms, -7);

  // An empty history cleared again keeps the previous generation it has.
  socket.Push(kKr2StatusClear, 2, loopback);
  ASSERT_EQ(g_provider.kr2.HandleRequestWith(socket, machine_), Kr2Outcome::Answered);
  EXPECT_EQ(ReadRecords(previous).size(), 1u);
}

}  // namespace
