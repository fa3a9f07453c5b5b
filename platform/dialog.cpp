// The dialog functions: the in-memory backend when it is in use (always on POSIX), else the
// system's.
#include <atomic>
#include <cstring>

#include "platform/dialog.h"
#include "platform/dialog_sys.h"

namespace platform {

namespace {
std::span<const DialogDesc> g_descriptions;
std::atomic<bool> g_memory{false};
std::atomic<void*> g_resource_module{nullptr};
}  // namespace

bool operator==(const FontSpec& a, const FontSpec& b) {
  return std::strcmp(a.face, b.face) == 0 && a.points == b.points && a.weight == b.weight && a.underline == b.underline;
}

void DialogLogic::close(Dialog& d, int id) { d.End(id); }

void SetDialogDescriptions(std::span<const DialogDesc> table) { g_descriptions = table; }

const DialogDesc* FindDialogDescription(int template_id) {
  for (const DialogDesc& d : g_descriptions)
    if (d.id == template_id) return &d;
  return nullptr;
}

void UseMemoryDialogs(bool on) { g_memory = on; }
bool MemoryDialogsInUse() { return g_memory || !sys::HasSystemDialogs(); }

std::intptr_t RunModalDialog(int template_id, Dialog* parent, DialogLogic& logic) {
  return MemoryDialogsInUse() ? memory_backend::RunModalDialog(template_id, parent, logic)
                              : sys::RunModalDialog(template_id, parent, logic);
}

Dialog* CreateModelessDialog(int template_id, Dialog* parent, DialogLogic& logic) {
  return MemoryDialogsInUse() ? memory_backend::CreateModelessDialog(template_id, parent, logic)
                              : sys::CreateModelessDialog(template_id, parent, logic);
}

std::intptr_t RunPropertySheet(const SheetSpec& spec, Dialog* parent) {
  return MemoryDialogsInUse() ? memory_backend::RunPropertySheet(spec) : sys::RunPropertySheet(spec, parent);
}

int ShowMessageBox(Dialog* owner, std::string_view text, std::string_view caption, std::uint32_t style) {
  return MemoryDialogsInUse() ? memory_backend::ShowMessageBox(text, caption, style)
                              : sys::ShowMessageBox(owner, text, caption, style);
}

void SetSystemCursor(CursorShape shape) {
  if (MemoryDialogsInUse()) memory_backend::SetSystemCursor(shape);
  else sys::SetSystemCursor(shape);
}

void OpenWebAddress(std::string_view url) {
  if (MemoryDialogsInUse()) memory_backend::OpenWebAddress(url);
  else sys::OpenWebAddress(url);
}

Colour SystemColour(int index) {
  if (!MemoryDialogsInUse()) return sys::SystemColour(index);
  return index == kColorWindow ? Rgb(255, 255, 255) : Rgb(240, 240, 240);
}

int ScreenPixelsPerInchY() { return MemoryDialogsInUse() ? 96 : sys::ScreenPixelsPerInchY(); }

void InitDialogSystem() {
  if (!MemoryDialogsInUse()) sys::InitDialogSystem();
}

void* FindModuleHandle(const char* file_name) { return MemoryDialogsInUse() ? nullptr : sys::FindModuleHandle(file_name); }

void SetResourceModule(void* module) { g_resource_module = module; }
void* ResourceModule() {
  void* m = g_resource_module;
  return m ? m : sys::DefaultResourceModule();
}

}  // namespace platform
