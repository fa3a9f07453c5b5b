// Service control of the time service against a real service manager: Linux, the supervisor of a
// fresh machine root's store; Windows/Wine, the Service Control Manager. The "W32Time" service is a
// test program of our own (test_service) registered for each test and removed afterwards.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>

#include "config/service_control.h"
#include "platform/error.h"
#include "platform/error_text.h"
#include "platform/testing/fake.h"
#include "platform/paths.h"
#include "platform/service.h"
#include "tests/registry_fixture.h"

namespace {

using namespace std::chrono_literals;

struct Shown {
  int count = 0;
  std::string text, caption;
  std::uint32_t style = 0;
  void* owner = nullptr;
};

void Capture(void* owner, const char* text, const char* caption, std::uint32_t style) {
  auto* s = static_cast<Shown*>(owner);
  ++s->count;
  s->text = text;
  s->caption = caption;
  s->style = style;
  s->owner = owner;
}

std::string Prefix() { return "Service control for W32Time (Windows Time) service failed; "; }
std::string TextOf(std::uint32_t code) {
  char buf[128];
  return SystemErrorText(code, buf, sizeof buf);
}

class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sandbox_.emplace();
    sandbox_->Clear("\\\\System\\CurrentControlSet\\Services\\W32Time");
    marker_ = (std::filesystem::temp_directory_path() / ("cw-svc-" + sandbox_->unique())).string();
    manager_ = platform::OpenServiceManager(nullptr, platform::kScManagerAllAccess);
    ASSERT_NE(manager_, nullptr) << platform::LastError();
  }
  void TearDown() override {
    platform::fake::Disable();
    std::ofstream(marker_ + ".quit") << "";
    if (service_) {
      platform::ServiceStatus st;
      if (platform::QueryServiceStatus(service_, st) && st.current_state == platform::kServiceRunning)
        platform::ControlService(service_, platform::kServiceControlStop, st);
      WaitFor(platform::kServiceStopped);
      platform::DeleteService(service_);
      platform::CloseServiceHandle(service_);
    }
    platform::CloseServiceHandle(manager_);
    for (const char* ext : {".quit", ".started", ".hup"}) std::filesystem::remove(marker_ + ext);
    sandbox_.reset();
  }
  // Registers "W32Time" as the test program in a mode ("run", "linger 300", "hang 0", ...).
  void Install(const std::string& mode, std::uint32_t start_type = platform::kServiceDemandStart) {
    const std::string cmd = std::string("\"") + TEST_SERVICE_PATH + "\" " + mode + " \"" + marker_ + "\"";
    service_ = platform::InstallService(manager_, "W32Time", "Windows Time (test)", cmd.c_str(), start_type);
    ASSERT_NE(service_, nullptr) << platform::LastError();
  }
  void Run(const std::string& mode) {
    Install(mode);
    ASSERT_TRUE(platform::StartNamedService(service_)) << platform::LastError();
    ASSERT_TRUE(WaitFor(platform::kServiceRunning));
    for (int i = 0; i < 200 && StartedPid() == 0; ++i) std::this_thread::sleep_for(20ms);   // its handlers are in place
    ASSERT_NE(StartedPid(), 0);
  }
  // Real time: up to 10 s for the state.
  bool WaitFor(std::uint32_t state) {
    platform::ServiceStatus st;
    for (int i = 0; i < 200; ++i) {
      if (platform::QueryServiceStatus(service_, st) && st.current_state == state) return true;
      std::this_thread::sleep_for(50ms);
    }
    return false;
  }
  std::uint32_t State() {
    platform::ServiceStatus st;
    EXPECT_TRUE(platform::QueryServiceStatus(service_, st));
    return st.current_state;
  }
  std::uint32_t StartType() {
    platform::ServiceConfig config;
    EXPECT_TRUE(platform::GetServiceConfig(service_, config));
    return config.start_type;
  }
  // The test program's pid as it wrote it at its start (0 before).
  long StartedPid() {
    long pid = 0;
    std::ifstream(marker_ + ".started") >> pid;
    return pid;
  }

  std::optional<RegistrySandbox> sandbox_;
  std::string marker_;
  platform::ServiceHandle manager_ = nullptr, service_ = nullptr;
  Shown shown_;
  ServiceOwner owner_{&shown_, Capture};
};

