// The family's named sections and events carry an access list of their own, read back from the
// objects: SYSTEM, Administrators and LocalService full access, Authenticated Users read. They once
// had a null access list, with which any user could write the status block or silence the responder.
#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>

#include "platform/shared.h"
#include "platform/sync.h"

namespace {

// The object's access list: each allowed trustee's SID text and rights; absent for a null list.
std::optional<std::map<std::string, DWORD>> Dacl(HANDLE h) {
  PACL dacl = nullptr;
  PSECURITY_DESCRIPTOR sd = nullptr;
  if (::GetSecurityInfo(h, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl, nullptr, &sd) != ERROR_SUCCESS)
    return std::map<std::string, DWORD>{{"unreadable", 0}};
  std::optional<std::map<std::string, DWORD>> out;
  if (dacl) {
    out.emplace();
    for (DWORD i = 0; i < dacl->AceCount; ++i) {
      void* raw = nullptr;
      if (!::GetAce(dacl, i, &raw) || static_cast<ACE_HEADER*>(raw)->AceType != ACCESS_ALLOWED_ACE_TYPE) continue;
      auto* ace = static_cast<ACCESS_ALLOWED_ACE*>(raw);
      char* text = nullptr;
      if (!::ConvertSidToStringSidA(&ace->SidStart, &text)) continue;
      (*out)[text] |= ace->Mask;
      ::LocalFree(text);
    }
  }
  ::LocalFree(sd);
  return out;
}

// Full access (GENERIC_ALL or all of the object's own rights), and read only: no right to change
// the object's contents, state or access list.
void ExpectFamilyOnly(HANDLE h, DWORD all_rights, DWORD write_rights) {
  const auto dacl = Dacl(h);
  ASSERT_TRUE(dacl.has_value()) << "a null access list: full access for everybody";
  const auto rights = [&](const char* sid) { return dacl->count(sid) ? dacl->at(sid) : 0; };
  EXPECT_EQ(rights("S-1-1-0"), 0u);   // Everyone
  for (const char* sid : {"S-1-5-18", "S-1-5-32-544", "S-1-5-19"}) {
    const DWORD m = rights(sid);
    EXPECT_TRUE(m == GENERIC_ALL || (m & all_rights) == all_rights) << sid << " " << std::hex << m;
  }
  const DWORD read = rights("S-1-5-11");   // Authenticated Users
  EXPECT_NE(read, 0u);
  EXPECT_EQ(read & (GENERIC_ALL | GENERIC_WRITE | write_rights | WRITE_DAC | WRITE_OWNER | DELETE), 0u) << std::hex << read;
}

TEST(SharedAccessWin32Test, SectionsGiveOthersReadOnly) {
  bool existed = true;
  platform::SectionHandle s = platform::CreateNamedSection("cw-access-test-section", 256, existed);
  ASSERT_NE(s, nullptr);
  ExpectFamilyOnly(reinterpret_cast<HANDLE>(s), SECTION_ALL_ACCESS, SECTION_MAP_WRITE | SECTION_EXTEND_SIZE);
  platform::CloseSection(s);
}

TEST(SharedAccessWin32Test, EventsGiveOthersWaitOnly) {
  platform::EventHandle e = platform::CreateNamedEvent("cw-access-test-event");
  ASSERT_NE(e, nullptr);
  ExpectFamilyOnly(reinterpret_cast<HANDLE>(e), EVENT_ALL_ACCESS, EVENT_MODIFY_STATE);
  platform::CloseEvent(e);
}

}  // namespace
