// The KR2 responder's request handling on a scripted transport and machine, under the fake clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <vector>

#include "platform/testing/fake.h"
#include "platform/net.h"
#include "provider/kr2_responder.h"
#include "tests/kr2_test_util.h"
#include "timing/activity.h"
#include "timing/precise_clock.h"

namespace {

std::vector<std::uint32_t> g_marks;
void RecordMark(std::uint32_t slot) { g_marks.push_back(slot); }

class Kr2ResponderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::fake::Enable();
    g_nt_family = true;
    ResetKr2ForTest(1'600'000'000, "A-VERY-LONG-COMPUTER-NAME");
    SetKr2Prohibited(false);
    g_marks.clear();
    SetActivityMarker(RecordMark);
  }
  void TearDown() override {
    SetActivityMarker(nullptr);
    platform::fake::Disable();
  }
  // Sends one request and handles it.
  Kr2Outcome Ask(std::uint8_t code, std::uint32_t argument = 0) {
    socket_.Push(Kr2Request(code, argument));
    return g_provider.kr2.HandleRequestWith(socket_, machine_);
  }
  Kr2Outcome AskBytes(std::vector<std::uint8_t> bytes) {
    socket_.Push(std::move(bytes));
    return g_provider.kr2.HandleRequestWith(socket_, machine_);
  }
  ScriptedKr2Socket socket_;
  ScriptedKr2Machine machine_;
};

TEST_F(Kr2ResponderTest, EveryAnsweredCommandHasItsReplySize) {
  struct Case {
    std::uint8_t code;
    std::size_t size;
  };
  constexpr Case kCases[] = {{0, 4},    {2, 16},   {3, 4},    {4, 64},   {5, 4},    {6, 504},
                             {7, 16},   {128, 355}, {129, 355}, {132, 4}, {151, 16}, {200, 302},
                             {201, 302}, {204, 4}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(int(c.code));
    ASSERT_EQ(Ask(c.code), Kr2Outcome::Answered);
    ASSERT_EQ(socket_.sent.size(), 1u);
    EXPECT_EQ(socket_.sent.back().size(), c.size);
    socket_.sent.clear();
  }
}

TEST_F(Kr2ResponderTest, AckNakAndZeroWordAreExactBytes) {
  Ask(0);
  EXPECT_EQ(socket_.sent.back(), (std::vector<std::uint8_t>{'A', 'C', 'K', 0}));
  Ask(5);
  EXPECT_EQ(socket_.sent.back(), (std::vector<std::uint8_t>{'N', 'A', 'K', 0}));
  Ask(132);
  EXPECT_EQ(socket_.sent.back(), (std::vector<std::uint8_t>{'N', 'A', 'K', 0}));
  SetKr2Prohibited(true);
  Ask(150);
  EXPECT_EQ(socket_.sent.back(), (std::vector<std::uint8_t>{0, 0, 0, 0}));
}

