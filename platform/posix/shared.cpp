// Named sections and events on POSIX: shared memory objects of the family's user and group, mode
// 0660, held with shared locks (flock) so that the last holder removes them, and a futex word per
// named event.
#include "platform/shared.h"

#include <fcntl.h>
#include <pthread.h>
#include <linux/futex.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "platform/error.h"
#include "platform/paths.h"
#include "platform/posix/event.h"
#include "platform/sys.h"

namespace platform {

struct SectionObject {
  int fd = -1;
  std::string name;      // the POSIX name it was opened under
  bool holder = false;   // a holder (CreateNamedSection): keeps a shared lock, the last one removes the name
};

struct NamedEventLink {
  std::atomic<std::uint32_t>* word = nullptr;   // bit 0 signalled, bits 1.. count the times it was set
  int fd = -1;                                  // the object, held with a shared lock
  std::string name;
  // Under the event's mutex:
  bool closing = false;
  bool pending = false;          // a setting of the word not yet consumed by a wait in this process
  std::uint32_t last_count = 0;  // the set count the waiter thread last saw
  std::atomic<bool> exited{false};
  std::thread waiter;
};

namespace {

constexpr mode_t kFamilyMode = 0660;   // the family's objects: owner and group read and write
constexpr int kAttachTries = 16;       // races with a last closer removing the name, retried

thread_local std::string t_notice;   // TakeSharedObjectNotice

std::uint32_t Win32FromErrno(int err) {
  switch (err) {
    case EACCES: case EPERM: return kErrorAccessDenied;
    case ENOMEM: case ENOSPC: return kErrorNotEnoughMemory;
    case ENAMETOOLONG: case EINVAL: return 123;   // ERROR_INVALID_NAME
    case EMFILE: case ENFILE: return 4;           // ERROR_TOO_MANY_OPEN_FILES
    default: return kErrorGenFailure;
  }
}

// The family's group: the machine root folder's (the host's group where the packages installed
// it), or this process's own where there is no such folder.
gid_t FamilyGroup() {
  struct stat st {};
  return stat(MachineRoot().c_str(), &st) == 0 ? st.st_gid : getegid();
}

// Why an object found under a family name is not the family's, or "" when it is: a regular file,
// owned by this process's user, by root or by the family's group, with no access beyond 0660 and
// group access only for the family's group, size bytes long (0: its creator is still sizing it).
std::string Foreign(const struct stat& st, std::uint32_t size) {
  const gid_t family = FamilyGroup();
  const mode_t mode = st.st_mode & 07777;
  char why[160] = "";
  if (!S_ISREG(st.st_mode))
    std::snprintf(why, sizeof why, "it is not a regular file");
  else if (st.st_uid != geteuid() && st.st_uid != 0 && st.st_gid != family)
    std::snprintf(why, sizeof why, "it belongs to user %u", static_cast<unsigned>(st.st_uid));
  else if ((mode & ~kFamilyMode) != 0)
    std::snprintf(why, sizeof why, "its mode %04o lets others in", static_cast<unsigned>(mode));
  else if ((mode & 0060) != 0 && st.st_gid != family)
    std::snprintf(why, sizeof why, "its group %u may use it", static_cast<unsigned>(st.st_gid));
  else if (st.st_size != 0 && st.st_size != static_cast<off_t>(size))
    std::snprintf(why, sizeof why, "it is %lld bytes long, not %u", static_cast<long long>(st.st_size), size);
  return why;
}

// True when the name still names the object open on fd (a last closer may have removed it).
bool StillNamed(const std::string& name, int fd) {
  struct stat mine {}, named {};
  const int other = shm_open(name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC, 0);
  if (other < 0) return false;
  const bool same = fstat(fd, &mine) == 0 && fstat(other, &named) == 0 && mine.st_dev == named.st_dev && mine.st_ino == named.st_ino;
  close(other);
  return same;
}

// A new object under name: the family's group and mode 0660 (0600 when the group cannot be given),
// size bytes of zeros, held with a shared lock. -1 with errno when the name is taken or it failed.
int CreateObject(const std::string& name, std::uint32_t size) {
  const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return -1;
  const gid_t family = FamilyGroup();
  const bool group = getegid() == family || fchown(fd, static_cast<uid_t>(-1), family) == 0;
  if (fchmod(fd, group ? kFamilyMode : 0600) != 0 || ftruncate(fd, size) != 0 || flock(fd, LOCK_SH) != 0) {
    const int err = errno;
    shm_unlink(name.c_str());
    close(fd);
    errno = err;
    return -1;
  }
  return fd;
}

// Opens the family's object of a Win32 name with size bytes, or creates it, held with a shared
// lock (Release lets it go). An object under the name that is not the family's is refused with a
// notice, and one of this process's own is made under the name followed by ".<pid>.<n>".
int Attach(const char* win32_name, std::uint32_t size, bool& existed, std::string& used) {
  used = SharedObjectName(win32_name ? win32_name : "");
  existed = false;
  std::string refused;
  for (int attempt = 0; attempt < kAttachTries && refused.empty(); ++attempt) {
    int fd = CreateObject(used, size);
    if (fd >= 0) {
      if (StillNamed(used, fd)) return fd;   // not removed by a last closer meanwhile
      close(fd);
      continue;
    }
    if (errno != EEXIST) break;
    fd = shm_open(used.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0);
    if (fd < 0) {
      if (errno == ENOENT) continue;   // removed by its last closer meanwhile
      if (errno == EACCES || errno == ELOOP) refused = std::string("it is not open to this process (") + std::strerror(errno) + ")";
      break;
    }
    struct stat st {};
    if (flock(fd, LOCK_SH) != 0 || fstat(fd, &st) != 0) {
      close(fd);
      break;
    }
    refused = Foreign(st, size);
    // A creator still sizing it: both grow it to the same size.
    if (refused.empty() && st.st_size == 0 && ftruncate(fd, size) != 0) refused = "it cannot be sized";
    if (refused.empty() && StillNamed(used, fd)) {
      existed = true;
      return fd;
    }
    close(fd);
  }
  if (refused.empty()) {
    SetLastError(Win32FromErrno(errno));
    return -1;
  }
  // A name of this process's own: made new, so nobody else's.
  const std::string taken = used;
  for (unsigned n = 0; n < 100; ++n) {
    used = taken + "." + std::to_string(getpid()) + "." + std::to_string(n);
    const int fd = CreateObject(used, size);
    if (fd >= 0) {
      t_notice = "The shared object " + taken + " is not this product's (" + refused + "); using " + used + " instead.";
      return fd;
    }
    if (errno != EEXIST) break;
  }
  t_notice = "The shared object " + taken + " is not this product's (" + refused + ").";
  SetLastError(kErrorAccessDenied);
  return -1;
}

// Lets a held object go: the last holder (no other shared lock left) removes its name, so that
// the objects go away with the last program of the family, as named sections do on Windows.
void Release(int fd, const std::string& name) {
  if (fd < 0) return;
  if (flock(fd, LOCK_EX | LOCK_NB) == 0 && StillNamed(name, fd)) shm_unlink(name.c_str());
  close(fd);
}

// Views of sections (and named events' words), so that a fault in one is recognised: an object cut
// shorter under its view raises SIGBUS on the next access, and the handler puts zero-filled
// private pages in place of the view instead, so that the access completes and the process goes
// on with a copy of its own.
struct View {
  std::atomic<std::uintptr_t> begin{0};
  std::atomic<std::size_t> length{0};
  std::atomic<int> prot{0};
};
constexpr std::size_t kViews = 64;
View g_views[kViews];
struct sigaction g_previous_bus {};
std::once_flag g_bus_once;
std::mutex g_views_lock;   // changes of g_views (the handler only reads it)

void OnBus(int sig, siginfo_t* info, void* context) {
  const auto at = reinterpret_cast<std::uintptr_t>(info->si_addr);
  for (View& v : g_views) {
    const std::uintptr_t begin = v.begin.load();
    const std::size_t length = v.length.load();
    if (begin && at >= begin && at < begin + length) {
      mmap(reinterpret_cast<void*>(begin), length, v.prot.load(), MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
      return;
    }
  }
  if (g_previous_bus.sa_flags & SA_SIGINFO) return g_previous_bus.sa_sigaction(sig, info, context);
  if (g_previous_bus.sa_handler == SIG_IGN) return;
  if (g_previous_bus.sa_handler != SIG_DFL) return g_previous_bus.sa_handler(sig);
  sigaction(SIGBUS, &g_previous_bus, nullptr);   // the fault comes again and ends the process
}

void* MapView(int fd, std::uint32_t size, int prot) {
  std::call_once(g_bus_once, [] {
    struct sigaction sa {};
    sa.sa_sigaction = OnBus;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGBUS, &sa, &g_previous_bus);
  });
  void* view = mmap(nullptr, size, prot, MAP_SHARED, fd, 0);
  if (view == MAP_FAILED) return SetLastError(Win32FromErrno(errno)), nullptr;
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  std::lock_guard hold(g_views_lock);
  for (View& v : g_views) {
    if (v.begin.load() != 0) continue;
    v.length.store((size + page - 1) / page * page);
    v.prot.store(prot);
    v.begin.store(reinterpret_cast<std::uintptr_t>(view));
    break;
  }
  return view;
}

void UnmapView(void* view, std::uint32_t size) {
  if (!view) return;
  {
    std::lock_guard hold(g_views_lock);
    for (View& v : g_views)
      if (v.begin.load() == reinterpret_cast<std::uintptr_t>(view)) v.begin.store(0);
  }
  munmap(view, size);
}

long Futex(std::atomic<std::uint32_t>* word, int op, std::uint32_t value) {
  return syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), op, value, nullptr, nullptr, 0);
}

