// The backend end of the canvas functions (win32/canvas.cpp, posix/canvas.cpp). Only platform/
// includes this header.
#pragma once
#include <memory>

#include "platform/canvas.h"

namespace platform::sys {

// GDI on the device context of control id of the dialog window (an HWND). POSIX: nullptr.
std::unique_ptr<Canvas> CreateControlCanvas(void* dialog_window, int id);

}  // namespace platform::sys
