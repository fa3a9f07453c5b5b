// The 8-bit code page on Windows: the system's ANSI code page.
#include <windows.h>

#include <algorithm>
#include <cstring>

#include "platform/text.h"

namespace platform {

std::size_t AnsiToWide(const char* text, char16_t* out, std::size_t count) {
  if (!out || count == 0) return 0;
  std::memset(out, 0, count * sizeof(char16_t));
  if (!text || !*text) return 0;
  // At most count - 1 bytes: a longer text is cut, the last character stays the terminator.
  const std::size_t len = std::min(std::strlen(text), count - 1);
  const int n = ::MultiByteToWideChar(CP_ACP, 0, text, static_cast<int>(len), reinterpret_cast<wchar_t*>(out),
                                      static_cast<int>(count - 1));
  out[n] = 0;
  return static_cast<std::size_t>(n);
}

}  // namespace platform
