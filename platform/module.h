// Loadable modules: the provider module loaded by a host, by path.
#pragma once
#include <string>

namespace platform {

struct ModuleObject;
using ModuleHandle = ModuleObject*;   // nullptr is "no module"

ModuleHandle LoadModule(const char* path);                 // LoadLibraryA / dlopen; nullptr on failure
void* ModuleSymbol(ModuleHandle module, const char* name); // an exported symbol; nullptr when missing
void UnloadModule(ModuleHandle module);                      // nullptr is ignored
std::string ModuleError();                                 // why the last load or look-up failed

}  // namespace platform
