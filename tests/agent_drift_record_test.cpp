// The agent's check when the drift history cannot take its record (a failing disk, through the
// fake's injected failures): the check goes on, the first failure of a run is logged with the
// file's path and the system's text of the error, and a record written again ends the run.
#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>

#include "drift/drift_file.h"
#include "platform/error.h"
#include "platform/testing/fake.h"
#include "platform/net.h"
#include "provider/agent.h"
#include "provider/provider.h"
#include "tests/fake_ntp_server.h"
#include "tests/time_service_fake.h"
#include "platform/error_text.h"

namespace {

constexpr const char* kServer = "127.0.0.44";
constexpr std::uint32_t kIoDeviceError = 1117;   // ERROR_IO_DEVICE
constexpr const char* kNotRecorded = "The clock check could not be recorded in the drift history ";

class AgentNtpDriftRecordTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(platform::NetStartup(), 0);
    platform::fake::Enable();
    std::random_device rd;
    dir_ = std::filesystem::temp_directory_path() / ("cw-agent-drift-" + std::to_string(rd()));
    std::filesystem::create_directories(dir_);
    ASSERT_TRUE(DriftFileOpenPath((dir_ / "drift.kr").string()));
    g_provider.settings = W32tSettings{};
    g_provider.responder_active = true;   // the agent records its checks
    ProviderUseCallbacks(TimeServiceFake::Callbacks());
    ASSERT_TRUE(CheckOneSource(kServer, 0, 1, 0));   // recorded: no run of failures under way
    TimeServiceFake::Clear();
  }
  void TearDown() override {
    ProviderUseCallbacks({});
    g_provider.responder_active = false;
    DriftFileClose();
    platform::fake::Disable();
    platform::NetCleanup();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  static int NotRecordedEvents() {
    int n = 0;
    for (const auto& e : TimeServiceFake::Events()) n += e.text.rfind(kNotRecorded, 0) == 0;
    return n;
  }
  std::filesystem::path dir_;
  FakeNtpServer server_{kServer};
};

TEST_F(AgentNtpDriftRecordTest, TheFirstFailureOfARunIsLoggedWithThePathAndTheError) {
  platform::fake::FailFileFlush(1, kIoDeviceError);
  EXPECT_TRUE(CheckOneSource(kServer, 0, 1, 0));   // the check itself goes on
  const auto events = TimeServiceFake::Events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].type, platform::kEventLogError);
  char error[256];
  SystemErrorText(kIoDeviceError, error, sizeof error);
  std::string text(error);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\r' || text.back() == '\n')) text.pop_back();
  EXPECT_EQ(events[0].text, kNotRecorded + DriftFilePath("") + ": " + text +
                                " Checks go on, and are recorded again as soon as the file can be written.\r\n");

  platform::fake::FailFileWrite(1, platform::kErrorDiskFull);
  EXPECT_TRUE(CheckOneSource(kServer, 0, 1, 0));
  EXPECT_EQ(NotRecordedEvents(), 1);   // the same run of failures: logged once
  EXPECT_TRUE(CheckOneSource(kServer, 0, 1, 0));   // recorded: the run ends
  platform::fake::FailFileFlush(1, kIoDeviceError);
  EXPECT_TRUE(CheckOneSource(kServer, 0, 1, 0));
  EXPECT_EQ(NotRecordedEvents(), 2);
  EXPECT_EQ(std::filesystem::file_size(dir_ / "drift.kr"), 2u * kDriftRecordSize);   // the checks written
}

}  // namespace
