// POSIX events: a flag under a mutex, mirrored by an eventfd that is readable while the event is
// set, so that poll() can wait on events and timers together.
#pragma once
#include <mutex>

namespace platform {

struct NamedEventLink;   // a named event's shared word and waiter thread (posix/shared.cpp)

struct EventObject {
  std::mutex mutex;
  bool manual_reset = false;
  bool set = false;
  int fd = -1;           // eventfd, readable exactly while set
  NamedEventLink* named = nullptr;   // set for a named event: the state lives in shared memory
  int socket_fd = -1;    // a socket bound with SelectSocketEvent: readable data sets the event
};

namespace posix {
bool TryConsume(EventObject* event);   // true when set; an auto-reset event is reset by it
// The local flag and eventfd of an event, with event->mutex held.
void SetLocalLocked(EventObject* event, bool set);
// A named event: sets or clears the shared word (and the local mirror); closes the link.
void SetNamed(EventObject* event, bool set);
void CloseNamed(EventObject* event);
bool NamedIsSet(EventObject* event);   // the shared word's state, as every process sees it now
}

}  // namespace platform
