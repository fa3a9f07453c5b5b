// The agent check cycle against a scripted time service (callbacks whose answers the test moves)
// and scripted NTP servers on the loopback, under the fake clock: partner texts, drift records and
// their reasons, alerts, the source history, the sample. The suite's name holds "Ntp" so that it
// runs with the other tests that bind loopback port 123.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "config/defaults.h"
#include "config/registry.h"
#include "config/w32time.h"
#include "drift/drift_file.h"
#include "platform/testing/fake.h"
#include "provider/agent.h"
#include "provider/provider.h"
#include "provider/kr2_responder.h"
#include "provider/sync_status.h"
#include "tests/fake_ntp_server.h"
#include "tests/kr2_test_util.h"
#include "tests/registry_fixture.h"
#include "timing/activity.h"
#include "timing/precise_clock.h"

namespace {

constexpr std::uint64_t kT0 = 134116992000000000ULL;   // 2026-01-01 00:00:00 UTC
constexpr std::int64_t kSecond = 10'000'000;
constexpr std::int64_t kMs = 10'000;
constexpr std::uint32_t kT0Unix = 1767225600;
// Scripted NTP servers of these tests, and an address where nothing listens (fails at once).
constexpr const char* kReference = "127.0.0.40";
constexpr const char* kOther = "127.0.0.41";
constexpr const char* kNobody = "127.0.0.46";

std::uint32_t Addr(const char* dotted) { return platform::InetAddr(dotted); }

// The time service as the provider sees it through pfnGetTimeSysInfo.
struct TimeService {
  std::uint64_t current = kT0;
  std::uint64_t last_sync = 0;
  std::uint32_t flags = 0;
  std::uint32_t reference_id = 0;
  std::uint8_t stratum = 0;
  std::uint64_t tick_count = 4242;
  std::int64_t phase_offset = -17;
} g_service;

std::atomic<int> g_polls{0};   // questions for the current time: one opens every poll
std::atomic<bool> g_slow_polls{false};   // each poll takes 2 s of the counter (a check waiting in vain)

platform::HResult GetTimeSysInfo(platform::TimeSysInfo what, void* out) {
  switch (what) {
    case platform::TSI_CurrentTime:
      ++g_polls;
      std::memcpy(out, &g_service.current, 8);
      if (g_slow_polls) {
        std::int64_t hz = 0;
        platform::PerformanceFrequency(hz);
        platform::fake::AdvanceCounter(hz * 2);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      break;
    case platform::TSI_LastSyncTime: std::memcpy(out, &g_service.last_sync, 8); break;
    case platform::TSI_TSFlags: std::memcpy(out, &g_service.flags, 4); break;
    case platform::TSI_ReferenceIdentifier: std::memcpy(out, &g_service.reference_id, 4); break;
    case platform::TSI_Stratum: std::memcpy(out, &g_service.stratum, 1); break;
    case platform::TSI_TickCount: std::memcpy(out, &g_service.tick_count, 8); break;
    case platform::TSI_PhaseOffset: std::memcpy(out, &g_service.phase_offset, 8); break;
    case platform::TSI_PollInterval: *static_cast<std::int8_t*>(out) = 10; break;
    default: return 1;
  }
  return 0;
}

int g_status_reports = 0;
platform::HResult SetProviderStatus(platform::SetProviderStatusInfo* info) {
  ++g_status_reports;
  EXPECT_EQ(info->tpsCurrentState, platform::TPS_Running);
  EXPECT_EQ(info->dwStratum, 4u);
  info->pfnFree(info);
  return 0;
}

std::vector<std::pair<std::uint16_t, std::string>> g_events;
platform::HResult RecordEvent(std::uint16_t type, char16_t*, char16_t* message) {
  std::string text;
  for (; *message; ++message) text += static_cast<char>(*message);
  if (text.size() >= 2 && text.compare(text.size() - 2, 2, "\r\n") == 0) text.resize(text.size() - 2);
  g_events.emplace_back(type, text);
  return 0;
}

std::vector<std::uint32_t> g_marks;
void RecordMark(std::uint32_t slot) { g_marks.push_back(slot); }

std::uint32_t g_resync_answer = 0;
int g_resyncs = 0;
std::uint32_t Resync() { return ++g_resyncs, g_resync_answer; }

class AgentNtpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(platform::NetStartup(), 0);   // Winsock, for the scripted servers and the queries
    platform::fake::Enable();
    platform::fake::SetSystemTime(kT0);
    g_service = TimeService{};
    g_demand_resync = Resync;
    g_events.clear();
    g_marks.clear();
    g_status_reports = 0;
    g_resyncs = 0;
    g_resync_answer = 0;
    W32tSettings& settings_ = g_provider.settings;
    settings_ = W32tSettings{};
    settings_.ntp_client_enabled = 1;
    settings_.ntp_client_input_provider = 1;
    settings_.sync_type = kW32tNtp;
    settings_.provider_input_provider = 1;
    settings_.check_interval = 1800;
    settings_.alert_threshold = 2;
    settings_.alert_if_unverified = 1;
    settings_.alert_if_unsynchronized = 1;
    std::strcpy(settings_.reference_clock, kReference);
    ProviderUseCallbacks(platform::TimeProvSysCallbacks{40, GetTimeSysInfo, RecordEvent, nullptr, SetProviderStatus});
    g_provider.status_block = nullptr;
    g_provider.responder_active = true;
    g_demand_resync = Resync;
    g_provider.sample_available = false;
    ResetKr2State(g_provider.kr2);
    g_provider.kr2.InitLocalStatusRecord();
    // Windows keeps one registry for every test: start from an empty source list.
    reg_delete_value(reg_local(), kProviderKey, defaults::kLastUsedTimeSourceValue);
    drift_ = (sandbox_.root() / "drift.kr").string();
    std::filesystem::create_directories(sandbox_.root());
    ASSERT_TRUE(DriftFileOpenPath(drift_));
  }
  void TearDown() override {
    SetActivityMarker(nullptr);
    DriftFileClose();
    ProviderUseCallbacks({});
    g_provider.responder_active = false;
    g_provider.sample_available = false;   // a check's sample is no later test's
    platform::fake::Disable();
    platform::NetCleanup();
  }
  static std::string Partner() {
    char text[256];
    reg_get_string(reg_local(), kProviderKey, defaults::kPartnerValue, text, sizeof text, "(missing)");
    return text;
  }
  static std::vector<DriftRecord> Records() {
    std::vector<DriftRecord> out;
    DriftRecord r;
    for (std::uint32_t after = 0; DriftFileReadAfter(r, after); after = r.check_time) out.push_back(r);
    return out;
  }
  static std::vector<std::uint8_t> Reasons() {
    std::vector<std::uint8_t> out;
    for (const auto& r : Records()) out.push_back(r.reason);
    return out;
  }
  // One poll, the service's clock one second on.
  void Poll() {
    g_service.current += kSecond;
    platform::fake::AdvanceSystemTime(kSecond);
    AgentWake(cycle_, platform::kWaitTimeout);
  }
  void Synchronize(const char* reference, std::uint32_t flags = 0) {
    g_service.last_sync = g_service.current;
    g_service.stratum = 3;
    g_service.reference_id = Addr(reference);
    g_service.flags = flags;
  }
  static std::uint32_t Now() { return static_cast<std::uint32_t>(FileTimeToUnixSeconds(g_service.current)); }