void WakeAll(std::atomic<std::uint32_t>* word) { Futex(word, FUTEX_WAKE, INT_MAX); }

// The waiter thread: mirrors the shared word into the local event until the handle is closed. A
// setting by another process that it sees (even one already reset again, when it ran late) leaves
// one pending wake-up, so that a pulse wakes every other process's waiter once however briefly the
// word stayed set; a wait that returns answers every setting up to then.
void Mirror(EventObject* e) {
  pthread_setname_np(pthread_self(), "cw-event-wait");
  NamedEventLink* link = e->named;
  for (;;) {
    std::uint32_t seen;
    {
      std::lock_guard lock(e->mutex);
      if (link->closing) break;
      seen = link->word->load(std::memory_order_acquire);
      if ((seen >> 1) != link->last_count) {
        link->last_count = seen >> 1;
        link->pending = true;
      }
      posix::SetLocalLocked(e, (seen & 1) != 0 || link->pending);
    }
    Futex(link->word, FUTEX_WAIT, seen);   // returns at once when the word moved on meanwhile
  }
  link->exited.store(true);
}

}  // namespace

std::string SharedObjectName(std::string_view win32_name) {
  const char* ns = std::getenv("CHRONWARDEN_SHM_NAMESPACE");
  std::string out = "/";
  if (ns) out += ns;
  for (char c : win32_name) out += (c == '\\' || c == '/') ? '.' : c;
  return out;
}

