// The KR2 client against responders on loopback sockets: every reply's size, polling the same
// command twice, walking the history, a silent port, and a sweep over many machines at once.
#include <gtest/gtest.h>

#include <cstring>

#include "platform/error.h"
#include "applet/kr2_client.h"
#include "tests/kr2_loopback.h"
#include "timing/precise_clock.h"

namespace {

class Kr2ClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(platform::NetStartup(), 0);   // Winsock, for the responders and the client
    ResetKr2ForTest(1'600'000'000, "LOOPBACK");
    SetKr2Prohibited(true);
    std::strcpy(g_provider.kr2.status().partner_name, "ntp.loopback");
  }
  void TearDown() override {
    Kr2Close(peer_);
    platform::NetCleanup();
  }
  bool Open(std::uint16_t port, std::uint32_t timeout_ms = 2000) {
    return Kr2Open(peer_, "127.0.0.1", port, timeout_ms);
  }
  static std::uint16_t Port(const platform::SocketAddressV4& a) { return platform::NetToHost16(a.port); }
  Kr2Peer peer_;
};

TEST_F(Kr2ClientTest, EveryCommandGetsItsReplySize) {
  LoopbackKr2Responders r;
  ASSERT_TRUE(r.Start(1));
  ASSERT_TRUE(Open(Port(r.addresses[0])));
  for (const std::uint8_t code : {0, 2, 3, 4, 5, 6, 7, 128, 129, 132, 150, 151, 160, 200, 201, 204}) {
    std::uint8_t reply[kKr2RequestMax];
    EXPECT_EQ(Kr2Ask(peer_, code, 0, reply, sizeof reply), static_cast<int>(Kr2ReplySize(code))) << int(code);
  }
  EXPECT_EQ(Kr2ReplySize(100), 0u);
}

TEST_F(Kr2ClientTest, PollingTheSameCommandTwiceIsAnsweredTwice) {
  LoopbackKr2Responders r;
  ASSERT_TRUE(r.Start(1));
  ASSERT_TRUE(Open(Port(r.addresses[0])));
  LocalStatusRecord s{};
  ASSERT_EQ(Kr2Ask(peer_, kKr2Status, 0, &s, sizeof s), 355);
  ASSERT_EQ(Kr2Ask(peer_, kKr2Status, 0, &s, sizeof s), 355);
  EXPECT_EQ(+s.counters[0], 1u);   // the second reply counts the first
  EXPECT_STREQ(s.partner_name, "ntp.loopback");
}

TEST_F(Kr2ClientTest, HistoryIsWalkedRecordByRecord) {
  LoopbackKr2Responders r;
  r.ChangeMachine([](ScriptedKr2Machine& m) {
    m.records = {MakeKr2TestRecord(1000, -3), MakeKr2TestRecord(2000, 4), MakeKr2TestRecord(3000, 5)};
  });
  ASSERT_TRUE(r.Start(1));
  ASSERT_TRUE(Open(Port(r.addresses[0])));
  std::vector<std::int32_t> seen;
  for (std::uint32_t after = 0;;) {
    DriftRecord rec{};
    ASSERT_EQ(Kr2Ask(peer_, kKr2DriftAfter, after, &rec, sizeof rec), 20);
    if (rec.check_time <= after) break;
    seen.push_back(rec.variance_ms);
    after = rec.check_time;
  }
  EXPECT_EQ(seen, (std::vector<std::int32_t>{-3, 4, 5}));
}

TEST_F(Kr2ClientTest, RefusedCommandIsNotAnswered) {
  SetKr2Prohibited(false);
  LoopbackKr2Responders r;
  ASSERT_TRUE(r.Start(1));
  ASSERT_TRUE(Open(Port(r.addresses[0]), 300));
  DriftRecord rec{};
  EXPECT_EQ(Kr2Ask(peer_, kKr2DriftAfter, 0, &rec, sizeof rec), -1);
  EXPECT_EQ(platform::LastSocketError(), 10060);
  EXPECT_EQ(Kr2Ask(peer_, kKr2Ack, 0, &rec, sizeof rec), 4);   // the socket still works
}

TEST_F(Kr2ClientTest, NothingListeningFailsWithinTheTimeout) {
  LoopbackKr2Responders r;
  ASSERT_TRUE(r.Start(1));
  const std::uint16_t port = Port(r.addresses[0]);
  r.Stop();   // the port is free again
  ASSERT_TRUE(Open(port, 300));
  std::uint8_t reply[4];
  EXPECT_EQ(Kr2Ask(peer_, kKr2Ack, 0, reply, sizeof reply), -1);
  const int err = platform::LastSocketError();
  EXPECT_TRUE(err == 10054 || err == 10060) << err;
}

TEST_F(Kr2ClientTest, SweepAsksManyMachinesAtOnce) {
  LoopbackKr2Responders r;
  ASSERT_TRUE(r.Start(24));
  std::vector<Kr2SweepEntry> machines;
  for (const auto& a : r.addresses) machines.push_back(Kr2SweepEntry{a});
  // One machine that does not answer: a port nothing listens on.
  LoopbackKr2Responders gone;
  ASSERT_TRUE(gone.Start(1));
  const auto dead = gone.addresses[0];
  gone.Stop();
  machines.push_back(Kr2SweepEntry{dead});
  ASSERT_TRUE(Kr2Sweep(machines, 800));
  for (std::size_t i = 0; i + 1 < machines.size(); ++i) {
    EXPECT_TRUE(machines[i].have_status) << i;
    EXPECT_TRUE(machines[i].have_identity) << i;
    EXPECT_STREQ(machines[i].identity.computer_name, "LOOPBACK");
    EXPECT_STREQ(machines[i].status.partner_name, "ntp.loopback");
  }
  EXPECT_FALSE(machines.back().have_status);
  EXPECT_FALSE(machines.back().have_identity);
}

}  // namespace
