// Named sections and events on Windows: page-file-backed file mappings and kernel events, with a
// security descriptor that lets only the family change them: SYSTEM, Administrators and
// LocalService (the time service's account) full access, Authenticated Users read (and wait).
// A null access list, which let any user write the status block or silence the responder through
// the notify event, is no longer used.
#include <windows.h>
#include <sddl.h>

#include "platform/shared.h"
#include "platform/sys.h"

namespace platform {
namespace {

// Generic rights are mapped to each object's own when it is made: read is FILE_MAP_READ for a
// section, EVENT_QUERY_STATE for an event; SYNCHRONIZE lets readers wait on the event.
constexpr const char* kFamilyOnly = "D:P(A;;GA;;;SY)(A;;GA;;;BA)(A;;GA;;;LS)(A;;0x80100000;;;AU)";

struct FamilyOnly {
  SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, FALSE};
  FamilyOnly() { ::ConvertStringSecurityDescriptorToSecurityDescriptorA(kFamilyOnly, SDDL_REVISION_1, &sa.lpSecurityDescriptor, nullptr); }
  ~FamilyOnly() { ::LocalFree(sa.lpSecurityDescriptor); }
  FamilyOnly(const FamilyOnly&) = delete;
  FamilyOnly& operator=(const FamilyOnly&) = delete;
  // Never the null access list: without a descriptor the object takes the creator's default one.
  SECURITY_ATTRIBUTES* get() { return sa.lpSecurityDescriptor ? &sa : nullptr; }
};

}  // namespace

std::string SharedObjectName(std::string_view win32_name) { return std::string(win32_name); }
std::string TakeSharedObjectNotice() { return {}; }

SectionHandle sys::CreateNamedSection(const char* name, std::uint32_t size, bool& already_existed) {
  FamilyOnly family;
  HANDLE h = ::CreateFileMappingA(INVALID_HANDLE_VALUE, family.get(), PAGE_READWRITE | SEC_COMMIT, 0, size, name);
  already_existed = h && ::GetLastError() == ERROR_ALREADY_EXISTS;
  return reinterpret_cast<SectionHandle>(h);
}

SectionHandle sys::OpenNamedSection(const char* name, std::uint32_t) {
  // A section is sized by its creator in the same call, so one that exists has its full size.
  return reinterpret_cast<SectionHandle>(::OpenFileMappingA(FILE_MAP_READ, FALSE, name));
}

void* MapSection(SectionHandle section, std::uint32_t size, bool writable) {
  return ::MapViewOfFile(reinterpret_cast<HANDLE>(section), writable ? FILE_MAP_ALL_ACCESS : FILE_MAP_READ, 0, 0, size);
}

void UnmapSection(void* view, std::uint32_t) {
  if (view) ::UnmapViewOfFile(view);
}

void CloseSection(SectionHandle section) {
  if (section) ::CloseHandle(reinterpret_cast<HANDLE>(section));
}

EventHandle sys::CreateNamedEvent(const char* name) {
  FamilyOnly family;
  return reinterpret_cast<EventHandle>(::CreateEventA(family.get(), TRUE, FALSE, name));
}

}  // namespace platform

namespace platform {
void DeleteNamedObject(const char*) {}
}  // namespace platform
