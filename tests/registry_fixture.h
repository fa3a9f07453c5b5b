// Test fixture for the registry layer: a fresh machine root per test (the Linux store; Windows uses
// the system registry and ignores it) and key names of the test's own, removed again afterwards.
#pragma once
#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>

#include "config/registry.h"
#include "platform/paths.h"
#include "platform/registry.h"

// Deletes root\path and everything below it.
inline void DeleteRegTree(platform::RegKey root, const std::string& path) {
  platform::RegKey key = nullptr;
  if (platform::RegOpenKey(root, path, platform::kKeyRead, key) == 0) {
    std::vector<std::string> subs;
    char name[512];
    for (std::uint32_t i = 0; platform::RegEnumKey(key, i, name, sizeof name) == 0; ++i) subs.emplace_back(name);
    platform::RegCloseKey(key);
    for (const auto& s : subs) DeleteRegTree(root, path + "\\" + s);
  }
  platform::RegDeleteKey(root, path);
}

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::random_device rd;
    const std::string unique = std::to_string(rd()) + std::to_string(rd());
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    tag_ = std::string("T") + info->name() + unique.substr(0, 8);
    root_ = std::filesystem::temp_directory_path() / ("cw-reg-" + unique);
    platform::SetEnvironmentValue("CHRONWARDEN_ROOT", root_.string().c_str());
    ASSERT_EQ(reg_connect_target(nullptr), 1);
  }
  void TearDown() override {
    reg_connect_target(nullptr);
    for (const auto& k : cleanup_) DeleteRegTree(platform::RegLocalMachine(), k);
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
    platform::SetEnvironmentValue("CHRONWARDEN_ROOT", nullptr);
  }
  // A relative caller path of the test's own under the product's Parameters key.
  std::string Sub() {
    Own("Software\\Morvane\\Chronwarden\\Parameters\\" + tag_);
    return tag_;
  }
  // An absolute caller path ("\\...") of the test's own.
  std::string Abs() {
    Own("Software\\ChronwardenTest\\" + tag_);
    return "\\\\Software\\ChronwardenTest\\" + tag_;
  }
  void Own(const std::string& root_relative) { cleanup_.push_back(root_relative); }

  std::string tag_;
  std::filesystem::path root_;
  std::vector<std::string> cleanup_;
};
