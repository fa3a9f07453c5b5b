// Installing and removing the module on the local machine or on the target machine: copy into
// the system directory, registration as a time provider and a Control Panel item, the uninstall
// entry, the coexistence adjustments; removal undoes the registration and moves the file aside.
// Everything the operations need of their caller comes in an InstallContext.
#pragma once
#include <cstdint>

#include "config/w32time.h"
#include "platform/dialog.h"

// What install and remove work with: the target and its registry, how the
// time service is controlled and how the person is told.
struct InstallContext {
  const char* target;          // the target machine's name; "" the local machine
  const RegTarget& reg;        // its registry
  std::uint32_t target_type;   // the target's server type bits (its domain-controller bits count)
  bool quiet;                  // nothing shown: no progress steps, no messages, service control shows no errors
  // Service control (ControlTimeService's arguments and result: owner, machine, kServiceOp..., show_error).
  int (*control)(platform::Dialog* owner, const char* machine, std::uint32_t code, std::uint32_t show_error);
  // A message box of style (MessageBox's) with text; not called when quiet.
  void (*message)(platform::Dialog* owner, std::uint32_t style, const char* text);
};

enum class InstallOperation { kInstall, kRemove };

// progress: the please-wait window (its bar is stepped; it gets the completion message), or
// nullptr. 1 when the module is in place (copied or already current), else 0; code in last error.
int InstallModule(const InstallContext& context, platform::Dialog* progress);
// The result of starting "W32Time" again; code in last error.
int RemoveModule(const InstallContext& context, platform::Dialog* progress);
// Local machine: moves the module file onto w32tmkr.old (stopping the time service for it when
// the file is in use). Non-zero when it was moved.
int RetireModuleFile(const InstallContext& context);
// Copies this module into target's system directory ("": the local machine's) unless the file
// there is this one or is as new. 1 when the module is in place.
int CopyModuleToTarget(const char* target);
// Adds a server name to the record's list (ignored when empty, already listed or the list is full).
void install_add_server(W32tSettings& s, const char* name);
// Runs the please-wait window 152; its worker runs the operation. Returns the operation's result
// with its code in last error.
std::intptr_t RunWaitDialog(const InstallContext& context, InstallOperation operation);
