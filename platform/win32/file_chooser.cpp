// The system's open-file dialog (comdlg32).
#include <windows.h>
#include <commdlg.h>

#include <cstring>

#include "platform/file_chooser_sys.h"

namespace platform::sys {

bool ChooseFileToOpen(Dialog* owner, const OpenFileRequest& request, std::string& path) {
  char file[MAX_PATH] = {};
  std::strncpy(file, request.path.c_str(), sizeof file - 1);
  // "Name\0pattern\0\0"
  std::string filter = request.filter_name;
  filter += '\0';
  filter += request.pattern;
  filter += '\0';
  filter += '\0';
  OPENFILENAMEA ofn{};
  ofn.lStructSize = sizeof ofn;
  ofn.hwndOwner = owner ? static_cast<HWND>(owner->NativeHandle()) : nullptr;
  ofn.lpstrFilter = filter.c_str();
  ofn.nFilterIndex = 1;
  ofn.lpstrFile = file;
  ofn.nMaxFile = sizeof file;
  ofn.lpstrInitialDir = request.initial_dir.empty() ? nullptr : request.initial_dir.c_str();
  ofn.lpstrTitle = request.title.c_str();
  ofn.lpstrDefExt = request.default_ext.c_str();
  ofn.Flags = OFN_PATHMUSTEXIST | OFN_FILEMUSTEXIST | OFN_LONGNAMES;
  if (!GetOpenFileNameA(&ofn)) return false;
  path = file;
  return true;
}

}  // namespace platform::sys
