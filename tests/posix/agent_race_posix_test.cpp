// What the agent thread and the time service's threads share while the agent runs: the current
// sample (written by the agent's checks, copied by TPC_GetSamples) and the settings (read by the
// agent, reloaded by TPC_UpdateConfig). A reader gets one whole version, never a mix of two; under
// ThreadSanitizer (the linux-tsan preset) the concurrent tests also fail on any unguarded access.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "config/registry.h"
#include "config/w32time.h"
#include "platform/testing/fake.h"
#include "platform/net.h"
#include "provider/agent.h"
#include "provider/provider.h"
#include "tests/fake_ntp_server.h"
#include "tests/registry_fixture.h"

namespace {

constexpr std::int64_t kMs = 10'000;
// Scripted NTP servers of these tests, each at its own offset.
constexpr const char* kServerA = "127.0.0.42";
constexpr const char* kServerB = "127.0.0.43";
constexpr std::int64_t kOffsetA = -30 * kMs;
constexpr std::int64_t kOffsetB = 70 * kMs;

FakeNtpReply Offset(std::int64_t offset) {
  FakeNtpReply r;
  r.offset = offset;
  return r;
}

// What TPC_GetSamples hands the time service now; false when it hands none.
bool SampleNow(platform::TimeSample& out) {
  platform::TpcGetSamplesArgs args{reinterpret_cast<std::uint8_t*>(&out), sizeof out, 0, 0};
  EXPECT_EQ(TimeProvCommand(reinterpret_cast<platform::TimeProvHandle>(1), platform::TPC_GetSamples, &args), 0);
  return args.dwSamplesReturned == 1;
}

// A sample is whole when every field is the one check's: the source's name, its address and its offset.
std::string WholeSampleProblem(const platform::TimeSample& s) {
  std::string name;
  for (std::size_t i = 0; i < 255 && s.wszUniqueName[i]; ++i) name += static_cast<char>(s.wszUniqueName[i]);
  const bool a = name == kServerA, b = name == kServerB;
  if (!a && !b) return "source name \"" + name + "\"";
  if (s.dwSize != sizeof(platform::TimeSample)) return "size " + std::to_string(s.dwSize) + " for " + name;
  if (s.dwRefid != platform::InetAddr(name.c_str())) return "the address of another source than " + name;
  const std::int64_t off_by = s.toOffset - (a ? kOffsetA : kOffsetB);
  if (off_by < -10 || off_by > 10)   // NTP's timestamps round to a unit or so
    return "the offset " + std::to_string(s.toOffset) + " of another source than " + name;
  if (s.nStratum != 2 || s.dwTSFlags != platform::TSF_Authenticated) return "stratum or flags unset for " + name;
  return "";
}

// The sample the time service was handed from inside the agent's check (through its callback).
std::atomic<bool> g_look_inside{false};
bool g_inside_available = false;
platform::TimeSample g_inside{};

platform::HResult GetTimeSysInfo(platform::TimeSysInfo what, void* out) {
  if (what == platform::TSI_TickCount && g_look_inside.exchange(false)) g_inside_available = SampleNow(g_inside);
  if (what == platform::TSI_TickCount || what == platform::TSI_PhaseOffset) std::memset(out, 0, 8);
  return 0;
}

class AgentNtpRaceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(platform::NetStartup(), 0);
    platform::fake::Enable();
    g_provider.settings = W32tSettings{};
    g_provider.settings.provider_input_provider = 1;
    g_provider.sample_available = false;
    g_provider.responder_active = false;   // no drift record
    ProviderUseCallbacks({sizeof(platform::TimeProvSysCallbacks), GetTimeSysInfo, nullptr, nullptr, nullptr});
  }
  void TearDown() override {
    ProviderUseCallbacks({});
    g_provider.sample_available = false;
    g_look_inside = false;
    platform::fake::Disable();
    platform::NetCleanup();
  }
  FakeNtpServer a_{kServerA, Offset(kOffsetA)};
  FakeNtpServer b_{kServerB, Offset(kOffsetB)};
};

