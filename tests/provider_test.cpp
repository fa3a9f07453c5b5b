// The provider's entry points, start-up and shut-down: the name test, the commands, the prohibited
// KR2 table, the event writer, the registry values, a failure at each step of start-up and the
// nothing-half-made rule, the forced disable of a coexisting product, shut-down's one 30 s wait for
// threads that do not end, and the registry writes whose failure the provider ignores.
#include "provider/provider.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "applet/kr2_client.h"
#include "config/os_identify.h"
#include "config/registry.h"
#include "drift/drift_file.h"
#include "platform/testing/fake.h"
#include "platform/net.h"
#include "platform/paths.h"
#include "provider/event_log.h"
#include "provider/kr2_responder.h"
#include "tests/fake_clock.h"
#include "tests/registry_fixture.h"
#include "tests/shared_objects.h"
#include "tests/time_service_fake.h"

namespace {

const char* const kW32TimeKey = "\\\\System\\CurrentControlSet\\Services\\W32Time";
const char* const kKaironClientParams = "\\\\Software\\Morvane\\Kairon Client\\Parameters";

class ProviderTest : public RegistryTest {
 protected:
  void SetUp() override {
    RegistryTest::SetUp();
    sandbox_->Clear(kW32TimeKey);
    sandbox_->Clear("\\\\Software\\Morvane\\Kairon Server");
    sandbox_->Clear("\\\\Software\\Morvane\\Kairon Client");
    ns_.emplace();
    platform::fake::Enable();
    TimeServiceFake::Clear();
    saved_env_ = g_w32t_env;
    platform::NetStartup();   // the tests' own sockets (Winsock must be started before any socket)
    // The drift history goes into the test's own folder.
    std::filesystem::create_directories(root_);
    std::snprintf(g_w32t_env.system_dir, sizeof g_w32t_env.system_dir, "%s\\", root_.string().c_str());
    std::snprintf(g_w32t_env.computer_name, sizeof g_w32t_env.computer_name, "%s", "TESTBOX");
    callbacks_ = TimeServiceFake::Callbacks();
  }
  void TearDown() override {
    TimeProvClose(reinterpret_cast<platform::TimeProvHandle>(1));
    platform::fake::Disable();
    platform::NetCleanup();
    g_w32t_env = saved_env_;
    ns_.reset();
    RegistryTest::TearDown();
  }
  platform::TimeProvHandle Open(const char16_t* name = u"Chronwarden") {
    std::u16string n(name);
    platform::TimeProvHandle h = reinterpret_cast<platform::TimeProvHandle>(0x55);
    EXPECT_EQ(TimeProvOpen(n.data(), &callbacks_, &h), 0);
    return h;
  }
  static std::string Running() {
    char text[16];
    reg_get_string(reg_local(), kProviderKey, "Service Running", text, sizeof text, "(missing)");
    return text;
  }
  // Whether a socket of the test's can bind the KR2 port (all addresses).
  static bool Kr2PortFree() {
    platform::SocketHandle other = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
    std::uint16_t port = 0;
    if (!platform::ServicePort("kaironsync", "udp", port)) port = platform::HostToNet16(9909);
    const bool bound = platform::BindV4(other, {platform::kFamilyInet, port, 0});
    platform::CloseSocket(other);
    return bound;
  }
  // Nothing of a start-up is left.
  static void ExpectNothingLeft() {
    const ProviderGlobals& p = g_provider;
    EXPECT_FALSE(p.winsock_started);
    EXPECT_EQ(p.shutdown_event, nullptr);
    EXPECT_EQ(p.sync_event, nullptr);
    EXPECT_EQ(p.time_jump_event, nullptr);
    EXPECT_EQ(p.client_event, nullptr);
    EXPECT_EQ(p.status_notify_event, nullptr);
    EXPECT_EQ(p.status_block, nullptr);
    EXPECT_EQ(p.agent_thread, nullptr);
    EXPECT_FALSE(p.responder_active);
    EXPECT_EQ(g_provider.kr2.listen_socket(), platform::kInvalidSocket);
    EXPECT_EQ(ActivityMapView(), nullptr);
    EXPECT_EQ(Running(), "False");
  }
  std::optional<SharedObjectNamespace> ns_;
  W32tEnvironment saved_env_{};
  platform::TimeProvSysCallbacks callbacks_{};
};

TEST_F(ProviderTest, TheNameInCapitalsStartsTheProvider) {
  EXPECT_EQ(Open(u"CHRONWARDEN"), reinterpret_cast<platform::TimeProvHandle>(1));
  EXPECT_EQ(Running(), "True");
  char version[32];
  reg_get_string(reg_local(), kProviderKey, "Current Version", version, sizeof version, "");
  EXPECT_STREQ(version, "4.2.b.20081210R");
  EXPECT_NE(g_provider.agent_thread, nullptr);
  EXPECT_EQ(TimeProvClose(reinterpret_cast<platform::TimeProvHandle>(1)), 0);
  EXPECT_EQ(Running(), "False");
  ExpectNothingLeft();
  for (const auto& e : TimeServiceFake::EventsBesidesUnverified()) ADD_FAILURE() << "unexpected event: " << e.text;
}

TEST_F(ProviderTest, AnotherNameGivesHandleZeroAndStartsNothing) {
  EXPECT_EQ(Open(u"NtpClient"), nullptr);
  EXPECT_EQ(Open(u"Chronwardenx"), nullptr);
  EXPECT_EQ(Open(u"Chronwarde"), nullptr);
  EXPECT_EQ(Running(), "(missing)");
  EXPECT_EQ(g_provider.shutdown_event, nullptr);
}

TEST_F(ProviderTest, CloseWithAnotherHandleDoesNothing) {
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  EXPECT_EQ(TimeProvClose(nullptr), 0);
  EXPECT_EQ(TimeProvClose(reinterpret_cast<platform::TimeProvHandle>(2)), 0);
  EXPECT_EQ(Running(), "True");
}

TEST_F(ProviderTest, EphemeridesIsWrittenOnceAndKept) {
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  const std::uint32_t first = reg_get_dword(reg_local(), kProviderKey, "Ephemerides", 0);
  EXPECT_EQ(first, 1767225600u);   // the fake clock's 2026-01-01
  EXPECT_EQ(g_provider.kr2.identity().ephemerides, first);
  TimeProvClose(reinterpret_cast<platform::TimeProvHandle>(1));
  platform::fake::AdvanceSystemTime(36'000'000'000);   // an hour later
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  EXPECT_EQ(reg_get_dword(reg_local(), kProviderKey, "Ephemerides", 0), first);
  EXPECT_EQ(g_provider.kr2.identity().product_code, 7u);
  EXPECT_STREQ(g_provider.kr2.identity().version, "4.2.b.20081210R");
  EXPECT_STREQ(g_provider.kr2.identity().computer_name, "TESTBOX");
  EXPECT_EQ(g_provider.kr2.status().product_code, 7u);
  EXPECT_STREQ(g_provider.kr2.status().partner_name, "(none since startup)");
}

TEST_F(ProviderTest, NoSampleBeforeTheFirstCheck) {
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  platform::TimeSample buf;
  std::memset(&buf, 0xAB, sizeof buf);
  platform::TpcGetSamplesArgs args{reinterpret_cast<std::uint8_t*>(&buf), sizeof buf, 9, 9};
  EXPECT_EQ(TimeProvCommand(nullptr, platform::TPC_GetSamples, &args), 0);
  EXPECT_EQ(args.dwSamplesReturned, 0u);
  EXPECT_EQ(args.dwSamplesAvailable, 0u);
  EXPECT_EQ(reinterpret_cast<std::uint8_t*>(&buf)[0], 0xAB);   // nothing copied
}

TEST_F(ProviderTest, ASampleIsCopiedWholeWhenAvailable) {
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  g_provider.current_sample = {};
  g_provider.current_sample.dwSize = 568;
  g_provider.current_sample.toOffset = -12'345;
  g_provider.current_sample.wszUniqueName[0] = u'x';
  g_provider.sample_available = true;
  platform::TimeSample buf{};
  platform::TpcGetSamplesArgs args{reinterpret_cast<std::uint8_t*>(&buf), 0, 0, 0};   // the size is not looked at
  EXPECT_EQ(TimeProvCommand(nullptr, platform::TPC_GetSamples, &args), 0);
  EXPECT_EQ(args.dwSamplesReturned, 1u);
  EXPECT_EQ(args.dwSamplesAvailable, 1u);
  EXPECT_EQ(std::memcmp(&buf, &g_provider.current_sample, 568), 0);
  g_provider.sample_available = false;
}

TEST_F(ProviderTest, CommandsTwoFourFiveSixDoNothingAndSevenIsInvalid) {
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  const W32tSettings before = g_provider.settings;
  for (int code : {2, 4, 5, 6}) {
    EXPECT_EQ(TimeProvCommand(nullptr, static_cast<platform::TimeProvCmd>(code), nullptr), 0) << code;
    EXPECT_EQ(platform::WaitForEvent(g_provider.time_jump_event, 0), platform::kWaitTimeout) << code;
  }
  EXPECT_EQ(TimeProvCommand(nullptr, static_cast<platform::TimeProvCmd>(7), nullptr), 87);
  EXPECT_EQ(TimeProvCommand(nullptr, static_cast<platform::TimeProvCmd>(-1), nullptr), 87);
  EXPECT_EQ(std::memcmp(&before, &g_provider.settings, sizeof before), 0);
  EXPECT_EQ(Running(), "True");   // TPC_Shutdown tears nothing down
}

TEST_F(ProviderTest, TimeJumpedSetsTheEventAndUpdateConfigReloads) {
  const int asked_before = TimeServiceFake::sys_info_calls;
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  // The running agent waits on (and takes) the event it was started with. Once it has polled the
  // time service it waits on its own copy of the handles, so the test's own event stands in.
  for (int i = 0; i < 500 && TimeServiceFake::sys_info_calls == asked_before; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_NE(TimeServiceFake::sys_info_calls, asked_before) << "the agent never polled the time service";
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const platform::EventHandle agent_event = g_provider.time_jump_event;
  g_provider.time_jump_event = platform::CreateSyncEvent(false, false);
  EXPECT_EQ(TimeProvCommand(nullptr, platform::TPC_TimeJumped, nullptr), 0);
  EXPECT_EQ(platform::WaitForEvent(g_provider.time_jump_event, 0), platform::kWaitObject0);
  platform::CloseEvent(g_provider.time_jump_event);
  g_provider.time_jump_event = agent_event;
  EXPECT_EQ(g_provider.settings.check_interval, 1800u);
  reg_set_dword(reg_local(), kProviderKey, "SpecialPollInterval", 60);
  EXPECT_EQ(g_provider.settings.check_interval, 1800u);
  EXPECT_EQ(TimeProvCommand(nullptr, platform::TPC_UpdateConfig, nullptr), 0);
  EXPECT_EQ(g_provider.settings.check_interval, 60u);
}

TEST_F(ProviderTest, WithoutTheProhibitedValueFourCommandsAreRefused) {
  std::array<std::uint8_t, kKr2CommandCount> table{};
  BuildProhibitedTable(table);
  int known = 0;
  for (std::uint32_t code = 0; code < 256; ++code) {
    if (!IsKnownKr2Command(code)) {
      EXPECT_EQ(table[code], 128) << code;
      continue;
    }
    ++known;
    const bool refused = code == 102 || code == 150 || code == 160 || code == 180;
    EXPECT_EQ(table[code], refused ? 1 : 0) << code;
  }
  EXPECT_EQ(known, 35);
  EXPECT_NE(table[8], 0);
}

TEST_F(ProviderTest, AnAllZeroProhibitedValueAllowsAllKnownCommands) {
  const std::array<std::uint8_t, 16> zeros{};
  reg_set_binary(reg_local(), kW32TimeParametersKey, "Prohibited KR2 Commands", zeros.data(), zeros.size());
  std::array<std::uint8_t, kKr2CommandCount> table{};
  BuildProhibitedTable(table);
  for (std::uint32_t code = 0; code < 256; ++code) EXPECT_EQ(table[code], IsKnownKr2Command(code) ? 0 : 128) << code;
  EXPECT_EQ(table[8], 128);
}

TEST_F(ProviderTest, TheProhibitedValueRefusesWhatItMarks) {
  std::array<std::uint8_t, 201> value{};   // shorter than the table: the rest stays allowed
  value[0] = 1;
  value[200] = 3;
  reg_set_binary(reg_local(), kW32TimeParametersKey, "Prohibited KR2 Commands", value.data(), value.size());
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  EXPECT_EQ(g_provider.kr2.prohibited()[0], 1);
  EXPECT_EQ(g_provider.kr2.prohibited()[200], 3);
  EXPECT_EQ(g_provider.kr2.prohibited()[102], 0);
  EXPECT_EQ(g_provider.kr2.prohibited()[204], 0);
  EXPECT_EQ(g_provider.kr2.prohibited()[255], 128);
}

TEST_F(ProviderTest, ALongEventTextIsCutAt509BeforeTheLineEnd) {
  ProviderUseCallbacks(callbacks_);
  const std::string long_text(600, 'x');
  LogEvent(kProviderName, platform::kEventLogWarning, "%s", long_text.c_str());
  LogEvent(kProviderName, platform::kEventLogError, "short %d", 5);
  const auto events = TimeServiceFake::Events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].type, 2);
  EXPECT_EQ(events[0].source, "Chronwarden");
  EXPECT_EQ(events[0].text, std::string(509, 'x') + "\r\n");
  EXPECT_EQ(events[1].type, 1);
  EXPECT_EQ(events[1].text, "short 5\r\n");
}

TEST_F(ProviderTest, ASecondStartupCreatesNothingNew) {
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  const ProviderGlobals& p = g_provider;
  const auto shutdown = p.shutdown_event, sync = p.sync_event, jump = p.time_jump_event, client = p.client_event;
  const auto thread = p.agent_thread;
  platform::fake::FailEventCreate(1);   // any new event would fail start-up
  platform::fake::FailThreadCreate(true);
  EXPECT_TRUE(ProviderStartup());
  EXPECT_EQ(p.shutdown_event, shutdown);
  EXPECT_EQ(p.sync_event, sync);
  EXPECT_EQ(p.time_jump_event, jump);
  EXPECT_EQ(p.client_event, client);
  EXPECT_EQ(p.agent_thread, thread);
  platform::fake::FailEventCreate(0);
  platform::fake::FailThreadCreate(false);
}

TEST_F(ProviderTest, ForcedDisableFailsSilently) {
  reg_set_bool(reg_local(), kKaironClientParams, "Force Chronwarden Disable", 1);
  EXPECT_EQ(Open(), nullptr);
  EXPECT_TRUE(TimeServiceFake::Events().empty());
  char version[32];
  reg_get_string(reg_local(), kProviderKey, "Current Version", version, sizeof version, "");
  EXPECT_STREQ(version, "4.2.b.20081210R");   // written before the test
  ExpectNothingLeft();
}

// A start-up that fails at step `step` writes `text` (then the error's own text) and leaves nothing.
struct StepFailure {
  const char* name;
  void (*inject)();
  const char* text;
};

class ProviderStepTest : public ProviderTest, public ::testing::WithParamInterface<StepFailure> {};

TEST_P(ProviderStepTest, FailsWithItsEventAndLeavesNothingHalfMade) {
  GetParam().inject();
  EXPECT_EQ(Open(), nullptr);
  const auto events = TimeServiceFake::Events();
  for (const auto& e : events) SCOPED_TRACE(e.text);
  ASSERT_EQ(events.size(), 1u) << events[0].text << " / " << events.back().text;
  EXPECT_EQ(events[0].type, 1);
  EXPECT_EQ(events[0].text.rfind(GetParam().text, 0), 0u) << events[0].text;
  EXPECT_EQ(events[0].text.substr(events[0].text.size() - 2), "\r\n");
  EXPECT_GT(events[0].text.size(), std::strlen(GetParam().text) + 2);   // the error's text follows
  ExpectNothingLeft();
  // And the next start-up works.
  platform::fake::FailNetStartup(0);
  platform::fake::FailEventCreate(0);
  platform::fake::FailThreadCreate(false);
  EXPECT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, ProviderStepTest,
    ::testing::Values(
        StepFailure{"Winsock", [] { platform::fake::FailNetStartup(10091); }, "Could not initialize winsock subsystem; "},
        StepFailure{"ShutdownEvent", [] { platform::fake::FailEventCreate(1); }, "Could not create shutdown event; "},
        StepFailure{"SyncEvent", [] { platform::fake::FailEventCreate(2); }, "Could not create sync event; "},
        StepFailure{"TimeJumpEvent", [] { platform::fake::FailEventCreate(3); },
                    "Could not create timejump notification event; "},
        StepFailure{"ClientEvent", [] { platform::fake::FailEventCreate(4); }, "Could not create client event; "},
        StepFailure{"AgentThread", [] { platform::fake::FailThreadCreate(true); }, "Could not create client thread; "}),
    [](const ::testing::TestParamInfo<StepFailure>& info) { return std::string(info.param.name); });

// A damaged store is no set of defaults: the start-up fails with the registry's reason, and a new
// configuration from a store that became unreadable keeps the settings last read.
TEST_F(ProviderTest, ADamagedStoreFailsTheStartUpAndKeepsTheLastSettings) {
  if (!std::filesystem::exists(root_ / "registry.db")) GTEST_SKIP() << "the registry is no file of the machine root here";
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  const std::uint32_t interval = g_provider.settings.check_interval;
  const auto damaged = root_ / "damaged";
  std::filesystem::create_directories(damaged);
  std::ofstream(damaged / "registry.db") << std::string(8192, 'x');
  platform::SetEnvironmentValue("CHRONWARDEN_ROOT", damaged.string().c_str());
  g_provider.settings.check_interval = interval + 7;
  TimeServiceFake::Clear();
  EXPECT_EQ(TimeProvCommand(reinterpret_cast<platform::TimeProvHandle>(1), platform::TPC_UpdateConfig, nullptr), 0);
  EXPECT_EQ(g_provider.settings.check_interval, interval + 7);   // kept, not defaults
  auto events = TimeServiceFake::EventsBesidesUnverified();   // the agent may warn of no sources by now
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].type, 1);
  EXPECT_EQ(events[0].text.rfind("Could not read the time service settings; the last ones read stay in use. The registry "
                                 "is corrupted.", 0), 0u) << events[0].text;
  TimeProvClose(reinterpret_cast<platform::TimeProvHandle>(1));
  TimeServiceFake::Clear();
  EXPECT_EQ(Open(), nullptr);
  events = TimeServiceFake::Events();
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events[0].text.rfind("Could not read the time service settings; The registry is corrupted.", 0), 0u)
      << events[0].text;
}

