// Backend ends of the dialog functions: the system's (win32/dialog.cpp; POSIX has none) and the
// in-memory ones (dialog_memory.cpp). Only platform/ includes this header.
#pragma once
#include "platform/dialog.h"

namespace platform::sys {

bool HasSystemDialogs();   // false on POSIX: the in-memory dialogs are the only ones
std::intptr_t RunModalDialog(int template_id, Dialog* parent, DialogLogic& logic);
Dialog* CreateModelessDialog(int template_id, Dialog* parent, DialogLogic& logic);
std::intptr_t RunPropertySheet(const SheetSpec& spec, Dialog* parent);
int ShowMessageBox(Dialog* owner, std::string_view text, std::string_view caption, std::uint32_t style);
void SetSystemCursor(CursorShape shape);
void OpenWebAddress(std::string_view url);
int ScreenPixelsPerInchY();
Colour SystemColour(int index);
void* DefaultResourceModule();
void InitDialogSystem();
void* FindModuleHandle(const char* file_name);

}  // namespace platform::sys

namespace platform::memory_backend {

int ShowMessageBox(std::string_view text, std::string_view caption, std::uint32_t style);
void SetSystemCursor(CursorShape shape);
void OpenWebAddress(std::string_view url);
std::intptr_t RunModalDialog(int template_id, Dialog* parent, DialogLogic& logic);
Dialog* CreateModelessDialog(int template_id, Dialog* parent, DialogLogic& logic);
std::intptr_t RunPropertySheet(const SheetSpec& spec);

}  // namespace platform::memory_backend
