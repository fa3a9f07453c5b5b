// Files on Windows: the Win32 file calls themselves, the data-file DACL and Notepad.
#include <windows.h>
#include <shlobj.h>

#include <cstdio>
#include <fcntl.h>
#include <io.h>
#include <cstring>
#include <memory>
#include <string>

#include "platform/file.h"
#include "platform/sys.h"

namespace platform {

struct FileObject {
  HANDLE h;
};

FileHandle FileCreate(std::string_view path, std::uint32_t access, std::uint32_t share, std::uint32_t disposition,
                      std::uint32_t flags) {
  const std::string p(path);
  const HANDLE h = ::CreateFileA(p.c_str(), access, share, nullptr, disposition, flags & ~kFlagNoLinks, nullptr);
  if (h == INVALID_HANDLE_VALUE) return nullptr;
  return new FileObject{h};
}

void FileClose(FileHandle file) {
  if (!file) return;
  ::CloseHandle(file->h);
  delete file;
}

bool sys::FileRead(FileHandle file, void* buf, std::uint32_t size, std::uint32_t& done) {
  done = 0;
  if (!file) return ::SetLastError(ERROR_INVALID_HANDLE), false;
  DWORD n = 0;
  const BOOL ok = ::ReadFile(file->h, buf, size, &n, nullptr);
  done = n;
  return ok != FALSE;
}

bool sys::FileWrite(FileHandle file, const void* buf, std::uint32_t size, std::uint32_t& done) {
  done = 0;
  if (!file) return ::SetLastError(ERROR_INVALID_HANDLE), false;
  DWORD n = 0;
  const BOOL ok = ::WriteFile(file->h, buf, size, &n, nullptr);
  done = n;
  return ok != FALSE;
}

bool FileSeek(FileHandle file, std::int64_t distance, SeekFrom from, std::uint64_t* position) {
  if (!file) return ::SetLastError(ERROR_INVALID_HANDLE), false;
  LARGE_INTEGER d, at;
  d.QuadPart = distance;
  const DWORD method = from == SeekFrom::Begin ? FILE_BEGIN : from == SeekFrom::Current ? FILE_CURRENT : FILE_END;
  if (!::SetFilePointerEx(file->h, d, &at, method)) return false;
  if (position) *position = static_cast<std::uint64_t>(at.QuadPart);
  return true;
}

bool FileSize(FileHandle file, std::uint64_t& size) {
  if (!file) return ::SetLastError(ERROR_INVALID_HANDLE), false;
  LARGE_INTEGER s;
  if (!::GetFileSizeEx(file->h, &s)) return false;
  size = static_cast<std::uint64_t>(s.QuadPart);
  return true;
}

bool sys::FileFlush(FileHandle file) {
  if (!file) return ::SetLastError(ERROR_INVALID_HANDLE), false;
  return ::FlushFileBuffers(file->h) != FALSE;
}

bool FileSetEnd(FileHandle file) {
  if (!file) return ::SetLastError(ERROR_INVALID_HANDLE), false;
  return ::SetEndOfFile(file->h) != FALSE;
}

namespace {
constexpr DWORD kWritersLockHigh = 0x40000000;   // byte 2^62: far beyond any data
}  // namespace

bool FileLockWriters(FileHandle file, std::uint32_t wait_ms) {
  if (!file) return ::SetLastError(ERROR_INVALID_HANDLE), false;
  const ULONGLONG deadline = ::GetTickCount64() + wait_ms;
  for (;;) {
    OVERLAPPED at{};
    at.OffsetHigh = kWritersLockHigh;
    if (::LockFileEx(file->h, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &at)) return true;
    const DWORD error = ::GetLastError();
    if (error != ERROR_LOCK_VIOLATION) return false;
    if (::GetTickCount64() >= deadline) return ::SetLastError(ERROR_LOCK_VIOLATION), false;
    ::Sleep(1);
  }
}

bool FileUnlockWriters(FileHandle file) {
  if (!file) return ::SetLastError(ERROR_INVALID_HANDLE), false;
  OVERLAPPED at{};
  at.OffsetHigh = kWritersLockHigh;
  return ::UnlockFileEx(file->h, 0, 1, 0, &at) != FALSE;
}

bool FileWriteWholeLike(std::string_view path, std::string_view bytes, FileHandle like) {
  if (!like) return ::SetLastError(ERROR_INVALID_HANDLE), false;
  const std::string target(path), part = target + ".part";
  ::DeleteFileA(part.c_str());   // one a crash left behind (a link there goes, its target stays)
  // CREATE_NEW never opens what is there, a link included; the folder's inherited rules until the
  // data file's own are set.
  const HANDLE h = ::CreateFileA(part.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  DWORD done = 0;
  bool ok = ::WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &done, nullptr) != FALSE;
  if (ok && done != bytes.size()) ok = (::SetLastError(ERROR_DISK_FULL), false);
  ok = ok && ::FlushFileBuffers(h) != FALSE;
  DWORD error = ok ? 0 : ::GetLastError();
  ::CloseHandle(h);
  if (ok && !(SecureDataFile(part) &&
              ::MoveFileExA(part.c_str(), target.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)))
    ok = false, error = ::GetLastError();
  if (ok) return ::SetLastError(0), true;
  ::DeleteFileA(part.c_str());
  ::SetLastError(error ? error : ERROR_GEN_FAILURE);
  return false;
}

bool FileDelete(std::string_view path) { return ::DeleteFileA(std::string(path).c_str()) != FALSE; }

bool CreateDirectoryPath(std::string_view path) {
  std::string p(path);
  for (char& c : p)
    if (c == '/') c = '\\';
  const int err = ::SHCreateDirectoryExA(nullptr, p.c_str(), nullptr);
  if (err == ERROR_SUCCESS) return true;
  const DWORD attributes = ::GetFileAttributesA(p.c_str());
  if ((err == ERROR_ALREADY_EXISTS || err == ERROR_FILE_EXISTS) && attributes != INVALID_FILE_ATTRIBUTES &&
      (attributes & FILE_ATTRIBUTE_DIRECTORY))
    return true;
  ::SetLastError(static_cast<DWORD>(err));
  return false;
}

bool RemoveEmptyDirectory(std::string_view path) { return ::RemoveDirectoryA(std::string(path).c_str()) != FALSE; }

bool FileExists(std::string_view path) {
  WIN32_FIND_DATAA found;
  HANDLE h = ::FindFirstFileA(std::string(path).c_str(), &found);
  if (h == INVALID_HANDLE_VALUE) return false;
  ::FindClose(h);
  return true;
}

std::string TempDirectory() {
  std::unique_ptr<char[]> buf(new char[4096]());
  const DWORD n = ::GetTempPathA(4096, buf.get());
  return (n == 0 || n >= 4096) ? std::string() : std::string(buf.get(), n);
}

bool TempFileName(std::string_view dir, std::string_view prefix, std::string& out) {
  char name[MAX_PATH + 1] = {};
  if (!::GetTempFileNameA(std::string(dir).c_str(), std::string(prefix).c_str(), 0, name)) return false;
  out = name;
  return true;
}

namespace {

// An access-allowed ACE with inheritance flags, built by hand as the ACL calls of old systems lack
// an "add with flags" call: header, mask, then the SID.
bool AddInheritableAce(PACL acl, DWORD mask, PSID sid) {
  const DWORD sid_len = ::GetLengthSid(sid);
  const DWORD ace_len = sizeof(ACCESS_ALLOWED_ACE) - sizeof(DWORD) + sid_len;
  auto* buf = static_cast<BYTE*>(::LocalAlloc(LPTR, 1024));
  if (!buf) return false;
  bool ok = false;
  if (ace_len <= 1024) {
    auto* ace = reinterpret_cast<ACCESS_ALLOWED_ACE*>(buf);
    ace->Header.AceType = ACCESS_ALLOWED_ACE_TYPE;
    ace->Header.AceFlags = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
    ace->Header.AceSize = static_cast<WORD>(ace_len);
    ace->Mask = mask;
    ::CopySid(sid_len, &ace->SidStart, sid);
    ok = ::AddAce(acl, ACL_REVISION, MAXDWORD, ace, ace_len) != FALSE;
  }
  ::LocalFree(buf);
  return ok;
}

}  // namespace

bool SecureDataFile(std::string_view path) {
  struct Principal {
    SID_IDENTIFIER_AUTHORITY authority;
    BYTE count;
    DWORD sub0, sub1;
    DWORD inheritable_mask, plain_mask;
  };
  const Principal principals[] = {
      {SECURITY_WORLD_SID_AUTHORITY, 1, SECURITY_WORLD_RID, 0, 0x001200A9, 0xA0000000},                         // Everyone
      {SECURITY_NT_AUTHORITY, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, GENERIC_ALL, GENERIC_ALL},  // Administrators
      {SECURITY_NT_AUTHORITY, 1, SECURITY_LOCAL_SYSTEM_RID, 0, GENERIC_ALL, GENERIC_ALL},                         // Local System
      {SECURITY_NT_AUTHORITY, 1, SECURITY_LOCAL_SERVICE_RID, 0, GENERIC_ALL, GENERIC_ALL},                        // Local Service
      {SECURITY_NT_AUTHORITY, 1, SECURITY_NETWORK_SERVICE_RID, 0, GENERIC_ALL, GENERIC_ALL},                      // Network Service
  };
  std::unique_ptr<BYTE[]> acl_buf(new BYTE[32000]());
  auto* acl = reinterpret_cast<PACL>(acl_buf.get());
  SECURITY_DESCRIPTOR sd;
  ::InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
  ::InitializeAcl(acl, 32000, ACL_REVISION);
  for (const auto& p : principals) {
    SID_IDENTIFIER_AUTHORITY authority = p.authority;
    PSID sid = nullptr;
    if (!::AllocateAndInitializeSid(&authority, p.count, p.sub0, p.sub1, 0, 0, 0, 0, 0, 0, &sid)) continue;
    AddInheritableAce(acl, p.inheritable_mask, sid);
    ::AddAccessAllowedAce(acl, ACL_REVISION, p.plain_mask, sid);
    ::FreeSid(sid);
  }
  const std::string p(path);
  ::SetSecurityDescriptorDacl(&sd, TRUE, acl, FALSE);
  const bool ok = ::SetFileSecurityA(p.c_str(), DACL_SECURITY_INFORMATION, &sd) != FALSE;
  return ok;
}

bool sys::OpenTextFileForUser(std::string_view path, const int* origin_xy) {
  std::string command = "notepad \"" + std::string(path) + "\"";
  STARTUPINFOA si{};
  si.cb = sizeof si;
  if (origin_xy) {
    si.dwX = static_cast<DWORD>(origin_xy[0]);
    si.dwY = static_cast<DWORD>(origin_xy[1]);
    si.dwFlags = STARTF_USEPOSITION | STARTF_USESHOWWINDOW;
    si.wShowWindow = SW_SHOWNORMAL;
  }
  PROCESS_INFORMATION pi{};
  if (!::CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) return false;
  ::CloseHandle(pi.hProcess);
  ::CloseHandle(pi.hThread);
  return true;
}

bool WindowOrigin(void* window, int& x, int& y) {
  x = y = 0;
  RECT r;
  if (!window || !::GetWindowRect(static_cast<HWND>(window), &r)) return false;
  x = r.left;
  y = r.top;
  return true;
}

void SetStdoutBinary() {
  std::fflush(stdout);
  _setmode(_fileno(stdout), _O_BINARY);
}

}  // namespace platform
