// The systemd backend of the service layer against a scripted org.freedesktop.systemd1 object on a
// private dbus-daemon started by the test (never the machine's own systemd).
#include <gtest/gtest.h>
#include <signal.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "config/service_control.h"
#include "platform/error.h"
#include "platform/testing/fake.h"
#include "platform/paths.h"
#include "platform/service.h"
#include "tests/registry_fixture.h"

namespace {

namespace fs = std::filesystem;
constexpr const char* kUnitPath = "/org/freedesktop/systemd1/unit/chronwarden_2dhost_2eservice";

// The scripted manager: one unit, "chronwarden-host.service", whose states follow the script.
struct FakeSystemd {
  std::mutex mu;
  std::string active = "inactive", file_state = "disabled";
  bool can_reload = false;
  int stop_pending_reads = 0;          // ActiveState reads that stay "deactivating" after a stop
  std::string after_stop = "inactive";  // what follows them ("active": it came back)
  std::vector<std::string> calls;

  std::string Active() {
    if (active == "deactivating") {
      if (stop_pending_reads > 0) --stop_pending_reads;
      else active = after_stop;
    }
    return active;
  }
};

int Reply(sd_bus_message* m, const char* value) { return sd_bus_reply_method_return(m, "v", "s", value); }

int OnUnit(sd_bus_message* m, void* data, sd_bus_error* err) {
  auto* f = static_cast<FakeSystemd*>(data);
  if (!sd_bus_message_is_method_call(m, "org.freedesktop.DBus.Properties", "Get")) return 0;
  const char *iface = nullptr, *name = nullptr;
  sd_bus_message_read(m, "ss", &iface, &name);
  std::lock_guard lock(f->mu);
  const std::string n = name;
  if (n == "LoadState") return Reply(m, "loaded");
  if (n == "ActiveState") return Reply(m, f->Active().c_str());
  if (n == "UnitFileState") return Reply(m, f->file_state.c_str());
  if (n == "FragmentPath") return Reply(m, "/lib/systemd/system/chronwarden-host.service");
  if (n == "Description") return Reply(m, "Chronwarden time service host");
  if (n == "CanReload") return sd_bus_reply_method_return(m, "v", "b", int(f->can_reload));
  return sd_bus_error_set(err, "org.freedesktop.DBus.Error.UnknownProperty", n.c_str());
}

int OnManager(sd_bus_message* m, void* data, sd_bus_error* err) {
  auto* f = static_cast<FakeSystemd*>(data);
  const std::string member = sd_bus_message_get_member(m) ? sd_bus_message_get_member(m) : "";
  const char* unit = nullptr;
  std::lock_guard lock(f->mu);
  f->calls.push_back(member);
  if (member == "LoadUnit") {
    sd_bus_message_read(m, "s", &unit);
    if (std::string(unit) != "chronwarden-host.service")
      return sd_bus_error_set(err, "org.freedesktop.systemd1.NoSuchUnit", "no such unit");
    return sd_bus_reply_method_return(m, "o", kUnitPath);
  }
  if (member == "StartUnit") {
    if (f->file_state == "masked") return sd_bus_error_set(err, "org.freedesktop.systemd1.UnitMasked", "masked");
    f->active = "active";
    return sd_bus_reply_method_return(m, "o", "/org/freedesktop/systemd1/job/1");
  }
  if (member == "StopUnit") {
    f->active = "deactivating";
    return sd_bus_reply_method_return(m, "o", "/org/freedesktop/systemd1/job/2");
  }
  if (member == "ReloadUnit") return sd_bus_reply_method_return(m, "o", "/org/freedesktop/systemd1/job/3");
  if (member == "KillUnit") return sd_bus_reply_method_return(m, "");
  if (member == "Reload") return sd_bus_reply_method_return(m, "");
  if (member == "EnableUnitFiles") f->file_state = "enabled";
  else if (member == "DisableUnitFiles") f->file_state = "disabled";
  else if (member == "MaskUnitFiles") f->file_state = "masked";
  else if (member == "UnmaskUnitFiles") {
    if (f->file_state == "masked") f->file_state = "disabled";
  } else return 0;
  if (member == "EnableUnitFiles") return sd_bus_reply_method_return(m, "ba(sss)", 1, 0);
  return sd_bus_reply_method_return(m, "a(sss)", 0);
}

class SystemdTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sandbox_.emplace();
    dir_ = sandbox_->root() / "dbus";
    fs::create_directories(dir_);
    const std::string bus = (dir_ / "bus").string();
    // The session bus configuration: anyone may own any name, so the test plays systemd's manager.
    const std::string cmd = "dbus-daemon --session --fork --address=unix:path=" + bus + " --print-pid > " +
                            (dir_ / "pid").string();
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    std::ifstream(dir_ / "pid") >> daemon_pid_;
    const std::string address = "unix:path=" + bus;
    platform::SetEnvironmentValue("DBUS_SYSTEM_BUS_ADDRESS", address.c_str());
    platform::SetEnvironmentValue("CHRONWARDEN_SERVICE_BACKEND", "systemd");
    // The time service is the unit that the service key names.
    reg_set_string(reg_local(), "\\\\System\\CurrentControlSet\\Services\\W32Time", "SystemdUnit", "chronwarden-host.service");

