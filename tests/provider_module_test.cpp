// The product module as the time service sees it: loaded by path (LoadLibrary on Windows, dlopen on
// Linux), its three entry points found by name and driven with scripted service callbacks.
#include <gtest/gtest.h>

#include <string>

#include "platform/module.h"
#include "platform/timeprov.h"
#include "tests/registry_fixture.h"
#include "tests/shared_objects.h"
#include "tests/time_service_fake.h"

namespace {

const char* const kProviderKeyPath = "\\\\System\\CurrentControlSet\\Services\\W32Time\\TimeProviders\\Chronwarden";

class ProviderModuleTest : public RegistryTest {
 protected:
  void SetUp() override {
    RegistryTest::SetUp();
    sandbox_->Clear("\\\\System\\CurrentControlSet\\Services\\W32Time");
    TimeServiceFake::Clear();
    std::filesystem::create_directories(platform::NativePath(platform::SystemDirectory()));
    module_ = platform::LoadModule(W32TMKR_PATH);
    ASSERT_NE(module_, nullptr) << platform::ModuleError();
    open_ = reinterpret_cast<platform::TimeProvOpenFunc*>(platform::ModuleSymbol(module_, "TimeProvOpen"));
    command_ = reinterpret_cast<platform::TimeProvCommandFunc*>(platform::ModuleSymbol(module_, "TimeProvCommand"));
    close_ = reinterpret_cast<platform::TimeProvCloseFunc*>(platform::ModuleSymbol(module_, "TimeProvClose"));
  }
  void TearDown() override {
    platform::UnloadModule(module_);
    RegistryTest::TearDown();
  }
  static std::string Running() {
    char text[16];
    reg_get_string(reg_local(), kProviderKeyPath, "Service Running", text, sizeof text, "(missing)");
    return text;
  }
  SharedObjectNamespace ns_;
  platform::ModuleHandle module_ = nullptr;
  platform::TimeProvOpenFunc* open_ = nullptr;
  platform::TimeProvCommandFunc* command_ = nullptr;
  platform::TimeProvCloseFunc* close_ = nullptr;
};

TEST_F(ProviderModuleTest, ExportsTheThreeEntryPointsAndNothingElseByThoseNames) {
  EXPECT_NE(open_, nullptr);
  EXPECT_NE(command_, nullptr);
  EXPECT_NE(close_, nullptr);
  EXPECT_EQ(platform::ModuleSymbol(module_, "ProviderStartup"), nullptr);   // internals stay inside
}

TEST_F(ProviderModuleTest, TheServiceStartsQueriesAndStopsTheProvider) {
  ASSERT_NE(open_, nullptr);
  platform::TimeProvSysCallbacks callbacks = TimeServiceFake::Callbacks();
  std::u16string name = u"Chronwarden";
  platform::TimeProvHandle handle = nullptr;
  ASSERT_EQ(open_(name.data(), &callbacks, &handle), 0);
  EXPECT_EQ(handle, reinterpret_cast<platform::TimeProvHandle>(1));
  EXPECT_EQ(Running(), "True");

  platform::TimeSample sample{};
  platform::TpcGetSamplesArgs args{reinterpret_cast<std::uint8_t*>(&sample), sizeof sample, 7, 7};
  EXPECT_EQ(command_(handle, platform::TPC_GetSamples, &args), 0);
  EXPECT_EQ(args.dwSamplesReturned, 0u);
  EXPECT_EQ(args.dwSamplesAvailable, 0u);
  EXPECT_EQ(command_(handle, platform::TPC_TimeJumped, nullptr), 0);
  EXPECT_EQ(command_(handle, platform::TPC_UpdateConfig, nullptr), 0);
  EXPECT_EQ(command_(handle, static_cast<platform::TimeProvCmd>(7), nullptr), 87);

  EXPECT_EQ(close_(handle), 0);
  EXPECT_EQ(Running(), "False");
  for (const auto& e : TimeServiceFake::EventsBesidesUnverified()) ADD_FAILURE() << "unexpected event: " << e.text;
}

TEST_F(ProviderModuleTest, AnotherProvidersNameIsDeclined) {
  ASSERT_NE(open_, nullptr);
  platform::TimeProvSysCallbacks callbacks = TimeServiceFake::Callbacks();
  std::u16string name = u"NtpServer";
  platform::TimeProvHandle handle = reinterpret_cast<platform::TimeProvHandle>(9);
  EXPECT_EQ(open_(name.data(), &callbacks, &handle), 0);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(Running(), "(missing)");
}

}  // namespace
