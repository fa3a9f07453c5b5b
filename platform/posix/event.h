// POSIX events: a flag under a mutex, mirrored by an eventfd that is readable while the event is
// set, so that poll() can wait on events and timers together.
#pragma once
#include <mutex>

namespace platform {

struct EventObject {
  std::mutex mutex;
  bool manual_reset = false;
  bool set = false;
  int fd = -1;           // eventfd, readable exactly while set
};

namespace posix {
bool TryConsume(EventObject* event);   // true when set; an auto-reset event is reset by it
}

}  // namespace platform
