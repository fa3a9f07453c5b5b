// Last-error values and system message texts on Windows.
#include <windows.h>
#include <winsock2.h>

#include <cstring>

#include "platform/error.h"
#include "platform/sys.h"

namespace platform {

std::uint32_t LastError() { return ::GetLastError(); }
void SetLastError(std::uint32_t code) { ::SetLastError(code); }
int LastSocketError() { return ::WSAGetLastError(); }
void SetLastSocketError(int code) { ::WSASetLastError(code); }

bool sys::SystemMessage(std::uint32_t code, char* buf, std::size_t size) {
  if (!buf || size == 0) return false;
  std::memset(buf, 0, size);
  return ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code, 0, buf, static_cast<DWORD>(size), nullptr) != 0;
}

}  // namespace platform