TEST_F(ProviderTest, AnUnopenableDriftFileOnlyWarns) {
  std::snprintf(g_w32t_env.system_dir, sizeof g_w32t_env.system_dir, "%s\\no\\such\\folder\\", root_.string().c_str());
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  const auto events = TimeServiceFake::EventsBesidesUnverified();   // the agent may warn of no sources by now
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].type, 2);
  const std::string expected = std::string("Unable to open ") + g_w32t_env.system_dir +
                               "drift.kr to collect drift records; the service will continue running, but historical "
                               "drift data will not be available. Error: ";
  EXPECT_EQ(events[0].text.rfind(expected, 0), 0u) << events[0].text;
  EXPECT_EQ(events[0].text.find("successfully"), std::string::npos) << events[0].text;   // the real error's text
  EXPECT_EQ(Running(), "True");
}

TEST_F(ProviderTest, AnOwnerOfTheStatusBlockKeepsTheResponderAway) {
  ASSERT_NE(OpenSyncStatus(3, nullptr), nullptr);   // this process plays the family's service
  // The provider shares this process's view: it is the owner's.
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  EXPECT_FALSE(g_provider.responder_active);
  EXPECT_EQ(g_provider.kr2.listen_socket(), platform::kInvalidSocket);
  EXPECT_NE(g_provider.status_notify_event, nullptr);
  EXPECT_FALSE(g_provider.status_notify_private);
}

