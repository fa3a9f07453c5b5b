// JSON text: strings written, and one flat JSON object per line read, as the sheet process's front end sends it: keys with string,
// whole-number, true/false or null values (no nested objects or arrays). Strings come as UTF-8 and
// become the system's 8-bit text: a character up to U+00FF is that byte, any other is "?" (as the
// ANSI code page's conversion does).
#pragma once
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

struct JsonLine {
  using Value = std::variant<std::nullptr_t, bool, std::int64_t, std::string>;
  std::map<std::string, Value, std::less<>> fields;

  const std::string* String(std::string_view key) const;       // nullptr: absent or not a string
  std::optional<std::int64_t> Number(std::string_view key) const;
  std::optional<bool> Bool(std::string_view key) const;
};

// Parses line; on failure returns nothing and sets error to what is wrong ("expected ':' at byte 7").
std::optional<JsonLine> ParseJsonLine(std::string_view line, std::string& error);

// Text as a JSON string, quotes included; bytes outside printable ASCII become \u00XX (the 8-bit
// text read as Latin-1), so ParseJsonLine gives back the same bytes.
std::string JsonString(std::string_view text);
