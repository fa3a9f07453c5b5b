// Test fixtures for the registry: a fresh machine root per test (the Linux store; Windows uses the
// system registry and ignores it) and keys of the test's own, removed again afterwards.
#pragma once
#include <cstdlib>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "config/defaults.h"
#include "config/registry.h"
#include "platform/error.h"
#include "platform/file.h"
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

// A registry of the test's own while it lives. Natively the Linux store of a fresh machine root
// (CHRONWARDEN_ROOT); on Windows the system registry, which outlives the test, so the keys a test
// touches are removed again when the sandbox goes (Own), or before and after (Clear).
class RegistrySandbox {
 public:
  RegistrySandbox() {
    std::random_device rd;
    unique_ = std::to_string(rd()) + std::to_string(rd());
    root_ = std::filesystem::temp_directory_path() / ("cw-reg-" + unique_);
    if (const char* before = std::getenv("CHRONWARDEN_ROOT")) before_ = before;
    platform::SetEnvironmentValue("CHRONWARDEN_ROOT", root_.string().c_str());
  }
  ~RegistrySandbox() {
    for (const auto& k : cleanup_) DeleteRegTree(platform::RegLocalMachine(), k);
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
    // The run's own root comes back, never the machine's.
    platform::SetEnvironmentValue("CHRONWARDEN_ROOT", before_.empty() ? nullptr : before_.c_str());
    for (auto* h : locks_) platform::FileClose(h);
  }
  RegistrySandbox(const RegistrySandbox&) = delete;
  RegistrySandbox& operator=(const RegistrySandbox&) = delete;

  // A key (path from the root of the local-machine hive) removed with its subkeys at the end.
  void Own(const std::string& root_relative) { cleanup_.push_back(root_relative); }
  // A key shared with everything else that uses the registry (a caller path of the registry
  // layer, such as \NotepadTemp): removed now, in case an earlier run left it, and at the end.
  // Tests run in parallel processes and on Windows all of them see the one system registry, so a
  // lock file named after the key is held until the sandbox goes.
  void Clear(const char* caller_path) {
    char path[defaults::kRegPathSize];
    reg_key_path(caller_path, path, sizeof path);
    std::string lock_name = std::string("cw-reg-lock-") + path;
    std::replace(lock_name.begin(), lock_name.end(), '\\', '-');
    const std::string lock = (std::filesystem::temp_directory_path() / lock_name).string();
    platform::FileHandle held;
    while (!(held = platform::FileCreate(lock, platform::kGenericWrite, 0, platform::kOpenAlways, 0))) {
      if (platform::LastError() != 32) {   // anything but another process holding it
        ADD_FAILURE() << "cannot lock " << lock << ": error " << platform::LastError();
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    locks_.push_back(held);
    DeleteRegTree(platform::RegLocalMachine(), path);
    Own(path);
  }
  const std::string& unique() const { return unique_; }
  const std::filesystem::path& root() const { return root_; }

 private:
  std::string unique_;
  std::string before_;   // CHRONWARDEN_ROOT before the sandbox
  std::filesystem::path root_;
  std::vector<std::string> cleanup_;
  std::vector<platform::FileHandle> locks_;
};

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sandbox_.emplace();
    root_ = sandbox_->root();
    tag_ = std::string("T") + ::testing::UnitTest::GetInstance()->current_test_info()->name() +
           sandbox_->unique().substr(0, 8);
  }
  void TearDown() override { sandbox_.reset(); }
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
  void Own(const std::string& root_relative) { sandbox_->Own(root_relative); }

  std::optional<RegistrySandbox> sandbox_;
  std::string tag_;
  std::filesystem::path root_;
};

// RegistryTest against each store of the local machine: the parameter is false for the machine's
// own (the machine root's file, Windows' registry) and true for the memory store, which is skipped
// where the platform has none.
class RegistryStoreTest : public RegistryTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    RegistryTest::SetUp();
    if (GetParam() && !platform::UseMemoryRegistryStore(true)) GTEST_SKIP() << "no memory store on this platform";
  }
  void TearDown() override {
    RegistryTest::TearDown();
    if (GetParam()) platform::UseMemoryRegistryStore(false);
  }
};

// The test name suffix of a RegistryStoreTest parameter.
inline std::string StoreName(const ::testing::TestParamInfo<bool>& info) { return info.param ? "Memory" : "Machine"; }