// The responder answers for the system the start-up identified: on Windows 2000 a resync request
// is refused ("NAK") and the installed-product record carries that level's bit, not the newest's.
TEST_F(ProviderTest, TheResponderAnswersForTheOsLevelTheStartUpFound) {
  const OsFacts saved = g_os;
  g_os.level = 2048;
  g_os.version.platform_id = 2;
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  ASSERT_TRUE(g_provider.responder_active);
  std::uint16_t port = 0;
  if (!platform::ServicePort("kaironsync", "udp", port)) port = platform::HostToNet16(9909);
  Kr2Peer peer;
  ASSERT_TRUE(Kr2Open(peer, "127.0.0.1", platform::NetToHost16(port), 2000));
  char word[4] = {};
  EXPECT_EQ(Kr2Ask(peer, kKr2Resync, 0, word, sizeof word), 4);
  EXPECT_EQ(std::string(word, 3), "NAK");
  Kr2Products products{};
  ASSERT_EQ(Kr2Ask(peer, kKr2Products, 0, &products, sizeof products), static_cast<int>(sizeof products));
  EXPECT_NE(products.machine_flags & (1u << 18), 0u);   // Windows 2000
  EXPECT_EQ(products.machine_flags & (1u << 27), 0u);   // not the newest systems' bit
  EXPECT_NE(products.machine_flags & kKr2MachineNtFamily, 0u);
  Kr2Close(peer);
  g_os = saved;
}

