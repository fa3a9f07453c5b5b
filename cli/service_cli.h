// Helpers the service-related commands share: failure messages and the service notification that
// follows saved settings.
#pragma once
#include <string>

#include "config/service_control.h"

// Prints "chronwarden COMMAND: message" on standard error; returns kExitFailed.
int CliFailure(const std::string& command, const std::string& message);
// The owner that prints service-control messages on standard error (the applet shows a box).
const ServiceOwner* CliServiceOwner();
// What the applet's Apply does after saving: a running time service is told that its parameters
// changed (restarted on Windows 2000), then asked to synchronise. False when it could not be told.
bool NotifyTimeService(const char* machine);
