// The sheet process: the applet's property sheet on the in-memory dialogs, driven by a front end
// (the Cockpit page, a test) over standard input and output with one JSON object per line
// (docs/sheet-protocol.md). The front end draws and reports what a person does; every text,
// enabling rule and verdict comes from the pages' own logic here.
#pragma once
#include <string>


// Runs the sheet of machine ("" this one) until it closes or the input ends. Returns the exit code:
// 0 the sheet closed or the input ended, 1 the launch failed.
int RunSheetSession(const std::string& machine);