// A second start-up while the agent runs with its socket: one agent, and the responder still answers.
TEST_F(ProviderTest, ASecondStartUpWhileTheAgentRunsKeepsTheResponderAnswering) {
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  const platform::ThreadHandle agent = g_provider.agent_thread;
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  EXPECT_EQ(g_provider.agent_thread, agent);
  ASSERT_TRUE(g_provider.responder_active);
  std::uint16_t port = 0;
  if (!platform::ServicePort("kaironsync", "udp", port)) port = platform::HostToNet16(9909);
  Kr2Peer peer;
  ASSERT_TRUE(Kr2Open(peer, "127.0.0.1", platform::NetToHost16(port), 2000));
  char word[4] = {};
  EXPECT_EQ(Kr2Ask(peer, 0, 0, word, sizeof word), 4);
  EXPECT_EQ(std::string(word, 3), "ACK");
  Kr2Close(peer);
}

TEST_F(ProviderTest, WithoutAnOwnerTheResponderListens) {
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  EXPECT_NE(g_provider.status_block, nullptr);
  EXPECT_TRUE(g_provider.responder_active);
  EXPECT_NE(g_provider.kr2.listen_socket(), platform::kInvalidSocket);
  EXPECT_FALSE(Kr2PortFree());   // the port is taken: a second socket cannot bind it
}