  RegistrySandbox sandbox_;
  W32tSettings& settings_ = g_provider.settings;
  std::string drift_;
  AgentCycle cycle_;
};

FakeNtpReply Offset(std::int64_t offset) {
  FakeNtpReply r;
  r.offset = offset;
  return r;
}

TEST_F(AgentNtpTest, WholeCycleTextsAndReasonsInOrder) {
  FakeNtpServer reference(kReference, Offset(250 * kMs + kMs / 2));   // 250.5 ms: 250 whole ms
  AgentStart(cycle_);
  EXPECT_EQ(g_status_reports, 1);
  EXPECT_EQ(Partner(), "Unknown - Windows Time service initializing");
  EXPECT_EQ(Reasons(), std::vector<std::uint8_t>{255});
  EXPECT_EQ(+g_provider.kr2.status().partner_state, 254);
  EXPECT_TRUE(g_provider.kr2.status().status_flags & kKr2StatusChecking);

  // Unsynchronized: the nineteenth poll gives the verdict, and only it.
  for (int i = 0; i < 18; ++i) Poll();
  EXPECT_EQ(Partner(), "Unknown - Windows Time service initializing");
  Poll();
  EXPECT_EQ(Partner(), "Unknown - Windows Time synchronization failed");
  EXPECT_EQ(+g_provider.kr2.status().sync_failures, 1u);
  EXPECT_EQ(+g_provider.kr2.status().sync_verdicts, 1u);
  EXPECT_FALSE(g_provider.kr2.status().status_flags & kKr2StatusChecking);
  for (int i = 0; i < 5; ++i) Poll();
  EXPECT_EQ(+g_provider.kr2.status().sync_failures, 1u);

  // Synchronized, flags 3: the partner without a suffix, a check with reason 1.
  Synchronize("10.1.2.3", 3);
  Poll();
  EXPECT_EQ(Partner(), "10.1.2.3 (no name)");
  EXPECT_STREQ(g_provider.kr2.status().partner_name, "10.1.2.3");
  EXPECT_EQ(+g_provider.kr2.status().partner_state, 1);
  EXPECT_EQ(+g_provider.kr2.status().sync_successes, 1u);
  EXPECT_EQ(Reasons(), (std::vector<std::uint8_t>{255, 1}));
  ASSERT_EQ(Records().size(), 2u);
  EXPECT_EQ(Records().back().check_time, Now());
  EXPECT_TRUE(DriftClockSet(Records().back()));   // a check that follows a new synchronization
  EXPECT_EQ(Records().back().variance_ms, 250);

  // A time jump: "Checking", then the next synchronized poll is a new synchronization: reason 3.
  AgentWake(cycle_, platform::kWaitObject0 + 2);
  EXPECT_EQ(Partner(), "Checking sources - please wait");
  Poll();
  EXPECT_EQ(Partner(), "10.1.2.3 (no name)");
  EXPECT_EQ(Reasons(), (std::vector<std::uint8_t>{255, 1, 3}));

  // A successful demand resync, then a new reference id: reason 2.
  AgentWake(cycle_, platform::kWaitObject0 + 1);
  EXPECT_EQ(g_resyncs, 1);
  Synchronize("10.1.2.4", 1);
  Poll();
  EXPECT_EQ(Partner(), "10.1.2.4 (no name) [hardware]");
  EXPECT_EQ(Reasons(), (std::vector<std::uint8_t>{255, 1, 3, 2}));

  // The scheduled check, on the service's clock: not one second early, then reason 6.
  g_service.current += (1800 - 2) * kSecond;
  Poll();
  EXPECT_EQ(Records().size(), 4u);
  Poll();
  ASSERT_EQ(Reasons(), (std::vector<std::uint8_t>{255, 1, 3, 2, 6}));
  EXPECT_FALSE(DriftClockSet(Records().back()));
  EXPECT_TRUE(g_events.empty());

  // Lost synchronization.
  g_service.stratum = 0;
  Poll();
  EXPECT_EQ(Partner(), "Unknown - Windows Time lost synchronization");

  AgentStop();
  EXPECT_EQ(Partner(), "Unknown - Agent stopped");
  EXPECT_EQ(+g_provider.kr2.status().agent_start, 0u);
}

