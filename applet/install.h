// Installing and removing the module on the local machine or on the target machine: copy into
// the system directory, registration as a time provider and a Control Panel item, the uninstall
// entry, the coexistence adjustments; removal undoes the registration and moves the file aside.
#pragma once
#include <cstdint>

#include "config/w32time.h"
#include "platform/dialog.h"

// progress: the please-wait window (its bar is stepped; it gets the completion message), or
// nullptr. 1 when the module is in place (copied or already current), else 0; code in last error.
int InstallModule(platform::Dialog* progress);
// The result of starting "W32Time" again; code in last error.
int RemoveModule(platform::Dialog* progress);
// Local machine: moves the module file onto w32tmkr.old. Non-zero when it was moved.
int RetireModuleFile();
// Copies this module into the target's system directory unless the file there is this one or is
// as new. 1 when the module is in place.
int CopyModuleToTarget();
// Adds a server name to the record's list (ignored when empty, already listed or the list is full).
void install_add_server(W32tSettings& s, const char* name);
// Runs the please-wait window 152 with request kCplInstall or kCplRemove; its worker runs the
// operation. Returns the operation's result with its code in last error.
std::intptr_t RunWaitDialog(std::uint32_t request);
// rundll32 entry: the command line "-install" / "-remove" (also "/install", any case; "-quiet"
// silences every message). Returns the message-box result, or 0.
std::intptr_t applet_rundll(void* window, const char* command_line);
