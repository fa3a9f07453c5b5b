// A fixture for the property pages in memory: a registry of the test's own, the W32Time keys
// cleared, the fake clock on (sleeps and host look-ups stay in the process), the service layer
// replaced by a recording stand-in, a system directory of the test's own, and the shared settings
// record loaded. Open() makes an in-memory sheet of the chosen pages.
#pragma once
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "applet/applet.h"
#include "config/service_control.h"
#include "config/w32time.h"
#include "platform/dialog_memory.h"
#include "platform/testing/fake.h"
#include "resources/resources.h"
#include "tests/registry_fixture.h"

// Service control as the tests see it: every call recorded, "W32Time" running or not.
struct RecordedServices {
  static inline std::vector<std::string> calls;
  static inline bool running = true;
  static inline std::uint32_t resync_result = 0;   // what the resync trigger returns
  static int control(platform::Dialog*, const char* machine, std::uint32_t code, std::uint32_t show) {
    calls.push_back("control " + std::string(machine ? machine : "") + " " + std::to_string(code) + " " +
                    std::to_string(show));
    if (code == kServiceOpQuery) return running;
    if (code == kServiceOpStop) running = false;
    if (code == kServiceOpStart) running = true;
    return 1;
  }
  static int restart(platform::Dialog*, const char* machine, const char* service) {
    calls.push_back("restart " + std::string(machine) + " " + service);
    return 1;
  }
  static std::uint32_t resync(platform::Dialog*, const char* machine, std::uint32_t wait, std::uint32_t flags) {
    calls.push_back("resync " + std::string(machine) + " " + std::to_string(wait) + " " + std::to_string(flags));
    return resync_result;
  }
};

class PageTest : public RegistryTest {
 protected:
  static constexpr const char* kW32TimeKey = "\\\\System\\CurrentControlSet\\Services\\W32Time";
  static constexpr const char* kProviderKey = "\\\\System\\CurrentControlSet\\Services\\W32Time\\TimeProviders\\Chronwarden";

  void SetUp() override {
    RegistryTest::SetUp();
    sandbox_->Clear(kW32TimeKey);
    sandbox_->Clear("\\\\Software\\Morvane\\Kairon Server");
    sandbox_->Clear("\\\\Software\\Morvane\\Kairon Client");
    platform::fake::Enable();
    resources::RegisterDialogs();
    platform::UseMemoryDialogs(true);
    platform::memory_ui::Reset();
    saved_env_ = g_w32t_env;
    saved_services_ = g_applet_services;
    g_applet_services = {RecordedServices::control, RecordedServices::restart, RecordedServices::resync};
    RecordedServices::calls.clear();
    RecordedServices::resync_result = 0;
    RecordedServices::running = true;
    g_applet.target[0] = '\0';
    g_applet.quiet = 0;
    g_applet.helper = nullptr;
    g_w32t_env.system_dir[0] = '\0';
    w32t_environment_init(reg_local());
    sysdir_ = std::filesystem::temp_directory_path() / ("cw-sys-" + sandbox_->unique());
    std::filesystem::create_directories(sysdir_);
    SetSystemDir(sysdir_.string() + char(std::filesystem::path::preferred_separator));
    w32t_load(reg_local(), g_applet.settings);
  }
  void TearDown() override {
    sheet_.reset();
    platform::memory_ui::Reset();
    platform::UseMemoryDialogs(false);
    g_applet_services = saved_services_;
    g_applet.target[0] = '\0';
    g_applet.helper = nullptr;
    g_w32t_env = saved_env_;
    platform::fake::Disable();
    std::error_code ec;
    std::filesystem::remove_all(sysdir_, ec);
    RegistryTest::TearDown();
  }
  void SetSystemDir(const std::string& dir) {
    std::snprintf(g_w32t_env.system_dir, sizeof g_w32t_env.system_dir, "%s", dir.c_str());
  }
  // A sheet of the given pages, started on the first one.
  platform::MemorySheet& Open(std::vector<int> ids) {
    sheet_.reset();
    pages_.clear();
    for (int id : ids) pages_.push_back({id, &applet_page_logic(id)});
    sheet_ = std::make_unique<platform::MemorySheet>(platform::SheetSpec{"Chronwarden", pages_});
    EXPECT_TRUE(sheet_->Start());
    return *sheet_;
  }

  W32tEnvironment saved_env_;
  AppletServices saved_services_;
  std::filesystem::path sysdir_;
  std::vector<platform::SheetPage> pages_;
  std::unique_ptr<platform::MemorySheet> sheet_;
};
