// The clock status check on the command line, as `chronwarden status` and `chronwarden server test`
// run it: the machine's configured servers asked as the Client page asks its rows.
#pragma once
#include <string>
#include <string_view>

#include "applet/clock_status.h"

// Connects to machine's registry ("" this machine) as the applet's launch does, loads its settings
// and fills question with its servers. false, with the reason on standard error, when the registry
// cannot be reached or the settings cannot be read.
bool OpenStatusTarget(std::string_view command, const std::string& machine, ClockStatusQuestion& question);
// The machine the check is about: the target, or the local computer's name.
const char* StatusPageMachine();
