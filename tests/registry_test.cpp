// The registry access layer, against the machine's registry (Linux: the SQLite store of a fresh
// machine root; Windows/Wine: the system registry) and, where the platform has one, the memory store.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "platform/error.h"
#include "platform/os.h"
#include "tests/registry_fixture.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Stores, RegistryStoreTest, ::testing::Bool(), StoreName);

std::string KeyPath(const char* path) {
  char buf[512];
  return reg_key_path(path, buf, sizeof buf);
}

TEST(RegKeyPath, TranslatesCallerPaths) {
  EXPECT_EQ(KeyPath(nullptr), "Software\\Morvane\\Chronwarden\\Parameters");
  EXPECT_EQ(KeyPath(""), "Software\\Morvane\\Chronwarden\\Parameters");
  EXPECT_EQ(KeyPath("Sub"), "Software\\Morvane\\Chronwarden\\Parameters\\Sub");
  EXPECT_EQ(KeyPath("\\"), "Software\\Morvane\\Chronwarden");
  EXPECT_EQ(KeyPath("\\Sub"), "Software\\Morvane\\Chronwarden\\Sub");
  EXPECT_EQ(KeyPath("\\\\System\\CurrentControlSet\\Services\\W32Time"), "System\\CurrentControlSet\\Services\\W32Time");
  EXPECT_EQ(KeyPath("\\\\X"), "X");
}

TEST(RegKeyPath, CutsToTheBuffer) {
  char small[10];
  std::memset(small, 'x', sizeof small);
  reg_key_path("", small, sizeof small);
  EXPECT_STREQ(small, "Software\\");
}

TEST_P(RegistryStoreTest, EmptyPathIsParametersBackslashIsProductKeyDoubleBackslashIsRoot) {
  const std::string v = tag_;
  ASSERT_EQ(reg_set_string(reg_local(), "", v.c_str(), "params"), 1);
  ASSERT_EQ(reg_set_string(reg_local(), "\\", v.c_str(), "product"), 1);
  char buf[64];
  EXPECT_EQ(reg_get_string(reg_local(), "\\\\Software\\Morvane\\Chronwarden\\Parameters", v.c_str(), buf, sizeof buf, nullptr), 1);
  EXPECT_STREQ(buf, "params");
  EXPECT_EQ(reg_get_string(reg_local(), "\\\\SOFTWARE\\morvane\\CHRONWARDEN", v.c_str(), buf, sizeof buf, nullptr), 1);
  EXPECT_STREQ(buf, "product");
  EXPECT_EQ(reg_delete_value(reg_local(), "", v.c_str()), 1);
  EXPECT_EQ(reg_delete_value(reg_local(), "\\", v.c_str()), 1);

  const std::string abs = Abs();
  reg_set_dword(reg_local(), abs.c_str(), "X", 7);
  platform::RegKey key = nullptr;
  ASSERT_EQ(platform::RegOpenKey(platform::RegLocalMachine(), abs.substr(2), platform::kKeyRead, key), 0u);
  std::uint32_t value = 0, size = 4, type = 0;
  EXPECT_EQ(platform::RegQueryValue(key, "X", &type, &value, &size), 0u);
  EXPECT_EQ(type, platform::kRegDword);
  EXPECT_EQ(value, 7u);
  platform::RegCloseKey(key);
}

