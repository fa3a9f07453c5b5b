// JSON of the command line: the string writer every command uses, and the flat object reader of
// the sheet process's input.
#include "cli/json_line.h"

#include <cstdio>

namespace {

class Reader {
 public:
  explicit Reader(std::string_view s) : s_(s) {}

  std::optional<JsonLine> Object() {
    JsonLine out;
    Blanks();
    if (!Take('{')) return Fail("expected '{'");
    Blanks();
    if (Take('}')) return End(out);
    for (;;) {
      Blanks();
      std::string key;
      if (!String(key)) return std::nullopt;
      Blanks();
      if (!Take(':')) return Fail("expected ':'");
      Blanks();
      JsonLine::Value value;
      if (!Value(value)) return std::nullopt;
      if (!out.fields.emplace(std::move(key), std::move(value)).second) return Fail("a key given twice");
      Blanks();
      if (Take('}')) return End(out);
      if (!Take(',')) return Fail("expected ',' or '}'");
    }
  }
  std::string error;

 private:
  std::optional<JsonLine> End(JsonLine& out) {
    Blanks();
    if (i_ != s_.size()) return Fail("text after the object");
    return std::move(out);
  }
  std::nullopt_t Fail(const char* what) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "%s at byte %zu", what, i_ + 1);
    if (error.empty()) error = buf;
    return std::nullopt;
  }
  void Blanks() {
    while (i_ < s_.size() && (s_[i_] == ' ' || s_[i_] == '\t' || s_[i_] == '\r' || s_[i_] == '\n')) ++i_;
  }
  bool Take(char c) {
    if (i_ < s_.size() && s_[i_] == c) return ++i_, true;
    return false;
  }
  bool Word(std::string_view w) {
    if (s_.substr(i_, w.size()) != w) return false;
    i_ += w.size();
    return true;
  }
  bool Value(JsonLine::Value& v) {
    if (i_ >= s_.size()) return Fail("expected a value"), false;
    const char c = s_[i_];
    if (c == '"') {
      std::string text;
      if (!String(text)) return false;
      v = std::move(text);
      return true;
    }
    if (Word("true")) return v = true, true;
    if (Word("false")) return v = false, true;
    if (Word("null")) return v = nullptr, true;
    if (c == '-' || (c >= '0' && c <= '9')) return Number(v);
    if (c == '{' || c == '[') return Fail("nested objects and arrays are not taken"), false;
    return Fail("expected a value"), false;
  }
  bool Number(JsonLine::Value& v) {
    const bool negative = Take('-');
    if (i_ >= s_.size() || s_[i_] < '0' || s_[i_] > '9') return Fail("expected a digit"), false;
    if (s_[i_] == '0' && i_ + 1 < s_.size() && s_[i_ + 1] >= '0' && s_[i_ + 1] <= '9')
      return Fail("a number with a leading zero"), false;
    std::uint64_t n = 0;
    while (i_ < s_.size() && s_[i_] >= '0' && s_[i_] <= '9') {
      n = n * 10 + std::uint64_t(s_[i_++] - '0');
      if (n > (std::uint64_t(1) << 53)) return Fail("a number too large"), false;
    }
    if (i_ < s_.size() && (s_[i_] == '.' || s_[i_] == 'e' || s_[i_] == 'E')) return Fail("a number that is not whole"), false;
    v = negative ? -std::int64_t(n) : std::int64_t(n);
    return true;
  }
  bool Hex4(std::uint32_t& out) {
    out = 0;
    for (int k = 0; k < 4; ++k, ++i_) {
      if (i_ >= s_.size()) return false;
      const char c = s_[i_];
      const int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
      if (d < 0) return false;
      out = out * 16 + std::uint32_t(d);
    }
    return true;
  }
  // One character of UTF-8 at i_ (its first byte is at least 0x80) as a code point.
  bool Utf8(std::uint32_t& cp) {
    const auto b = static_cast<unsigned char>(s_[i_]);
    const int extra = b >= 0xF0 && b < 0xF5 ? 3 : b >= 0xE0 ? 2 : b >= 0xC2 && b < 0xE0 ? 1 : -1;
    if (extra < 0 || b >= 0xF5) return false;
    cp = b & (0x3F >> extra);
    for (int k = 1; k <= extra; ++k) {
      if (i_ + std::size_t(k) >= s_.size()) return false;
      const auto c = static_cast<unsigned char>(s_[i_ + std::size_t(k)]);
      if ((c & 0xC0) != 0x80) return false;
      cp = cp << 6 | (c & 0x3F);
    }
    const std::uint32_t least[] = {0, 0x80, 0x800, 0x10000};
    if (cp < least[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp < 0xE000)) return false;
    i_ += std::size_t(extra) + 1;
    return true;
  }
  static char Byte(std::uint32_t cp) { return cp <= 0xFF ? char(cp) : '?'; }
  bool String(std::string& out) {
    if (!Take('"')) return Fail("expected '\"'"), false;
    for (;;) {
      if (i_ >= s_.size()) return Fail("a string without its end"), false;
      const auto c = static_cast<unsigned char>(s_[i_]);
      if (c == '"') return ++i_, true;
      if (c < 0x20) return Fail("a control character in a string"), false;
      if (c >= 0x80) {
        std::uint32_t cp = 0;
        if (!Utf8(cp)) return Fail("a string that is not UTF-8"), false;
        out += Byte(cp);
        continue;
      }
      ++i_;
      if (c != '\\') {
        out += char(c);
        continue;
      }
      if (i_ >= s_.size()) return Fail("a string without its end"), false;
      const char e = s_[i_++];
      switch (e) {
        case '"': out += '"'; break;
        case '\\': out += '\\'; break;
        case '/': out += '/'; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 'u': {
          std::uint32_t cp = 0;
          if (!Hex4(cp)) return Fail("a bad \\u escape"), false;
          if (cp >= 0xD800 && cp < 0xDC00) {   // a surrogate pair: outside Latin-1 whatever its second half
            std::uint32_t low = 0;
            if (!Take('\\') || !Take('u') || !Hex4(low) || low < 0xDC00 || low >= 0xE000)
              return Fail("a lone surrogate in a \\u escape"), false;
          } else if (cp >= 0xDC00 && cp < 0xE000) {
            return Fail("a lone surrogate in a \\u escape"), false;
          }
          if (cp == 0) return Fail("a NUL character in a string"), false;
          out += Byte(cp);
          break;
        }
        default: return Fail("a bad escape in a string"), false;
      }
    }
  }

  std::string_view s_;
  std::size_t i_ = 0;
};

}  // namespace

