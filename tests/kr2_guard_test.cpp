// Who the KR2 responder answers and how much: the managers' list, the per-source reply limit and
// their log lines, on the guard alone and through the responder, under the fake clock.
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "config/address_list.h"
#include "config/defaults.h"
#include "platform/testing/fake.h"
#include "platform/net.h"
#include "provider/kr2_guard.h"
#include "provider/kr2_responder.h"
#include "tests/kr2_test_util.h"
#include "tests/time_service_fake.h"

namespace {

std::uint32_t Ip(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
  return platform::HostToNet32(std::uint32_t{a} << 24 | std::uint32_t{b} << 16 | std::uint32_t{c} << 8 | d);
}

// ---- The address list ----

TEST(AddressList, TakesAddressesPrefixesAndAnySeparatedAsWritten) {
  const AddressList l = ParseAddressList(" 192.0.2.7,10.1.0.0/16;\tANY ");
  EXPECT_TRUE(l.any);
  ASSERT_EQ(l.prefixes.size(), 2u);
  EXPECT_EQ(l.prefixes[0].network, 0xC0000207u);
  EXPECT_EQ(l.prefixes[0].mask, 0xFFFFFFFFu);
  EXPECT_EQ(l.prefixes[1].network, 0x0A010000u);
  EXPECT_EQ(l.prefixes[1].mask, 0xFFFF0000u);
  EXPECT_TRUE(l.rejected.empty());
}

TEST(AddressList, HostBitsOfAPrefixAreIgnoredAndSlashZeroIsEverything) {
  const AddressList l = ParseAddressList("10.1.2.3/8");
  EXPECT_TRUE(AddressListHas(l, Ip(10, 200, 1, 1)));
  EXPECT_FALSE(AddressListHas(l, Ip(11, 0, 0, 1)));
  EXPECT_TRUE(AddressListHas(ParseAddressList("0.0.0.0/0"), Ip(203, 0, 113, 9)));
}

TEST(AddressList, NamesAndMalformedEntriesAreRejectedAndTheRestStillCount) {
  const AddressList l =
      ParseAddressList("ntp.example 1.2.3 256.1.1.1 1.2.3.4/33 1.2.3.4/ 1.2.3.4.5 -1.2.3.4 1..2.3 192.0.2.1");
  EXPECT_EQ(l.rejected, (std::vector<std::string>{"ntp.example", "1.2.3", "256.1.1.1", "1.2.3.4/33", "1.2.3.4/",
                                                   "1.2.3.4.5", "-1.2.3.4", "1..2.3"}));
  EXPECT_FALSE(l.any);
  EXPECT_TRUE(AddressListHas(l, Ip(192, 0, 2, 1)));
  EXPECT_FALSE(AddressListHas(l, Ip(1, 2, 3, 4)));
}

TEST(AddressList, AnEmptyTextHoldsNobody) {
  const AddressList l = ParseAddressList("  ,, ");
  EXPECT_FALSE(AddressListHas(l, Ip(127, 0, 0, 1)));
  EXPECT_TRUE(l.rejected.empty());
}

TEST(AddressList, LoopbackIsAllOf127) {
  EXPECT_TRUE(IsLoopbackAddress(Ip(127, 0, 0, 1)));
  EXPECT_TRUE(IsLoopbackAddress(Ip(127, 255, 0, 9)));
  EXPECT_FALSE(IsLoopbackAddress(Ip(128, 0, 0, 1)));
  EXPECT_FALSE(IsLoopbackAddress(Ip(10, 127, 0, 1)));
}

// ---- The guard alone ----

constexpr std::size_t kStatus = sizeof(LocalStatusRecord), kIdentity = sizeof(IdentityRecord);

TEST(Kr2Guard, ByDefaultOnlyLoopbackMayChangeTheMachine) {
  Kr2Guard g;
  EXPECT_TRUE(g.MayChange(Ip(127, 0, 0, 1)));
  EXPECT_TRUE(g.MayChange(Ip(127, 1, 2, 3)));
  EXPECT_FALSE(g.MayChange(Ip(192, 0, 2, 1)));
  EXPECT_EQ(g.rate(), defaults::kKr2RateLimitBytes);
  EXPECT_EQ(g.burst(), defaults::kKr2RateBurstBytes);
}

TEST(Kr2Guard, TheListNamesManagersAndAnyGivesEveryoneBack) {
  Kr2Guard g;
  g.Configure("192.0.2.0/24", 2048, 16384);
  EXPECT_TRUE(g.MayChange(Ip(192, 0, 2, 77)));
  EXPECT_FALSE(g.MayChange(Ip(192, 0, 3, 1)));
  EXPECT_TRUE(g.MayChange(Ip(127, 0, 0, 1)));   // loopback always
  g.Configure("any", 2048, 16384);
  EXPECT_TRUE(g.MayChange(Ip(198, 51, 100, 1)));
  g.Configure("", 2048, 16384);
  EXPECT_FALSE(g.MayChange(Ip(198, 51, 100, 1)));
  EXPECT_TRUE(g.MayChange(Ip(127, 0, 0, 1)));
}

// A station that asks for status and identity every second, for ten minutes, is never limited.
TEST(Kr2Guard, AStationPollingEverySecondIsNeverLimited) {
  Kr2Guard g;
  const std::uint32_t station = Ip(192, 0, 2, 10);
  std::uint64_t now = 1'000;
  for (int second = 0; second < 600; ++second, now += 1'000) {
    for (const std::size_t reply : {kStatus, kIdentity, std::size_t{302}}) {
      ASSERT_TRUE(g.Admit(station, now)) << second;
      g.Charge(reply);
    }
  }
  EXPECT_EQ(g.limited(), 0u);
}

// What a source at full rate is sent over a span: at most the burst, the rate over the span and one
// reply more; and, once the burst is spent, about the rate.
std::uint64_t BytesSentAtFullRate(Kr2Guard& g, std::uint32_t source, std::uint64_t from_ms, std::uint64_t span_ms,
                                  std::size_t reply) {
  std::uint64_t sent = 0;
  for (std::uint64_t t = from_ms; t < from_ms + span_ms; ++t)
    for (int i = 0; i < 100; ++i)   // 100,000 requests a second
      if (g.Admit(source, t)) g.Charge(reply), sent += reply;
  return sent;
}

TEST(Kr2Guard, OneSourceAtFullRateGetsAtMostTheCap) {
  Kr2Guard g;
  const std::uint32_t flooder = Ip(203, 0, 113, 5);
  const std::uint64_t span_ms = 10'000;
  const std::uint64_t sent = BytesSentAtFullRate(g, flooder, 1'000, span_ms, 504);
  const std::uint64_t cap = defaults::kKr2RateBurstBytes + defaults::kKr2RateLimitBytes * span_ms / 1000 + 504;
  EXPECT_LE(sent, cap);
  // A new source starts with one second of the rate, not the burst; the limit does not starve it.
  const std::uint64_t first = defaults::kKr2RateLimitBytes;
  EXPECT_GE(sent, first + defaults::kKr2RateLimitBytes * span_ms / 1000 - 2 * 504);
  EXPECT_LE(sent, first + defaults::kKr2RateLimitBytes * span_ms / 1000 + 504);
  EXPECT_GT(g.limited(), 900'000u);
}

TEST(Kr2Guard, ASecondWellBehavedSourceKeepsFullServiceBesideAFlooder) {
  Kr2Guard g;
  const std::uint32_t flooder = Ip(203, 0, 113, 5), station = Ip(192, 0, 2, 10);
  for (std::uint64_t t = 1'000; t < 61'000; ++t) {
    for (int i = 0; i < 20; ++i)
      if (g.Admit(flooder, t)) g.Charge(kStatus);
    if (t % 1'000 == 0) {
      ASSERT_TRUE(g.Admit(station, t)) << t;
      g.Charge(kStatus);
    }
  }
}

// A flood of forged sources, each new, cannot push a polling station into the limit: it is either
// remembered with its own bucket or forgotten and starts again full. The table does not grow.
TEST(Kr2Guard, AFloodOfForgedSourcesCannotCrowdOutAStation) {
  Kr2Guard g;
  const std::uint32_t station = Ip(192, 0, 2, 10);
  std::uint32_t forged = 0x0B000000;
  for (std::uint64_t t = 1'000; t < 31'000; ++t) {
    for (int i = 0; i < 50; ++i) {   // 50,000 new sources a second
      const std::uint32_t source = platform::HostToNet32(++forged);
      if (g.Admit(source, t)) g.Charge(504);
    }
    if (t % 1'000 == 0) {
      ASSERT_TRUE(g.Admit(station, t)) << t;
      g.Charge(kStatus);
    }
  }
}

TEST(Kr2Guard, LoopbackIsNeverLimitedAndRateZeroTurnsTheLimitOff) {
  Kr2Guard g;
  EXPECT_EQ(BytesSentAtFullRate(g, Ip(127, 0, 0, 1), 1'000, 1'000, 504), 100'000u * 504);
  g.Configure(defaults::kKr2ManagersDefault, 0, 0);
  EXPECT_EQ(BytesSentAtFullRate(g, Ip(203, 0, 113, 5), 1'000, 1'000, 504), 100'000u * 504);
  EXPECT_EQ(g.limited(), 0u);
}

TEST(Kr2Guard, ABucketRefillsAtTheRateUpToTheBurst) {
  Kr2Guard g;
  g.Configure("", 1000, 2000);   // 1,000 bytes a second, 2,000 at once
  const std::uint32_t s = Ip(198, 51, 100, 7);
  ASSERT_TRUE(g.Admit(s, 1'000));
  g.Charge(1000);                // a new source's whole allowance: one second of the rate
  EXPECT_FALSE(g.Admit(s, 1'000));
  EXPECT_FALSE(g.Admit(s, 1'000));   // nothing back without time
  EXPECT_TRUE(g.Admit(s, 1'001));    // 1 ms: one byte back, above zero
  g.Charge(500);
  EXPECT_FALSE(g.Admit(s, 1'400));   // 1 - 500 + 399 < 0
  EXPECT_FALSE(g.Admit(s, 1'500));   // back to exactly zero: still empty
  EXPECT_TRUE(g.Admit(s, 1'501));
  g.Charge(0);
  // An hour idle fills it to the burst and no further.
  ASSERT_TRUE(g.Admit(s, 3'601'500));
  g.Charge(2000);
  EXPECT_FALSE(g.Admit(s, 3'601'500));
}

TEST(Kr2Guard, RefusalsAreLoggedOncePerSourceAnHourAndAtMostAHundredInAll) {
  Kr2Guard g;
  const std::uint32_t a = Ip(192, 0, 2, 1), b = Ip(192, 0, 2, 2);
  EXPECT_TRUE(g.NoticeNotManager(a, 1'000));
  EXPECT_FALSE(g.NoticeNotManager(a, 1'001));
  EXPECT_TRUE(g.NoticeNotManager(b, 1'002));
  EXPECT_FALSE(g.NoticeNotManager(a, 1'000 + 3'599));
  EXPECT_TRUE(g.NoticeNotManager(a, 1'000 + 3'600));
  EXPECT_EQ(g.refused_changes(), 5u);
  EXPECT_TRUE(g.NoticeLimited(a, 1'000));   // the limit's notices are counted apart
  Kr2Guard flood;
  int logged = 0;
  for (std::uint32_t i = 0; i < 10'000; ++i) logged += flood.NoticeNotManager(platform::HostToNet32(0x0B000000 + i), 5'000);
  EXPECT_EQ(logged, static_cast<int>(defaults::kKr2NoticesPerInterval));
  EXPECT_EQ(flood.refused_changes(), 10'000u);
}

// ---- The table under forged sources ----

TEST(Kr2Guard, TheKeyedHashIsSipHash24) {
  // The reference vector of SipHash-2-4: key 00..0f, message 00..07.
  EXPECT_EQ(Kr2SipHash({0x0706050403020100u, 0x0F0E0D0C0B0A0908u}, 0x0706050403020100u), 0x93F5F5799A932462u);
}

// Which set a source falls in is a secret of each guard, and a /24 spreads over the table.
TEST(Kr2Guard, TheSetsOfATableAreSecretAndSpreadA24) {
  Kr2Guard a, b;
  std::set<std::size_t> sets;
  int same = 0;
  for (std::uint32_t host = 0; host < 256; ++host) {
    const std::uint32_t address = Ip(192, 0, 2, static_cast<std::uint8_t>(host));
    sets.insert(a.SetOf(address));
    same += a.SetOf(address) == b.SetOf(address);
  }
  EXPECT_GT(sets.size(), 150u);   // about 200 of 512 for 256 random draws
  EXPECT_LT(same, 16);            // about 0.5 by chance
}

// What an attacker who knew the key would forge: addresses of 10.0.0.0/8 in the set of victim.
std::vector<std::uint32_t> SameSet(Kr2Guard& g, std::uint32_t victim, std::size_t n) {
  std::vector<std::uint32_t> out;
  for (std::uint32_t i = 1; out.size() < n; ++i) {
    const std::uint32_t a = platform::HostToNet32(0x0A000000 + i);
    if (a != victim && g.SetOf(a) == g.SetOf(victim)) out.push_back(a);
  }
  return out;
}

// The victim's address floods status requests for ten seconds while the neighbours send one each
// every millisecond: the bytes the victim is sent.
std::uint64_t VictimBytesBesideNeighbours(Kr2Guard& g, std::uint32_t victim, const std::vector<std::uint32_t>& neighbours) {
  std::uint64_t sent = 0;
  for (std::uint64_t t = 1'000; t < 11'000; ++t) {
    for (int i = 0; i < 10; ++i)
      if (g.Admit(victim, t)) g.Charge(kStatus), sent += kStatus;
    for (const std::uint32_t n : neighbours)
      if (g.Admit(n, t)) g.Charge(kStatus);
  }
  return sent;
}

constexpr std::uint64_t kTenSecondCap = defaults::kKr2RateBurstBytes + defaults::kKr2RateLimitBytes * 10 + kStatus;

// Forged neighbours of a victim (its /24) cannot push its empty bucket out of the table and so
// give it a full one again.
TEST(Kr2Guard, ForgedNeighboursInItsSlash24CannotResetAVictim) {
  Kr2Guard g;
  const std::uint32_t victim = Ip(192, 0, 2, 10);
  std::vector<std::uint32_t> neighbours;
  for (std::uint8_t host = 11; host < 11 + 2 * kKr2RateWays; ++host) neighbours.push_back(Ip(192, 0, 2, host));
  EXPECT_LE(VictimBytesBesideNeighbours(g, victim, neighbours), kTenSecondCap);
}

// Nor can neighbours in its very set, as an attacker who knew the key would choose them, newcomers
// and regulars alike.
TEST(Kr2Guard, NeighboursInTheVictimsOwnSetCannotResetIt) {
  Kr2Guard g;
  const std::uint32_t victim = Ip(192, 0, 2, 10);
  const std::uint64_t sent = VictimBytesBesideNeighbours(g, victim, SameSet(g, victim, 4 * kKr2RateWays));
  EXPECT_LE(sent, kTenSecondCap);
  EXPECT_GE(sent, defaults::kKr2RateLimitBytes * 10);   // while its own requests are still served at the rate
  EXPECT_GT(g.no_room(), 0u);
}

// An empty bucket is never forgotten, however many new sources its set sees.
TEST(Kr2Guard, AnEmptyBucketStaysEmptyUnderAFloodOfNewSourcesInItsSet) {
  Kr2Guard g;
  const std::uint32_t s = Ip(198, 51, 100, 7);
  while (g.Admit(s, 1'000)) g.Charge(kStatus);
  std::uint32_t i = 0;
  for (const std::uint32_t forged : SameSet(g, s, 1'000))
    if (g.Admit(forged, 1'000 + ++i / 100)) g.Charge(kStatus);
  EXPECT_FALSE(g.Admit(s, 1'000));   // still empty
  EXPECT_FALSE(g.last_no_room());    // refused by its own bucket: it was remembered
}

// A source forgotten (here a quiet one, after its set filled with new sources) comes back with a
// new source's allowance, one second of the rate, never a burst.
TEST(Kr2Guard, AForgottenSourceComesBackWithoutAFreshBurst) {
  Kr2Guard g;
  const std::uint32_t s = Ip(198, 51, 100, 7);
  ASSERT_TRUE(g.Admit(s, 1'000));
  g.Charge(kStatus);
  const std::uint64_t later = 1'000 + defaults::kKr2RateStaleMs + 10'000;   // stale, its bucket full
  for (const std::uint32_t forged : SameSet(g, s, 2 * kKr2RateWays))
    if (g.Admit(forged, later)) g.Charge(kStatus);
  // Back once the newcomers that took its place have been quiet long enough to give it up.
  const std::uint64_t back = later + defaults::kKr2RateNewcomerMs + 1;
  std::uint64_t sent = 0;
  while (g.Admit(s, back)) g.Charge(kStatus), sent += kStatus;
  EXPECT_GT(sent, 0u);
  EXPECT_LE(sent, defaults::kKr2RateLimitBytes + kStatus);
}

// A station that asks every second keeps its place while its set is flooded with forged sources,
// new ones every millisecond and regulars that ask every millisecond.
TEST(Kr2Guard, AStationKeepsItsPlaceAgainstForgedSourcesInItsSet) {
  Kr2Guard g;
  const std::uint32_t station = Ip(192, 0, 2, 10);
  const auto forged = SameSet(g, station, 3'000);
  std::size_t next = 2 * kKr2RateWays;   // the first ones are the regulars
  for (std::uint64_t t = 1'000; t < 121'000; ++t) {
    if (t % 1'000 == 0) {
      for (const std::size_t reply : {kStatus, kIdentity}) {
        ASSERT_TRUE(g.Admit(station, t)) << t;
        g.Charge(reply);
      }
    }
    for (std::size_t r = 0; r < 2 * kKr2RateWays; ++r)
      if (g.Admit(forged[r], t)) g.Charge(kStatus);
    if (g.Admit(forged[next], t)) g.Charge(kStatus);
    if (++next == forged.size()) next = 2 * kKr2RateWays;
  }
}

// A new source finds no place while its set holds regulars seen recently, and gets silence until
// one of them has been quiet long enough.
TEST(Kr2Guard, ANewSourceWaitsWhileItsSetHoldsRecentRegulars) {
  Kr2Guard g;
  const std::uint32_t s = Ip(198, 51, 100, 7);
  for (const std::uint32_t regular : SameSet(g, s, kKr2RateWays))
    for (int i = 0; i < 2; ++i)
      if (g.Admit(regular, 1'000)) g.Charge(4);
  EXPECT_FALSE(g.Admit(s, 2'000));
  EXPECT_TRUE(g.last_no_room());
  EXPECT_EQ(g.no_room(), 1u);
  EXPECT_TRUE(g.Admit(s, 1'000 + defaults::kKr2RateStaleMs));
  EXPECT_FALSE(g.last_no_room());
}

// ---- Through the responder ----

class Kr2GuardResponderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::fake::Enable();
    ResetKr2ForTest(1'600'000'000, "HOST");
    SetKr2Prohibited(false);
    ProviderUseCallbacks(TimeServiceFake::Callbacks());
    TimeServiceFake::Clear();
  }
  void TearDown() override {
    ProviderUseCallbacks({});
    platform::fake::Disable();
  }
  Kr2Outcome Ask(std::uint8_t code, std::uint32_t tag = 0) {
    const auto r = Kr2BuildRequest(code, 0, tag);
    socket_.Push({r.begin(), r.end()});
    return g_provider.kr2.HandleRequestWith(socket_, machine_);
  }
  ScriptedKr2Socket socket_;
  ScriptedKr2Machine machine_;
};

TEST_F(Kr2GuardResponderTest, AChangeFromANonManagerGetsSilenceAndChangesNothing) {
  socket_.source = Ip(192, 0, 2, 9);
  machine_.records.push_back(MakeKr2TestRecord(1'700'000'000, 5));
  EXPECT_EQ(Ask(129, 1), Kr2Outcome::NotManager);
  EXPECT_EQ(Ask(3, 2), Kr2Outcome::NotManager);
  EXPECT_EQ(Ask(204, 3), Kr2Outcome::NotManager);
  EXPECT_TRUE(socket_.sent.empty());
  EXPECT_EQ(machine_.clears, 0);
  EXPECT_EQ(machine_.resyncs, 0);
  EXPECT_EQ(machine_.records.size(), 1u);
  EXPECT_EQ(+g_provider.kr2.status().counters[0], 0u);
  EXPECT_EQ(g_provider.kr2.guard().refused_changes(), 3u);
  // Logged once for the source, whatever it asked.
  const auto events = TimeServiceFake::Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].type, 2);
  EXPECT_EQ(events[0].text,
            "KR2 command 129 from 192.0.2.9 refused: that address is not one of the KR2 managers (1 refused so far)\r\n");
  // The questions that change nothing are still answered.
  EXPECT_EQ(Ask(128, 4), Kr2Outcome::Answered);
}

TEST_F(Kr2GuardResponderTest, ManagersAndLoopbackMayChangeTheMachine) {
  g_provider.kr2.guard().Configure("192.0.2.0/24", defaults::kKr2RateLimitBytes, defaults::kKr2RateBurstBytes);
  socket_.source = Ip(192, 0, 2, 9);
  EXPECT_EQ(Ask(129, 1), Kr2Outcome::Answered);
  platform::fake::AdvanceCounter(2 * 10'000'000);   // 2 s: the clear's work paid back
  EXPECT_EQ(Ask(3, 2), Kr2Outcome::Answered);
  socket_.source = Ip(127, 0, 0, 1);
  EXPECT_EQ(Ask(204, 3), Kr2Outcome::Answered);
  EXPECT_EQ(machine_.clears, 1);
  EXPECT_EQ(machine_.resyncs, 2);
  EXPECT_TRUE(TimeServiceFake::Events().empty());
}

TEST_F(Kr2GuardResponderTest, BadManagerEntriesAreLoggedOnceAndIgnored) {
  g_provider.kr2.ConfigureGuard("192.0.2.9 ntp.example 10.0.0.0/40", 2048, 16384);
  g_provider.kr2.ConfigureGuard("192.0.2.9 ntp.example 10.0.0.0/40", 2048, 16384);   // the same text: nothing new
  const auto events = TimeServiceFake::Events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].text, "The KR2 managers' entry \"ntp.example\" is neither an address, a prefix nor \"any\"; it is ignored\r\n");
  EXPECT_EQ(events[1].text, "The KR2 managers' entry \"10.0.0.0/40\" is neither an address, a prefix nor \"any\"; it is ignored\r\n");
  socket_.source = Ip(192, 0, 2, 9);
  EXPECT_EQ(Ask(3, 1), Kr2Outcome::Answered);
}

// A source over its rate gets silence; the same request sent again once its bucket has refilled
// is answered (a limited request is not remembered as a repeat).
TEST_F(Kr2GuardResponderTest, ALimitedRequestIsAnsweredWhenSentAgainLater) {
  g_provider.kr2.guard().Configure("", 1000, 1000);
  socket_.source = Ip(198, 51, 100, 3);
  std::uint32_t tag = 0;
  EXPECT_EQ(Ask(6, ++tag), Kr2Outcome::Answered);   // 504 bytes
  EXPECT_EQ(Ask(6, ++tag), Kr2Outcome::Answered);   // 1,008: over
  EXPECT_EQ(Ask(6, ++tag), Kr2Outcome::Limited);
  EXPECT_EQ(Ask(6, tag), Kr2Outcome::Limited);
  EXPECT_EQ(socket_.sent.size(), 2u);
  ASSERT_EQ(TimeServiceFake::Events().size(), 1u);
  EXPECT_EQ(TimeServiceFake::Events()[0].text,
            "KR2 requests from 198.51.100.3 go unanswered: more than 1000 reply bytes a second asked (1 limited so far)\r\n");
  platform::fake::AdvanceCounter(10'000'000 / 100);   // 10 ms: 10 bytes back
  EXPECT_EQ(Ask(6, tag), Kr2Outcome::Answered);
  EXPECT_EQ(socket_.sent.size(), 3u);
  EXPECT_EQ(TimeServiceFake::Events().size(), 1u);   // once an hour for the source
}
// A request is charged its work beside its reply: a history read (160) 128 bytes in all, so a new
// source has sixteen of them at once, not a hundred.
TEST_F(Kr2GuardResponderTest, AHistoryReadIsChargedItsWork) {
  g_provider.kr2.prohibited()[kKr2DriftAfter] = 0;
  socket_.source = Ip(198, 51, 100, 3);
  machine_.records.push_back(MakeKr2TestRecord(1'700'000'000, 5));
  int answered = 0;
  for (std::uint32_t tag = 1; tag <= 100; ++tag) {
    const auto r = Kr2BuildRequest(kKr2DriftAfter, 0, tag);
    socket_.Push({r.begin(), r.end()});
    answered += g_provider.kr2.HandleRequestWith(socket_, machine_) == Kr2Outcome::Answered;
  }
  EXPECT_EQ(Kr2WorkBytes(kKr2DriftAfter) + sizeof(DriftRecord), 128u);
  EXPECT_EQ(answered, static_cast<int>(defaults::kKr2RateLimitBytes / 128));
}

// A clear from a manager that is not loopback costs its writes: the second one at once is limited.
TEST_F(Kr2GuardResponderTest, AClearIsChargedItsWork) {
  g_provider.kr2.guard().Configure("192.0.2.0/24", defaults::kKr2RateLimitBytes, defaults::kKr2RateBurstBytes);
  socket_.source = Ip(192, 0, 2, 9);
  EXPECT_EQ(Ask(129, 1), Kr2Outcome::Answered);
  EXPECT_EQ(Ask(129, 2), Kr2Outcome::Limited);
  EXPECT_EQ(machine_.clears, 1);
}

}  // namespace
