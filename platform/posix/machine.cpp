// The applet's machine facts on POSIX: rights on the machine root, other machines' stores, files.
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "platform/error.h"
#include "platform/machine.h"
#include "platform/paths.h"
#include "platform/posix/win32_code.h"
#include "platform/registry.h"
#include "platform/sys.h"

#ifndef CW_BUILD
#define CW_BUILD 1
#endif

namespace platform {

// The file version marker the installer reads in a module file: "CWFILEVER", a zero, then the
// version as 8 little-endian bytes (4.2.0.build).
extern "C" __attribute__((used)) const unsigned char cw_file_version_marker[18] = {
    'C', 'W', 'F', 'I', 'L', 'E', 'V', 'E', 'R', 0, std::uint8_t(CW_BUILD), std::uint8_t(CW_BUILD >> 8), 0, 0, 2, 0, 4, 0};

namespace {
bool fail(std::error_code ec) {
  SetLastError(Win32CodeOfErrno(ec.value()));
  return false;
}
}  // namespace

bool sys::AdminShareOpens(std::string_view) { return access(MachineRoot().c_str(), W_OK) == 0; }
bool sys::EnableTcbPrivilege() { return geteuid() == 0; }
bool sys::TokenHasAdministrators() { return false; }

std::uint32_t GetServerInfo(std::string_view machine, ServerInfo& out) {
  RegKey root = nullptr;
  std::string name = "\\\\" + std::string(machine);
  std::uint32_t st = machine.empty() ? 0 : RegConnectRegistry(name, false, root);
  if (st) return st;
  RegKey base = root ? root : RegLocalMachine();
  RegKey key = nullptr;
  char type[32] = {};
  std::uint32_t size = sizeof type - 1, vtype = 0;
  if (RegOpenKey(base, "SYSTEM\\CurrentControlSet\\Control\\ProductOptions", kKeyRead, key) == 0) {
    RegQueryValue(key, "ProductType", &vtype, type, &size);
    RegCloseKey(key);
  }
  // The version the machine declares (CurrentMajorVersionNumber / CurrentMinorVersionNumber, as
  // Windows keeps them), else 6.3.
  out.major = 6;
  out.minor = 3;
  if (RegOpenKey(base, "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", kKeyRead, key) == 0) {
    std::uint32_t v = 0, vsize = sizeof v;
    if (RegQueryValue(key, "CurrentMajorVersionNumber", &vtype, &v, &vsize) == 0 && vtype == kRegDword) out.major = v;
    vsize = sizeof v;
    if (RegQueryValue(key, "CurrentMinorVersionNumber", &vtype, &v, &vsize) == 0 && vtype == kRegDword) out.minor = v;
    RegCloseKey(key);
  }
  if (root) RegCloseKey(root);
  out.type = 0x1000 | 0x2 | (std::strcmp(type, "WinNT") == 0 ? 0 : 0x8000);   // NT | server service | server
  return 0;
}

std::uint32_t RemoteTimeOfDay(std::string_view, SystemTime&) { return kErrorNotSupported; }

std::string ThisModuleFile() {
  if (const char* m = std::getenv("CHRONWARDEN_MODULE"); m && *m) return m;
  // Else the module beside the running program, one folder up (the build tree's layout), or in
  // ../lib/chronwarden (an installed system's: /usr/bin/chronwarden, /usr/lib/chronwarden).
  std::error_code ec;
  std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  const std::filesystem::path prefix = exe.parent_path().parent_path();
  for (const auto& p : {exe.parent_path() / "w32tmkr.cpl", prefix / "w32tmkr.cpl", prefix / "lib" / "chronwarden" / "w32tmkr.cpl"})
    if (std::filesystem::exists(p, ec)) return p.string();
  return exe.string();
}

std::string TimeServiceProgram() {
  std::error_code ec;
  std::filesystem::path host;
  if (const char* h = std::getenv("CHRONWARDEN_HOST"); h && *h) {
    host = h;
  } else {
    const std::filesystem::path dir = std::filesystem::read_symlink("/proc/self/exe", ec).parent_path();
    for (const auto& p : {dir / "chronwarden-host", dir.parent_path() / "sbin" / "chronwarden-host",
                          dir.parent_path() / "host" / "chronwarden-host"})
      if (std::filesystem::exists(p, ec)) { host = p; break; }
  }
  if (host.empty() || !std::filesystem::exists(host, ec)) return {};
  return std::filesystem::absolute(host, ec).string() + " --foreground";
}

std::uint64_t FileVersion(std::string_view path) {
  std::ifstream f(NativePath(path), std::ios::binary);
  if (!f) return 0;
  std::string data((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  std::string_view magic(reinterpret_cast<const char*>(cw_file_version_marker), 10);
  std::size_t at = data.find(magic);
  if (at == std::string::npos || at + 18 > data.size()) return 0;
  std::uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = v << 8 | static_cast<unsigned char>(data[at + 10 + std::size_t(i)]);
  return v;
}

bool ClearFileAttributes(std::string_view path) {
  std::error_code ec;
  std::filesystem::permissions(NativePath(path), std::filesystem::perms::owner_write, std::filesystem::perm_options::add, ec);
  return ec ? fail(ec) : true;
}

bool CopyFileOver(std::string_view from, std::string_view to) {
  std::error_code ec;
  const std::filesystem::path dst = NativePath(to);
  std::filesystem::create_directories(dst.parent_path(), ec);
  // Through a copy and a rename, so that a running program keeps its old file. The copy is made new
  // (O_EXCL) in a folder of this process's own (mode 0700, reached through its descriptor) inside
  // the destination's folder, which the host's group may write: no link planted there is followed
  // or written through, and the rename replaces the name, never what a link there points to.
  std::string folder = (dst.parent_path() / ".copy-XXXXXX").string();
  if (!::mkdtemp(folder.data())) return fail(std::error_code(errno, std::generic_category()));
  const std::string name = dst.filename().string();
  const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  const int into = ::open(dst.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int in = ::open(NativePath(from).c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st {}, own {};
  bool ok = dir >= 0 && into >= 0 && in >= 0 && ::fstat(dir, &own) == 0 && own.st_uid == ::geteuid() &&
            (own.st_mode & 077) == 0 && ::fstat(in, &st) == 0;
  const int out = ok ? ::openat(dir, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600) : -1;
  ok = ok && out >= 0;
  for (off_t left = ok ? st.st_size : 0; ok && left > 0;) {
    const ssize_t n = ::sendfile(out, in, nullptr, static_cast<std::size_t>(left));
    ok = n > 0;
    left -= n;
  }
  ok = ok && ::fchmod(out, st.st_mode & 0755) == 0 && ::fsync(out) == 0 && ::renameat(dir, name.c_str(), into, name.c_str()) == 0;
  const int err = ok ? 0 : errno ? errno : EACCES;
  for (const int fd : {in, out, into}) if (fd >= 0) ::close(fd);
  if (dir >= 0) {
    ::unlinkat(dir, name.c_str(), 0);
    ::close(dir);
  }
  ::rmdir(folder.c_str());
  return ok ? true : fail(std::error_code(err, std::generic_category()));
}

bool DeleteFileAt(std::string_view path) {
  std::error_code ec;
  if (!std::filesystem::remove(NativePath(path), ec)) return fail(ec ? ec : std::make_error_code(std::errc::no_such_file_or_directory));
  return true;
}

bool sys::MoveFileReplacing(std::string_view from, std::string_view to) {
  std::error_code ec;
  std::filesystem::rename(NativePath(from), NativePath(to), ec);
  return ec ? fail(ec) : true;
}

}  // namespace platform