TEST_F(ProviderTest, WithoutABlockThereIsNoResponderAndAPrivateNotifyEvent) {
  platform::fake::FailNamedObject("Global\\kairtim-sync-status-shared-memory", 5);
  platform::fake::FailNamedObject("Global\\kairtim-sync-status-notify-event", 5);
  platform::fake::FailNamedObject("kairtim-sync-status-notify-event", 5);
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  EXPECT_EQ(g_provider.status_block, nullptr);
  EXPECT_FALSE(g_provider.responder_active);
  EXPECT_NE(g_provider.status_notify_event, nullptr);
  EXPECT_TRUE(g_provider.status_notify_private);
  TimeProvClose(reinterpret_cast<platform::TimeProvHandle>(1));
  ExpectNothingLeft();
}

TEST_F(ProviderTest, ABusyPortWritesTheListenSocketEventAndStartupGoesOn) {
  platform::SocketHandle holder = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
  std::uint16_t port = 0;
  if (!platform::ServicePort("kaironsync", "udp", port)) port = platform::HostToNet16(9909);
  ASSERT_TRUE(platform::BindV4(holder, {platform::kFamilyInet, port, 0}));
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  EXPECT_FALSE(g_provider.responder_active);
  const auto events = TimeServiceFake::EventsBesidesUnverified();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].type, 1);
  EXPECT_EQ(events[0].text.rfind("Could not create listen socket; Error 10048", 0), 0u) << events[0].text;
  platform::CloseSocket(holder);
}

