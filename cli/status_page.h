// The Client page's clock status check on the command line: an in-memory Client page of the
// machine, filled with its configured servers, as `chronwarden status` and `chronwarden server
// test` run it.
#pragma once
#include <memory>
#include <string>
#include <string_view>

#include "platform/dialog_memory.h"

// Connects to machine's registry ("" this machine) as the applet's launch does, loads its settings
// and makes the page. nullptr, with the reason on standard error, when the registry cannot be reached.
std::unique_ptr<platform::MemoryDialog> OpenStatusPage(std::string_view command, const std::string& machine);
// The machine the page checks: the target, or the local computer's name.
const char* StatusPageMachine();