    ASSERT_GE(sd_bus_new(&server_), 0);
    sd_bus_set_address(server_, address.c_str());
    sd_bus_set_bus_client(server_, 1);
    ASSERT_GE(sd_bus_start(server_), 0);
    ASSERT_GE(sd_bus_add_object(server_, nullptr, "/org/freedesktop/systemd1", OnManager, &fake_), 0);
    ASSERT_GE(sd_bus_add_object(server_, nullptr, kUnitPath, OnUnit, &fake_), 0);
    ASSERT_GE(sd_bus_request_name(server_, "org.freedesktop.systemd1", 0), 0);
    thread_ = std::thread([this] {
      while (!stop_) {
        while (sd_bus_process(server_, nullptr) > 0) {
        }
        sd_bus_wait(server_, 20'000);
      }
    });
  }
  void TearDown() override {
    platform::fake::Disable();
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    sd_bus_flush_close_unref(server_);
    if (daemon_pid_ > 0) kill(pid_t(daemon_pid_), SIGKILL);
    platform::SetEnvironmentValue("DBUS_SYSTEM_BUS_ADDRESS", nullptr);
    platform::SetEnvironmentValue("CHRONWARDEN_SERVICE_BACKEND", nullptr);
    sandbox_.reset();
  }
  void Script(const std::string& active, int stop_pending_reads = 0, const std::string& after_stop = "inactive") {
    std::lock_guard lock(fake_.mu);
    fake_.active = active;
    fake_.stop_pending_reads = stop_pending_reads;
    fake_.after_stop = after_stop;
  }
  bool Called(const std::string& member) {
    std::lock_guard lock(fake_.mu);
    return std::find(fake_.calls.begin(), fake_.calls.end(), member) != fake_.calls.end();
  }