std::string TakeSharedObjectNotice() { return std::exchange(t_notice, {}); }

SectionHandle sys::CreateNamedSection(const char* name, std::uint32_t size, bool& already_existed) {
  std::string used;
  const int fd = Attach(name, size, already_existed, used);
  if (fd < 0) return nullptr;
  SetLastError(already_existed ? kErrorAlreadyExists : 0);   // as CreateFileMapping reports it
  return new SectionObject{fd, used, true};
}

SectionHandle sys::OpenNamedSection(const char* name, std::uint32_t size) {
  const std::string posix_name = SharedObjectName(name ? name : "");
  const int fd = shm_open(posix_name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC, 0);
  if (fd < 0) return SetLastError(errno == ENOENT ? kErrorFileNotFound : Win32FromErrno(errno)), nullptr;
  // One not yet sized is not there yet; one that is not the family's is not read.
  struct stat st {};
  std::string foreign = fstat(fd, &st) == 0 ? Foreign(st, size) : "it cannot be examined";
  if (foreign.empty() && st.st_size == 0) foreign = "-";
  if (!foreign.empty()) {
    if (foreign != "-") t_notice = "The shared object " + posix_name + " is not this product's (" + foreign + ").";
    close(fd);
    return SetLastError(kErrorFileNotFound), nullptr;
  }
  return new SectionObject{fd, posix_name, false};
}

