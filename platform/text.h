// Text between the system's 8-bit code page and UTF-16 (the WCHAR text of the service interfaces).
#pragma once
#include <cstddef>
#include <string>

namespace platform {

// MultiByteToWideChar(CP_ACP): text into out (count wide characters, always terminated, cut when
// longer). Returns the characters written without the terminator. POSIX: the 8-bit code page is
// ISO 8859-1, each byte one character.
std::size_t AnsiToWide(const char* text, char16_t* out, std::size_t count);
// UTF-16 (terminated) as UTF-8, for logs; unpaired surrogates become U+FFFD.
std::string WideToUtf8(const char16_t* text);

}  // namespace platform
