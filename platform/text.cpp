// UTF-16 to UTF-8 and case-insensitive names (the same on every target).
#include "platform/text.h"

namespace platform {

namespace {
char Lower(char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; }
}  // namespace

bool EqualsNoCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && StartsWithNoCase(a, b);
}

bool StartsWithNoCase(std::string_view text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  for (std::size_t i = 0; i < prefix.size(); ++i)
    if (Lower(text[i]) != Lower(prefix[i])) return false;
  return true;
}

std::string WideToUtf8(const char16_t* text) {
  std::string out;
  for (const char16_t* p = text; p && *p; ++p) {
    char32_t c = *p;
    if (c >= 0xD800 && c <= 0xDBFF && p[1] >= 0xDC00 && p[1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (p[1] - 0xDC00);
      ++p;
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = 0xFFFD;
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

}  // namespace platform
