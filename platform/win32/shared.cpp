// Named sections and events on Windows: page-file-backed file mappings and kernel events, with a
// security descriptor whose access list is present and null (full access for everybody).
#include <windows.h>

#include "platform/shared.h"
#include "platform/sys.h"

namespace platform {
namespace {

struct OpenToAll {
  SECURITY_DESCRIPTOR sd;
  SECURITY_ATTRIBUTES sa;
  OpenToAll() {
    ::InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
    ::SetSecurityDescriptorDacl(&sd, TRUE, nullptr, FALSE);
    sa = {sizeof sa, &sd, FALSE};
  }
};

}  // namespace

std::string SharedObjectName(std::string_view win32_name) { return std::string(win32_name); }

SectionHandle sys::CreateNamedSection(const char* name, std::uint32_t size, bool& already_existed) {
  OpenToAll all;
  HANDLE h = ::CreateFileMappingA(INVALID_HANDLE_VALUE, &all.sa, PAGE_READWRITE | SEC_COMMIT, 0, size, name);
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
  OpenToAll all;
  return reinterpret_cast<EventHandle>(::CreateEventA(&all.sa, TRUE, FALSE, name));
}

}  // namespace platform

namespace platform {
void DeleteNamedObject(const char*) {}
}  // namespace platform
