// Named sections and events on POSIX: shared memory objects, and a futex word per named event.
#include "platform/shared.h"

#include <fcntl.h>
#include <pthread.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <thread>

#include "platform/error.h"
#include "platform/posix/event.h"
#include "platform/sys.h"

namespace platform {

struct SectionObject {
  int fd = -1;
};

struct NamedEventLink {
  std::atomic<std::uint32_t>* word = nullptr;   // bit 0 signalled, bits 1.. count the times it was set
  // Under the event's mutex:
  bool closing = false;
  bool pending = false;          // a setting of the word not yet consumed by a wait in this process
  std::uint32_t last_count = 0;  // the set count the waiter thread last saw
  std::atomic<bool> exited{false};
  std::thread waiter;
};

namespace {

std::uint32_t Win32FromErrno(int err) {
  switch (err) {
    case EACCES: case EPERM: return kErrorAccessDenied;
    case ENOMEM: case ENOSPC: return kErrorNotEnoughMemory;
    case ENAMETOOLONG: case EINVAL: return 123;   // ERROR_INVALID_NAME
    case EMFILE: case ENFILE: return 4;           // ERROR_TOO_MANY_OPEN_FILES
    default: return kErrorGenFailure;
  }
}

// Opens or creates the shared memory object of a Win32 name with at least size bytes.
int OpenShared(const char* name, std::uint32_t size, bool& existed) {
  const std::string posix_name = SharedObjectName(name ? name : "");
  existed = false;
  int fd = shm_open(posix_name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd >= 0) {
    fchmod(fd, 0666);   // full access for everybody, whatever the umask
  } else if (errno == EEXIST) {
    existed = true;
    fd = shm_open(posix_name.c_str(), O_RDWR | O_CLOEXEC, 0);
  }
  if (fd < 0) {
    SetLastError(Win32FromErrno(errno));
    return -1;
  }
  // A creator in another process may not have sized it yet: growing fills with zeros, and both
  // sides grow it to the same size.
  struct stat st {};
  if (fstat(fd, &st) != 0 || (st.st_size < size && ftruncate(fd, size) != 0)) {
    SetLastError(Win32FromErrno(errno));
    close(fd);
    return -1;
  }
  return fd;
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

SectionHandle sys::CreateNamedSection(const char* name, std::uint32_t size, bool& already_existed) {
  const int fd = OpenShared(name, size, already_existed);
  if (fd < 0) return nullptr;
  SetLastError(already_existed ? kErrorAlreadyExists : 0);   // as CreateFileMapping reports it
  return new SectionObject{fd};
}

SectionHandle sys::OpenNamedSection(const char* name, std::uint32_t size) {
  const int fd = shm_open(SharedObjectName(name ? name : "").c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) return SetLastError(errno == ENOENT ? kErrorFileNotFound : Win32FromErrno(errno)), nullptr;
  // A view past the object's end would fault on reading: one not yet sized is not there yet.
  struct stat st {};
  if (fstat(fd, &st) != 0 || st.st_size < static_cast<off_t>(size)) {
    close(fd);
    return SetLastError(kErrorFileNotFound), nullptr;
  }
  return new SectionObject{fd};
}

void* MapSection(SectionHandle section, std::uint32_t size, bool writable) {
  if (!section) return SetLastError(kErrorInvalidHandle), nullptr;
  void* view = mmap(nullptr, size, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, section->fd, 0);
  if (view == MAP_FAILED) return SetLastError(Win32FromErrno(errno)), nullptr;
  return view;
}

void UnmapSection(void* view, std::uint32_t size) {
  if (view) munmap(view, size);
}

void CloseSection(SectionHandle section) {
  if (!section) return;
  close(section->fd);
  delete section;
}

EventHandle sys::CreateNamedEvent(const char* name) {
  bool existed = false;
  const int fd = OpenShared(name, sizeof(std::uint32_t), existed);
  if (fd < 0) return nullptr;
  void* view = mmap(nullptr, sizeof(std::uint32_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (view == MAP_FAILED) return SetLastError(Win32FromErrno(errno)), nullptr;
  EventHandle e = sys::CreateSyncEvent(true, false);
  if (!e) return munmap(view, sizeof(std::uint32_t)), nullptr;
  e->named = new NamedEventLink;
  e->named->word = static_cast<std::atomic<std::uint32_t>*>(view);
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
  munmap(link->word, sizeof(std::uint32_t));
  delete link;
  e->named = nullptr;
}

}  // namespace posix
}  // namespace platform

namespace platform {
void DeleteNamedObject(const char* name) { shm_unlink(SharedObjectName(name ? name : "").c_str()); }
}  // namespace platform
