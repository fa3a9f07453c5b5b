// The registry on Windows: the system's own calls, handles passed through as HKEY.
#include <windows.h>
#include <sddl.h>

#include <cstring>
#include <memory>
#include <string>

#include "platform/registry.h"
#include "platform/sys.h"

namespace platform {
namespace {

HKEY H(RegKey key) { return reinterpret_cast<HKEY>(key); }
RegKey K(HKEY key) { return reinterpret_cast<RegKey>(key); }
std::string Z(std::string_view s) { return std::string(s); }

constexpr DWORD kAclBytes = 16000;

}  // namespace

RegKey RegLocalMachine() { return K(HKEY_LOCAL_MACHINE); }

std::uint32_t RegOpenKey(RegKey parent, std::string_view subkey, std::uint32_t access, RegKey& out) {
  HKEY h = nullptr;
  const LONG st = ::RegOpenKeyExA(H(parent), Z(subkey).c_str(), 0, access, &h);
  out = st == ERROR_SUCCESS ? K(h) : nullptr;
  return static_cast<std::uint32_t>(st);
}

std::uint32_t RegCreateKey(RegKey parent, std::string_view subkey, std::uint32_t access, RegKey& out) {
  HKEY h = nullptr;
  const LONG st = ::RegCreateKeyExA(H(parent), Z(subkey).c_str(), 0, nullptr, 0, access, nullptr, &h, nullptr);
  out = st == ERROR_SUCCESS ? K(h) : nullptr;
  return static_cast<std::uint32_t>(st);
}

void RegCloseKey(RegKey key) {
  const HKEY h = H(key);
  if (h && h != HKEY_LOCAL_MACHINE && h != HKEY_CURRENT_USER && h != HKEY_CLASSES_ROOT && h != HKEY_USERS) ::RegCloseKey(h);
}

std::uint32_t RegQueryValue(RegKey key, const char* name, std::uint32_t* type, void* data, std::uint32_t* size) {
  DWORD t = 0, n = size ? *size : 0;
  const LONG st = ::RegQueryValueExA(H(key), name, nullptr, &t, static_cast<BYTE*>(data), size ? &n : nullptr);
  if (type && (st == ERROR_SUCCESS || st == ERROR_MORE_DATA)) *type = t;
  if (size && (st == ERROR_SUCCESS || st == ERROR_MORE_DATA)) *size = n;
  return static_cast<std::uint32_t>(st);
}

std::uint32_t sys::RegSetValue(RegKey key, const char* name, std::uint32_t type, const void* data, std::uint32_t size) {
  return static_cast<std::uint32_t>(::RegSetValueExA(H(key), name, 0, type, static_cast<const BYTE*>(data), size));
}

std::uint32_t RegDeleteValue(RegKey key, const char* name) {
  return static_cast<std::uint32_t>(::RegDeleteValueA(H(key), name));
}

std::uint32_t RegEnumValue(RegKey key, std::uint32_t index, char* name, std::uint32_t* name_size, std::uint32_t* type,
                           void* data, std::uint32_t* data_size) {
  DWORD n = name_size ? *name_size : 0, t = 0, d = data_size ? *data_size : 0;
  const LONG st = ::RegEnumValueA(H(key), index, name, name_size ? &n : nullptr, nullptr, &t, static_cast<BYTE*>(data),
                                  data_size ? &d : nullptr);
  if (st == ERROR_SUCCESS || st == ERROR_MORE_DATA) {
    if (name_size) *name_size = n;
    if (type) *type = t;
    if (data_size) *data_size = d;
  }
  return static_cast<std::uint32_t>(st);
}

std::uint32_t RegEnumKey(RegKey key, std::uint32_t index, char* name, std::uint32_t size) {
  return static_cast<std::uint32_t>(::RegEnumKeyA(H(key), index, name, size));
}

std::uint32_t RegDeleteKey(RegKey parent, std::string_view subkey) {
  return static_cast<std::uint32_t>(::RegDeleteKeyA(H(parent), Z(subkey).c_str()));
}

std::uint32_t RegSetKeySecurity(RegKey key, std::span<const RegAce> dacl) {
  auto acl_bytes = std::make_unique<std::uint64_t[]>(kAclBytes / 8);
  auto* acl = reinterpret_cast<PACL>(acl_bytes.get());
  if (!::InitializeAcl(acl, kAclBytes, ACL_REVISION)) return ::GetLastError();
  for (const auto& ace : dacl) {
    PSID sid = nullptr;
    if (!::ConvertStringSidToSidA(ace.sid.c_str(), &sid)) return ::GetLastError();
    const BOOL added = ace.type == kAceAccessAllowed ? ::AddAccessAllowedAceEx(acl, ACL_REVISION, ace.flags, ace.mask, sid)
                                                     : ::AddAccessDeniedAceEx(acl, ACL_REVISION, ace.flags, ace.mask, sid);
    const DWORD err = ::GetLastError();
    ::LocalFree(sid);
    if (!added) return err;
  }
  SECURITY_DESCRIPTOR sd{};
  if (!::InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION)) return ::GetLastError();
  if (!::SetSecurityDescriptorDacl(&sd, TRUE, acl, FALSE)) return ::GetLastError();
  return static_cast<std::uint32_t>(::RegSetKeySecurity(H(key), DACL_SECURITY_INFORMATION, &sd));
}

