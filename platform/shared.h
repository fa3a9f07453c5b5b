// Named objects shared between processes of one machine: page-file-backed sections and manual-reset
// events, created with full access for everybody.
//
// Names are the Win32 names ("Global\name" or "name"). Windows uses them as they are. POSIX keeps
// each object in POSIX shared memory (/dev/shm) under SharedObjectName(name): a slash, the
// namespace from $CHRONWARDEN_SHM_NAMESPACE (empty by default; tests set their own so that their
// runs never meet each other or a real service), then the name with every backslash turned into a
// dot: "Global\kairtim-activity" is "/Global.kairtim-activity", or "/t42.Global.kairtim-activity"
// with the namespace "t42.". Objects are made with mode 0666 and stay until the machine restarts,
// as a section does while any process of a Windows machine holds it.
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

// Creates the named section of size bytes, zero-filled, or opens it when it exists (already_existed
// is then true, as ERROR_ALREADY_EXISTS). nullptr on failure, with the last error (5 access denied).
SectionHandle CreateNamedSection(const char* name, std::uint32_t size, bool& already_existed);
// Opens the named section only when some process made it, at least size bytes long; creates
// nothing. nullptr with the last error 2 (not there, or still smaller) or 5 (access denied).
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

// The POSIX shared-memory name of a Win32 object name (see above). Windows: the name unchanged.
std::string SharedObjectName(std::string_view win32_name);

}  // namespace platform