// The partner text and the source history are reports only: a store that refuses them changes
// nothing of the checks (start-up, new synchronization, scheduled), their records or the sample.
TEST_F(AgentNtpTest, RefusedPartnerAndSourceWritesDoNotStopTheChecks) {
  FakeNtpServer reference(kReference, Offset(3 * kMs + kMs / 2));
  reg_delete_value(reg_local(), kProviderKey, defaults::kPartnerValue);
  platform::fake::FailRegistryWrite(defaults::kPartnerValue, platform::kErrorAccessDenied);
  platform::fake::FailRegistryWrite(defaults::kLastUsedTimeSourceValue, platform::kErrorAccessDenied);
  AgentStart(cycle_);
  EXPECT_EQ(Reasons(), std::vector<std::uint8_t>{255});
  for (int i = 0; i < 19; ++i) Poll();
  EXPECT_EQ(+g_provider.kr2.status().sync_failures, 1u);
  Synchronize("10.1.2.3");
  Poll();
  EXPECT_STREQ(g_provider.kr2.status().partner_name, "10.1.2.3");
  EXPECT_EQ(Reasons(), (std::vector<std::uint8_t>{255, 1}));
  g_service.current += 1800 * kSecond;
  Poll();
  ASSERT_EQ(Reasons(), (std::vector<std::uint8_t>{255, 1, 6}));
  EXPECT_EQ(Records().back().variance_ms, 3);
  EXPECT_TRUE(g_provider.sample_available);
  EXPECT_EQ(g_provider.current_sample.dwRefid, Addr(kReference));
  EXPECT_TRUE(g_events.empty());
  AgentStop();
  // Neither value reached the store.
  EXPECT_EQ(Partner(), "(missing)");
  std::uint32_t words[128] = {};
  EXPECT_EQ(reg_get_binary(reg_local(), kProviderKey, defaults::kLastUsedTimeSourceValue, words, sizeof words), 0);
}

