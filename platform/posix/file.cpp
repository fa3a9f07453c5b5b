// Files on POSIX: descriptors behind Win32-style calls, sharing emulated with flock.
#include "platform/file.h"
#include "platform/sys.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/error.h"
#include "platform/paths.h"
#include "platform/posix/win32_code.h"

namespace platform {

struct FileObject {
  int fd;
};

namespace {

bool Fail(int err, bool path_missing = false) {
  SetLastError(Win32CodeOfErrno(err, path_missing));
  return false;
}

bool ParentMissing(const std::string& native) {
  const auto slash = native.find_last_of('/');
  if (slash == std::string::npos || slash == 0) return false;
  struct stat st{};
  return ::stat(native.substr(0, slash).c_str(), &st) != 0 || !S_ISDIR(st.st_mode);
}

// Why the file open on fd is not one kFlagNoLinks accepts, or nullptr: a regular file with one link,
// owned by this process's user, by root or by the group of its folder (native is its path).
const char* Planted(int fd, const std::string& native) {
  struct stat st{}, dir{};
  if (::fstat(fd, &st) != 0) return "it cannot be examined";
  if (!S_ISREG(st.st_mode)) return "it is not a regular file";
  if (st.st_nlink != 1) return "it has other links";
  const auto slash = native.find_last_of('/');
  const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : native.substr(0, slash);
  if (st.st_uid != ::geteuid() && st.st_uid != 0 && (::stat(folder.c_str(), &dir) != 0 || dir.st_gid != st.st_gid))
    return "it belongs to another user";
  return nullptr;
}

// Refuses (closes, access denied) a file that Planted names. The line on standard error comes once
// per path and reason in a process: callers that try again (a reader, then a repair) say it once.
bool RefusePlanted(int fd, const std::string& native, int open_errno = 0) {
  const char* why = open_errno == ELOOP ? "it is a symbolic link" : open_errno ? nullptr : Planted(fd, native);
  if (!why) return false;
  if (fd >= 0) ::close(fd);
  static std::mutex said_lock;
  static std::set<std::string> said;
  bool first = false;
  {
    const std::lock_guard<std::mutex> hold(said_lock);
    first = said.size() >= 64 || said.insert(native + '\n' + why).second;   // a bounded memory
  }
  if (first) std::fprintf(stderr, "chronwarden: %s: refused: %s (a link planted there is never followed)\n", native.c_str(), why);
  SetLastError(kErrorAccessDenied);
  return true;
}

}  // namespace

FileHandle FileCreate(std::string_view path, std::uint32_t access, std::uint32_t share, std::uint32_t disposition,
                      std::uint32_t flags) {
  const std::string native = NativePath(path);
  int mode = O_RDONLY;
  if ((access & kGenericRead) && (access & kGenericWrite)) mode = O_RDWR;
  else if (access & kGenericWrite) mode = O_WRONLY;
  int oflags = mode | O_CLOEXEC;
  const bool no_links = (flags & kFlagNoLinks) != 0;
  if (no_links) oflags |= O_NOFOLLOW | O_NONBLOCK;   // a FIFO planted there does not block the open
  if (disposition == kCreateAlways || disposition == kOpenAlways) oflags |= O_CREAT;
  else if (disposition != kOpenExisting) {
    SetLastError(kErrorInvalidParameter);
    return nullptr;
  }
  // No O_TRUNC here: CREATE_ALWAYS truncates only once the sharing check has passed.
  const int fd = ::open(native.c_str(), oflags, 0644);
  if (no_links && RefusePlanted(fd, native, fd < 0 ? errno : 0)) return nullptr;
  if (fd < 0) {
    const int err = errno;
    Fail(err, err == ENOENT && ParentMissing(native));
    return nullptr;
  }
  if (no_links) ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  struct stat st{};
  if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
    ::close(fd);
    SetLastError(kErrorAccessDenied);
    return nullptr;
  }
  if (::flock(fd, (share == 0 ? LOCK_EX : LOCK_SH) | LOCK_NB) != 0) {
    const int err = errno;
    ::close(fd);
    SetLastError(err == EWOULDBLOCK ? kErrorSharingViolation : Win32CodeOfErrno(err));
    return nullptr;
  }
  if (disposition == kCreateAlways && ::ftruncate(fd, 0) != 0) {
    const int err = errno;
    ::close(fd);
    Fail(err);
    return nullptr;
  }
  SetLastError(0);
  return new FileObject{fd};
}

void FileClose(FileHandle file) {
  if (!file) return;
  ::close(file->fd);
  delete file;
}