void* MapSection(SectionHandle section, std::uint32_t size, bool writable) {
  if (!section) return SetLastError(kErrorInvalidHandle), nullptr;
  return MapView(section->fd, size, writable ? PROT_READ | PROT_WRITE : PROT_READ);
}

void UnmapSection(void* view, std::uint32_t size) { UnmapView(view, size); }

void CloseSection(SectionHandle section) {
  if (!section) return;
  if (section->holder) Release(section->fd, section->name);
  else close(section->fd);
  delete section;
}

EventHandle sys::CreateNamedEvent(const char* name) {
  bool existed = false;
  std::string used;
  const int fd = Attach(name, sizeof(std::uint32_t), existed, used);
  if (fd < 0) return nullptr;
  void* view = MapView(fd, sizeof(std::uint32_t), PROT_READ | PROT_WRITE);
  if (!view) return Release(fd, used), nullptr;
  EventHandle e = sys::CreateSyncEvent(true, false);
  if (!e) return UnmapView(view, sizeof(std::uint32_t)), Release(fd, used), nullptr;
  e->named = new NamedEventLink;
  e->named->word = static_cast<std::atomic<std::uint32_t>*>(view);
  e->named->fd = fd;
  e->named->name = used;
  e->named->last_count = e->named->word->load() >> 1;   // settings before this open are not ours
  static_assert(sizeof(std::atomic<std::uint32_t>) == 4 && std::atomic<std::uint32_t>::is_always_lock_free);
  e->named->waiter = std::thread(Mirror, e);
  SetLastError(existed ? kErrorAlreadyExists : 0);
  return e;
}

namespace posix {

bool NamedIsSet(EventObject* e) {
  std::lock_guard lock(e->mutex);
  NamedEventLink* link = e->named;
  const std::uint32_t word = link->word->load(std::memory_order_acquire);
  const bool word_set = (word & 1) != 0;
  const bool set = word_set || link->pending;
  if (set) {   // this wake-up answers every setting up to now
    link->pending = false;
    link->last_count = word >> 1;
  }
  if (!word_set) SetLocalLocked(e, false);
  return set;
}

void SetNamed(EventObject* e, bool set) {
  std::lock_guard lock(e->mutex);
  std::atomic<std::uint32_t>* word = e->named->word;
  if (set) {
    std::uint32_t v = word->load(std::memory_order_relaxed);
    while (!(v & 1) && !word->compare_exchange_weak(v, (v + 2) | 1u, std::memory_order_acq_rel)) {
    }
    // This process's own waiters see the setting directly; only other processes keep it pending.
    e->named->last_count = word->load(std::memory_order_relaxed) >> 1;
  } else {
    word->fetch_and(~1u, std::memory_order_acq_rel);
  }
  WakeAll(word);
  SetLocalLocked(e, set || e->named->pending);
}

void CloseNamed(EventObject* e) {
  NamedEventLink* link = e->named;
  {
    std::lock_guard lock(e->mutex);
    link->closing = true;
  }
  // The waiter may be just about to block: wake it until it is gone.
  while (!link->exited.load()) {
    WakeAll(link->word);
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  link->waiter.join();
  UnmapView(link->word, sizeof(std::uint32_t));
  Release(link->fd, link->name);
  delete link;
  e->named = nullptr;
}

}  // namespace posix
}  // namespace platform

namespace platform {
void DeleteNamedObject(const char* name) { shm_unlink(SharedObjectName(name ? name : "").c_str()); }
}  // namespace platform
