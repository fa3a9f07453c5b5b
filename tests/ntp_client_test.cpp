#include "timing/ntp_client.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <mutex>
#include <vector>

#include "platform/error.h"
#include "platform/error_text.h"
#include "platform/testing/fake.h"
#include "platform/net.h"
#include "platform/thread.h"
#include "tests/fake_ntp_server.h"
#include "timing/activity.h"
#include "timing/precise_clock.h"

// Peers, all on the loopback, port 123:
//   127.0.0.1        chronyd -x at stratum 8 (started by the test fixture, scripts/ntp-peers.sh)
//   127.0.0.2        chronyd -x that answers nobody
//   127.0.0.3 and up a FakeNtpServer of one test each (tests may run in parallel processes)
namespace {

constexpr std::uint64_t kT0 = 134116992000000000ULL;          // 2026-01-01 00:00:00 UTC, a whole second
constexpr std::int64_t kSecond = 10'000'000;                  // 100-ns units
constexpr std::int64_t kMs = 10'000;
constexpr std::uint64_t kNtpOf1970 = 2'208'988'800ULL << 32;  // 1970-01-01 as an NTP timestamp

struct Result {
  int valid = -1;
  std::uint32_t delay = 0xDEAD;
  std::int64_t offset = 0x5EED;
  std::uint32_t error = 0xDEAD;
  std::array<std::uint8_t, kNtpPrebuiltRequestSize> request{};
  std::array<std::uint8_t, kNtpReplySize> reply{};
  NtpResult full;
};

// Runs a query with the request and reply buffers of r.
void RunQuery(Result& r, NtpQueryOptions o) {
  o.request = r.request.data();
  o.reply = r.reply.data();
  r.full = NtpQuery(o);
  r.valid = r.full.valid;
  r.delay = r.full.delay_ms;
  r.offset = r.full.offset;
  r.error = r.full.error;
}

Result Query(const char* server, std::uint32_t timeout_ms = 2000, bool multi_sample = false) {
  Result r;
  RunQuery(r, {.server = server, .timeout_ms = timeout_ms, .multi_sample = multi_sample});
  return r;
}

// Activity marks seen, with the priority of the marking thread.
std::mutex g_marks_mutex;
std::vector<std::pair<std::uint32_t, int>> g_marks;
void RecordMark(std::uint32_t slot) {
  std::lock_guard lock(g_marks_mutex);
  g_marks.emplace_back(slot, platform::GetCurrentThreadPriority());
}
std::vector<std::uint32_t> MarkedSlots() {
  std::lock_guard lock(g_marks_mutex);
  std::vector<std::uint32_t> slots;
  for (const auto& m : g_marks) slots.push_back(m.first);
  return slots;
}

class NtpTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(platform::NetStartup(), 0); }
  void TearDown() override {
    SetActivityMarker(nullptr);
    {
      std::lock_guard lock(g_marks_mutex);
      g_marks.clear();
    }
    platform::NetCleanup();
  }
};

// Under the fake clock: T1..T4 are set by the test and the fake server.
class NtpFakeClockTest : public NtpTest {
 protected:
  void SetUp() override {
    NtpTest::SetUp();
    platform::fake::Enable();
    platform::fake::SetSystemTime(kT0);
  }
  void TearDown() override {
    platform::fake::Disable();
    NtpTest::TearDown();
  }
};

// ---- timestamps ----

TEST(NtpTimestamp, FileTimeOf1970IsTheNtpEraOffset) {
  EXPECT_EQ(FileTimeToNtpTimestamp(kFileTimeOf1970), kNtpOf1970);
}