bool sys::FileRead(FileHandle file, void* buf, std::uint32_t size, std::uint32_t& done) {
  done = 0;
  if (!file) return Fail(EBADF);
  auto* p = static_cast<char*>(buf);
  while (done < size) {
    const ssize_t n = ::read(file->fd, p + done, size - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return Fail(errno);
    }
    if (n == 0) break;
    done += static_cast<std::uint32_t>(n);
  }
  return true;
}

bool sys::FileWrite(FileHandle file, const void* buf, std::uint32_t size, std::uint32_t& done) {
  done = 0;
  if (!file) return Fail(EBADF);
  const auto* p = static_cast<const char*>(buf);
  while (done < size) {
    const ssize_t n = ::write(file->fd, p + done, size - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return Fail(errno);
    }
    done += static_cast<std::uint32_t>(n);
  }
  return true;
}

bool FileSeek(FileHandle file, std::int64_t distance, SeekFrom from, std::uint64_t* position) {
  if (!file) return Fail(EBADF);
  const int whence = from == SeekFrom::Begin ? SEEK_SET : from == SeekFrom::Current ? SEEK_CUR : SEEK_END;
  const off_t at = ::lseek(file->fd, static_cast<off_t>(distance), whence);
  if (at < 0) {
    // Win32 names a move before the start of the file with its own code.
    SetLastError(errno == EINVAL ? kErrorNegativeSeek : Win32CodeOfErrno(errno));
    return false;
  }
  if (position) *position = static_cast<std::uint64_t>(at);
  return true;
}

bool FileSize(FileHandle file, std::uint64_t& size) {
  if (!file) return Fail(EBADF);
  struct stat st{};
  if (::fstat(file->fd, &st) != 0) return Fail(errno);
  size = static_cast<std::uint64_t>(st.st_size);
  return true;
}

bool sys::FileFlush(FileHandle file) {
  if (!file) return Fail(EBADF);
  if (::fsync(file->fd) != 0 && errno != EINVAL) return Fail(errno);
  return true;
}

bool FileSetEnd(FileHandle file) {
  if (!file) return Fail(EBADF);
  const off_t at = ::lseek(file->fd, 0, SEEK_CUR);
  if (at < 0 || ::ftruncate(file->fd, at) != 0) return Fail(errno);
  return true;
}

namespace {
constexpr off_t kWritersLockByte = off_t{1} << 62;   // far beyond any data

bool SetWritersLock(const FileObject& file, short type) {
  struct flock lock{};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = kWritersLockByte;
  lock.l_len = 1;
  return ::fcntl(file.fd, F_OFD_SETLK, &lock) == 0;
}
}  // namespace

