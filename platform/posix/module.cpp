// Loadable modules on POSIX: dlopen with the module's symbols kept to itself. An unloaded module
// stays mapped (RTLD_NODELETE): threads it started may still be running their last instructions
// when its host lets it go, and their thread-local blocks must stay valid too.
#include "platform/module.h"

#include <dlfcn.h>

namespace platform {
namespace {
thread_local std::string t_error;
void Note() {
  const char* e = dlerror();
  t_error = e ? e : "";
}
}  // namespace

ModuleHandle LoadModule(const char* path) {
  void* h = dlopen(path, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (!h) Note();
  return static_cast<ModuleHandle>(h);
}
void* ModuleSymbol(ModuleHandle module, const char* name) {
  void* sym = dlsym(module, name);
  if (!sym) Note();
  return sym;
}
void UnloadModule(ModuleHandle module) {
  if (module) dlclose(module);
}
std::string ModuleError() { return t_error; }

}  // namespace platform
