// Named objects shared between processes of one machine: page-file-backed sections and manual-reset
// events that only the product's own programs (the family) may change; other users may at most read.
//
// Names are the Win32 names ("Global\name" or "name"). Windows uses them as they are, with a
// security descriptor giving SYSTEM, Administrators and LocalService full access and Authenticated
// Users read access (no longer a null access list, which let anybody change or silence them).
//
// POSIX keeps each object in POSIX shared memory (/dev/shm) under SharedObjectName(name): a slash, the
// namespace from $CHRONWARDEN_SHM_NAMESPACE (empty by default; tests set their own so that their
// runs never meet each other or a real service), then the name with every backslash turned into a
// dot: "Global\kairtim-activity" is "/Global.kairtim-activity", or "/t42.Global.kairtim-activity"
// with the namespace "t42.". An object belongs to the process that made it and to the family's
// group, the group of the machine root folder ($CHRONWARDEN_ROOT; the host's group `_chronwarden`
// in the packages), mode 0660 (0600 when that group cannot be given), no longer 0666. An object
// found under a name is examined before use (opened without following links): a regular file owned
// by this process's user, by root or by the family's group, with no access beyond 0660, group
// access only for the family's group, and exactly the size asked. Any other is an intruder's: it is
// refused (TakeSharedObjectNotice says so, for the log) and the process carries on with an object
// of its own under the name followed by ".<process id>.<n>", which no other process finds.
// Holders (CreateNamedSection, CreateNamedEvent) keep a shared lock (flock) on the object; the last
// one to close it removes the name, so the objects go away with the family's last program, as
// named sections do on Windows. Races: an opener that finds the name removed under it by a last
// closer tries again; an object left by a killed process stays and is taken up by the next holder;
// a root process and the host making the same object at the same instant may leave the host with
// one of its own (the root-made one is root's group until its maker gives it the family's).
// A view of an object that another process cut shorter would fault (SIGBUS) on the next access:
// the fault is caught and the view becomes zero-filled private memory instead, so the process goes
// on with a copy of its own.
//
// A named event on POSIX is a process-shared futex word in its own shared mapping: bit 0 is the
// signalled state, the other bits count changes. Each process that opens the event runs one waiter
// thread, blocked in the futex wait, which mirrors the word into an ordinary event of the process,
// so that the named event can be waited on together with the process's other events
// (WaitForAnyEvent). While nothing changes the waiter thread costs nothing: it does not wake.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/sync.h"

namespace platform {

struct SectionObject;
using SectionHandle = SectionObject*;   // nullptr is "no section"

// Creates the named section of size bytes, zero-filled, or opens it when it exists and is the
// family's (already_existed is then true, as ERROR_ALREADY_EXISTS). nullptr on failure, with the
// last error (5 access denied).
SectionHandle CreateNamedSection(const char* name, std::uint32_t size, bool& already_existed);
// Opens the named section only when a process of the family made it, size bytes long; creates
// nothing. nullptr with the last error 2 (not there, not yet sized, or not the family's) or 5
// (access denied).
SectionHandle OpenNamedSection(const char* name, std::uint32_t size);
// Maps size bytes of the section: read-only or read/write. nullptr on failure (last error set).
void* MapSection(SectionHandle section, std::uint32_t size, bool writable);
void UnmapSection(void* view, std::uint32_t size);   // nullptr is ignored
void CloseSection(SectionHandle section);            // nullptr is ignored; the mapping stays valid

// Creates or opens the named manual-reset event, initially clear when it is new. nullptr on failure
// (last error set). SetEvent, ResetEvent, WaitForEvent, WaitForAnyEvent and CloseEvent take it.
EventHandle CreateNamedEvent(const char* name);

// Removes the name of a section or event, so that the next creation makes a new one (POSIX:
// shm_unlink; views and handles already open stay valid). Windows: nothing, an object goes with
// its last handle.
void DeleteNamedObject(const char* name);

// Why the last object refused by this thread was refused and what was used instead, as a sentence
// for the log; "" when none was. Taking it clears it. Windows: always "".
std::string TakeSharedObjectNotice();

// The POSIX shared-memory name of a Win32 object name (see above). Windows: the name unchanged.
std::string SharedObjectName(std::string_view win32_name);

}  // namespace platform