TEST_P(RegistryStoreTest, ConnectingToTheLocalMachineByNameStaysLocalAndKeepsTheName) {
  std::string name = platform::ComputerName();
  ASSERT_FALSE(name.empty());
  std::string lower = name, upper = name;
  for (auto& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (auto& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  for (const std::string& given : {name, lower, "\\\\" + lower, "\\\\" + upper}) {
    platform::SetLastError(1234);
    RegTarget target;
    EXPECT_EQ(reg_open_target(given.c_str(), target), 1) << given;
    EXPECT_EQ(target.name(), given);
    EXPECT_EQ(target.root(), platform::RegLocalMachine());
  }
  RegTarget none;
  EXPECT_EQ(reg_open_target("", none), 1);
  EXPECT_TRUE(none.local());
}

#ifndef _WIN32
// Natively, where the test makes the other machine's root itself.
TEST_F(RegistryTest, ATargetNameIsCutTo127Characters) {
  const std::string host(125, 'H');
  const auto net = root_.parent_path() / ("cw-net-" + sandbox_->unique());
  std::filesystem::create_directories(net / host);
  platform::SetEnvironmentValue("CHRONWARDEN_NETWORK_ROOT", net.string().c_str());
  RegTarget target;
  EXPECT_EQ(reg_open_target(("\\\\" + host + "XYZ").c_str(), target), 1) << platform::LastError();
  EXPECT_EQ(target.name(), "\\\\" + host);
  EXPECT_FALSE(target.local());
  platform::SetEnvironmentValue("CHRONWARDEN_NETWORK_ROOT", nullptr);
  std::filesystem::remove_all(net);
}
#endif

TEST_P(RegistryStoreTest, FailedRemoteConnectionLeavesTheLayerLocal) {
  const std::string sub = Sub();
  platform::SetLastError(0);
  RegTarget target;
  EXPECT_EQ(reg_open_target("\\\\CW-NO-SUCH-HOST", target), 0);
  EXPECT_NE(platform::LastError(), 0u);
  EXPECT_TRUE(target.local());
  EXPECT_EQ(target.root(), platform::RegLocalMachine());
  EXPECT_EQ(reg_set_bool(target, sub.c_str(), "Works", 1), 1);
  EXPECT_EQ(reg_get_bool(reg_local(), sub.c_str(), "Works", 0), 1);
}

TEST_P(RegistryStoreTest, AbsentStringDeletesEmptyStringIsStored) {
  const std::string sub = Sub();
  ASSERT_EQ(reg_set_string(reg_local(), sub.c_str(), "S", "text"), 1);
  ASSERT_EQ(reg_set_string(reg_local(), sub.c_str(), "S", ""), 1);
  char buf[16];
  EXPECT_EQ(reg_get_string(reg_local(), sub.c_str(), "S", buf, sizeof buf, "default"), 1);
  EXPECT_STREQ(buf, "");
  std::array<std::uint8_t, 4> raw{};
  EXPECT_EQ(reg_get_binary(reg_local(), sub.c_str(), "S", raw.data(), 4), 1);  // one byte: the terminator
  EXPECT_EQ(reg_set_string(reg_local(), sub.c_str(), "S", nullptr), 1);
  EXPECT_EQ(reg_get_string(reg_local(), sub.c_str(), "S", buf, sizeof buf, "default"), 0);
  EXPECT_EQ(platform::LastError(), 2u);
  EXPECT_STREQ(buf, "default");
}

TEST_P(RegistryStoreTest, GetBoolReadsEveryForm) {
  const std::string sub = Sub();
  struct Case {
    const char* text;
    int expected;
  };
  const Case strings[] = {{"1", 1},     {"Y", 1},     {"T", 1},     {"t", 1},     {"y", 1},     {"True", 1},
                          {"yes", 1},   {"TRUE", 1},  {"Yes", 1},   {"0", 0},     {"N", 0},     {"F", 0},
                          {"n", 0},     {"f", 0},     {"False", 0}, {"Never", 0}, {"false", 0}, {"No", 1},
                          {"no", 1},    {"", 0},      {"Off", 1},   {"1234", 1},  {"maybe", 0}};
  for (const auto& c : strings) {
    for (const int def : {0, 1}) {
      ASSERT_EQ(reg_set_string(reg_local(), sub.c_str(), "B", c.text), 1);
      EXPECT_EQ(reg_get_bool(reg_local(), sub.c_str(), "B", def), c.expected) << '"' << c.text << "\" default " << def;
    }
  }
  const std::pair<std::uint32_t, int> numbers[] = {{0, 0}, {1, 1}, {2, 1}, {0xFFFFFFFF, 1}, {'0', 0}, {'N', 0}};
  for (const auto& [n, expected] : numbers) {
    reg_set_dword(reg_local(), sub.c_str(), "B", n);
    EXPECT_EQ(reg_get_bool(reg_local(), sub.c_str(), "B", 1 - expected), expected) << n;
  }
  EXPECT_EQ(reg_set_bool(reg_local(), sub.c_str(), "B", 5), 1);
  EXPECT_EQ(reg_get_bool(reg_local(), sub.c_str(), "B", 0), 1);
  char buf[8];
  EXPECT_EQ(reg_get_binary(reg_local(), sub.c_str(), "B", buf, sizeof buf), 1);
  EXPECT_EQ(std::string(buf, 5), std::string("True\0", 5));
  EXPECT_EQ(reg_set_bool(reg_local(), sub.c_str(), "B", 0), 1);
  EXPECT_EQ(reg_get_bool(reg_local(), sub.c_str(), "B", 1), 0);
  EXPECT_EQ(reg_get_binary(reg_local(), sub.c_str(), "B", buf, sizeof buf), 1);
  EXPECT_EQ(std::string(buf, 6), std::string("False\0", 6));
  // A missing value, or a missing key, gives the default.
  EXPECT_EQ(reg_get_bool(reg_local(), sub.c_str(), "Missing", 1), 1);
  EXPECT_EQ(reg_get_bool(reg_local(), sub.c_str(), "Missing", 0), 0);
  EXPECT_EQ(reg_get_bool(reg_local(), (sub + "\\NoKey").c_str(), "B", 1), 1);
}

TEST_P(RegistryStoreTest, GetBoolOfAnEmptyOrLongBinaryValue) {
  const std::string sub = Sub();
  const std::uint8_t long_true[] = {'t', 'r', 'u', 'e', 'x', 'y'};
  reg_set_binary(reg_local(), sub.c_str(), "B", long_true, sizeof long_true);
  EXPECT_EQ(reg_get_bool(reg_local(), sub.c_str(), "B", 0), 1);
  const std::uint8_t long_zero[6] = {};
  reg_set_binary(reg_local(), sub.c_str(), "B", long_zero, sizeof long_zero);
  EXPECT_EQ(reg_get_bool(reg_local(), sub.c_str(), "B", 1), 0);
}

TEST_P(RegistryStoreTest, GetStringOnAMissingValueKeepsTheDefault) {
  const std::string sub = Sub();
  char buf[8];
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(reg_get_string(reg_local(), sub.c_str(), "Missing", buf, sizeof buf, "dflt"), 0);
  EXPECT_STREQ(buf, "dflt");
  EXPECT_EQ(reg_get_string(reg_local(), sub.c_str(), "Missing", buf, sizeof buf, "a default too long"), 0);
  EXPECT_STREQ(buf, "a defau");
  EXPECT_EQ(reg_get_string(reg_local(), sub.c_str(), "Missing", buf, sizeof buf, nullptr), 0);
  EXPECT_EQ(std::string(buf, sizeof buf), std::string(sizeof buf, '\0'));
  // A value that does not fit the buffer fails with 234 and leaves the default.
  ASSERT_EQ(reg_set_string(reg_local(), sub.c_str(), "Long", "0123456789"), 1);
  EXPECT_EQ(reg_get_string(reg_local(), sub.c_str(), "Long", buf, sizeof buf, "dflt"), 0);
  EXPECT_EQ(platform::LastError(), 234u);
  EXPECT_STREQ(buf, "dflt");
  // Exactly size - 1 bytes fit and stay terminated.
  ASSERT_EQ(reg_set_string(reg_local(), sub.c_str(), "Fits", "012345"), 1);
  EXPECT_EQ(reg_get_string(reg_local(), sub.c_str(), "Fits", buf, sizeof buf, "dflt"), 1);
  EXPECT_STREQ(buf, "012345");
}

TEST_P(RegistryStoreTest, GetStringEndsMultiStringsWithADoubleZero) {
  const std::string sub = Sub();
  const char multi[] = "one\0two\0";  // without the list's final zero
  ASSERT_EQ(reg_write_value(reg_local(), sub.c_str(), "M", multi, platform::kRegMultiSz, 8), 1);
  char buf[32];
  std::memset(buf, 'x', sizeof buf);
  ASSERT_EQ(reg_get_string(reg_local(), sub.c_str(), "M", buf, sizeof buf, "zz"), 1);
  EXPECT_EQ(std::string(buf, 10), std::string("one\0two\0\0\0", 10));
  char* alloc = reg_get_string_alloc(reg_local(), sub.c_str(), "M", nullptr);
  ASSERT_NE(alloc, nullptr);
  EXPECT_EQ(std::string(alloc, 10), std::string("one\0two\0\0\0", 10));
  reg_free_string(alloc, nullptr);
}

TEST_P(RegistryStoreTest, GetStringAllocGivesANewStringOrTheDefault) {
  const std::string sub = Sub();
  char def[] = "default";
  EXPECT_EQ(reg_get_string_alloc(reg_local(), sub.c_str(), "Missing", def), def);
  EXPECT_EQ(platform::LastError(), 2u);
  const std::string big(20000, 'q');
  ASSERT_EQ(reg_set_string(reg_local(), sub.c_str(), "Big", big.c_str()), 1);
  char* s = reg_get_string_alloc(reg_local(), sub.c_str(), "Big", def);
  ASSERT_NE(s, def);
  EXPECT_EQ(std::string(s), big);
  reg_free_string(s, def);
  reg_free_string(def, def);  // the default is never freed
  reg_set_string_fmt(reg_local(), sub.c_str(), "Fmt", "%s-%d-%05.1f", "x", 42, 3.5);
  s = reg_get_string_alloc(reg_local(), sub.c_str(), "Fmt", nullptr);
  ASSERT_NE(s, nullptr);
  EXPECT_STREQ(s, "x-42-003.5");
  reg_free_string(s, nullptr);
  // A formatted result past 32,767 characters is cut there.
  reg_set_string_fmt(reg_local(), sub.c_str(), "Fmt", "%s%s", big.c_str(), big.c_str());
  s = reg_get_string_alloc(reg_local(), sub.c_str(), "Fmt", nullptr);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(std::strlen(s), 32767u);
  reg_free_string(s, nullptr);
}

TEST_P(RegistryStoreTest, GetDwordReadsAnyValueOfAtMostFourBytes) {
  const std::string sub = Sub();
  reg_set_dword(reg_local(), sub.c_str(), "D", 0x12345678);
  EXPECT_EQ(reg_get_dword(reg_local(), sub.c_str(), "D", 9), 0x12345678u);
  ASSERT_EQ(reg_set_string(reg_local(), sub.c_str(), "D", "Y"), 1);
  EXPECT_EQ(reg_get_dword(reg_local(), sub.c_str(), "D", 9), static_cast<std::uint32_t>('Y'));
  ASSERT_EQ(reg_set_string(reg_local(), sub.c_str(), "D", "No"), 1);
  EXPECT_EQ(reg_get_dword(reg_local(), sub.c_str(), "D", 9), 0x6F4Eu);
  const std::uint8_t three[] = {1, 2, 3};
  reg_set_binary(reg_local(), sub.c_str(), "D", three, 3);
  EXPECT_EQ(reg_get_dword(reg_local(), sub.c_str(), "D", 9), 0x030201u);
  ASSERT_EQ(reg_set_string(reg_local(), sub.c_str(), "D", "True"), 1);
  EXPECT_EQ(reg_get_dword(reg_local(), sub.c_str(), "D", 9), 9u);
  EXPECT_EQ(platform::LastError(), 234u);
  EXPECT_EQ(reg_get_dword(reg_local(), sub.c_str(), "Missing", 0xABCD), 0xABCDu);
  EXPECT_EQ(platform::LastError(), 2u);
}

TEST_P(RegistryStoreTest, GetBinaryClearsTheBufferAndReadsAtMostItsSize) {
  const std::string sub = Sub();
  const std::uint8_t data[] = {9, 8, 7};
  reg_set_binary(reg_local(), sub.c_str(), "Bin", data, sizeof data);
  std::array<std::uint8_t, 6> buf;
  buf.fill(0xEE);
  EXPECT_EQ(reg_get_binary(reg_local(), sub.c_str(), "Bin", buf.data(), 6), 1);
  EXPECT_EQ(buf, (std::array<std::uint8_t, 6>{9, 8, 7, 0, 0, 0}));
  buf.fill(0xEE);
  EXPECT_EQ(reg_get_binary(reg_local(), sub.c_str(), "Bin", buf.data(), 2), 0);
  EXPECT_EQ(platform::LastError(), 234u);
  EXPECT_EQ(buf[2], 0xEE);
  buf.fill(0xEE);
  EXPECT_EQ(reg_get_binary(reg_local(), sub.c_str(), "Missing", buf.data(), 6), 0);
  EXPECT_EQ(buf, (std::array<std::uint8_t, 6>{}));
}

TEST_P(RegistryStoreTest, WriteValueWithoutDataDeletesAndDeleteValueCreatesTheKey) {
  const std::string sub = Sub();
  const std::string key = sub + "\\Made";
  EXPECT_EQ(reg_key_exists(reg_local(), key.c_str()), 0);
  EXPECT_EQ(reg_delete_value(reg_local(), key.c_str(), "Nothing"), 0);
  EXPECT_EQ(platform::LastError(), 2u);
  EXPECT_EQ(reg_key_exists(reg_local(), key.c_str()), 1);
  const std::uint32_t one = 1;
  ASSERT_EQ(reg_write_value(reg_local(), key.c_str(), "V", &one, platform::kRegDword, 4), 1);
  EXPECT_EQ(reg_write_value(reg_local(), key.c_str(), "V", &one, platform::kRegDword, 0), 1);
  EXPECT_EQ(reg_get_dword(reg_local(), key.c_str(), "V", 5), 5u);
}

TEST_P(RegistryStoreTest, EnumValueListsNamesTypesAndTerminatedStrings) {
  const std::string sub = Sub();
  ASSERT_EQ(reg_set_string(reg_local(), sub.c_str(), "First", "abc"), 1);
  reg_set_dword(reg_local(), sub.c_str(), "Second", 77);
  ASSERT_EQ(reg_write_value(reg_local(), sub.c_str(), "Third", "xy", platform::kRegExpandSz, 2), 1);  // no terminator stored
  char name[32], data[16];
  std::uint32_t type = 0;
  ASSERT_EQ(reg_enum_value(reg_local(), sub.c_str(), name, sizeof name, data, sizeof data, &type, 0), 1);
  EXPECT_STREQ(name, "First");
  EXPECT_EQ(type, platform::kRegSz);
  EXPECT_STREQ(data, "abc");
  ASSERT_EQ(reg_enum_value(reg_local(), sub.c_str(), name, sizeof name, data, sizeof data, &type, 1), 1);
  EXPECT_STREQ(name, "Second");
  EXPECT_EQ(type, platform::kRegDword);
  std::uint32_t n = 0;
  std::memcpy(&n, data, 4);
  EXPECT_EQ(n, 77u);
  ASSERT_EQ(reg_enum_value(reg_local(), sub.c_str(), name, sizeof name, data, sizeof data, &type, 2), 1);
  EXPECT_STREQ(name, "Third");
  EXPECT_EQ(type, platform::kRegExpandSz);
  EXPECT_STREQ(data, "xy");
  EXPECT_EQ(reg_enum_value(reg_local(), sub.c_str(), name, sizeof name, nullptr, 0, nullptr, 2), 1);
  EXPECT_EQ(reg_enum_value(reg_local(), sub.c_str(), name, sizeof name, data, sizeof data, &type, 3), 0);
  EXPECT_EQ(platform::LastError(), 259u);
}

TEST_P(RegistryStoreTest, DeletingAKeyThatStillHasSubkeysFails) {
  const std::string sub = Sub();
  const std::string child = sub + "\\Child";
  reg_set_dword(reg_local(), (child + "\\Grandchild").c_str(), "V", 1);
  EXPECT_EQ(reg_delete_key(reg_local(), child.c_str()), 0);
  EXPECT_NE(platform::LastError(), 0u);
  EXPECT_EQ(reg_key_exists(reg_local(), (child + "\\Grandchild").c_str()), 1);
  EXPECT_EQ(reg_delete_key(reg_local(), (child + "\\Grandchild").c_str()), 1);
  EXPECT_EQ(reg_delete_key(reg_local(), child.c_str()), 1);
  EXPECT_EQ(reg_key_exists(reg_local(), child.c_str()), 0);
  EXPECT_EQ(platform::LastError(), 2u);
  EXPECT_EQ(reg_delete_key(reg_local(), child.c_str()), 0);
  EXPECT_EQ(platform::LastError(), 2u);
}

TEST_P(RegistryStoreTest, NamesIgnoreCaseAndTypesAreKept) {
  const std::string sub = Sub();
  ASSERT_EQ(reg_write_value(reg_local(), sub.c_str(), "MixedCase", "%SystemRoot%", platform::kRegExpandSz, 13), 1);
  std::string upper = sub;
  for (auto& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  char buf[32];
  EXPECT_EQ(reg_get_string(reg_local(), upper.c_str(), "MIXEDCASE", buf, sizeof buf, nullptr), 1);
  EXPECT_STREQ(buf, "%SystemRoot%");
  std::uint32_t type = 0;
  char name[32];
  ASSERT_EQ(reg_enum_value(reg_local(), sub.c_str(), name, sizeof name, nullptr, 0, &type, 0), 1);
  EXPECT_STREQ(name, "MixedCase");
  EXPECT_EQ(type, platform::kRegExpandSz);
  // Overwriting under another case keeps one value.
  ASSERT_EQ(reg_set_string(reg_local(), sub.c_str(), "mixedcase", "v2"), 1);
  EXPECT_EQ(reg_enum_value(reg_local(), sub.c_str(), name, sizeof name, nullptr, 0, &type, 1), 0);
  ASSERT_EQ(reg_enum_value(reg_local(), sub.c_str(), name, sizeof name, nullptr, 0, &type, 0), 1);
  EXPECT_EQ(type, platform::kRegSz);
}

TEST_P(RegistryStoreTest, AKeyOpenedForReadingRefusesChanges) {
  const std::string sub = Sub();
  reg_set_dword(reg_local(), sub.c_str(), "V", 1);
  platform::RegKey key = nullptr;
  ASSERT_EQ(reg_open_read(reg_local(), sub.c_str(), key), 0u);
  const std::uint32_t two = 2;
  EXPECT_EQ(platform::RegSetValue(key, "V", platform::kRegDword, &two, 4), 5u);
  platform::RegCloseKey(key);
  ASSERT_EQ(reg_open_write(reg_local(), sub.c_str(), key), 0u);
  EXPECT_EQ(platform::RegSetValue(key, "V", platform::kRegDword, &two, 4), 0u);
  platform::RegCloseKey(key);
  EXPECT_EQ(reg_get_dword(reg_local(), sub.c_str(), "V", 0), 2u);
}

TEST_P(RegistryStoreTest, AccessListsNeedTheirOwnRights) {
  const platform::RegKey hklm = platform::RegLocalMachine();
  const std::string path = Abs().substr(2);
  const platform::RegAce everyone{platform::kAceAccessAllowed, platform::kAceInherit, platform::kGenericAll, "S-1-1-0"};
  platform::RegKey key = nullptr;
  ASSERT_EQ(platform::RegCreateKey(hklm, path, platform::kKeyAllAccess, key), 0u);
  platform::RegCloseKey(key);
  std::vector<platform::RegAce> read;
  // Reading needs READ_CONTROL, which KEY_READ and KEY_WRITE hold; changing needs WRITE_DAC, which
  // neither holds.
  for (const std::uint32_t access : {platform::kKeyRead, platform::kKeyWrite}) {
    ASSERT_EQ(platform::RegOpenKey(hklm, path, access, key), 0u);
    EXPECT_EQ(platform::RegSetKeySecurity(key, {&everyone, 1}), platform::kErrorAccessDenied) << access;
    EXPECT_EQ(platform::RegGetKeySecurity(key, read), 0u) << access;
    platform::RegCloseKey(key);
  }
  ASSERT_EQ(platform::RegOpenKey(hklm, path, platform::kKeySetValue, key), 0u);
  EXPECT_EQ(platform::RegGetKeySecurity(key, read), platform::kErrorAccessDenied);
  platform::RegCloseKey(key);
  ASSERT_EQ(platform::RegOpenKey(hklm, path, platform::kWriteDac, key), 0u);
  EXPECT_EQ(platform::RegSetKeySecurity(key, {&everyone, 1}), 0u);
  platform::RegCloseKey(key);
}

TEST_P(RegistryStoreTest, AKeyPathEndsAtItsFirstNul) {
  const platform::RegKey hklm = platform::RegLocalMachine();
  const std::string path = Abs().substr(2);
  const std::uint32_t one = 1;
  platform::RegKey key = nullptr;
  ASSERT_EQ(platform::RegCreateKey(hklm, path + std::string("\0B", 2), platform::kKeyAllAccess, key), 0u);
  ASSERT_EQ(platform::RegSetValue(key, "V", platform::kRegDword, &one, 4), 0u);
  platform::RegCloseKey(key);
  for (const std::string& same : {path, path + std::string("\0C", 2)}) {
    ASSERT_EQ(platform::RegOpenKey(hklm, same, platform::kKeyRead, key), 0u);
    EXPECT_EQ(platform::RegQueryValue(key, "V", nullptr, nullptr, nullptr), 0u);
    platform::RegCloseKey(key);
  }
  EXPECT_EQ(platform::RegDeleteKey(hklm, path + std::string("\0X", 2)), 0u);
  EXPECT_EQ(platform::RegOpenKey(hklm, path, platform::kKeyRead, key), platform::kErrorFileNotFound);
}

TEST_P(RegistryStoreTest, QueryReportsMoreDataWithTheNeededSize) {
  const std::string sub = Sub();
  ASSERT_EQ(reg_set_string(reg_local(), sub.c_str(), "S", "hello"), 1);
  platform::RegKey key = nullptr;
  ASSERT_EQ(reg_open_read(reg_local(), sub.c_str(), key), 0u);
  char buf[3];
  std::uint32_t size = sizeof buf, type = 0;
  EXPECT_EQ(platform::RegQueryValue(key, "S", &type, buf, &size), 234u);
  EXPECT_EQ(size, 6u);
  size = 0;
  EXPECT_EQ(platform::RegQueryValue(key, "S", &type, nullptr, &size), 0u);
  EXPECT_EQ(size, 6u);
  EXPECT_EQ(type, platform::kRegSz);
  EXPECT_EQ(platform::RegQueryValue(key, "Nope", &type, nullptr, &size), 2u);
  platform::RegCloseKey(key);
}

TEST_P(RegistryStoreTest, AnOverLongPathIsRefusedNotCut) {
  const std::string sub = Sub();
  const std::string longpath = sub + "\\" + std::string(300, 'a') + "\\" + std::string(300, 'b');
  EXPECT_EQ(reg_set_string(reg_local(), longpath.c_str(), "V", "x"), 0);
  EXPECT_EQ(platform::LastError(), 206u);
  EXPECT_EQ(reg_key_exists(reg_local(), (sub + "\\" + std::string(300, 'a')).c_str()), 0);
}

bool HasEntry(const std::vector<platform::RegAce>& dacl, const std::string& sid, std::uint32_t generic, std::uint32_t specific) {
  for (const auto& ace : dacl)
    if (ace.sid == sid && ace.type == platform::kAceAccessAllowed && (ace.mask == generic || ace.mask == specific) &&
        (ace.flags & platform::kAceInherit) == platform::kAceInherit)
      return true;
  return false;
}

std::vector<platform::RegAce> SecurityOf(const std::string& root_relative) {
  std::vector<platform::RegAce> dacl;
  platform::RegKey key = nullptr;
  EXPECT_EQ(platform::RegOpenKey(platform::RegLocalMachine(), root_relative, platform::kKeyRead, key), 0u);
  EXPECT_EQ(platform::RegGetKeySecurity(key, dacl), 0u);
  platform::RegCloseKey(key);
  return dacl;
}

TEST_P(RegistryStoreTest, SecureTreeReplacesTheAccessListOfTheKeyAndItsSubkeys) {
  const std::string abs = Abs();
  reg_set_dword(reg_local(), (abs + "\\A\\B").c_str(), "V", 1);
  reg_set_dword(reg_local(), (abs + "\\C").c_str(), "V", 1);
  // S-1-5-21-1-2-3: revision 1, three sub-authorities... and 21 first.
  const std::uint8_t domain[] = {1, 4, 0, 0, 0, 0, 0, 5, 21, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0};
  reg_secure_tree(reg_local(), abs.c_str(), domain, 0);
  for (const char* sub : {"", "\\A", "\\A\\B", "\\C"}) {
    const auto dacl = SecurityOf(abs.substr(2) + sub);
    EXPECT_TRUE(HasEntry(dacl, "S-1-5-21-1-2-3-512", platform::kGenericAll, platform::kKeyAllAccess)) << sub;
    EXPECT_TRUE(HasEntry(dacl, "S-1-1-0", platform::kGenericRead, platform::kKeyRead)) << sub;
    EXPECT_FALSE(HasEntry(dacl, "S-1-1-0", platform::kGenericAll, platform::kKeyAllAccess)) << sub;
    for (const char* sid : {"S-1-5-32-544", "S-1-5-18", "S-1-5-19", "S-1-5-20"})
      EXPECT_TRUE(HasEntry(dacl, sid, platform::kGenericAll, platform::kKeyAllAccess)) << sub << " " << sid;
  }
  reg_secure_tree(reg_local(), abs.c_str(), nullptr, 1);
  const auto dacl = SecurityOf(abs.substr(2) + "\\A\\B");
  EXPECT_TRUE(HasEntry(dacl, "S-1-1-0", platform::kGenericAll, platform::kKeyAllAccess));
  EXPECT_FALSE(HasEntry(dacl, "S-1-5-21-1-2-3-512", platform::kGenericAll, platform::kKeyAllAccess));
}

TEST(RegSidText, FormatsValidSidsAndRefusesOthers) {
  char text[64];
  const std::uint8_t everyone[] = {1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0};
  ASSERT_TRUE(reg_sid_text(everyone, 0, text, sizeof text));
  EXPECT_STREQ(text, "S-1-1-0");
  ASSERT_TRUE(reg_sid_text(everyone, 512, text, sizeof text));
  EXPECT_STREQ(text, "S-1-1-0-512");
  const std::uint8_t bad_revision[] = {2, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0};
  EXPECT_FALSE(reg_sid_text(bad_revision, 0, text, sizeof text));
  EXPECT_FALSE(reg_sid_text(nullptr, 0, text, sizeof text));
  EXPECT_FALSE(reg_sid_text(everyone, 0, text, 4));
}

TEST_P(RegistryStoreTest, TargetArchitectureOfTheLocalMachine) {
  platform::SystemInfo info{};
  platform::GetSystemInfo(info);
  const std::uint32_t arch = reg_target_architecture(reg_local());
  const std::uint32_t expected = info.processor_architecture == 9   ? kArchAmd64
                                 : info.processor_architecture == 0 ? kArchX86
                                                                    : kArchUnknown;
  EXPECT_EQ(arch, expected);
  if (arch != kArchUnknown) {
    EXPECT_EQ(platform::LastError(), 0u);
  }
}

std::string ThreadValueName(int t, int i) {
  char name[32];
  std::snprintf(name, sizeof name, "t%d_%d", t, i);
  return name;
}

TEST_P(RegistryStoreTest, ThreadsWritingAtOnceLoseNothing) {
  const std::string sub = Sub();
  constexpr int kThreads = 4, kEach = 50;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) reg_set_dword(reg_local(), sub.c_str(), ThreadValueName(t, i).c_str(), i);
    });
  for (auto& th : threads) th.join();
  for (int t = 0; t < kThreads; ++t)
    for (int i = 0; i < kEach; ++i)
      EXPECT_EQ(reg_get_dword(reg_local(), sub.c_str(), ThreadValueName(t, i).c_str(), 999), static_cast<std::uint32_t>(i));
}