TEST_F(ServiceTest, StoppingAStoppedServiceSucceedsAtOnceWithoutAControl) {
  Install("run");
  platform::fake::Enable();
  EXPECT_EQ(ControlTimeService(&owner_, nullptr, kServiceOpStop, 1), 1);
  EXPECT_EQ(platform::LastError(), 0u);
  EXPECT_TRUE(platform::fake::Sleeps().empty());
  EXPECT_EQ(shown_.count, 0);
}

TEST_F(ServiceTest, StoppingARunningServiceWaitsUntilItHasStopped) {
  Run("linger 300");
  EXPECT_EQ(ControlTimeService(&owner_, nullptr, kServiceOpStop, 1), 1);
  EXPECT_EQ(platform::LastError(), 0u);
  EXPECT_EQ(State(), platform::kServiceStopped);
}

TEST_F(ServiceTest, AStopPendingServiceWithWaitHint10000IsPolledEvery500msUntil1237) {
  Run("hang 10000");
  reg_set_dword(reg_local(), "\\\\System\\CurrentControlSet\\Services\\W32Time", "StopWaitHint", 10000);   // the supervisor's hint
  platform::fake::Enable();
  EXPECT_EQ(ControlTimeService(&owner_, nullptr, kServiceOpStop, 1), 0);
  EXPECT_EQ(platform::LastError(), 1237u);
  const auto sleeps = platform::fake::Sleeps();
  ASSERT_EQ(sleeps.size(), 61u);
  EXPECT_EQ(sleeps[0], 250u);
  for (std::size_t i = 1; i < sleeps.size(); ++i) EXPECT_EQ(sleeps[i], 500u) << i;
  ASSERT_EQ(shown_.count, 1);
  EXPECT_EQ(shown_.text, Prefix() + TextOf(1237) + "\r\n");
  EXPECT_EQ(shown_.caption, "Chronwarden");
  EXPECT_EQ(shown_.style, 0x42030u);
  EXPECT_EQ(shown_.owner, &shown_);
}

TEST_F(ServiceTest, AStopPendingServiceWithWaitHint0IsPolledEvery100ms) {
  Run("hang 0");
  platform::fake::Enable();
  EXPECT_EQ(ControlTimeService(nullptr, nullptr, kServiceOpStop, 1), 0);   // no owner: nothing shown
  EXPECT_EQ(platform::LastError(), 1237u);
  const auto sleeps = platform::fake::Sleeps();
  ASSERT_EQ(sleeps.size(), 301u);
  for (std::size_t i = 1; i < sleeps.size(); ++i) EXPECT_EQ(sleeps[i], 100u) << i;
}

TEST_F(ServiceTest, AServiceThatGoesBackToRunningGivesMinusOneAndTheMessage) {
  // The test program goes stop pending and back to running (Windows: it reports so; Linux: it takes
  // back the supervisor's stop mark).
  Run("bounce");
  EXPECT_EQ(ControlTimeService(&owner_, nullptr, kServiceOpStop, 1), 0);
  EXPECT_EQ(platform::LastError(), 0xFFFFFFFFu);
  ASSERT_EQ(shown_.count, 1);
  const std::string head = Prefix() + "the service reported checkpoint 0, current state 4, and would not stop after ";
  EXPECT_EQ(shown_.text.substr(0, head.size()), head);
  EXPECT_NE(shown_.text.find("00 milliseconds.\r\n"), std::string::npos) << shown_.text;   // whole polls of 100 ms
  // Let go, it stops by itself: Wine's service manager would hold a second stop control for long.
  std::ofstream(marker_ + ".quit") << "";
  EXPECT_TRUE(WaitFor(platform::kServiceStopped));
}

TEST_F(ServiceTest, WithoutTheFlagAFailureIsNotShown) {
  EXPECT_EQ(ControlTimeService(&owner_, nullptr, kServiceOpQuery, 0), 0);
  EXPECT_EQ(platform::LastError(), 1060u);   // no such service
  EXPECT_EQ(shown_.count, 0);
  EXPECT_EQ(ControlTimeService(&owner_, "", kServiceOpStop, 1), 0);
  EXPECT_EQ(platform::LastError(), 1060u);
  ASSERT_EQ(shown_.count, 1);
  EXPECT_EQ(shown_.text, Prefix() + TextOf(1060) + "\r\n");
}

