// The temporary report list behind its interface.
#include "drift/temp_list.h"

#include <iterator>

namespace {

TempFileList* g_installed = nullptr;

}  // namespace

bool MemoryTempFileList::Value(std::uint32_t index, std::string& name, std::string& path) {
  if (index >= values_.size()) return false;
  auto it = std::next(values_.begin(), index);
  name = it->first;
  path = it->second;
  return true;
}

bool MemoryTempFileList::Set(const std::string& name, const std::string& path) {
  values_[name] = path;
  return true;
}

void MemoryTempFileList::DeleteKey() { values_.clear(); }

TempFileList& CurrentTempFileList() {
  static MemoryTempFileList process_local;
  return g_installed ? *g_installed : process_local;
}

void SetTempFileList(TempFileList* list) { g_installed = list; }
