// The 8-bit code page on POSIX: ISO 8859-1.
#include "platform/text.h"

namespace platform {

std::size_t AnsiToWide(const char* text, char16_t* out, std::size_t count) {
  if (!out || count == 0) return 0;
  std::size_t n = 0;
  for (; text && text[n] && n + 1 < count; ++n) out[n] = static_cast<unsigned char>(text[n]);
  out[n] = 0;
  return n;
}

}  // namespace platform
