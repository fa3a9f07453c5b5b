// Loadable modules on Windows: LoadLibraryA and GetProcAddress.
#include <windows.h>

#include "platform/module.h"

namespace platform {
namespace {
thread_local unsigned long t_error = 0;
}  // namespace

ModuleHandle LoadModule(const char* path) {
  HMODULE h = ::LoadLibraryA(path);
  if (!h) t_error = ::GetLastError();
  return reinterpret_cast<ModuleHandle>(h);
}
void* ModuleSymbol(ModuleHandle module, const char* name) {
  FARPROC p = ::GetProcAddress(reinterpret_cast<HMODULE>(module), name);
  if (!p) t_error = ::GetLastError();
  return reinterpret_cast<void*>(p);
}
void UnloadModule(ModuleHandle module) {
  if (module) ::FreeLibrary(reinterpret_cast<HMODULE>(module));
}
std::string ModuleError() { return "Win32 error " + std::to_string(t_error); }

}  // namespace platform
