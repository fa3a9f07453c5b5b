// No system dialogs on POSIX: the in-memory ones (platform/dialog_memory.h) are used, and these
// ends are never reached.
#include "platform/canvas_sys.h"
#include "platform/dialog_sys.h"
#include "platform/error.h"

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

// No window to draw on here; kept apart from the Cairo canvas so that programs which draw no
// pictures (the provider's host) do not load the drawing libraries.
namespace platform::sys {

std::unique_ptr<Canvas> CreateControlCanvas(void*, int) {
  SetLastError(kErrorNotSupported);  // no windows on this system
  return nullptr;
}

}  // namespace platform::sys
