// The backend end of the open-file dialog (win32/file_chooser.cpp; POSIX has none). Only
// platform/ includes this header.
#pragma once
#include "platform/file_chooser.h"

namespace platform::sys {
bool ChooseFileToOpen(Dialog* owner, const OpenFileRequest& request, std::string& path);
}