std::uint32_t RegGetKeySecurity(RegKey key, std::vector<RegAce>& dacl) {
  dacl.clear();
  DWORD size = 0;
  LONG st = ::RegGetKeySecurity(H(key), DACL_SECURITY_INFORMATION, nullptr, &size);
  if (st != ERROR_INSUFFICIENT_BUFFER && st != ERROR_SUCCESS) return static_cast<std::uint32_t>(st);
  auto buf = std::make_unique<std::uint64_t[]>(size / 8 + 1);
  auto* sd = reinterpret_cast<PSECURITY_DESCRIPTOR>(buf.get());
  st = ::RegGetKeySecurity(H(key), DACL_SECURITY_INFORMATION, sd, &size);
  if (st != ERROR_SUCCESS) return static_cast<std::uint32_t>(st);
  BOOL present = FALSE, defaulted = FALSE;
  PACL acl = nullptr;
  if (!::GetSecurityDescriptorDacl(sd, &present, &acl, &defaulted)) return ::GetLastError();
  if (!present || !acl) return 0;
  for (DWORD i = 0; i < acl->AceCount; ++i) {
    void* raw = nullptr;
    if (!::GetAce(acl, i, &raw)) return ::GetLastError();
    const auto* header = static_cast<const ACE_HEADER*>(raw);
    if (header->AceType != ACCESS_ALLOWED_ACE_TYPE && header->AceType != ACCESS_DENIED_ACE_TYPE) continue;
    const auto* allowed = static_cast<const ACCESS_ALLOWED_ACE*>(raw);  // same layout as the denied entry
    char* text = nullptr;
    if (!::ConvertSidToStringSidA(const_cast<DWORD*>(&allowed->SidStart), &text)) return ::GetLastError();
    dacl.push_back(RegAce{header->AceType, header->AceFlags, allowed->Mask, text});
    ::LocalFree(text);
  }
  return 0;
}

std::uint32_t RegConnectRegistry(std::string_view unc_name, bool wide, RegKey& out) {
  HKEY h = nullptr;
  LONG st;
  if (wide) {
    wchar_t name[257] = {};
    ::MultiByteToWideChar(CP_ACP, 0, Z(unc_name).c_str(), -1, name, 256);
    st = ::RegConnectRegistryW(name, HKEY_LOCAL_MACHINE, &h);
  } else {
    st = ::RegConnectRegistryA(Z(unc_name).c_str(), HKEY_LOCAL_MACHINE, &h);
  }
  out = st == ERROR_SUCCESS ? K(h) : nullptr;
  return static_cast<std::uint32_t>(st);
}

bool UseMemoryRegistryStore(bool /*on*/) { return false; }   // the system registry stays the system registry

std::uint32_t RegistryStoreCheck(const char*, bool, RegistryStoreReport& out) {
  out = RegistryStoreReport{};
  out.store = "the system registry";   // Windows checks and recovers its hives itself
  return 0;
}

}  // namespace platform