const std::string* JsonLine::String(std::string_view key) const {
  const auto it = fields.find(key);
  return it == fields.end() ? nullptr : std::get_if<std::string>(&it->second);
}

std::optional<std::int64_t> JsonLine::Number(std::string_view key) const {
  const auto it = fields.find(key);
  if (it == fields.end()) return std::nullopt;
  if (const auto* n = std::get_if<std::int64_t>(&it->second)) return *n;
  return std::nullopt;
}

std::optional<bool> JsonLine::Bool(std::string_view key) const {
  const auto it = fields.find(key);
  if (it == fields.end()) return std::nullopt;
  if (const auto* b = std::get_if<bool>(&it->second)) return *b;
  return std::nullopt;
}

std::string JsonString(std::string_view text) {
  std::string out = "\"";
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (c == '"' || c == '\\') out += '\\', out += ch;
    else if (c == '\n') out += "\\n";
    else if (c == '\r') out += "\\r";
    else if (c == '\t') out += "\\t";
    else if (c < 0x20 || c >= 0x7F) {
      char esc[8];
      std::snprintf(esc, sizeof esc, "\\u%04x", c);
      out += esc;
    } else {
      out += ch;
    }
  }
  return out + "\"";
}

std::optional<JsonLine> ParseJsonLine(std::string_view line, std::string& error) {
  Reader r(line);
  auto out = r.Object();
  error = out ? std::string() : r.error;
  return out;
}