// The memory store itself (skipped where the platform has none).
class MemoryRegistryTest : public RegistryStoreTest {};
INSTANTIATE_TEST_SUITE_P(Stores, MemoryRegistryTest, ::testing::Values(true), StoreName);

std::string ReadString(const char* path, const char* name) {
  char buf[512];
  return reg_get_string(reg_local(), path, name, buf, sizeof buf, "<missing>") ? buf : "<missing>";
}

TEST_P(MemoryRegistryTest, AHandleToADeletedKeyGivesKeyDeleted) {
  const platform::RegKey hklm = platform::RegLocalMachine();
  platform::RegKey key = nullptr, other = nullptr;
  ASSERT_EQ(platform::RegCreateKey(hklm, "Gone\\Key", platform::kKeyAllAccess, key), 0u);
  const std::uint32_t one = 1;
  ASSERT_EQ(platform::RegSetValue(key, "V", platform::kRegDword, &one, 4), 0u);
  ASSERT_EQ(platform::RegDeleteKey(hklm, "gone\\KEY"), 0u);
  char name[8];
  std::uint32_t n = sizeof name, value = 0, size = 4;
  std::vector<platform::RegAce> dacl;
  EXPECT_EQ(platform::RegQueryValue(key, "V", nullptr, &value, &size), platform::kErrorKeyDeleted);
  EXPECT_EQ(platform::RegSetValue(key, "V", platform::kRegDword, &one, 4), platform::kErrorKeyDeleted);
  EXPECT_EQ(platform::RegDeleteValue(key, "V"), platform::kErrorKeyDeleted);
  EXPECT_EQ(platform::RegEnumValue(key, 0, name, &n, nullptr, nullptr, nullptr), platform::kErrorKeyDeleted);
  EXPECT_EQ(platform::RegEnumKey(key, 0, name, sizeof name), platform::kErrorKeyDeleted);
  EXPECT_EQ(platform::RegSetKeySecurity(key, {}), platform::kErrorKeyDeleted);
  EXPECT_EQ(platform::RegGetKeySecurity(key, dacl), platform::kErrorKeyDeleted);
  EXPECT_EQ(platform::RegCreateKey(key, "Sub", platform::kKeyAllAccess, other), platform::kErrorKeyDeleted);
  EXPECT_EQ(platform::RegDeleteKey(key, ""), platform::kErrorKeyDeleted);
  // A key made again under the same name is another key: the old handle stays on the deleted one.
  ASSERT_EQ(platform::RegCreateKey(hklm, "Gone\\Key", platform::kKeyAllAccess, other), 0u);
  EXPECT_EQ(platform::RegQueryValue(other, "V", nullptr, nullptr, nullptr), platform::kErrorFileNotFound);
  EXPECT_EQ(platform::RegSetValue(key, "V", platform::kRegDword, &one, 4), platform::kErrorKeyDeleted);
  platform::RegCloseKey(other);
  platform::RegCloseKey(key);
}