bool FileLockWriters(FileHandle file, std::uint32_t wait_ms) {
  if (!file) return Fail(EBADF);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
  while (!SetWritersLock(*file, F_WRLCK)) {
    if (errno != EAGAIN && errno != EACCES && errno != EINTR) return Fail(errno);
    if (std::chrono::steady_clock::now() >= deadline) return SetLastError(kErrorLockViolation), false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

bool FileUnlockWriters(FileHandle file) {
  if (!file) return Fail(EBADF);
  return SetWritersLock(*file, F_UNLCK) || Fail(errno);
}

bool FileWriteWholeLike(std::string_view path, std::string_view bytes, FileHandle like) {
  if (!like) return Fail(EBADF);
  struct stat model{};
  if (::fstat(like->fd, &model) != 0) return Fail(errno);
  const std::string native = NativePath(path), part = native + ".part";
  ::unlink(part.c_str());   // one a crash left behind (a link there goes, its target stays)
  const int fd = ::open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return Fail(errno, errno == ENOENT && ParentMissing(native));
  FileObject file{fd};
  std::uint32_t done = 0;
  bool ok = sys::FileWrite(&file, bytes.data(), static_cast<std::uint32_t>(bytes.size()), done);
  if (ok && done != bytes.size()) ok = Fail(ENOSPC);
  struct stat made{};
  if (ok && (::fstat(fd, &made) != 0 ||
             ((made.st_uid != model.st_uid || made.st_gid != model.st_gid) && ::fchown(fd, model.st_uid, model.st_gid) != 0) ||
             ::fchmod(fd, model.st_mode & 07777) != 0 || ::fsync(fd) != 0))
    ok = Fail(errno);
  const std::uint32_t error = LastError();
  ::close(fd);
  if (ok && ::rename(part.c_str(), native.c_str()) == 0) return SetLastError(0), true;
  const std::uint32_t failure = ok ? Win32CodeOfErrno(errno) : error;
  ::unlink(part.c_str());
  SetLastError(failure);
  return false;
}

bool FileDelete(std::string_view path) {
  const std::string native = NativePath(path);
  if (::unlink(native.c_str()) != 0) return Fail(errno, errno == ENOENT && ParentMissing(native));
  return true;
}

bool CreateDirectoryPath(std::string_view path) {
  const std::string native = NativePath(path);
  for (std::size_t end = native.find('/', 1);; end = native.find('/', end + 1)) {
    const std::string folder = native.substr(0, end);
    struct stat st{};
    if (!folder.empty() && ::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) return Fail(errno, true);
    if (!folder.empty() && (::stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)))
      return Fail(end == std::string::npos ? EEXIST : ENOTDIR);
    if (end == std::string::npos) return true;
  }
}

bool RemoveEmptyDirectory(std::string_view path) {
  if (::rmdir(NativePath(path).c_str()) != 0) return Fail(errno, true);
  return true;
}

bool FileExists(std::string_view path) {
  struct stat st;
  return ::stat(NativePath(path).c_str(), &st) == 0;
}

std::string TempDirectory() {
  const char* env = std::getenv("TMPDIR");
  std::string dir = (env && *env) ? env : "/tmp";
  if (dir.back() != '/') dir += '/';
  return dir;
}

bool TempFileName(std::string_view dir, std::string_view prefix, std::string& out) {
  std::string base(dir);
  if (!base.empty() && base.back() != '/' && base.back() != '\\') base += '/';
  std::random_device rd;
  std::uint32_t unique = rd() & 0xFFFF;
  for (int tries = 0; tries < 0x10000; ++tries, unique = (unique + 1) & 0xFFFF) {
    if (unique == 0) continue;
    char name[16];
    std::snprintf(name, sizeof name, "%X.tmp", unique);
    const std::string candidate = base + std::string(prefix.substr(0, 3)) + name;
    const std::string native = NativePath(candidate);
    const int fd = ::open(native.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0) {
      ::close(fd);
      out = candidate;
      SetLastError(0);
      return true;
    }
    if (errno != EEXIST) return Fail(errno, errno == ENOENT);
  }
  SetLastError(kErrorFileExists);
  return false;
}

bool SecureDataFile(std::string_view path) {
  const std::string native = NativePath(path);
  // Through the file itself, never a link: root runs this in folders the host's group may write.
  const int fd = ::open(native.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (RefusePlanted(fd, native, fd < 0 ? errno : 0)) return false;
  if (fd < 0) return Fail(errno, errno == ENOENT && ParentMissing(native));
  const bool changed = ::fchmod(fd, 0644) == 0;
  const int err = errno;
  ::close(fd);
  if (!changed) return Fail(err);
  SetLastError(0);
  return true;
}

namespace {

// Starts argv detached (a grandchild of this process, so nothing is left to reap); true once exec
// succeeded. A pipe closed on exec carries the exec failure back.
bool SpawnDetached(const std::vector<std::string>& args) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return Fail(errno);
  const pid_t child = ::fork();
  if (child < 0) {
    ::close(fds[0]);
    ::close(fds[1]);
    return Fail(errno);
  }
  if (child == 0) {
    ::setsid();
    const pid_t grandchild = ::fork();
    if (grandchild != 0) ::_exit(grandchild < 0 ? 1 : 0);
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
    const int err = errno;
    (void)!::write(fds[1], &err, sizeof err);
    ::_exit(127);
  }
  ::close(fds[1]);
  int status = 0;
  ::waitpid(child, &status, 0);
  int err = 0;
  ssize_t n;
  do n = ::read(fds[0], &err, sizeof err); while (n < 0 && errno == EINTR);
  ::close(fds[0]);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return Fail(ECHILD);
  if (n == static_cast<ssize_t>(sizeof err)) return Fail(err);
  return true;
}

}  // namespace

bool sys::OpenTextFileForUser(std::string_view path, const int* /*origin_xy*/) {
  const std::string native = NativePath(path);
  const char* display = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  if (((display && *display) || (wayland && *wayland)) && SpawnDetached({"xdg-open", native})) return true;
  for (const char* var : {"VISUAL", "EDITOR"}) {
    const char* editor = std::getenv(var);
    if (editor && *editor && SpawnDetached({editor, native})) return true;
  }
  if (LastError() == 0) SetLastError(kErrorFileNotFound);
  return false;
}

bool WindowOrigin(void* /*window*/, int& x, int& y) {
  x = y = 0;
  return false;
}

void SetStdoutBinary() {}

}  // namespace platform