TEST_F(AgentNtpTest, FailedDemandResyncLogsAndKeepsTheReason) {
  FakeNtpServer reference(kReference);
  AgentStart(cycle_);
  g_resync_answer = 1;
  AgentWake(cycle_, platform::kWaitObject0 + 1);
  ASSERT_EQ(g_events.size(), 1u);
  EXPECT_EQ(g_events[0], (std::pair<std::uint16_t, std::string>{1, "Attempt to trigger a demand clock sync failed"}));
  Synchronize("10.9.9.9");
  Poll();
  EXPECT_EQ(Reasons(), (std::vector<std::uint8_t>{255, 1}));
}

TEST_F(AgentNtpTest, SynchronizedFromTheStartChecksWithReasonScheduled) {
  FakeNtpServer reference(kReference);
  Synchronize("10.1.1.1", 2);
  AgentStart(cycle_);
  Poll();
  EXPECT_EQ(Partner(), "10.1.1.1 (no name) [authenticated]");
  EXPECT_EQ(Reasons(), (std::vector<std::uint8_t>{255, 1}));
}

TEST_F(AgentNtpTest, NoSyncCheckWhenTheIntervalIsZero) {
  FakeNtpServer reference(kReference);
  settings_.check_interval = 0;
  Synchronize("10.1.1.1");
  AgentStart(cycle_);
  Poll();
  g_service.current += 100'000 * kSecond;
  for (int i = 0; i < 3; ++i) Poll();
  EXPECT_EQ(Reasons(), (std::vector<std::uint8_t>{255, 1}));
}

TEST_F(AgentNtpTest, ScheduledCheckFollowsTheServicesClockNotTheWallClock) {
  FakeNtpServer reference(kReference);
  Synchronize("10.1.1.1");
  AgentStart(cycle_);
  Poll();
  ASSERT_EQ(Records().size(), 2u);
  // The wall clock runs far ahead; the service's clock does not: no check.
  platform::fake::AdvanceSystemTime(7200 * kSecond);
  AgentWake(cycle_, platform::kWaitTimeout);
  EXPECT_EQ(Records().size(), 2u);
  // The service's clock reaches the interval: the check is stamped with its time.
  g_service.current += 1799 * kSecond;
  AgentWake(cycle_, platform::kWaitTimeout);
  EXPECT_EQ(Records().size(), 2u);   // one second short of the interval
  g_service.current += kSecond;
  AgentWake(cycle_, platform::kWaitTimeout);
  ASSERT_EQ(Records().size(), 3u);
  EXPECT_EQ(Records().back().reason, 6);
  EXPECT_EQ(Records().back().check_time, Now());
}