TEST_F(ServiceTest, StartingADisabledServiceMakesItAutomaticFirst) {
  Install("run", platform::kServiceDisabledStart);
  EXPECT_EQ(ControlTimeService(&owner_, nullptr, kServiceOpStart, 1), 1);
  EXPECT_EQ(platform::LastError(), 0u);
  EXPECT_EQ(StartType(), platform::kServiceAutoStart);
  EXPECT_TRUE(WaitFor(platform::kServiceRunning));
}

TEST_F(ServiceTest, StartingARunningServiceDoesNothing) {
  Run("run");
  const long pid = StartedPid();
  EXPECT_EQ(ControlTimeService(&owner_, nullptr, kServiceOpStart, 1), 1);
  EXPECT_EQ(StartType(), platform::kServiceDemandStart);
  EXPECT_EQ(StartedPid(), pid);
}

TEST_F(ServiceTest, QueryIsSuccessOnlyWhenRunningAndTheErrorIsZeroEitherWay) {
  Install("run");
  EXPECT_EQ(ControlTimeService(&owner_, nullptr, kServiceOpQuery, 1), 0);
  EXPECT_EQ(platform::LastError(), 0u);
  EXPECT_EQ(shown_.count, 0);
  ASSERT_TRUE(platform::StartNamedService(service_));
  ASSERT_TRUE(WaitFor(platform::kServiceRunning));
  EXPECT_EQ(ControlTimeService(&owner_, nullptr, kServiceOpQuery, 1), 1);
  EXPECT_EQ(platform::LastError(), 0u);
}

TEST_F(ServiceTest, OtherCodesAreSentAsControls) {
  Run("run");
  EXPECT_EQ(ControlTimeService(&owner_, nullptr, kServiceParamChange, 1), 1);
  bool seen = false;
  for (int i = 0; i < 100 && !seen; ++i, std::this_thread::sleep_for(20ms)) seen = std::filesystem::exists(marker_ + ".hup");
  EXPECT_TRUE(seen);
}

TEST_F(ServiceTest, RestartStopsAndStartsARunningService) {
  Run("run");
  const long pid = StartedPid();
  EXPECT_EQ(RestartService(&owner_, nullptr, "W32Time"), 1);
  EXPECT_EQ(platform::LastError(), 0u);
  EXPECT_EQ(State(), platform::kServiceRunning);
  for (int i = 0; i < 100 && StartedPid() == pid; ++i) std::this_thread::sleep_for(20ms);
  EXPECT_NE(StartedPid(), pid);
}

TEST_F(ServiceTest, RestartOfAServiceThatIsStoppingWaitsForItAndStartsItAgain) {
  Run("linger 600");
  const long pid = StartedPid();
  platform::ServiceStatus st;
  ASSERT_TRUE(platform::ControlService(service_, platform::kServiceControlStop, st)) << platform::LastError();
  ASSERT_EQ(State(), platform::kServiceStopPending);
  EXPECT_EQ(RestartService(&owner_, nullptr, "W32Time"), 1) << platform::LastError();
  EXPECT_EQ(platform::LastError(), 0u);
  EXPECT_EQ(State(), platform::kServiceRunning);
  for (int i = 0; i < 100 && StartedPid() == pid; ++i) std::this_thread::sleep_for(20ms);
  EXPECT_NE(StartedPid(), pid);
}

TEST_F(ServiceTest, RestartOfAStoppedDisabledServiceMakesItAutomaticAndStartsIt) {
  Install("run", platform::kServiceDisabledStart);
  EXPECT_EQ(RestartService(&owner_, nullptr, "W32Time"), 1);
  EXPECT_EQ(StartType(), platform::kServiceAutoStart);
  EXPECT_EQ(State(), platform::kServiceRunning);
}

TEST_F(ServiceTest, RestartOfAMissingServiceFails) {
  EXPECT_EQ(RestartService(&owner_, nullptr, "CwNoSuchService"), 0);
  EXPECT_EQ(platform::LastError(), 1060u);
}

TEST(TriggerResync, WithoutTheTimeServiceLibraryItReturnsOne) {
  // No w32time.dll under Wine; no chronyc on an empty search path on Linux.
  const char* old = std::getenv("PATH");
  const std::string saved = old ? old : "";
  platform::SetEnvironmentValue("PATH", "/nonexistent");
  EXPECT_EQ(TriggerResync(nullptr, nullptr, 0, 1), 1u);
  EXPECT_EQ(TriggerResync(nullptr, "\\\\OTHER", 0, 0), 1u);
  platform::SetEnvironmentValue("PATH", old ? saved.c_str() : nullptr);
}

}  // namespace