TEST_P(MemoryRegistryTest, SwitchingOnGivesAFreshTreeWithTheMachineIdentity) {
  ASSERT_EQ(reg_set_string(reg_local(), "", "Old", "x"), 1);
  ASSERT_TRUE(platform::UseMemoryRegistryStore(true));
  EXPECT_EQ(ReadString("", "Old"), "<missing>");
  EXPECT_EQ(ReadString("\\\\SYSTEM\\CurrentControlSet\\Control\\ProductOptions", "ProductType"), "ServerNT");
  EXPECT_NE(ReadString("\\\\SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment", "PROCESSOR_ARCHITECTURE"),
            "<missing>");
  EXPECT_EQ(ReadString("\\\\SYSTEM\\CurrentControlSet\\Control\\ComputerName\\ComputerName", "ComputerName"),
            platform::ComputerName());
  EXPECT_EQ(ReadString("\\\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "SystemRoot"), root_.string());
  EXPECT_EQ(ReadString("\\\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "ProductName"), platform::OsProductName());
  // Nothing else: the root holds the two keys of the identity values, and no file was made.
  char name[16];
  const platform::RegKey hklm = platform::RegLocalMachine();
  ASSERT_EQ(platform::RegEnumKey(hklm, 0, name, sizeof name), 0u);
  EXPECT_STREQ(name, "SOFTWARE");
  ASSERT_EQ(platform::RegEnumKey(hklm, 1, name, sizeof name), 0u);
  EXPECT_STREQ(name, "SYSTEM");
  EXPECT_EQ(platform::RegEnumKey(hklm, 2, name, sizeof name), platform::kErrorNoMoreItems);
  EXPECT_FALSE(std::filesystem::exists(root_ / "registry.db"));
}

TEST_P(MemoryRegistryTest, SwitchingOffReturnsToTheFileStoreAsItWasLeft) {
  ASSERT_TRUE(platform::UseMemoryRegistryStore(false));
  ASSERT_EQ(reg_set_string(reg_local(), "", "Kept", "file"), 1);
  ASSERT_TRUE(platform::UseMemoryRegistryStore(true));
  EXPECT_EQ(ReadString("", "Kept"), "<missing>");
  ASSERT_EQ(reg_set_string(reg_local(), "", "Kept", "memory"), 1);
  // This machine by name is the memory store too, and a handle keeps its store after the switch.
  platform::RegKey held = nullptr, key = nullptr;
  ASSERT_EQ(platform::RegConnectRegistry("\\\\" + platform::ComputerName(), false, held), 0u);
  ASSERT_TRUE(platform::UseMemoryRegistryStore(false));
  EXPECT_EQ(ReadString("", "Kept"), "file");
  ASSERT_EQ(platform::RegOpenKey(held, "Software\\Morvane\\Chronwarden\\Parameters", platform::kKeyRead, key), 0u);
  char buf[16];
  std::uint32_t size = sizeof buf;
  EXPECT_EQ(platform::RegQueryValue(key, "Kept", nullptr, buf, &size), 0u);
  EXPECT_STREQ(buf, "memory");
  platform::RegCloseKey(key);
  platform::RegCloseKey(held);
}

}  // namespace