TEST_F(AgentNtpTest, AlertAboveTheThresholdOnly) {
  FakeNtpServer reference(kReference, std::vector<FakeNtpReply>{Offset(2000 * kMs + kMs / 2), Offset(-2001 * kMs - kMs / 2)});
  g_provider.responder_active = false;
  AgentStart(cycle_);
  ASSERT_TRUE(CheckOneSource(kReference, 0, 1, 0));
  EXPECT_EQ(+g_provider.kr2.status().last_offset_ms, 2000);
  EXPECT_TRUE(g_events.empty());   // exactly the threshold: no alert
  ASSERT_TRUE(CheckOneSource(kReference, 0, 1, 0));
  EXPECT_EQ(+g_provider.kr2.status().last_offset_ms, -2001);
  ASSERT_EQ(g_events.size(), 1u);
  EXPECT_EQ(g_events[0].first, 1);
  EXPECT_EQ(g_events[0].second.rfind("According to 127.0.0.40, the system clock is wrong by 2 seconds, 1 millisecond", 0), 0u)
      << g_events[0].second;
  EXPECT_NE(g_events[0].second.find("This exceeds the alert threshhold set in the Windows Time Control Panel applet."),
            std::string::npos);
  EXPECT_EQ(+g_provider.kr2.status().offset_sum_ms, -1);
}

// +2001 ms against a 2 s threshold alerts as -2001 ms does.
TEST_F(AgentNtpTest, APositiveOffsetOneMillisecondPastTheThresholdAlerts) {
  FakeNtpServer reference(kReference, Offset(2001 * kMs + kMs / 2));
  g_provider.responder_active = false;
  ASSERT_TRUE(CheckOneSource(kReference, 0, 1, 0));
  EXPECT_EQ(+g_provider.kr2.status().last_offset_ms, 2001);
  ASSERT_EQ(g_events.size(), 1u);
  EXPECT_EQ(g_events[0].second.rfind("According to 127.0.0.40, the system clock is wrong by 2 seconds, 1 millisecond", 0), 0u)
      << g_events[0].second;
}