// Registry values the provider writes only to report (its version, whether it runs, the partner and
// the source history): a store that refuses them neither fails the start-up nor stops the agent.
TEST_F(ProviderTest, RefusedReportingWritesNeitherFailTheStartUpNorStopTheAgent) {
  for (const char* value : {"Current Version", "Service Running", defaults::kPartnerValue, defaults::kLastUsedTimeSourceValue})
    platform::fake::FailRegistryWrite(value, platform::kErrorAccessDenied);
  ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
  EXPECT_NE(g_provider.agent_thread, nullptr);
  EXPECT_TRUE(g_provider.responder_active);
  for (const auto& e : TimeServiceFake::EventsBesidesUnverified()) ADD_FAILURE() << "unexpected event: " << e.text;
  // The agent goes on polling the time service (one poll a second, real time).
  const int asked = TimeServiceFake::sys_info_calls;
  ASSERT_TRUE(WaitUntil([&] { return TimeServiceFake::sys_info_calls > asked; })) << "the agent stopped polling";
  EXPECT_EQ(Running(), "(missing)");
  char text[64];
  reg_get_string(reg_local(), kProviderKey, "Current Version", text, sizeof text, "(missing)");
  EXPECT_STREQ(text, "(missing)");
  reg_get_string(reg_local(), kProviderKey, defaults::kPartnerValue, text, sizeof text, "(missing)");
  EXPECT_STREQ(text, "(missing)");
  // Other values still reach the store: only the named ones were refused.
  EXPECT_EQ(reg_get_dword(reg_local(), kProviderKey, "Ephemerides", 0), 1767225600u);
  EXPECT_EQ(TimeProvClose(reinterpret_cast<platform::TimeProvHandle>(1)), 0);
  EXPECT_EQ(g_provider.agent_thread, nullptr);
  EXPECT_EQ(Running(), "(missing)");
}