// The service asks for the sample while a check is filling the next one (from its own callback,
// which the check calls): it gets the last whole sample, not the new one half made.
TEST_F(AgentNtpRaceTest, ASampleAskedForDuringACheckIsTheLastWholeOne) {
  ASSERT_TRUE(CheckOneSource(kServerA, 0, 1, 0));
  g_look_inside = true;
  ASSERT_TRUE(CheckOneSource(kServerB, 0, 1, 0));
  EXPECT_FALSE(g_look_inside);   // the check did call back
  ASSERT_TRUE(g_inside_available);
  EXPECT_EQ(WholeSampleProblem(g_inside), "");
  EXPECT_EQ(g_inside.dwRefid, platform::InetAddr(kServerA));
  platform::TimeSample after{};
  ASSERT_TRUE(SampleNow(after));
  EXPECT_EQ(WholeSampleProblem(after), "");
  EXPECT_EQ(after.dwRefid, platform::InetAddr(kServerB));
}

// The service's thread copies the sample while the agent's checks replace it, over and over: every
// copy is one check's whole sample.
TEST_F(AgentNtpRaceTest, SamplesCopiedWhileChecksReplaceThemAreWhole) {
  ASSERT_TRUE(CheckOneSource(kServerA, 0, 1, 0));
  constexpr int kChecks = 60;
  std::atomic<bool> done{false}, copying{false};
  std::atomic<int> answered{0};
  std::thread agent([&] {
    while (!copying) std::this_thread::yield();   // the checks start once the copies have
    for (int i = 0; i < kChecks; ++i)
      if (CheckOneSource(i % 2 ? kServerA : kServerB, 0, 1, 0)) ++answered;
    done = true;
  });
  int copies = 0;
  std::string problem;
  while (!done && problem.empty()) {
    platform::TimeSample s{};
    if (SampleNow(s)) problem = WholeSampleProblem(s);
    ++copies;
    copying = true;
  }
  agent.join();
  EXPECT_EQ(problem, "");
  EXPECT_EQ(answered, kChecks);
  EXPECT_GT(copies, 0);
}

// TPC_UpdateConfig reloads the settings on the service's thread while the agent reads them (each
// clock step has it decide whether the time service manages the clock): under ThreadSanitizer an
// unguarded read or write fails the test; both ways the agent ends with the settings last saved.
class AgentSettingsRaceTest : public RegistryTest {
 protected:
  void SetUp() override {
    RegistryTest::SetUp();
    platform::fake::Enable();
    saved_env_ = g_w32t_env;
    g_w32t_env.level = 32768;   // a system that has the provider's settings
    ASSERT_EQ(w32t_load(reg_local(), g_provider.settings), 0u);
  }
  void TearDown() override {
    g_w32t_env = saved_env_;
    platform::fake::Disable();
    RegistryTest::TearDown();
  }
  W32tEnvironment saved_env_{};
};

TEST_F(AgentSettingsRaceTest, SettingsReloadedWhileTheAgentReadsThem) {
  constexpr int kRounds = 40;
  std::atomic<bool> stop{false};
  std::atomic<int> wakes{0};
  std::thread agent([&] {
    AgentCycle cycle;
    while (!stop) {
      AgentWake(cycle, platform::kWaitObject0 + 2);   // the clock was stepped: the partner text again
      ++wakes;
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    reg_set_dword(reg_local(), kProviderKey, "SpecialPollInterval", 600 + static_cast<std::uint32_t>(i));
    EXPECT_EQ(TimeProvCommand(reinterpret_cast<platform::TimeProvHandle>(1), platform::TPC_UpdateConfig, nullptr), 0);
  }
  while (wakes < 2) std::this_thread::yield();
  stop = true;
  agent.join();
  EXPECT_EQ(ProviderSettings().check_interval, 600u + kRounds - 1);
}

}  // namespace