TEST(NtpTimestamp, FractionDividesByTwoToThe32MinusOne) {
  // Half a second: 5,000,000 / (10,000,000 / 4,294,967,295) = 2,147,483,647.5, truncated.
  EXPECT_EQ(FileTimeToNtpTimestamp(kFileTimeOf1970 + 5'000'000), kNtpOf1970 | 2'147'483'647u);
  // 100 ns: 429.4967295 -> 429.
  EXPECT_EQ(FileTimeToNtpTimestamp(kFileTimeOf1970 + 1), kNtpOf1970 | 429u);
  EXPECT_EQ(FileTimeToNtpTimestamp(kFileTimeOf1970 + kSecond - 1) & 0xFFFFFFFFu, 4'294'966'865u);
}

TEST(NtpTimestamp, SecondsAreKeptTo32Bits) {
  // 2036-02-07 06:28:16 UTC is 2^32 s after 1900: the seconds field wraps to 0.
  const std::uint64_t era1 = kFileTimeOf1970 + (4'294'967'296ULL - 2'208'988'800ULL) * kSecond;
  EXPECT_EQ(FileTimeToNtpTimestamp(era1), 0u);
  EXPECT_EQ(FileTimeToNtpTimestamp(era1 + 3 * kSecond), 3ULL << 32);
}

TEST(NtpTimestamp, ToSecondsUsesTheSameUnit) {
  EXPECT_DOUBLE_EQ(NtpTimestampToSeconds((5ULL << 32) | 0xFFFFFFFFu), 6.0);
  EXPECT_DOUBLE_EQ(NtpTimestampToSeconds(7ULL << 32), 7.0);
  EXPECT_DOUBLE_EQ(NtpDifferenceSeconds(3ULL << 32, 5ULL << 32), -2.0);
  EXPECT_NEAR(NtpDifferenceSeconds(kNtpOf1970, kNtpOf1970 | 0x80000000u), -0.5, 1e-9);
}

TEST(NtpTimestamp, LoadAndStoreAreBigEndian) {
  std::array<std::uint8_t, 8> b{};
  StoreNtpTimestamp(b.data(), 0x0102030405060708ULL);
  EXPECT_EQ(b, (std::array<std::uint8_t, 8>{1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(LoadNtpTimestamp(b.data()), 0x0102030405060708ULL);
}

TEST_F(NtpFakeClockTest, BuildNtpTimestampReadsThePreciseClockInNetworkOrder) {
  platform::fake::SetSystemTime(kFileTimeOf1970 + 5'000'000);
  const auto ts = BuildNtpTimestamp();
  EXPECT_EQ(ts, (std::array<std::uint8_t, 8>{0x83, 0xAA, 0x7E, 0x80, 0x7F, 0xFF, 0xFF, 0xFF}));
}

// ---- resolving and opening ----

TEST_F(NtpTest, DottedAddressResolvesWithoutLookupAtTheServicePort) {
  SetActivityMarker(RecordMark);
  platform::SocketAddressV4 a{};
  EXPECT_EQ(ResolveHostPort("127.0.0.1", a, "ntp", 9999, platform::kSocketDatagram), 2);
  EXPECT_EQ(a.family, platform::kFamilyInet);
  EXPECT_EQ(platform::NetToHost16(a.port), 123);   // the "ntp" service, not the default
  EXPECT_EQ(platform::NetToHost32(a.address), 0x7F000001u);
  EXPECT_EQ(platform::LastSocketError(), 0);
  EXPECT_TRUE(MarkedSlots().empty());
}

TEST_F(NtpTest, UnknownOrMissingServiceTakesTheDefaultPort) {
  platform::SocketAddressV4 a{};
  EXPECT_EQ(ResolveHostPort("127.0.0.1", a, "no-such-service-cw", 4567, platform::kSocketDatagram), 2);
  EXPECT_EQ(platform::NetToHost16(a.port), 4567);
  EXPECT_EQ(ResolveHostPort("127.0.0.1", a, "", 321, platform::kSocketStream), 2);
  EXPECT_EQ(platform::NetToHost16(a.port), 321);
}

TEST_F(NtpTest, HostNameIsLookedUpAndMarked) {
  SetActivityMarker(RecordMark);
  platform::SocketAddressV4 a{};
  EXPECT_EQ(ResolveHostPort("localhost", a, "ntp", 123, platform::kSocketDatagram), 1);
  EXPECT_EQ(platform::NetToHost32(a.address), 0x7F000001u);
  EXPECT_EQ(MarkedSlots(), (std::vector<std::uint32_t>{kActivityHostLookup, kActivityHostFound}));
}

TEST_F(NtpTest, BroadcastAddressIsNotDottedForInetAddrAndGoesThroughTheLookup) {
  SetActivityMarker(RecordMark);
  platform::SocketAddressV4 a{};
  EXPECT_EQ(ResolveHostPort("255.255.255.255", a, "ntp", 123, platform::kSocketDatagram), 1);
  EXPECT_EQ(a.address, platform::kInaddrNone);
  EXPECT_EQ(MarkedSlots(), (std::vector<std::uint32_t>{kActivityHostLookup, kActivityHostFound}));
}

TEST_F(NtpFakeClockTest, FailedLookupReturnsZeroWithTheLookupError) {
  platform::fake::FailHostLookup(11001);
  SetActivityMarker(RecordMark);
  platform::SocketAddressV4 a{};
  EXPECT_EQ(ResolveHostPort("ntp.example", a, "ntp", 123, platform::kSocketDatagram), 0);
  EXPECT_EQ(platform::LastSocketError(), 11001);
  EXPECT_EQ(MarkedSlots(), (std::vector<std::uint32_t>{kActivityHostLookup}));
  platform::SocketAddressV4 b{};
  EXPECT_EQ(OpenSocketTo("ntp.example", b, "ntp", 123, platform::kSocketDatagram, 500, 0), platform::kInvalidSocket);
  EXPECT_EQ(platform::LastSocketError(), 11001);
}

TEST_F(NtpTest, OpenSocketToGivesADatagramSocketWithTheAddress) {
  platform::SocketAddressV4 a{};
  platform::SetLastSocketError(10060);
  const platform::SocketHandle s = OpenSocketTo("127.0.0.1", a, "ntp", 123, platform::kSocketDatagram, 500, 0);
  ASSERT_NE(s, platform::kInvalidSocket);
  EXPECT_EQ(platform::LastSocketError(), 0);   // the failed TCP_NODELAY on a datagram socket does not show
  EXPECT_EQ(platform::NetToHost16(a.port), 123);
  EXPECT_EQ(platform::NetToHost32(a.address), 0x7F000001u);
  EXPECT_TRUE(platform::CloseSocket(s));
}

TEST_F(NtpTest, ReceiveNowWithNothingQueuedWouldBlockAndThenTakesTheDatagram) {
  const platform::SocketHandle s = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
  ASSERT_NE(s, platform::kInvalidSocket);
  const platform::SocketAddressV4 local{platform::kFamilyInet, platform::HostToNet16(45124), platform::InetAddr("127.0.0.1")};
  ASSERT_TRUE(platform::BindV4(s, local));
  char buf[8] = {};
  EXPECT_EQ(platform::ReceiveNow(s, buf, sizeof buf), -1);
  EXPECT_EQ(platform::LastSocketError(), 10035);   // WSAEWOULDBLOCK
  ASSERT_EQ(platform::SendTo(s, "ping", 4, local), 4);
  // Loopback delivery may finish after the send returns (it does under Wine): poll until it is there.
  int n = -1;
  for (int i = 0; i < 100000 && n < 0; ++i) n = platform::ReceiveNow(s, buf, sizeof buf);
  EXPECT_EQ(n, 4);
  EXPECT_EQ(std::string(buf, 4), "ping");
  platform::CloseSocket(s);
}

// ---- failure table ----

TEST_F(NtpFakeClockTest, EmptyNameGives87WithoutOpeningASocket) {
  platform::fake::FailSocketCreate(10024);   // a socket attempt would show as 10024
  SetActivityMarker(RecordMark);
  Result r = Query("");
  EXPECT_EQ(r.valid, 0);
  EXPECT_EQ(r.error, 87u);
  EXPECT_EQ(platform::LastSocketError(), 87);
  EXPECT_TRUE(MarkedSlots().empty());
  r = Query(nullptr);
  EXPECT_EQ(r.valid, 0);
  EXPECT_EQ(r.error, 87u);
}

TEST_F(NtpFakeClockTest, UnresolvableHostGivesTheLookupError) {
  platform::fake::FailHostLookup(11001);
  const Result r = Query("no-such-host.example");
  EXPECT_EQ(r.valid, 0);
  EXPECT_EQ(r.error, 11001u);
  char text[128];
  EXPECT_STREQ(SocketErrorText(r.error, text, sizeof text), "Error 11001: target host not found");
}

TEST_F(NtpFakeClockTest, SocketCreationFailureGivesItsError) {
  platform::fake::FailSocketCreate(10024);
  const Result r = Query("127.0.0.1");
  EXPECT_EQ(r.valid, 0);
  EXPECT_EQ(r.error, 10024u);
  EXPECT_EQ(platform::LastSocketError(), 10024);
}

TEST_F(NtpFakeClockTest, SendFailureGivesItsErrorAndNothingIsReceived) {
  FakeNtpServer server("127.0.0.21");
  platform::fake::FailSend(10051);
  SetActivityMarker(RecordMark);
  const Result r = Query("127.0.0.21");
  EXPECT_EQ(r.valid, 0);
  EXPECT_EQ(r.error, 10051u);
  EXPECT_EQ(MarkedSlots(), (std::vector<std::uint32_t>{kActivityNtpSend}));
  EXPECT_TRUE(server.Requests().empty());
}

TEST_F(NtpTest, NoReplyTimesOutWith10060) {
  FakeNtpReply silent;
  silent.silent = true;
  FakeNtpServer server("127.0.0.11", silent);
  const Result r = Query("127.0.0.11", 500);
  EXPECT_EQ(r.valid, 0);
  EXPECT_EQ(r.error, 10060u);
  EXPECT_EQ(platform::LastSocketError(), 10060);
  EXPECT_EQ(server.Requests().size(), 1u);
  EXPECT_EQ(r.reply, decltype(r.reply){});   // zero-filled, nothing received
}

TEST_F(NtpTest, LateReplyAfterTheStatusCheckTimeoutGives10060) {
  // The reply is held until the query has given up, so it is late however slow the machine is.
  FakeNtpReply late;
  late.held = true;
  FakeNtpServer server("127.0.0.10", late);
  const Result r = Query("127.0.0.10", 500);
  EXPECT_EQ(r.valid, 0);
  EXPECT_EQ(r.error, 10060u);
  char text[128];
  EXPECT_STREQ(SocketErrorText(r.error, text, sizeof text), "Error 10060: timed out");
  EXPECT_EQ(server.Requests().size(), 1u);
  server.Release();
}

TEST_F(NtpTest, TimeoutZeroWaitsTheDefaultTwoSeconds) {
  // A reply one second late is too late for 500 ms but within the 2000 ms that 0 stands for.
  FakeNtpReply late;
  late.late_ms = 1000;
  FakeNtpServer server("127.0.0.13", late);
  const Result r = Query("127.0.0.13", 0);
  EXPECT_EQ(r.error, 0u);
  EXPECT_EQ(r.valid, 1);
  EXPECT_GE(r.delay, 1000u);
}

struct BadReplyCase {
  const char* name;
  const char* address;
  FakeNtpReply reply;
  std::uint8_t leap;
};

void PrintTo(const BadReplyCase& c, std::ostream* os) { *os << c.name; }

class NtpBadReply : public NtpTest, public ::testing::WithParamInterface<BadReplyCase> {};

TEST_P(NtpBadReply, Gives1901AndKeepsTheLeapIndicator) {
  FakeNtpServer server(GetParam().address, GetParam().reply);
  const Result r = Query(GetParam().address, 2000);
  EXPECT_EQ(r.valid, 0);
  EXPECT_EQ(r.error, 1901u);
  EXPECT_EQ(platform::LastSocketError(), 1901);
  EXPECT_EQ(NtpLastLeapIndicator(), GetParam().leap);
  EXPECT_EQ(r.reply[1], GetParam().reply.stratum);   // the reply is handed back as received
  char text[128];
  EXPECT_STREQ(SocketErrorText(r.error, text, sizeof text), "Error 1901: clock not set on server");
}

FakeNtpReply With(std::uint8_t leap, std::uint8_t mode, std::uint8_t stratum, bool zero_transmit) {
  FakeNtpReply r;
  r.leap = leap;
  r.mode = mode;
  r.stratum = stratum;
  r.zero_transmit = zero_transmit;
  return r;
}

INSTANTIATE_TEST_SUITE_P(Replies, NtpBadReply,
                         ::testing::Values(BadReplyCase{"Stratum16", "127.0.0.5", With(0, 4, 16, false), 0},
                                           BadReplyCase{"Stratum0KissOfDeath", "127.0.0.6", With(0, 4, 0, false), 0},
                                           BadReplyCase{"Leap3AllElseRight", "127.0.0.7", With(3, 4, 2, false), 3},
                                           BadReplyCase{"Mode5", "127.0.0.8", With(0, 5, 2, false), 0},
                                           BadReplyCase{"ZeroTransmit", "127.0.0.9", With(1, 4, 2, true), 1}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(NtpTest, LeapIndicatorOfAValidReplyIsKeptToo) {
  FakeNtpServer server("127.0.0.22", std::vector{With(3, 4, 2, false), With(1, 4, 2, false)});
  EXPECT_EQ(Query("127.0.0.22").error, 1901u);
  EXPECT_EQ(NtpLastLeapIndicator(), 3);
  const Result r = Query("127.0.0.22");
  EXPECT_EQ(r.valid, 1);   // a leap second announced is fine
  EXPECT_EQ(NtpLastLeapIndicator(), 1);
}

// ---- figures ----

TEST_F(NtpFakeClockTest, LocalClockOneSecondBehindGivesPlusTenMillion) {
  FakeNtpReply ahead;
  ahead.offset = kSecond;
  ahead.one_way = kMs;   // 1 ms each way
  FakeNtpServer server("127.0.0.3", ahead);
  const Result r = Query("127.0.0.3");
  ASSERT_EQ(r.error, 0u);
  EXPECT_EQ(r.valid, 1);
  EXPECT_EQ(r.offset, 10'000'000);
  EXPECT_EQ(r.delay, 0u);   // (T4 - T1) = 1.99999986 ms here: truncated to 1, reported as 0
  EXPECT_EQ(platform::LastSocketError(), 0);
}

TEST_F(NtpFakeClockTest, LocalClockAheadGivesANegativeOffset) {
  FakeNtpReply behind;
  behind.offset = -3 * kSecond;
  FakeNtpServer server("127.0.0.23", behind);
  const Result r = Query("127.0.0.23");
  ASSERT_EQ(r.valid, 1);
  EXPECT_EQ(r.offset, -30'000'000);
}

TEST_F(NtpFakeClockTest, RoundTripOfOneMillisecondIsReportedAsZeroAndTwoStaysTwo) {
  // 200 ns past the second, a 1 ms trip spans 4,294,968 fraction units: 1.00000016 ms, which
  // truncates to 1; a 2 ms trip spans 8,589,935 units: 2.00000005 ms.
  platform::fake::SetSystemTime(kT0 + 2);
  FakeNtpReply one;
  one.one_way = kMs / 2;
  FakeNtpReply two;
  two.one_way = kMs;
  FakeNtpServer server("127.0.0.12", std::vector{one, two});
  Result r = Query("127.0.0.12");
  ASSERT_EQ(r.valid, 1);
  EXPECT_EQ(r.delay, 0u);
  EXPECT_EQ(r.offset, 0);
  platform::fake::SetSystemTime(kT0 + 2);
  r = Query("127.0.0.12");
  ASSERT_EQ(r.valid, 1);
  EXPECT_EQ(r.delay, 2u);
  EXPECT_EQ(r.offset, 0);
}

TEST_F(NtpFakeClockTest, ServerHoldingTimeIsAddedToTheDelay) {
  FakeNtpReply held;
  held.one_way = 5 * kMs;
  held.hold = 20 * kMs;
  FakeNtpServer server("127.0.0.24", held);
  const Result r = Query("127.0.0.24");
  ASSERT_EQ(r.valid, 1);
  EXPECT_EQ(r.delay, 49u);   // (T4 - T1) 30 ms + (T3 - T2) 20 ms, each a fraction unit short
  EXPECT_EQ(r.offset, 0);
}

TEST_F(NtpFakeClockTest, HostAndPortSendsToTheHostAtTheNtpPort) {
  FakeNtpServer server("127.0.0.4");
  const Result r = Query("127.0.0.4:9999");
  EXPECT_EQ(r.error, 0u);
  EXPECT_EQ(r.valid, 1);
  EXPECT_EQ(server.Requests().size(), 1u);
}

TEST_F(NtpFakeClockTest, RequestIsVersionOneClientWithT1InTheOriginateField) {
  FakeNtpServer server("127.0.0.14");
  const Result r = Query("127.0.0.14");
  ASSERT_EQ(r.valid, 1);
  const auto requests = server.Requests();
  ASSERT_EQ(requests.size(), 1u);
  const auto& q = requests[0].bytes;
  ASSERT_EQ(q.size(), 48u);
  EXPECT_EQ(q[0], 0x0B);
  for (std::size_t i = 1; i < 48; ++i)
    if (i < 24 || i >= 32) {
      EXPECT_EQ(q[i], 0) << "byte " << i;
    }
  EXPECT_EQ(LoadNtpTimestamp(q.data() + 24), FileTimeToNtpTimestamp(kT0));
  EXPECT_TRUE(std::equal(q.begin(), q.end(), r.request.begin()));   // the request as sent is handed back
  // The reply's originate field holds the request's (zero) transmit field; the client did not mind.
  EXPECT_EQ(LoadNtpTimestamp(r.reply.data() + 24), 0u);
  EXPECT_NE(requests[0].port, 123);   // the system chose the local port
}

TEST_F(NtpFakeClockTest, PrebuiltRequestIsSentAsItStandsIn68Bytes) {
  FakeNtpServer server("127.0.0.15");
  Result r;
  for (std::size_t i = 0; i < r.request.size(); ++i) r.request[i] = static_cast<std::uint8_t>(0xA0 + i);
  r.request[0] = 0x23;   // version 4 client
  RunQuery(r, {.server = "127.0.0.15", .prebuilt_request = true});
  ASSERT_EQ(r.valid, 1);
  const auto requests = server.Requests();
  ASSERT_EQ(requests.size(), 1u);
  const auto& q = requests[0].bytes;
  ASSERT_EQ(q.size(), 68u);
  EXPECT_EQ(q[0], 0x23);
  EXPECT_EQ(q[47], 0xA0 + 47);
  EXPECT_EQ(q[67], 0xA0 + 67);
  EXPECT_EQ(LoadNtpTimestamp(q.data() + 24), FileTimeToNtpTimestamp(kT0));
}

TEST_F(NtpFakeClockTest, ExchangeRunsAtTimeCriticalPriorityAndMarksSendAndReceive) {
  FakeNtpServer server("127.0.0.17");
  SetActivityMarker(RecordMark);
  const auto priority_calls = platform::fake::CallCount("SetCurrentThreadPriority");
  ASSERT_EQ(Query("127.0.0.17").valid, 1);
  {
    std::lock_guard lock(g_marks_mutex);
    ASSERT_EQ(g_marks.size(), 2u);
    EXPECT_EQ(g_marks[0], std::make_pair(kActivityNtpSend, platform::kPriorityTimeCritical));
    EXPECT_EQ(g_marks[1], std::make_pair(kActivityNtpReceived, platform::kPriorityTimeCritical));
  }
  EXPECT_EQ(platform::GetCurrentThreadPriority(), platform::kPriorityNormal);
  EXPECT_EQ(platform::fake::CallCount("SetCurrentThreadPriority"), priority_calls + 2);
}

TEST_F(NtpTest, ReceiveFailureIsMarkedToo) {
  FakeNtpReply silent;
  silent.silent = true;
  FakeNtpServer server("127.0.0.18", silent);
  SetActivityMarker(RecordMark);
  EXPECT_EQ(Query("127.0.0.18", 300).error, 10060u);
  EXPECT_EQ(MarkedSlots(), (std::vector<std::uint32_t>{kActivityNtpSend, kActivityNtpReceived}));
}

TEST(NtpReadReply, FiguresOfExtremeStampsStayWithinTheirTypes) {
  std::array<std::uint8_t, kNtpReplySize> reply{};
  reply[0] = 0x24;   // LI 0, version 4, mode 4
  reply[1] = 1;
  StoreNtpTimestamp(reply.data() + 32, 0);                       // T2: 1900
  StoreNtpTimestamp(reply.data() + 40, 0xFFFFFFFF00000000ULL);   // T3: 2036, before T2 by the sign
  const std::uint64_t t1 = 0x7FFFFFFF00000000ULL, t4 = 0x8000000000000000ULL;
  const NtpResult r = NtpReadReply(reply.data(), t1, t4);
  EXPECT_EQ(r.valid, 1);
  EXPECT_EQ(r.error, 0u);
  EXPECT_EQ(r.times.t1, t1);
  EXPECT_EQ(r.times.t2, 0u);
  EXPECT_EQ(r.times.t3, 0xFFFFFFFF00000000ULL);
  EXPECT_EQ(r.times.t4, t4);
  // T4 - T1 = 1 s and T3 - T2 = -1 s (signed): a delay of 0; the offset is whatever the stamps say.
  EXPECT_EQ(r.delay_ms, 0u);
  // A negative round trip (a server whose T3 is far before its T2) reads as 0 ms, not a wrapped value.
  StoreNtpTimestamp(reply.data() + 40, 0x8000000000000000ULL);
  const NtpResult negative = NtpReadReply(reply.data(), t1, t1);
  EXPECT_EQ(negative.valid, 1);
  EXPECT_EQ(negative.delay_ms, 0u);
}

TEST(NtpReadReply, ReplyFieldsComeBackInTheResult) {
  std::array<std::uint8_t, kNtpReplySize> reply{};
  reply[0] = 0x64;   // LI 1, version 4, mode 4
  reply[1] = 3;
  reply[12] = 192, reply[13] = 0, reply[14] = 2, reply[15] = 7;
  StoreNtpTimestamp(reply.data() + 32, 100ULL << 32);
  StoreNtpTimestamp(reply.data() + 40, 100ULL << 32);
  const NtpResult r = NtpReadReply(reply.data(), 100ULL << 32, (100ULL << 32) + (1ULL << 31));
  EXPECT_EQ(r.valid, 1);
  EXPECT_TRUE(r.replied);
  EXPECT_EQ(r.leap, 1);
  EXPECT_EQ(r.stratum, 3);
  EXPECT_EQ(NtpReferenceIdText(r), "192.0.2.7");
  EXPECT_STREQ(NtpLeapText(r.leap), "last minute has 61 s");
  EXPECT_NEAR(r.delay_seconds, 0.5, 1e-9);
  EXPECT_EQ(r.delay_ms, 500u);
  reply[1] = 1;
  reply[12] = 'G', reply[13] = 'P', reply[14] = 'S', reply[15] = 0;
  EXPECT_EQ(NtpReferenceIdText(NtpReadReply(reply.data(), 0, 0)), "GPS");
}

// The difference of two stamps is the exact negative of the reverse difference, at every
// magnitude, and a local clock a fraction ahead gives the offset rounded toward zero either way.
TEST(NtpDifference, NegativeDifferencesAreTheNegativeOfTheForwardOnes) {
  const std::uint64_t a = (3'900'000'000ULL << 32) | 0x12345678u;
  for (const std::uint64_t d : {1ULL, 4295ULL, 0x80000000ULL, 0xFFFFFFFFULL, 1ULL << 32, (5ULL << 32) + 4295,
                                (1000ULL << 32) + 0xFFFFFFFEULL}) {
    const double forward = NtpDifferenceSeconds(a + d, a);
    EXPECT_GT(forward, 0) << d;
    EXPECT_EQ(NtpDifferenceSeconds(a, a + d), -forward) << d;
  }
  EXPECT_NEAR(NtpDifferenceSeconds(a, a + 4295), -1.0000076e-6, 1e-13);
  EXPECT_EQ(NtpDifferenceSeconds(a, a), 0.0);
}

TEST(NtpDifference, OffsetOfALocalClockAFractionAheadIsTruncatedTowardZero) {
  const std::uint64_t a = 3'900'000'000ULL << 32;
  std::array<std::uint8_t, kNtpReplySize> reply{};
  reply[0] = 0x24;
  reply[1] = 2;
  StoreNtpTimestamp(reply.data() + 32, a);
  StoreNtpTimestamp(reply.data() + 40, a);
  EXPECT_EQ(NtpReadReply(reply.data(), a, a + 4295).offset, -5);   // -0.50000 us: -5 units
  // The mirror image: the server's stamps a fraction later than both of ours.
  StoreNtpTimestamp(reply.data() + 32, a + 4295);
  StoreNtpTimestamp(reply.data() + 40, a + 4295);
  EXPECT_EQ(NtpReadReply(reply.data(), a, a).offset, 10);   // +1.0000076 us: 10 units
  EXPECT_EQ(NtpReadReply(reply.data(), a + 4295 + 4295, a + 4295 + 4295).offset, -10);
}

TEST(NtpReadReply, RefusedReplyKeepsTheLeapIndicatorAndGives1901) {
  std::array<std::uint8_t, kNtpReplySize> reply{};
  reply[0] = 0xE4;   // LI 3
  reply[1] = 2;
  StoreNtpTimestamp(reply.data() + 40, 1);
  const NtpResult r = NtpReadReply(reply.data(), 0, 0);
  EXPECT_EQ(r.valid, 0);
  EXPECT_EQ(r.error, 1901u);
  EXPECT_TRUE(r.replied);
  EXPECT_EQ(r.leap, 3);
  EXPECT_EQ(r.stratum, 2);
  EXPECT_EQ(NtpLastLeapIndicator(), 3);
  EXPECT_EQ(r.delay_ms, 0u);    // no figures for a refused reply
  EXPECT_EQ(r.offset, 0);
}

// ---- multi-sample mode ----

NtpResult S(int valid, std::int64_t offset, std::uint32_t error = 0) {
  NtpResult r;
  r.valid = valid;
  r.delay_ms = 7;
  r.offset = offset;
  r.error = error;
  return r;
}

TEST(NtpChoose, MedianOfThreeValidByAbsoluteOffset) {
  std::array<NtpResult, 3> s{S(1, 300), S(1, -100), S(1, 200)};
  EXPECT_EQ(ChooseNtpSample(s), 1u);
  EXPECT_EQ(s[0].offset, -100);
  EXPECT_EQ(s[1].offset, 200);
  EXPECT_EQ(s[2].offset, 300);
}

TEST(NtpChoose, TwoValidGiveTheSmallerOffset) {
  std::array<NtpResult, 3> s{S(0, 0, 10060), S(1, 500), S(1, -40)};
  EXPECT_EQ(ChooseNtpSample(s), 0u);
  EXPECT_EQ(s[0].offset, -40);
  EXPECT_EQ(s[1].offset, 500);
  EXPECT_EQ(s[2].valid, 0);
}

TEST(NtpChoose, OneValidIsChosen) {
  std::array<NtpResult, 3> s{S(0, 0, 10060), S(0, 0, 1901), S(1, 900)};
  EXPECT_EQ(ChooseNtpSample(s), 0u);
  EXPECT_EQ(s[0].offset, 900);
}

TEST(NtpChoose, NoneValidGivesTheLastWithAnError) {
  std::array<NtpResult, 3> s{S(0, 0, 10060), S(0, 0, 1901), S(0, 0, 0)};
  EXPECT_EQ(ChooseNtpSample(s), 1u);
  EXPECT_EQ(s[1].error, 1901u);
  std::array<NtpResult, 3> t{S(0, 0, 0), S(0, 0, 0), S(0, 0, 10054)};
  EXPECT_EQ(ChooseNtpSample(t), 2u);
  std::array<NtpResult, 3> u{S(0, 0, 0), S(0, 0, 0), S(0, 0, 0)};
  EXPECT_EQ(ChooseNtpSample(u), 0u);
}

TEST_F(NtpFakeClockTest, MultiSampleQueryTakesTheMedianWithTheReplyOfThatPosition) {
  FakeNtpReply a, b, c;
  a.offset = 3 * kSecond;
  b.offset = -1 * kSecond;
  c.offset = 2 * kSecond;
  FakeNtpServer server("127.0.0.16", std::vector{a, b, c});
  const Result r = Query("127.0.0.16", 0, true);
  const NtpTimes& times = r.full.times;
  EXPECT_EQ(r.valid, 1);
  EXPECT_EQ(r.error, 0u);
  EXPECT_EQ(r.offset, 2 * kSecond);   // sorted: -1 s, +2 s, +3 s
  EXPECT_EQ(server.Requests().size(), 3u);
  // The figures moved in the sort; the reply stayed at its place: the second exchange's (-1 s).
  const auto stamps = server.Stamps();
  ASSERT_EQ(stamps.size(), 3u);
  EXPECT_EQ(LoadNtpTimestamp(r.reply.data() + 32), stamps[1].first);
  EXPECT_EQ(times.t2, stamps[2].first);
}

TEST_F(NtpTest, MultiSampleQueryWithNoValidReplyGivesTheError) {
  FakeNtpServer server("127.0.0.19", std::vector{With(0, 4, 2, false), With(0, 4, 0, false), With(0, 4, 16, false)});
  Result r = Query("127.0.0.19", 2000, true);
  EXPECT_EQ(r.valid, 1);   // the first was valid
  EXPECT_EQ(r.error, 0u);
  FakeNtpServer none("127.0.0.20", std::vector{With(3, 4, 2, false)});
  r = Query("127.0.0.20", 2000, true);
  EXPECT_EQ(r.valid, 0);
  EXPECT_EQ(r.error, 1901u);
  EXPECT_EQ(platform::LastSocketError(), 1901);
}

TEST_F(NtpTest, QueryIsOneExchangeAsTheProductStands) {
  FakeNtpServer server("127.0.0.25");
  ASSERT_EQ(Query("127.0.0.25").valid, 1);
  EXPECT_EQ(server.Requests().size(), 1u);
}

// ---- real servers ----

TEST_F(NtpTest, ChronydOnLoopbackGivesAValidSample) {
  const Result r = Query("127.0.0.1", 2000);
  ASSERT_EQ(r.error, 0u) << "is the chronyd test peer running? (scripts/ntp-peers.sh)";
  EXPECT_EQ(r.valid, 1);
  EXPECT_EQ(r.reply[0] & 7, 4);
  EXPECT_EQ(r.reply[1], 8);   // local stratum 8
  EXPECT_LT(AbsInt64(r.offset), kSecond);   // same clock on both ends
  EXPECT_EQ(NtpLastLeapIndicator(), 0);
}

TEST_F(NtpTest, ChronydByNameAndPortSuffix) {
  const Result r = Query("localhost:123", 2000);
  EXPECT_EQ(r.error, 0u);
  EXPECT_EQ(r.valid, 1);
}

TEST_F(NtpTest, SilentChronydTimesOut) {
  const Result r = Query("127.0.0.2", 500);
  EXPECT_EQ(r.valid, 0);
  EXPECT_EQ(r.error, 10060u);
}

}  // namespace
