// Text between the system's 8-bit code page and UTF-16 (the WCHAR text of the service interfaces),
// and the one case-insensitive comparison of names.
#pragma once
#include <cstddef>
#include <string>
#include <string_view>

namespace platform {

// MultiByteToWideChar(CP_ACP): text into out (count wide characters, always terminated, cut when
// longer). Returns the characters written without the terminator. POSIX: the 8-bit code page is
// ISO 8859-1, each byte one character.
std::size_t AnsiToWide(const char* text, char16_t* out, std::size_t count);
// UTF-16 (terminated) as UTF-8, for logs; unpaired surrogates become U+FFFD.
std::string WideToUtf8(const char16_t* text);
// Names compared as the system compares registry, host and file names: ASCII letters in either case.
bool EqualsNoCase(std::string_view a, std::string_view b);
bool StartsWithNoCase(std::string_view text, std::string_view prefix);   // prefix alone, either case

}  // namespace platform
