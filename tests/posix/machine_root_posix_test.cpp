// Every run of the test program has a machine root of its own: unless the runner names one
// (CHRONWARDEN_ROOT), a fresh folder under the temporary directory, and shared-memory names of its
// own (CHRONWARDEN_SHM_NAMESPACE), both gone again at the end. No test can touch the machine's
// own store in /var/lib/chronwarden or the family's segments in /dev/shm by forgetting a fixture.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

#include "platform/paths.h"

namespace {

class OwnMachineRoot final : public ::testing::Environment {
 public:
  void SetUp() override {
    const std::string tag = std::to_string(std::random_device{}()) + std::to_string(std::random_device{}());
    if (!std::getenv("CHRONWARDEN_ROOT")) {
      root_ = std::filesystem::temp_directory_path() / ("cw-test-root-" + tag);
      std::filesystem::create_directories(root_);
      setenv("CHRONWARDEN_ROOT", root_.c_str(), 1);
    }
    if (!std::getenv("CHRONWARDEN_SHM_NAMESPACE")) {
      namespace_ = "cwtest" + tag + ".";
      setenv("CHRONWARDEN_SHM_NAMESPACE", namespace_.c_str(), 1);
    }
  }
  void TearDown() override {
    std::error_code ec;
    if (!root_.empty()) std::filesystem::remove_all(root_, ec);
    // The run's shared objects (named like the family's, behind its own prefix) go with it.
    if (namespace_.empty()) return;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ec))
      if (entry.path().filename().string().rfind(namespace_, 0) == 0) std::filesystem::remove(entry.path(), ec);
  }

 private:
  std::filesystem::path root_;
  std::string namespace_;   // the one this environment made
};

[[maybe_unused]] ::testing::Environment* const kOwnMachineRoot = ::testing::AddGlobalTestEnvironment(new OwnMachineRoot);

TEST(MachineRootPosix, EveryRunHasAMachineRootAndSharedNamesOfItsOwn) {
  ASSERT_NE(std::getenv("CHRONWARDEN_ROOT"), nullptr);
  EXPECT_NE(platform::MachineRoot(), "/var/lib/chronwarden");
  ASSERT_NE(std::getenv("CHRONWARDEN_SHM_NAMESPACE"), nullptr);
}

}  // namespace