// "Alert if Unsynchronized" off, or a threshold of 0, never alerts, however far off the clock is.
TEST_F(AgentNtpTest, NoAlertWithTheAlertOffOrAThresholdOfZero) {
  FakeNtpServer reference(kReference, std::vector<FakeNtpReply>{Offset(90 * 1000 * kMs), Offset(90 * 1000 * kMs)});
  g_provider.responder_active = false;
  settings_.alert_if_unsynchronized = 0;
  ASSERT_TRUE(CheckOneSource(kReference, 0, 1, 0));
  settings_.alert_if_unsynchronized = 1;
  settings_.alert_threshold = 0;
  ASSERT_TRUE(CheckOneSource(kReference, 0, 1, 0));
  EXPECT_EQ(+g_provider.kr2.status().last_offset_ms, 90'000);
  EXPECT_TRUE(g_events.empty());
}

// "Alert if Unverified" off: a check that verifies nothing writes no warning.
TEST_F(AgentNtpTest, NoWarningWhenUnverifiedAlertsAreOff) {
  settings_.alert_if_unverified = 0;
  settings_.reference_clock[0] = 0;
  std::strcpy(settings_.servers[0].name, kNobody);
  settings_.server_count = 1;
  EXPECT_FALSE(CheckAgainstSources(0, 1, 0));
  EXPECT_TRUE(g_events.empty());
}

TEST_F(AgentNtpTest, SampleIsFilledFromTheCheck) {
  FakeNtpServer reference(kReference, Offset(-30 * kMs));
  g_provider.responder_active = false;
  ASSERT_TRUE(CheckOneSource(kReference, 0, 1, 0));
  const platform::TimeSample& s = g_provider.current_sample;
  EXPECT_EQ(+s.dwSize, 568u);
  EXPECT_EQ(+s.dwRefid, Addr(kReference));
  EXPECT_EQ(+s.toOffset, -30 * kMs);
  EXPECT_EQ(+s.nSysTickCount, 4242u);
  EXPECT_EQ(+s.nSysPhaseOffset, -17);
  EXPECT_EQ(+s.nStratum, 2);
  EXPECT_EQ(+s.dwTSFlags, 2u);
  EXPECT_EQ(std::u16string(s.wszUniqueName), u"127.0.0.40");
  EXPECT_TRUE(g_provider.sample_available);
  settings_.provider_input_provider = 0;
  ASSERT_TRUE(CheckOneSource(kReference, 0, 1, 0));
  EXPECT_FALSE(g_provider.sample_available);
}

TEST_F(AgentNtpTest, RepeatedSourceIsCheckedOncePerSearch) {
  settings_.reference_clock[0] = 0;
  settings_.alert_if_unverified = 0;
  RememberTimeSource(Addr(kNobody), 100);
  RememberTimeSource(Addr("127.0.0.47"), 200);
  RememberTimeSource(Addr(kNobody), 300);
  SetActivityMarker(RecordMark);
  EXPECT_FALSE(CheckAgainstSources(0, 1, 0));
  EXPECT_EQ(std::count(g_marks.begin(), g_marks.end(), kActivityNtpSend), 2);
}

TEST_F(AgentNtpTest, LastUsedSourceRingKeepsTheNewest64) {
  for (std::uint32_t i = 1; i <= 70; ++i) RememberTimeSource(i, 1000 + i);
  std::uint32_t words[128] = {};
  ASSERT_EQ(reg_get_binary(reg_local(), kProviderKey, defaults::kLastUsedTimeSourceValue, words, sizeof words), 1);
  EXPECT_EQ(words[0], 7u);   // entries 1..6 fell out
  EXPECT_EQ(words[1], 1007u);
  EXPECT_EQ(words[126], 70u);
  EXPECT_EQ(words[127], 1070u);
}

TEST_F(AgentNtpTest, UnverifiedWarningTextsAreSwappedOnPurpose) {
  settings_.reference_clock[0] = 0;
  EXPECT_FALSE(CheckAgainstSources(0, 1, 0));   // nothing to try at all
  ASSERT_EQ(g_events.size(), 1u);
  EXPECT_EQ(g_events[0].first, 2);
  EXPECT_EQ(g_events[0].second, "Unable to verify the system clock time; all specified or auto-discovered time sources failed.");
  std::strcpy(settings_.servers[0].name, kNobody);
  settings_.server_count = 1;
  EXPECT_FALSE(CheckAgainstSources(0, 1, 0));   // one source tried and failed
  ASSERT_EQ(g_events.size(), 2u);
  EXPECT_EQ(g_events[1].second,
            "Unable to verify the system clock time; no time sources specified in the Windows Time Control Panel "
            "applet, and none discovered by the Windows Time Service.");
}

TEST_F(AgentNtpTest, ConfiguredServersAfterTheLastUsedSources) {
  FakeNtpServer other(kOther, Offset(7 * kMs + kMs / 2));
  // Sources that fail by name (the fake clock's lookups know no such host): under Wine a loopback
  // NTP server listens on every loopback address, so failing addresses would be answered there.
  std::strcpy(settings_.reference_clock, "reference.invalid");
  std::strcpy(settings_.servers[0].name, "first.invalid");
  std::strcpy(settings_.servers[1].name, kOther);
  settings_.server_count = 2;
  EXPECT_TRUE(CheckAgainstSources(0, 1, 0));
  ASSERT_EQ(Records().size(), 1u);
  EXPECT_EQ(Records()[0].address, Addr(kOther));
  EXPECT_EQ(Records()[0].variance_ms, 7);
  EXPECT_TRUE(g_events.empty());
}

TEST_F(AgentNtpTest, WithoutTheResponderNoCheckButPartnerAndSourcesKept) {
  FakeNtpServer reference(kReference);
  g_provider.responder_active = false;
  Synchronize("10.3.3.3");
  AgentStart(cycle_);
  Poll();
  g_service.current += 5000 * kSecond;
  Poll();
  EXPECT_TRUE(Records().empty());
  EXPECT_TRUE(reference.Requests().empty());
  EXPECT_EQ(Partner(), "10.3.3.3 (no name)");
  std::uint32_t words[128] = {};
  reg_get_binary(reg_local(), kProviderKey, defaults::kLastUsedTimeSourceValue, words, sizeof words);
  EXPECT_EQ(words[126], Addr("10.3.3.3"));
}

TEST_F(AgentNtpTest, NotManagedTextsSayNA) {
  settings_.ntp_client_enabled = 0;
  g_provider.responder_active = false;
  AgentStart(cycle_);
  EXPECT_EQ(Partner(), "N/A - Windows Time not managing the clock");
  AgentWake(cycle_, platform::kWaitObject0 + 2);
  EXPECT_EQ(Partner(), "N/A - Windows Time not managing the clock");
  Synchronize("10.3.3.4");
  Poll();
  EXPECT_EQ(Partner(), "10.3.3.4 (no name)");
  AgentStop();
  EXPECT_EQ(Partner(), "Unknown - Agent stopped");
}

// When Windows Time does not manage the clock the N/A text replaces the failure text too.
TEST_F(AgentNtpTest, TheNotManagingTextReplacesTheFailureText) {
  settings_.ntp_client_enabled = 0;
  g_provider.responder_active = false;
  AgentStart(cycle_);
  for (int i = 0; i < 19; ++i) Poll();
  EXPECT_EQ(+g_provider.kr2.status().sync_failures, 1u);
  EXPECT_EQ(Partner(), "N/A - Windows Time not managing the clock");
}

// With DNS look-ups on, the partner text names the partner.
TEST_F(AgentNtpTest, WithLookupsOnThePartnerTextNamesThePartner) {
  settings_.dns_lookups_enabled = 1;
  g_provider.responder_active = false;
  platform::fake::SetHostAddress("partner.example", Addr("10.3.3.4"));
  AgentStart(cycle_);
  Synchronize("10.3.3.4");
  Poll();
  EXPECT_EQ(Partner(), "10.3.3.4 (partner.example)");
}

TEST_F(AgentNtpTest, AnotherOwnerOfTheStatusBlockTakesTheResponderAway) {
  FakeNtpServer reference(kReference);
  SyncStatusBlock block{32, 1, 5, 4, 2, 2008, 1210, 1};   // the family's time service announces itself
  g_provider.status_block = &block;
  AgentStart(cycle_);
  ASSERT_EQ(Records().size(), 1u);
  AgentWake(cycle_, platform::kWaitObject0 + 4);   // its notify pulse
  EXPECT_FALSE(g_provider.responder_active);
  Synchronize("10.5.5.5");
  Poll();
  EXPECT_EQ(Records().size(), 1u);   // no check, no record
  EXPECT_EQ(Partner(), "10.5.5.5 (no name)");
  g_provider.status_block = nullptr;
}

// Without a status block the provider ignores notify pulses: the owner's pulse never makes it take
// the KR2 port.
TEST_F(AgentNtpTest, ANotifyPulseWithoutAStatusBlockOpensNoSocket) {
  FakeNtpServer reference(kReference);
  g_provider.status_block = nullptr;
  g_provider.responder_active = false;
  AgentStart(cycle_);
  AgentWake(cycle_, platform::kWaitObject0 + 4);
  EXPECT_FALSE(g_provider.responder_active);
  EXPECT_EQ(g_provider.kr2.listen_socket(), platform::kInvalidSocket);
}

// The agent's tests that open the KR2 listen socket (9909): run one at a time with the provider's.
using AgentProviderPortTest = AgentNtpTest;

// The owner leaving: its pulse gives the port back to the provider, whose responder listens again.
TEST_F(AgentProviderPortTest, TheOwnerLeavingGivesTheResponderBack) {
  SyncStatusBlock block{32, 1, 5, 4, 2, 2008, 1210, 1};
  g_provider.status_block = &block;
  g_provider.responder_active = false;
  AgentStart(cycle_);
  block.owner_active = 0;
  AgentWake(cycle_, platform::kWaitObject0 + 4);
  EXPECT_TRUE(g_provider.responder_active);
  EXPECT_NE(g_provider.kr2.listen_socket(), platform::kInvalidSocket);
  g_provider.kr2.CloseListenSocket();
  g_provider.responder_active = false;
  g_provider.status_block = nullptr;
}

// The provider's five events for a test that runs the agent thread; gone again with the test.
struct AgentEvents {
  platform::UniqueEvent events[5];
  AgentEvents() {
    for (auto& e : events) e.reset(platform::CreateSyncEvent(false, false));
    g_provider.shutdown_event = events[0].get();
    g_provider.sync_event = events[1].get();
    g_provider.time_jump_event = events[2].get();
    g_provider.client_event = events[3].get();
    g_provider.status_notify_event = events[4].get();
  }
  ~AgentEvents() {
    g_provider.shutdown_event = g_provider.sync_event = g_provider.time_jump_event = g_provider.client_event =
        g_provider.status_notify_event = nullptr;
  }
};

// Requests that wake the agent more often than once a second do not hold off its poll: once the
// counter shows the second gone, the next wake-up polls (without the deadline, each request would
// start the second again and no poll would come while they last).
TEST_F(AgentNtpTest, AFloodOfRequestsDoesNotHoldOffThePoll) {
  g_provider.responder_active = false;
  const AgentEvents events;
  const int before = g_polls.load();
  std::thread agent([] { AgentThreadMain(); });
  std::int64_t hz = 0;
  platform::PerformanceFrequency(hz);
  // The flood: a request every millisecond (real time), for at most 5 s; every 50 requests the
  // counter moves on by 1.1 s (the thread may take its first reading of it at any point).
  for (int i = 0; i < 5000 && g_polls.load() == before; ++i) {
    if (i % 50 == 0) platform::fake::AdvanceCounter(hz * 11 / 10);
    platform::SetEvent(g_provider.client_event);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_GT(g_polls.load(), before);
  platform::SetEvent(g_provider.shutdown_event);
  agent.join();
}

// Polls that take longer than their pace (checks waiting for a silent server, a check every second)
// still let the agent take its events: here the shutdown.
TEST_F(AgentNtpTest, PollsLongerThanTheirPaceDoNotHoldOffTheShutdown) {
  g_provider.responder_active = false;
  const AgentEvents events;
  std::atomic<bool> ended{false};
  const int before = g_polls.load();
  g_slow_polls = true;
  std::thread agent([&] {
    AgentThreadMain();
    ended = true;
  });
  for (int i = 0; i < 5000 && g_polls.load() < before + 3; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_GE(g_polls.load(), before + 3) << "the polls do not run back to back";
  platform::SetEvent(g_provider.shutdown_event);
  for (int i = 0; i < 3000 && !ended; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_TRUE(ended.load()) << "the agent did not see the shutdown between its polls";
  g_slow_polls = false;   // an agent that missed it waits again and sees it
  agent.join();
}

// A notify word left set (a family program killed mid-pulse) wakes the agent once, not on every
// wait: the counter stands still, so no poll falls due, and the agent is seen reading it only a
// few times while its wait runs. Waiting on the notify event each time read it thousands of times
// (a busy loop that held a core and starved the responder).
TEST_F(AgentNtpTest, ANotifyWordLeftSetDoesNotSpinTheAgent) {
  g_provider.responder_active = false;
  const AgentEvents events;
  const platform::UniqueEvent left_set{platform::CreateSyncEvent(true, true)};
  g_provider.status_notify_event = left_set.get();
  std::atomic<int> reads{0};
  std::function<void()> count = [&] {
    ++reads;
    platform::fake::OnNextCounterRead(count);
  };
  platform::fake::OnNextCounterRead(count);
  std::thread agent([] { AgentThreadMain(); });
  for (int i = 0; i < 300 && reads.load() < 1000; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  platform::SetEvent(g_provider.shutdown_event);
  agent.join();
  platform::fake::OnNextCounterRead(nullptr);
  EXPECT_LT(reads.load(), 20) << "the agent woke again and again for the notify word";
}

TEST_F(AgentNtpTest, ThreadEndsOnShutdown) {
  g_provider.responder_active = false;
  const AgentEvents events;
  std::thread agent([] { AgentThreadMain(); });
  platform::SetEvent(g_provider.shutdown_event);
  agent.join();
  EXPECT_EQ(Partner(), "Unknown - Agent stopped");
}

}  // namespace