// An agent that does not end: with "InputProvider" set the agent reports to the time service first
// thing, and this service's status call holds it there until the test lets it go.
struct HeldAgent {
  static inline std::mutex mutex;
  static inline std::condition_variable cv;
  static inline bool held = false;
  static inline bool released = false;
  static platform::HResult SetProviderStatus(platform::SetProviderStatusInfo* info) {
    std::unique_lock lock(mutex);
    held = true;
    cv.wait(lock, [] { return released; });
    if (info && info->pfnFree) info->pfnFree(info);
    return 0;
  }
  static bool Held() {
    std::lock_guard lock(mutex);
    return held;
  }
  static void Release() {
    {
      std::lock_guard lock(mutex);
      released = true;
    }
    cv.notify_all();
  }
};

constexpr std::int64_t kCounterTicksPerMs = 10'000;   // the fake counter runs at 10 MHz

class ProviderShutdownTest : public ProviderTest {
 protected:
  void SetUp() override {
    ProviderTest::SetUp();
    HeldAgent::held = HeldAgent::released = false;
    reg_set_dword(reg_local(), kProviderKey, "InputProvider", 1);
    callbacks_.pfnSetProviderStatus = HeldAgent::SetProviderStatus;
  }
  void TearDown() override {
    ReleaseAgent();
    if (shutdown_.joinable()) shutdown_.join();
    ProviderTest::TearDown();
  }
  // Starts the provider with its agent held at its start.
  void StartHeld() {
    ASSERT_EQ(Open(), reinterpret_cast<platform::TimeProvHandle>(1));
    ASSERT_TRUE(WaitUntil(HeldAgent::Held)) << "the agent never reported to the time service";
  }
  // Runs shut-down on a thread of its own; returns once it waits for the threads (the shutdown
  // event set: its deadline is taken).
  void ShutDownInTheBackground() {
    const platform::EventHandle shutdown = g_provider.shutdown_event;
    shutdown_ = std::thread([this] {
      TimeProvClose(reinterpret_cast<platform::TimeProvHandle>(1));
      done_ = true;
    });
    ASSERT_TRUE(WaitUntil([&] { return platform::WaitForEvent(shutdown, 0) == platform::kWaitObject0; }));
  }
  // Lets a held agent go after a shut-down that gave up on it: it finds a set shutdown event of
  // its own (the provider's were closed under it) and ends.
  void ReleaseAgent() {
    if (!HeldAgent::Held() || HeldAgent::released) return;
    if ((shutdown_.joinable() && !done_) || g_provider.agent_thread) {
      // No shut-down yet, or one still waiting: the agent goes on with the provider's events.
      HeldAgent::Release();
      if (shutdown_.joinable()) shutdown_.join();
      return;
    }
    if (shutdown_.joinable()) shutdown_.join();
    ProviderGlobals& p = g_provider;
    if (!p.shutdown_event) p.shutdown_event = platform::CreateSyncEvent(true, true);
    for (platform::EventHandle* e : {&p.sync_event, &p.time_jump_event, &p.client_event})
      if (!*e) *e = platform::CreateSyncEvent(false, false);
    if (!p.status_notify_event) {
      p.status_notify_event = platform::CreateSyncEvent(false, false);
      p.status_notify_private = true;
    }
    HeldAgent::Release();
    EXPECT_TRUE(WaitUntil([] { return Partner() == "Unknown - Agent stopped"; })) << Partner();
  }
  static std::string Partner() {
    char text[64];
    reg_get_string(reg_local(), kProviderKey, defaults::kPartnerValue, text, sizeof text, "(missing)");
    return text;
  }
  // Every shut-down step after the wait ran: nothing of the start-up is left, the drift file closed.
  static void ExpectTornDown() {
    ExpectNothingLeft();
    DriftRecord record;
    EXPECT_FALSE(DriftFileReadAfter(record, 0)) << "the drift file is still open";
  }
  // The drift file holds a record (the open file reads it back; a closed one does not).
  static void PutADriftRecord() {
    DriftFileAppend(5, 1767225600, 0, 1, "127.0.0.1", 7);
    DriftRecord record;
    ASSERT_TRUE(DriftFileReadAfter(record, 0));
  }
  std::thread shutdown_;
  std::atomic<bool> done_{false};
  std::atomic<int> looks_{0};   // counter reads seen by the test's hooks
};

