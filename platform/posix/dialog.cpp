// No system dialogs on POSIX: the in-memory ones (platform/dialog_memory.h) are used, and these
// ends are never reached.
#include "platform/dialog_sys.h"

namespace platform::sys {

bool HasSystemDialogs() { return false; }
std::intptr_t RunModalDialog(int template_id, Dialog* parent, DialogLogic& logic) {
  return memory_backend::RunModalDialog(template_id, parent, logic);
}
Dialog* CreateModelessDialog(int template_id, Dialog* parent, DialogLogic& logic) {
  return memory_backend::CreateModelessDialog(template_id, parent, logic);
}
std::intptr_t RunPropertySheet(const SheetSpec& spec, Dialog*) { return memory_backend::RunPropertySheet(spec); }
int ShowMessageBox(Dialog*, std::string_view text, std::string_view caption, std::uint32_t style) {
  return memory_backend::ShowMessageBox(text, caption, style);
}
void SetSystemCursor(CursorShape shape) { memory_backend::SetSystemCursor(shape); }
void OpenWebAddress(std::string_view url) { memory_backend::OpenWebAddress(url); }
int ScreenPixelsPerInchY() { return 96; }
Colour SystemColour(int) { return Rgb(240, 240, 240); }
void* DefaultResourceModule() { return nullptr; }
void InitDialogSystem() {}
void* FindModuleHandle(const char*) { return nullptr; }

}  // namespace platform::sys