  std::optional<RegistrySandbox> sandbox_;
  fs::path dir_;
  long daemon_pid_ = 0;
  sd_bus* server_ = nullptr;
  FakeSystemd fake_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

TEST_F(SystemdTest, StatusAndConfigurationOfTheConfiguredUnit) {
  EXPECT_EQ(platform::ServiceBackendName(), "systemd");
  Script("active");
  EXPECT_EQ(ControlTimeService(nullptr, nullptr, kServiceOpQuery, 0), 1);
  Script("inactive");
  EXPECT_EQ(ControlTimeService(nullptr, nullptr, kServiceOpQuery, 0), 0);
  EXPECT_EQ(platform::LastError(), 0u);
  auto* m = platform::OpenServiceManager(nullptr, platform::kScManagerAllAccess);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(platform::OpenNamedService(m, "CwNoSuchService", platform::kServiceAllAccess), nullptr);
  EXPECT_EQ(platform::LastError(), 1060u);
  platform::CloseServiceHandle(m);
}

TEST_F(SystemdTest, StoppingWaitsThroughDeactivating) {
  Script("active", 3);
  platform::fake::Enable();
  EXPECT_EQ(ControlTimeService(nullptr, nullptr, kServiceOpStop, 0), 1);
  EXPECT_EQ(platform::LastError(), 0u);
  EXPECT_TRUE(Called("StopUnit"));
  EXPECT_EQ(platform::fake::Sleeps().size(), 1u + 3u - 1u);   // the first pause, then one per pending read
}

TEST_F(SystemdTest, AUnitThatComesBackFromDeactivatingGivesMinusOneAndTheMessage) {
  Script("active", 2, "active");
  platform::fake::Enable();
  struct Seen {
    std::string text;
  } seen;
  ServiceOwner owner{&seen, [](void* o, const char* text, const char*, std::uint32_t) {
                       static_cast<Seen*>(o)->text = text;
                     }};
  EXPECT_EQ(ControlTimeService(&owner, nullptr, kServiceOpStop, 1), 0);
  EXPECT_EQ(platform::LastError(), 0xFFFFFFFFu);
  EXPECT_EQ(seen.text,
            "Service control for W32Time (Windows Time) service failed; the service reported checkpoint 0, current "
            "state 4, and would not stop after 100 milliseconds.\r\n");
}

TEST_F(SystemdTest, StartingAMaskedUnitUnmasksEnablesAndStartsIt) {
  {
    std::lock_guard lock(fake_.mu);
    fake_.file_state = "masked";
  }
  EXPECT_EQ(ControlTimeService(nullptr, nullptr, kServiceOpStart, 0), 1) << platform::LastError();
  EXPECT_TRUE(Called("UnmaskUnitFiles"));
  EXPECT_TRUE(Called("EnableUnitFiles"));
  EXPECT_TRUE(Called("Reload"));
  EXPECT_EQ(fake_.file_state, "enabled");
  EXPECT_EQ(fake_.active, "active");
}

TEST_F(SystemdTest, StartTypesAreEnableDisableAndMask) {
  auto* m = platform::OpenServiceManager(nullptr, platform::kScManagerAllAccess);
  auto* s = platform::OpenNamedService(m, "W32Time", platform::kServiceAllAccess);
  ASSERT_NE(s, nullptr) << platform::LastError();
  platform::ServiceConfig config;
  for (std::uint32_t type : {platform::kServiceDisabledStart, platform::kServiceDemandStart, platform::kServiceAutoStart}) {
    ASSERT_TRUE(platform::ChangeServiceStartType(s, type));
    ASSERT_TRUE(platform::GetServiceConfig(s, config));
    EXPECT_EQ(config.start_type, type);
  }
  EXPECT_EQ(config.binary_path, "/lib/systemd/system/chronwarden-host.service");
  platform::CloseServiceHandle(s);
  platform::CloseServiceHandle(m);
}

TEST_F(SystemdTest, ParametersChangedReloadsOrSendsHangUp) {
  Script("active");
  EXPECT_EQ(ControlTimeService(nullptr, nullptr, kServiceParamChange, 0), 1);
  EXPECT_TRUE(Called("KillUnit"));
  EXPECT_FALSE(Called("ReloadUnit"));
  {
    std::lock_guard lock(fake_.mu);
    fake_.can_reload = true;
  }
  EXPECT_EQ(ControlTimeService(nullptr, nullptr, kServiceParamChange, 0), 1);
  EXPECT_TRUE(Called("ReloadUnit"));
}

}  // namespace

namespace {

// What install started, remove stops: the unit of the host install made the time service is
// stopped and disabled, and the service key forgets the program; not when install did not make it
// or another provider still needs the host.
TEST_F(SystemdTest, UnregisteringStopsAndDisablesTheUnitInstallMade) {
  const char* key = "\\\\System\\CurrentControlSet\\Services\\W32Time";
  ASSERT_EQ(RegisterTimeServiceProgram(reg_local(), "/usr/local/sbin/chronwarden-host --foreground", false), 1);
  Script("active");
  {
    std::lock_guard lock(fake_.mu);
    fake_.file_state = "enabled";
  }
  platform::fake::Enable();
  EXPECT_EQ(UnregisterTimeServiceProgram(nullptr, reg_local()), 0);   // registered by hand
  EXPECT_FALSE(Called("StopUnit"));
  ASSERT_EQ(RegisterTimeServiceProgram(reg_local(), "/usr/local/sbin/chronwarden-host --foreground", true), 1);
  const std::string other = "\\\\System\\CurrentControlSet\\Services\\W32Time\\TimeProviders\\Other";
  reg_set_dword(reg_local(), other.c_str(), "Enabled", 1);
  reg_set_string(reg_local(), other.c_str(), "DllName", "other-provider.so");
  EXPECT_EQ(UnregisterTimeServiceProgram(nullptr, reg_local()), 0);   // the host still serves Other
  EXPECT_FALSE(Called("StopUnit"));
  reg_set_dword(reg_local(), other.c_str(), "Enabled", 0);
  EXPECT_EQ(UnregisterTimeServiceProgram(nullptr, reg_local()), 1) << platform::LastError();
  EXPECT_TRUE(Called("StopUnit"));
  EXPECT_TRUE(Called("DisableUnitFiles"));
  EXPECT_EQ(fake_.file_state, "disabled");
  EXPECT_EQ(fake_.active, "inactive");
  char text[256];
  for (const char* value : {"ImagePath", "SystemdUnit", "Installed By"})
    EXPECT_STREQ((reg_get_string(reg_local(), key, value, text, sizeof text, "(missing)"), text), "(missing)") << value;
  EXPECT_EQ(UnregisterTimeServiceProgram(nullptr, reg_local()), 0);   // nothing left to undo
}

}  // namespace