TEST_F(ProviderShutdownTest, AnAgentThatDoesNotEndIsLeftAfterThirtySecondsAndShutDownGoesOn) {
  StartHeld();
  PutADriftRecord();
  const ProviderGlobals& p = g_provider;
  const std::vector<platform::EventHandle> agents_events = {p.shutdown_event, p.sync_event, p.time_jump_event,
                                                            p.client_event, p.status_notify_event};
  const bool notify_private = p.status_notify_private;
  ShutDownInTheBackground();
  // One millisecond short of the 30 s: shut-down reads the counter twice more and still waits.
  platform::fake::AdvanceCounter((kAgentStopWaitMs - 1) * kCounterTicksPerMs);
  platform::fake::OnNextCounterRead([this] {
    ++looks_;
    platform::fake::OnNextCounterRead([this] { ++looks_; });
  });
  ASSERT_TRUE(WaitUntil([&] { return looks_ == 2; })) << "shut-down stopped looking at its deadline";
  EXPECT_FALSE(done_);
  platform::fake::AdvanceCounter(kCounterTicksPerMs);
  ASSERT_TRUE(WaitUntil([&] { return done_.load(); })) << "shut-down did not give up at 30 s";
  shutdown_.join();
  EXPECT_TRUE(HeldAgent::Held());   // the agent never ended
  ExpectTornDown();
  EXPECT_TRUE(Kr2PortFree());   // the responder's socket is closed
  // The events the agent waits on are left to it, alive (a closed one would be freed memory under
  // ASan), the shutdown event set so that its next wait ends it.
  EXPECT_EQ(platform::WaitForEvent(agents_events[0], 0), platform::kWaitObject0);
  for (std::size_t i = 1; i < agents_events.size(); ++i) {
    if (i + 1 < agents_events.size() || notify_private) {
      EXPECT_EQ(platform::WaitForEvent(agents_events[i], 0), platform::kWaitTimeout) << i;
    }
  }
  ReleaseAgent();
  for (std::size_t i = 0; i < agents_events.size(); ++i)
    if (i + 1 < agents_events.size() || notify_private) platform::CloseEvent(agents_events[i]);
}

// The precise clock's threads get what is left of the same 30 s, not 30 s more: with the agent and
// a clock thread both never ending, shut-down returns once the counter has moved 30 s in all.
TEST_F(ProviderShutdownTest, TheClockThreadsShareTheAgentsThirtySeconds) {
  // A clock thread that the provider's shutdown event does not stop: the clock already runs on a
  // stop event of the test's, so the provider's start-up finds it running and leaves it.
  const platform::UniqueEvent clock_stop(platform::CreateSyncEvent(true, false));
  ASSERT_EQ(PreciseClockStart(clock_stop.get()), 1);
  ASSERT_TRUE(WaitUntil([] { return PreciseClockStateRef().running.load() == 1; }));
  StartHeld();
  const platform::EventHandle shutdown = g_provider.shutdown_event;
  // The agent never ends either: the events it waits on are left to it, closed here once it has.
  const ProviderGlobals& p = g_provider;
  std::vector<platform::EventHandle> agents_events = {p.sync_event, p.time_jump_event, p.client_event};
  if (p.status_notify_private) agents_events.push_back(p.status_notify_event);
  ShutDownInTheBackground();
  platform::fake::AdvanceCounter(kAgentStopWaitMs * kCounterTicksPerMs);
  const bool returned = WaitUntil([&] { return done_.load(); });
  const std::uint32_t clock_threads = PreciseClockThreadCount();
  platform::SetEvent(clock_stop.get());   // (a shut-down still waiting ends now)
  shutdown_.join();
  ASSERT_TRUE(WaitUntil([] { return PreciseClockThreadCount() == 0; }));
  EXPECT_TRUE(returned) << "the clock's threads were given more than the one 30 s";
  EXPECT_EQ(clock_threads, 1u);   // shut-down returned with the clock thread still running
  ExpectTornDown();               // its shutdown event is left to the clock thread, not closed
  ReleaseAgent();
  if (returned && clock_threads == 1) {
    platform::CloseEvent(shutdown);
    for (platform::EventHandle e : agents_events) platform::CloseEvent(e);
  }
}

}  // namespace
