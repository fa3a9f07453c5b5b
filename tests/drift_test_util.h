// Helpers for the drift tests: a fresh folder per test, records built by hand, raw file bytes.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "drift/drift_file.h"
#include "drift/drift_record.h"
#include "platform/testing/fake.h"

// A record as the provider writes it, with every field given.
inline DriftRecord MakeRecord(std::uint32_t check_time, std::int32_t variance_ms, std::uint8_t reason = kReasonScheduled,
                              std::uint32_t address = 0x0100000A /* 10.0.0.1 */, bool set = false,
                              std::uint8_t version = kDriftRecordVersion, std::uint8_t machine = kMachineChronwarden,
                              std::int32_t phase = 0) {
  DriftRecord r{};
  r.version = version;
  r.flags = static_cast<std::uint8_t>((machine << 1) | (set ? 1 : 0));
  SetDriftPhaseAdjustment(r, phase);
  r.reason = reason;
  r.check_time = check_time;
  r.variance_ms = variance_ms;
  r.address = address;
  return r;
}

inline std::vector<std::uint8_t> RecordBytes(const std::vector<DriftRecord>& records) {
  std::vector<std::uint8_t> bytes(records.size() * sizeof(DriftRecord));
  if (!records.empty()) std::memcpy(bytes.data(), records.data(), bytes.size());
  return bytes;
}

inline void WriteBytes(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline std::vector<std::uint8_t> ReadBytes(const std::filesystem::path& path) {
  std::ifstream f(path, std::ios::binary);
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

inline std::vector<DriftRecord> ReadRecords(const std::filesystem::path& path) {
  const auto bytes = ReadBytes(path);
  std::vector<DriftRecord> records(bytes.size() / sizeof(DriftRecord));
  if (!records.empty()) std::memcpy(records.data(), bytes.data(), records.size() * sizeof(DriftRecord));
  return records;
}

inline bool SameRecord(const DriftRecord& a, const DriftRecord& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// A fresh folder per test, removed afterwards; the fake clock on (no host lookups leave the test);
// the provider's file closed before and after.
class DriftFolderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::fake::Enable();
    DriftFileClose();
    std::random_device rd;
    dir_ = std::filesystem::temp_directory_path() /
           ("cw-drift-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + "-" +
            std::to_string(rd()));
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override {
    DriftFileClose();
    platform::fake::Disable();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  std::string PathOf(const std::string& name) const { return (dir_ / name).string(); }
  std::filesystem::path dir_;
};
