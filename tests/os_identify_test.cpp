// OS identification: levels from version records and from server information, and the texts.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "config/os_identify.h"
#include "config/registry.h"
#include "platform/os.h"

namespace {

std::string Remote(std::uint32_t arch, std::uint32_t level) {
  char buf[64];
  return os_remote_text(arch, level, buf, sizeof buf);
}

TEST(OsLevelFromServer, WindowsXpWithTheBackupControllerBitIsWin2003) {
  EXPECT_EQ(os_level_from_server(0x00001003, 5, 1), kOsWinXp);
  EXPECT_EQ(os_level_from_server(0x00001003 | 16, 5, 1), kOsWin2003);
  EXPECT_EQ(os_level_from_server(0x8000, 5, 1), kOsWin2003);
  EXPECT_EQ(os_level_from_server(8, 5, 2), kOsWin2003);
  EXPECT_EQ(os_level_from_server(0, 5, 3), kOsWin2003);
  EXPECT_EQ(os_level_from_server(0, 5, 0), kOsWin2000);
}

TEST(OsLevelFromServer, VistaWithMinorZeroAndNoServerBitsElse2008) {
  EXPECT_EQ(os_level_from_server(0, 6, 0), kOsVista);
  EXPECT_EQ(os_level_from_server(0, 6, 1), kOsWin2008);
  EXPECT_EQ(os_level_from_server(0x8000, 6, 0), kOsWin2008);
  EXPECT_EQ(os_level_from_server(16, 6, 0), kOsWin2008);
}

TEST(OsLevelFromServer, NineXNtAndUnknownMajors) {
  EXPECT_EQ(os_level_from_server(0x00400000, 4, 0), kOsWin95);
  EXPECT_EQ(os_level_from_server(0x00400000, 4, 10), kOsWin98);
  EXPECT_EQ(os_level_from_server(0x00400000, 4, 90), kOsWinMe);
  EXPECT_EQ(os_level_from_server(0, 3, 10), kOsNt31);
  EXPECT_EQ(os_level_from_server(0, 3, 51), kOsNt351);
  EXPECT_EQ(os_level_from_server(0, 4, 0), kOsNt4);
  EXPECT_EQ(os_level_from_server(0, 0x15, 0), kOsWin2000);  // the low 4 bits of major count
  EXPECT_EQ(os_level_from_server(0, 7, 0), 0u);
  EXPECT_EQ(os_level_from_server(0, 10, 0), 0u);
}

TEST(OsLevelFromVersion, UnknownMajorIs2008LocallyButZeroRemotely) {
  EXPECT_EQ(os_level_from_version(2, 7, 0, true, 1), kOsWin2008);
  EXPECT_EQ(os_level_from_version(2, 10, 0, true, 1), kOsWin2008);
  EXPECT_EQ(os_level_from_server(0, 7, 0), 0u);
}

TEST(OsLevelFromVersion, EveryGeneration) {
  EXPECT_EQ(os_level_from_version(1, 4, 0, false, 0), kOsWin95);
  EXPECT_EQ(os_level_from_version(1, 4, 10, false, 0), kOsWin98);
  EXPECT_EQ(os_level_from_version(1, 4, 90, false, 0), kOsWinMe);
  EXPECT_EQ(os_level_from_version(2, 3, 10, false, 0), kOsNt31);
  EXPECT_EQ(os_level_from_version(2, 3, 51, false, 0), kOsNt351);
  EXPECT_EQ(os_level_from_version(2, 4, 0, true, 1), kOsNt4);
  EXPECT_EQ(os_level_from_version(2, 5, 0, true, 1), kOsWin2000);
  EXPECT_EQ(os_level_from_version(2, 5, 1, true, 1), kOsWinXp);
  EXPECT_EQ(os_level_from_version(2, 5, 2, true, 1), kOsWinXp);   // XP x64
  EXPECT_EQ(os_level_from_version(2, 5, 1, false, 1), kOsWin2003); // no extended record
  EXPECT_EQ(os_level_from_version(2, 5, 2, true, 3), kOsWin2003);
  EXPECT_EQ(os_level_from_version(2, 6, 0, true, 1), kOsVista);
  EXPECT_EQ(os_level_from_version(2, 6, 0, true, 3), kOsWin2008);
  EXPECT_EQ(os_level_from_version(2, 6, 1, true, 1), kOsWin2008);
  EXPECT_EQ(os_level_from_version(0, 1, 0, false, 0), 0u);
  EXPECT_EQ(os_level_from_version(3, 5, 0, false, 0), 0u);
}

TEST(OsRemoteText, PrefixesAndNames) {
  EXPECT_EQ(Remote(0xFFFFFFFF, kOsWin2000), "Win2000");
  EXPECT_EQ(Remote(0xFFFFFFFE, kOsVista), "Vista");
  EXPECT_EQ(Remote(kArchAmd64, kOsWin2003), "64-bit AMD64 Win2003");
  EXPECT_EQ(Remote(kArchX86, kOsWinXp), "32-bit x86 WinXP");
  EXPECT_EQ(Remote(kArchNoProductType, kOsWin98), "32-bit x86 Win98");
  EXPECT_EQ(Remote(kArchIa64, kOsWin2008), "64-bit IA64 Win2008");
  EXPECT_EQ(Remote(kArchPpc, kOsNt4), "PPC NT 4.0");
  EXPECT_EQ(Remote(kArchUnknown, 0), "Unknown Unknown");
  EXPECT_EQ(Remote(42, 3), "Unknown Unknown");
  char small[8];
  EXPECT_STREQ(os_remote_text(kArchAmd64, kOsWin2003, small, sizeof small), "64-bit ");
}

TEST(OsArchName, LongNames) {
  EXPECT_STREQ(os_arch_name(0), "Unknown");
  EXPECT_STREQ(os_arch_name(1), "AMD/Intel x86 Win9x");
  EXPECT_STREQ(os_arch_name(2), "AMD/Intel x86");
  EXPECT_STREQ(os_arch_name(3), "AMD/Intel x64");
  EXPECT_STREQ(os_arch_name(4), "Itanium IA64");
  EXPECT_STREQ(os_arch_name(5), "Alpha");
  EXPECT_STREQ(os_arch_name(6), "MIPS");
  EXPECT_STREQ(os_arch_name(7), "PPC");
  EXPECT_STREQ(os_arch_name(8), "Unknown");
}

TEST(OsIdentify, LocalSystemIsNtFamilyWithANonGatingLevel) {
  os_identify();
  EXPECT_EQ(g_os.version.platform_id, 2u);
  EXPECT_TRUE(platform::IsNtFamily());   // the precise clock's NT-family flag reads the same record
  EXPECT_EQ(g_os.level, kOsWin2008);   // Linux: version 10.0; Wine: Windows 10 by default
  EXPECT_EQ(os_is_wow64(), 0);         // a 64-bit build
  EXPECT_EQ(g_os.wow64, 0);
  platform::SystemInfo info{};
  platform::GetSystemInfo(info);
  if (info.processor_architecture == 9) {
    EXPECT_EQ(g_os.arch, kArchAmd64);
    EXPECT_EQ(g_os.view32, 512u);
    EXPECT_EQ(g_os.view64, 0u);
  }
  char text[256];
  os_local_text(text, sizeof text);
  const std::string prefix = info.processor_architecture == 9 ? "64-bit (x64) " : "";
  EXPECT_EQ(std::string(text).substr(0, prefix.size()), prefix);
  const std::string own = platform::OsProductName();
  if (!own.empty()) {
    EXPECT_EQ(std::string(text), prefix + own);
  } else {
    EXPECT_NE(std::string(text).find("Win2008 build "), std::string::npos) << text;
  }
  char small[6];
  os_local_text(small, sizeof small);
  EXPECT_EQ(std::string(small), std::string(text).substr(0, 5));
}

}  // namespace