TEST_F(Kr2ResponderTest, IdentityRecordFields) {
  Ask(4);
  IdentityRecord id;
  ASSERT_EQ(socket_.sent.back().size(), sizeof id);
  std::memcpy(&id, socket_.sent.back().data(), sizeof id);
  EXPECT_EQ(+id.ephemerides, 1'600'000'000u);
  EXPECT_EQ(+id.product_code, 7u);
  EXPECT_EQ(+id.major_version, 4);
  EXPECT_EQ(+id.minor_version, 2);
  EXPECT_EQ(+id.build_year, 2008);
  EXPECT_EQ(+id.build_month_day, 1210);
  EXPECT_EQ(+id.one, 1u);
  EXPECT_EQ(+id.nt_family, 1u);
  EXPECT_STREQ(id.version, "4.2.b.20081210R");
  EXPECT_STREQ(id.computer_name, "A-VERY-LONG-COM");   // 15 characters and a zero
}

TEST_F(Kr2ResponderTest, TimeIsTheFakeClocksUtc) {
  Ask(2);
  platform::SystemTime st;
  std::memcpy(&st, socket_.sent.back().data(), sizeof st);
  EXPECT_EQ(+st.year, 2026);   // the fake clock starts at 2026-01-01 00:00 UTC
  EXPECT_EQ(+st.month, 1);
  EXPECT_EQ(+st.day, 1);
  EXPECT_EQ(+st.hour, 0);
}

TEST_F(Kr2ResponderTest, SameDatagramTwiceIsAnsweredOnceAndAgainAfterAnother) {
  EXPECT_EQ(Ask(0), Kr2Outcome::Answered);
  EXPECT_EQ(Ask(0), Kr2Outcome::Repeat);
  EXPECT_EQ(socket_.sent.size(), 1u);
  EXPECT_EQ(Ask(4), Kr2Outcome::Answered);
  EXPECT_EQ(Ask(0), Kr2Outcome::Answered);
  EXPECT_EQ(socket_.sent.size(), 3u);
  // A repeat is still marked as a received request, but not counted.
  EXPECT_EQ(+g_provider.kr2.status().counters[0], 3u);
  EXPECT_EQ(+g_provider.kr2.status().bytes_received, 3u * kKr2RequestSize);
}

TEST_F(Kr2ResponderTest, FirstRequestAfterNewSocketIsAnswered) {
  EXPECT_EQ(AskBytes(std::vector<std::uint8_t>(kKr2RequestMax, 0)), Kr2Outcome::Answered);   // 512 zero bytes
  EXPECT_EQ(AskBytes(std::vector<std::uint8_t>(kKr2RequestMax, 0)), Kr2Outcome::Repeat);
  g_provider.kr2.ForgetLastRequest();
  EXPECT_EQ(AskBytes(std::vector<std::uint8_t>(kKr2RequestMax, 0)), Kr2Outcome::Answered);
}

TEST_F(Kr2ResponderTest, ProhibitedByDefaultWhenTheValueIsMissing) {
  for (const std::uint8_t code : {102, 150, 160, 180}) {
    EXPECT_EQ(Ask(code), Kr2Outcome::Refused) << int(code);
  }
  EXPECT_TRUE(socket_.sent.empty());
  EXPECT_EQ(+g_provider.kr2.status().bytes_received, 0u);
  EXPECT_TRUE(g_marks.empty());   // no activity mark either
  EXPECT_EQ(Ask(0), Kr2Outcome::Answered);   // the other known codes are allowed
  EXPECT_EQ(Ask(8), Kr2Outcome::Refused);
}

TEST_F(Kr2ResponderTest, Command102AllowedByTheValueIsReadButNotAnswered) {
  SetKr2Prohibited(true);
  EXPECT_EQ(Ask(102), Kr2Outcome::Unanswered);
  EXPECT_TRUE(socket_.sent.empty());
  EXPECT_EQ(+g_provider.kr2.status().bytes_received, kKr2RequestSize);
  EXPECT_EQ(g_marks, std::vector<std::uint32_t>{8});
  EXPECT_EQ(Ask(8), Kr2Outcome::Refused);   // code 8 is refused whatever the value says
  EXPECT_EQ(Ask(255), Kr2Outcome::Refused);
}

TEST_F(Kr2ResponderTest, UnansweredCodesMarkTheirSlots) {
  const std::pair<std::uint8_t, std::uint32_t> cases[] = {{100, 20}, {101, 22}, {81, 28}, {82, 26}, {83, 30}};
  for (const auto& [code, slot] : cases) {
    g_marks.clear();
    EXPECT_EQ(Ask(code), Kr2Outcome::Unanswered);
    EXPECT_EQ(g_marks, (std::vector<std::uint32_t>{8, slot})) << int(code);
  }
  g_marks.clear();
  EXPECT_EQ(Ask(10), Kr2Outcome::Unanswered);
  EXPECT_EQ(g_marks, std::vector<std::uint32_t>{8});
  EXPECT_TRUE(socket_.sent.empty());
}

TEST_F(Kr2ResponderTest, AnsweredRequestMarksReceiveAndReply) {
  Ask(0);
  EXPECT_EQ(g_marks, (std::vector<std::uint32_t>{8, 7}));
}

TEST_F(Kr2ResponderTest, ResyncSetsTheEventAndAcksExceptOnWindows2000) {
  EXPECT_EQ(Ask(3), Kr2Outcome::Answered);
  EXPECT_EQ(socket_.sent.back()[0], 'A');
  EXPECT_EQ(machine_.resyncs, 1);
  EXPECT_EQ(Ask(204), Kr2Outcome::Answered);
  EXPECT_EQ(machine_.resyncs, 2);
  g_provider.kr2.SetSystem({.os_level = 2048});
  EXPECT_EQ(Ask(3), Kr2Outcome::Answered);
  EXPECT_EQ(socket_.sent.back(), (std::vector<std::uint8_t>{'N', 'A', 'K', 0}));
  EXPECT_EQ(machine_.resyncs, 2);   // no event on Windows 2000
}

// A datagram shorter than its request gets silence, never a reply built from what the request
// before it left in the receive buffer; it is not remembered either.
TEST_F(Kr2ResponderTest, ADatagramShorterThanItsRequestGetsSilence) {
  g_provider.kr2.prohibited()[kKr2DriftAfter] = 0;
  Ask(6);   // leaves 6 (the 504-byte time-zone reply) at byte 4 of the receive buffer
  ASSERT_EQ(socket_.sent.size(), 1u);
  for (std::size_t n = 0; n <= 4; ++n) {
    SCOPED_TRACE(n);
    EXPECT_EQ(AskBytes(std::vector<std::uint8_t>(n, 9)), Kr2Outcome::Malformed);
  }
  Ask(160, 0);   // leaves 0 in the argument word
  ASSERT_EQ(socket_.sent.size(), 2u);
  for (std::size_t n = 5; n < kKr2RequestSize; ++n) {
    SCOPED_TRACE(n);
    std::vector<std::uint8_t> cut(n, 0);
    cut[0] = static_cast<std::uint8_t>(n);   // not the buffer's byte 0: no repeat either
    cut[4] = 160;
    EXPECT_EQ(AskBytes(cut), Kr2Outcome::Malformed);
  }
  EXPECT_EQ(socket_.sent.size(), 2u);
  EXPECT_EQ(+g_provider.kr2.status().bytes_received, 2 * kKr2RequestSize);
  EXPECT_EQ(std::count(g_marks.begin(), g_marks.end(), 8u), 2);   // only the two requests were marked
  // The last answered request is still the one remembered: sent again, it is a repeat.
  EXPECT_EQ(Ask(160, 0), Kr2Outcome::Repeat);
  // Five bytes make a whole request of any other command; twelve one of 160.
  EXPECT_EQ(AskBytes({1, 2, 3, 4, 0}), Kr2Outcome::Answered);
  EXPECT_EQ(socket_.sent.back(), (std::vector<std::uint8_t>{'A', 'C', 'K', 0}));
  EXPECT_EQ(Kr2RequestBytes(160), 12u);
  EXPECT_EQ(Kr2RequestBytes(128), 5u);
}

TEST_F(Kr2ResponderTest, OversizedDatagramIsCutAt512) {
  std::vector<std::uint8_t> big(600, 0x11);
  big[4] = 0;
  EXPECT_EQ(AskBytes(big), Kr2Outcome::Answered);
  EXPECT_EQ(+g_provider.kr2.status().bytes_received, kKr2RequestMax);
  EXPECT_EQ(socket_.sent.back(), (std::vector<std::uint8_t>{'A', 'C', 'K', 0}));
}

TEST_F(Kr2ResponderTest, FailedReceiveIsOnlyCounted) {
  socket_.fail_receive = true;
  EXPECT_EQ(g_provider.kr2.HandleRequestWith(socket_, machine_), Kr2Outcome::ReceiveFailed);
  EXPECT_EQ(+g_provider.kr2.status().failed[0], 1u);
  EXPECT_TRUE(g_marks.empty());
}

// A wake-up with nothing to read (on Linux a socket shut down under the agent's wait wakes it) is a
// failed receive, never a wait for the next datagram that would keep the agent from its shutdown.
TEST_F(Kr2ResponderTest, NothingWaitingOnARealSocketIsAFailedReceiveAtOnce) {
  ASSERT_EQ(platform::NetStartup(), 0);
  const platform::SocketHandle s = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
  ASSERT_NE(s, platform::kInvalidSocket);
  ASSERT_TRUE(platform::BindV4(s, {platform::kFamilyInet, 0, platform::InetAddr("127.0.0.1")}));
  Kr2SocketOn transport(g_provider.kr2, s);
  EXPECT_EQ(g_provider.kr2.HandleRequestWith(transport, machine_), Kr2Outcome::ReceiveFailed);
  EXPECT_EQ(+g_provider.kr2.status().failed[0], 1u);
  platform::CloseSocket(s);
  platform::NetCleanup();
}

// A real listen socket and clients on loopback: what a burst of datagrams gets from one wake-up.
class Kr2BatchTest : public Kr2ResponderTest {
 protected:
  void SetUp() override {
    Kr2ResponderTest::SetUp();
    ASSERT_EQ(platform::NetStartup(), 0);
    listen_ = Bound();
    ASSERT_TRUE(platform::SocketName(listen_, address_));
  }
  void TearDown() override {
    for (const auto s : {listen_, a_, b_}) platform::CloseSocket(s);
    platform::NetCleanup();
    Kr2ResponderTest::TearDown();
  }
  static platform::SocketHandle Bound() {
    const platform::SocketHandle s = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
    EXPECT_TRUE(platform::BindV4(s, {platform::kFamilyInet, 0, platform::InetAddr("127.0.0.1")}));
    EXPECT_TRUE(platform::SetReceiveTimeout(s, 2000));
    return s;
  }
  void Send(platform::SocketHandle from, std::uint8_t code, std::uint32_t argument = 0) {
    const auto request = Kr2Request(code, argument);
    ASSERT_EQ(platform::SendTo(from, request.data(), request.size(), address_), static_cast<int>(request.size()));
  }
  // The replies waiting for a client (their sizes), without waiting once the first has come.
  static std::vector<int> Replies(platform::SocketHandle s) {
    std::vector<int> sizes;
    std::uint8_t buf[600];
    for (int n = platform::ReceiveFrom(s, buf, sizeof buf, nullptr); n >= 0;
         n = platform::ReceiveFromNow(s, buf, sizeof buf, nullptr))
      sizes.push_back(n);
    return sizes;
  }
  platform::SocketHandle listen_ = platform::kInvalidSocket;
  platform::SocketHandle a_ = Bound(), b_ = Bound();
  platform::SocketAddressV4 address_{};
};

// One wake-up answers everything already waiting, each sender its own replies, a repeat inside the
// burst dropped as it would be one at a time, the counters exact.
TEST_F(Kr2BatchTest, OneWakeUpAnswersTheBurstWithTheRepeatRuleAndCountersExact) {
  Send(a_, 0);
  Send(a_, 0);     // the same bytes again: a repeat
  Send(b_, 4);
  Send(a_, 128);
  Send(b_, 150);   // prohibited: refused without a reply
  g_provider.kr2.HandleRequest(listen_, g_provider.settings, g_provider.sync_event);
  EXPECT_EQ(Replies(a_), (std::vector<int>{4, 355}));
  EXPECT_EQ(Replies(b_), (std::vector<int>{64}));
  EXPECT_EQ(+g_provider.kr2.status().counters[0], 3u);
  EXPECT_EQ(+g_provider.kr2.status().bytes_received, 3 * kKr2RequestSize);
  EXPECT_EQ(+g_provider.kr2.status().bytes_sent, 4u + 64u + 355u);
  std::uint8_t buf[16];
  EXPECT_EQ(platform::ReceiveFromNow(listen_, buf, sizeof buf, nullptr), -1);   // nothing left behind
}

// A burst longer than one batch is answered over as many wake-ups, none lost.
TEST_F(Kr2BatchTest, ABurstLongerThanABatchTakesAnotherWakeUpAndLosesNothing) {
  const std::size_t total = kKr2Batch + 6;
  for (std::uint32_t i = 0; i < total; ++i) Send(a_, 151, i);   // distinct requests
  g_provider.kr2.HandleRequest(listen_, g_provider.settings, g_provider.sync_event);
  EXPECT_EQ(+g_provider.kr2.status().counters[0], kKr2Batch);
  g_provider.kr2.HandleRequest(listen_, g_provider.settings, g_provider.sync_event);
  EXPECT_EQ(+g_provider.kr2.status().counters[0], total);
  EXPECT_EQ(Replies(a_).size(), total);
}

// Replies that cannot be sent are not counted as bytes sent, however many were queued.
TEST_F(Kr2BatchTest, RepliesThatCouldNotBeSentAreNotCountedAsSent) {
  Send(a_, 0);
  Send(b_, 4);
  platform::fake::FailSend(10051);
  g_provider.kr2.HandleRequest(listen_, g_provider.settings, g_provider.sync_event);
  EXPECT_EQ(+g_provider.kr2.status().counters[0], 2u);
  EXPECT_EQ(+g_provider.kr2.status().bytes_sent, 0u);
}

TEST_F(Kr2ResponderTest, FailedSendStillCountsTheReply) {
  socket_.fail_send = true;
  platform::fake::AdvanceSystemTime(50 * 10'000'000LL);
  EXPECT_EQ(Ask(4), Kr2Outcome::Answered);
  EXPECT_EQ(+g_provider.kr2.status().counters[0], 1u);
  EXPECT_EQ(+g_provider.kr2.status().bytes_sent, 0u);
  EXPECT_EQ(+g_provider.kr2.status().times[0], PreciseClockUnixSeconds());
  socket_.fail_send = false;
  Ask(0);
  EXPECT_EQ(+g_provider.kr2.status().bytes_sent, 4u);
}

TEST_F(Kr2ResponderTest, StatusRefreshesAndCountsItself) {
  machine_.sync_type = 3;
  g_provider.kr2.status().offset_sum_ms = 77;
  platform::fake::AdvanceSystemTime(10 * 10'000'000LL);
  Ask(128);
  LocalStatusRecord st;
  std::memcpy(&st, socket_.sent.back().data(), sizeof st);
  EXPECT_EQ(+st.product_code, 7u);
  EXPECT_EQ(+st.sync_type, 3);
  EXPECT_EQ(+st.last_status_request, PreciseClockUnixSeconds());
  EXPECT_STREQ(st.version, "4.2.b.20081210R");
  EXPECT_STREQ(st.partner_name, "(none since startup)");
  EXPECT_EQ(+st.offset_sum_ms, 77);
  // The copy sent is taken before the reply is counted.
  EXPECT_EQ(+st.counters[0], 0u);
  EXPECT_EQ(+st.bytes_received, kKr2RequestSize);
  EXPECT_EQ(+g_provider.kr2.status().counters[0], 1u);
}

TEST_F(Kr2ResponderTest, ClearEmptiesHistoryAndResetsCounters) {
  Ask(0);
  Ask(4);
  g_provider.kr2.status().offset_sum_ms = 500;
  g_provider.kr2.status().sync_successes = 4;
  g_provider.kr2.status().sync_verdicts = 5;
  g_provider.kr2.status().sync_failures = 1;
  g_provider.kr2.status().last_offset_ms = -12;
  platform::fake::AdvanceSystemTime(100 * 10'000'000LL);
  Ask(129);
  EXPECT_EQ(machine_.clears, 1);
  LocalStatusRecord st;
  std::memcpy(&st, socket_.sent.back().data(), sizeof st);
  EXPECT_EQ(+st.offset_sum_ms, 0);
  EXPECT_EQ(+st.sync_successes, 0u);
  EXPECT_EQ(+st.sync_verdicts, 0u);
  EXPECT_EQ(+st.sync_failures, 0u);
  EXPECT_EQ(+st.counters[0], 0u);
  EXPECT_EQ(+st.bytes_received, 0u);
  EXPECT_EQ(+st.bytes_sent, 0u);
  EXPECT_EQ(+st.last_counter_reset, PreciseClockUnixSeconds());
  EXPECT_EQ(+st.last_offset_ms, -12);   // the last offset is not a counter
}

TEST_F(Kr2ResponderTest, DriftRecordAfterTheArgument) {
  SetKr2Prohibited(true);
  machine_.records = {MakeKr2TestRecord(100, -5), MakeKr2TestRecord(200, 7)};
  Ask(160, 100);
  DriftRecord r;
  ASSERT_EQ(socket_.sent.back().size(), 20u);
  std::memcpy(&r, socket_.sent.back().data(), sizeof r);
  EXPECT_EQ(r.check_time, 200u);
  EXPECT_EQ(r.variance_ms, 7);
  Ask(160, 200);   // none later: still 20 bytes, all zero
  ASSERT_EQ(socket_.sent.back().size(), 20u);
  EXPECT_EQ(socket_.sent.back(), std::vector<std::uint8_t>(20, 0));
}

TEST_F(Kr2ResponderTest, LimitsCarryTheMaxPhaseOffsetInMs) {
  machine_.max_phase_offset = 300;
  Ask(151);
  std::uint32_t words[4];
  std::memcpy(words, socket_.sent.back().data(), sizeof words);
  EXPECT_EQ(words[0], 1u);
  EXPECT_EQ(words[1], 1u);
  EXPECT_EQ(words[2], 0u);
  EXPECT_EQ(words[3], 300'000u);
}

TEST_F(Kr2ResponderTest, ProductsRecordFields) {
  machine_.installed = kKr2InstalledChronwarden;
  g_provider.kr2.status().partner_state = 1;
  g_provider.kr2.status().last_offset_ms = -42;
  g_provider.kr2.status().sync_successes = 3;
  std::strcpy(g_provider.kr2.status().partner_name, "ntp.example");
  g_provider.kr2.responder_block()[0] = 0xAB;   // kept until a new listen socket
  Ask(200);
  Kr2Products p;
  ASSERT_EQ(socket_.sent.back().size(), sizeof p);
  std::memcpy(&p, socket_.sent.back().data(), sizeof p);
  EXPECT_EQ(+p.reserved, 0u);
  EXPECT_EQ(+p.machine_flags & 0xF, 7u);
  EXPECT_TRUE(p.machine_flags & (1u << 4));
  EXPECT_TRUE(p.machine_flags & (1u << 5));
  EXPECT_FALSE(p.machine_flags & (1u << 14));
  EXPECT_FALSE(p.machine_flags & (1u << 16));
  EXPECT_TRUE(p.machine_flags & (1u << 25));
  EXPECT_TRUE(p.machine_flags & (1u << 27));   // level 32768
  EXPECT_FALSE(p.machine_flags & (1u << 18));
  EXPECT_NE(+p.machine_flags >> 30, 0u);        // a zone state (standard or daylight)
  EXPECT_EQ(+p.size_288, 288u);
  EXPECT_EQ(+p.partner_state, 1);
  EXPECT_EQ(+p.dollar, '$');
  EXPECT_EQ(+p.utc_time.year, 2026);
  EXPECT_EQ(+p.last_offset_ms, -42);
  EXPECT_EQ(+p.sync_successes, 3u);
  EXPECT_EQ(+p.ephemerides, 1'600'000'000u);
  EXPECT_EQ(+p.now, PreciseClockUnixSeconds());
  EXPECT_STREQ(p.version, "4.2.b.20081210R");
  EXPECT_STREQ(p.partner, "ntp.example");
  EXPECT_STREQ(p.computer_name, "A-VERY-LONG-COM");
  EXPECT_EQ(+p.responder_block[0], 0xAB);
  EXPECT_EQ(+p.installed, 0x8000 | 0x200);
  g_provider.kr2.ForgetLastRequest();
  Ask(201);
  std::memcpy(&p, socket_.sent.back().data(), sizeof p);
  EXPECT_EQ(+p.responder_block[0], 0);
}

TEST_F(Kr2ResponderTest, Windows2000SetsItsFamilyBit) {
  g_provider.kr2.SetSystem({.os_level = 2048});
  Ask(200);
  Kr2Products p;
  std::memcpy(&p, socket_.sent.back().data(), sizeof p);
  EXPECT_TRUE(p.machine_flags & (1u << 18));
  EXPECT_FALSE(p.machine_flags & (1u << 27));
}

TEST_F(Kr2ResponderTest, TimeZoneReplyIsWrittenOverTheReceiveBuffer) {
  machine_.daylight_disabled = 1;
  std::vector<std::uint8_t> request(kKr2RequestMax, 0xEE);
  request[4] = 6;
  AskBytes(request);
  Kr2TimeZoneReply tz;
  ASSERT_EQ(socket_.sent.back().size(), sizeof tz);
  std::memcpy(&tz, socket_.sent.back().data(), sizeof tz);
  EXPECT_TRUE(tz.zone_id == 1 || tz.zone_id == 2);
  EXPECT_EQ(+tz.info_size, 240u);
  EXPECT_EQ(+tz.daylight_disabled, 1u);
  EXPECT_EQ(+tz.zero[255], 0);   // nothing of the request is left in the reply
  EXPECT_EQ(0, std::memcmp(g_provider.kr2.receive_buffer().data() + 8, &tz, sizeof tz));
  // A whole 512-byte request overwrites the buffer: the same one again is a repeat.
  EXPECT_EQ(AskBytes(request), Kr2Outcome::Repeat);
}

TEST_F(Kr2ResponderTest, ShortTimeZoneRequestAgainIsAnsweredAgain) {
  // A short request leaves the reply in the buffer's tail, so the buffer no longer equals the
  // remembered request.
  EXPECT_EQ(Ask(6), Kr2Outcome::Answered);
  EXPECT_EQ(Ask(6), Kr2Outcome::Answered);
  EXPECT_EQ(socket_.sent.size(), 2u);
}

}  // namespace
