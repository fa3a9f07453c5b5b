// Standard input and output on Windows (pipes or a console).
#include <windows.h>

#include "platform/stdio.h"
#include "platform/stdio_sys.h"

namespace platform {

void EndInputOnTermination() {}   // a console's Ctrl+C ends the process as before

void EndInput() { ::CancelIoEx(::GetStdHandle(STD_INPUT_HANDLE), nullptr); }

long sys::ReadStandardInput(char* buf, std::size_t size) {
  DWORD n = 0;
  if (!::ReadFile(::GetStdHandle(STD_INPUT_HANDLE), buf, DWORD(size), &n, nullptr)) {
    const DWORD e = ::GetLastError();
    return e == ERROR_BROKEN_PIPE || e == ERROR_OPERATION_ABORTED ? 0 : -1;
  }
  return long(n);
}

bool sys::WriteStandardOutput(std::string_view bytes) {
  HANDLE h = ::GetStdHandle(STD_OUTPUT_HANDLE);
  std::size_t done = 0;
  while (done < bytes.size()) {
    DWORD n = 0;
    if (!::WriteFile(h, bytes.data() + done, DWORD(bytes.size() - done), &n, nullptr) || n == 0) return false;
    done += n;
  }
  return true;
}

}  // namespace platform
