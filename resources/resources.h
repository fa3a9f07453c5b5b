// The applet's resources as the code sees them: the dialog descriptions (for the in-memory
// dialogs) and the ids (resource_ids.h). The Windows build also links chronwarden.rc, made from
// the same descriptions, into the module.
#pragma once
#include <span>

#include "platform/dialog.h"
#include "resources/resource_ids.h"

namespace resources {

std::span<const platform::DialogDesc> Dialogs();   // every dialog template, described
void RegisterDialogs();                             // hands them to the in-memory dialogs

}  // namespace resources
