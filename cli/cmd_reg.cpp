// chronwarden reg: reads and changes the machine's registry through the registry access layer,
// with its path rules, like the system's own registry tool.
#include <cctype>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "config/registry.h"
#include "platform/error.h"
#include "platform/error_text.h"
#include "platform/registry.h"
#include "platform/text.h"

namespace {

constexpr const char* kHelp =
    "Usage: chronwarden reg query  KEY [VALUE] [--json] [--machine NAME]\n"
    "       chronwarden reg set    KEY VALUE [--type TYPE] --data DATA [--machine NAME]\n"
    "       chronwarden reg delete KEY [VALUE] [--machine NAME]\n"
    "       chronwarden reg export KEY [--machine NAME]\n"
    "       chronwarden reg check  [--machine NAME]\n\n"
    "KEY follows the product's path rules: \"\" or Sub lie under Software\\Morvane\\Chronwarden\\Parameters,\n"
    "\"\\\" is Software\\Morvane\\Chronwarden, \"\\Sub\" a key below it, and \"\\\\Path\" is Path at the root of\n"
    "HKEY_LOCAL_MACHINE (for example '\\\\System\\CurrentControlSet\\Services\\W32Time'). VALUE \"\" is the\n"
    "key's default value.\n\n"
    "  query    prints the key's values and subkeys, or one value. --json prints an array of values:\n"
    "           [{\"name\": ..., \"type\": N, \"data\": ...}] with data a string for the string types\n"
    "           (REG_MULTI_SZ items separated by \\u0000), a number for REG_DWORD and lower-case hex for\n"
    "           every other type\n"
    "  set      stores a value; TYPE is sz (default), expand_sz, multi_sz, dword or binary. DATA: text;\n"
    "           multi_sz items separated by \\0; dword decimal or 0x-hex; binary hex digits (spaces,\n"
    "           commas and colons between bytes are ignored)\n"
    "  delete   removes a value, or without VALUE the key (which must have no subkeys)\n"
    "  export   prints the key and all its subkeys as .reg text\n"
    "  check    checks the machine's store for damage (on Linux SQLite's integrity check of\n"
    "           registry.db): prints \"STORE: ok\" and exits 0 when it is sound; prints the registry's\n"
    "           error and the check's first findings and exits 1 when it is damaged or cannot be read.\n"
    "           Windows keeps its own registry consistent: nothing to check there (exit 0)\n\n"
    "Options:\n"
    "  --machine NAME  work on NAME's registry (\\\\NAME or NAME) instead of the local one\n\n"
    "A missing key or value, or a refused change, exits 1 with the system's text for the error.\n";

constexpr std::uint32_t kNameSize = 16384;

struct Options {
  std::string verb, key, value, type = "sz", data, machine;
  bool has_value = false, has_data = false, json = false, has_type = false;
  RegTarget target;   // the machine's registry, opened once the command line is read
};

int Fail(std::uint32_t code) {
  char text[512];
  SystemErrorText(code, text, sizeof text);
  std::string t = text;
  while (!t.empty() && t.back() == ' ') t.pop_back();
  std::fprintf(stderr, "chronwarden reg: %s\n", t.c_str());
  return kExitFailed;
}

// parent\child; a parent that already ends in a backslash (the hive root) gets no second one.
std::string JoinKey(const std::string& parent, std::string_view child) {
  if (child.empty()) return parent;
  return parent.ends_with('\\') ? parent + std::string(child) : parent + "\\" + std::string(child);
}

std::string KeyTitle(const RegTarget& t, const std::string& path) {
  char translated[1024];
  reg_key_path(path.c_str(), translated, sizeof translated);
  std::string title;
  if (!t.local()) title = (t.name()[0] == '\\' ? "" : "\\\\") + t.name() + "\\";
  return JoinKey(title + "HKEY_LOCAL_MACHINE", translated);
}

const char* TypeName(std::uint32_t type) {
  switch (type) {
    case platform::kRegNone: return "REG_NONE";
    case platform::kRegSz: return "REG_SZ";
    case platform::kRegExpandSz: return "REG_EXPAND_SZ";
    case platform::kRegBinary: return "REG_BINARY";
    case platform::kRegDword: return "REG_DWORD";
    case platform::kRegMultiSz: return "REG_MULTI_SZ";
    default: return "REG_UNKNOWN";
  }
}

struct Value {
  std::string name;
  std::uint32_t type = 0;
  std::vector<std::uint8_t> data;
};

bool IsString(std::uint32_t type) {
  return type == platform::kRegSz || type == platform::kRegExpandSz || type == platform::kRegMultiSz;
}

// The text of string data: up to the last terminator; REG_MULTI_SZ items keep their separating zeros.
std::string StringData(const Value& v) {
  std::string s(v.data.begin(), v.data.end());
  if (v.type == platform::kRegMultiSz) {
    while (!s.empty() && s.back() == '\0') s.pop_back();
    return s;
  }
  return s.substr(0, s.find('\0'));
}

std::string Hex(const std::vector<std::uint8_t>& data, const char* separator) {
  std::string out;
  char b[4];
  for (std::size_t i = 0; i < data.size(); ++i) {
    std::snprintf(b, sizeof b, "%02x", data[i]);
    if (i) out += separator;
    out += b;
  }
  return out;
}

bool IsDword(const Value& v) { return v.type == platform::kRegDword && v.data.size() == 4; }
std::uint32_t Dword(const Value& v) {
  return v.data[0] | v.data[1] << 8 | v.data[2] << 16 | static_cast<std::uint32_t>(v.data[3]) << 24;
}

// All values of the key (opened), in order.
std::uint32_t ReadValues(platform::RegKey key, std::vector<Value>& out) {
  std::vector<char> name(kNameSize);
  std::vector<std::uint8_t> data(4096);
  for (std::uint32_t i = 0;;) {
    std::uint32_t n = kNameSize, d = static_cast<std::uint32_t>(data.size()), type = 0;
    const std::uint32_t st = platform::RegEnumValue(key, i, name.data(), &n, &type, data.data(), &d);
    if (st == platform::kErrorNoMoreItems) return 0;
    if (st == platform::kErrorMoreData && d > data.size()) {
      data.resize(d);
      continue;
    }
    if (st) return st;
    out.push_back(Value{std::string(name.data(), n), type, std::vector<std::uint8_t>(data.begin(), data.begin() + d)});
    ++i;
  }
}

std::vector<std::string> Subkeys(platform::RegKey key) {
  std::vector<std::string> subs;
  char name[1024];
  for (std::uint32_t i = 0; platform::RegEnumKey(key, i, name, sizeof name) == 0; ++i) subs.emplace_back(name);
  return subs;
}

struct OpenKey {
  platform::RegKey h = nullptr;
  ~OpenKey() { if (h) platform::RegCloseKey(h); }
};

void PrintJson(const std::vector<Value>& values) {
  std::printf("[");
  for (std::size_t i = 0; i < values.size(); ++i) {
    const auto& v = values[i];
    std::string data;
    if (IsString(v.type)) data = JsonString(StringData(v));
    else if (IsDword(v)) data = std::to_string(Dword(v));
    else data = JsonString(Hex(v.data, ""));
    std::printf("%s{\"name\": %s, \"type\": %u, \"data\": %s}", i ? ", " : "", JsonString(v.name).c_str(), v.type,
                data.c_str());
  }
  std::printf("]\n");
}

void PrintValue(const Value& v) {
  std::string data;
  if (v.type == platform::kRegMultiSz) {
    for (const char c : StringData(v)) data += c == '\0' ? std::string("\\0") : std::string(1, c);
  } else if (IsString(v.type)) {
    data = StringData(v);
  } else if (IsDword(v)) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%x", Dword(v));
    data = b;
  } else {
    data = Hex(v.data, "");
  }
  std::printf("    %s    %s    %s\n", v.name.empty() ? "(Default)" : v.name.c_str(), TypeName(v.type), data.c_str());
}

int Query(const Options& o) {
  OpenKey key;
  if (const std::uint32_t st = reg_open_read(o.target, o.key.c_str(), key.h)) return Fail(st);
  std::vector<Value> values;
  if (const std::uint32_t st = ReadValues(key.h, values)) return Fail(st);
  if (o.has_value) {
    // One value, under the name it is stored with (names ignore case).
    std::erase_if(values, [&](const Value& v) { return !platform::EqualsNoCase(v.name, o.value); });
    if (values.empty()) return Fail(platform::kErrorFileNotFound);
    values.resize(1);
  }
  if (o.json) return PrintJson(values), kExitOk;
  const std::string title = KeyTitle(o.target, o.key);
  std::printf("\n%s\n", title.c_str());
  for (const auto& v : values) PrintValue(v);
  if (!o.has_value) {
    const auto subs = Subkeys(key.h);
    if (!subs.empty()) std::printf("\n");
    for (const auto& s : subs) std::printf("%s\\%s\n", title.c_str(), s.c_str());
  }
  return kExitOk;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

int Set(const Options& o) {
  std::vector<std::uint8_t> bytes;
  std::uint32_t type = 0;
  if (o.type == "sz" || o.type == "expand_sz") {
    type = o.type == "sz" ? platform::kRegSz : platform::kRegExpandSz;
    bytes.assign(o.data.begin(), o.data.end());
    bytes.push_back(0);
  } else if (o.type == "multi_sz") {
    type = platform::kRegMultiSz;
    for (std::size_t i = 0; i < o.data.size(); ++i) {
      if (o.data[i] == '\\' && i + 1 < o.data.size() && o.data[i + 1] == '0') bytes.push_back(0), ++i;
      else bytes.push_back(static_cast<std::uint8_t>(o.data[i]));
    }
    if (!o.data.empty()) bytes.push_back(0);
    bytes.push_back(0);
  } else if (o.type == "dword") {
    type = platform::kRegDword;
    // Decimal, or hex after 0x: a leading 0 is no octal.
    std::string_view digits = o.data;
    int base = 10;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) digits.remove_prefix(2), base = 16;
    std::uint32_t v = 0;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), v, base);
    if (digits.empty() || ec != std::errc{} || end != digits.data() + digits.size())
      return UsageError("reg", "dword data must be a number from 0 to 4294967295 (decimal or 0x-hex)");
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  } else if (o.type == "binary") {
    type = platform::kRegBinary;
    int high = -1;
    for (const char c : o.data) {
      if (c == ' ' || c == ',' || c == ':') continue;
      const int d = HexDigit(c);
      if (d < 0) return UsageError("reg", "binary data must be hex digits");
      if (high < 0) high = d;
      else bytes.push_back(static_cast<std::uint8_t>(high << 4 | d)), high = -1;
    }
    if (high >= 0) return UsageError("reg", "binary data needs an even number of hex digits");
  } else {
    return UsageError("reg", "unknown --type '" + o.type + "' (sz, expand_sz, multi_sz, dword, binary)");
  }
  // Empty binary data is stored as an empty value rather than deleting it.
  OpenKey key;
  if (const std::uint32_t st = reg_open_write(o.target, o.key.c_str(), key.h)) return Fail(st);
  if (const std::uint32_t st = platform::RegSetValue(key.h, o.value.c_str(), type, bytes.data(),
                                                     static_cast<std::uint32_t>(bytes.size())))
    return Fail(st);
  return kExitOk;
}

int Delete(const Options& o) {
  if (!o.has_value) return reg_delete_key(o.target, o.key.c_str()) ? kExitOk : Fail(platform::LastError());
  if (!reg_key_exists(o.target, o.key.c_str())) return Fail(platform::LastError());
  return reg_delete_value(o.target, o.key.c_str(), o.value.c_str()) ? kExitOk : Fail(platform::LastError());
}

std::string RegQuote(std::string_view s) {
  std::string out = "\"";
  for (const char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

std::uint32_t ExportKey(const RegTarget& t, const std::string& path, const std::string& title) {
  OpenKey key;
  if (const std::uint32_t st = reg_open_read(t, path.c_str(), key.h)) return st;
  std::vector<Value> values;
  if (const std::uint32_t st = ReadValues(key.h, values)) return st;
  std::printf("[%s]\n", title.c_str());
  for (const auto& v : values) {
    const std::string name = v.name.empty() ? "@" : RegQuote(v.name);
    if (v.type == platform::kRegSz && !v.data.empty() && v.data.back() == 0 &&
        StringData(v).size() + 1 == v.data.size())
      std::printf("%s=%s\n", name.c_str(), RegQuote(StringData(v)).c_str());
    else if (IsDword(v))
      std::printf("%s=dword:%08x\n", name.c_str(), Dword(v));
    else if (v.type == platform::kRegBinary)
      std::printf("%s=hex:%s\n", name.c_str(), Hex(v.data, ",").c_str());
    else
      std::printf("%s=hex(%x):%s\n", name.c_str(), v.type, Hex(v.data, ",").c_str());
  }
  std::printf("\n");
  // Subkeys are addressed absolutely from here on.
  char translated[1024];
  reg_key_path(path.c_str(), translated, sizeof translated);
  const std::string absolute = path.starts_with("\\\\") ? path : "\\\\" + std::string(translated);
  for (const auto& s : Subkeys(key.h))
    if (const std::uint32_t st = ExportKey(t, JoinKey(absolute, s), JoinKey(title, s))) return st;
  return 0;
}

int Check(const Options& o) {
  platform::RegistryStoreReport report;
  const std::uint32_t st = platform::RegistryStoreCheck(o.machine.c_str(), false, report);
  if (st) {
    Fail(st);
    std::fprintf(stderr, "  %s\n", report.store.c_str());
    for (const std::string& line : report.problems) std::fprintf(stderr, "  %s\n", line.c_str());
    return kExitFailed;
  }
  if (!report.checked) std::printf("%s: not checked here (the system keeps it consistent itself)\n", report.store.c_str());
  else std::printf("%s: ok\n", report.store.c_str());
  return kExitOk;
}

int Export(const Options& o) {
  std::printf("Windows Registry Editor Version 5.00\n\n");
  const std::uint32_t st = ExportKey(o.target, o.key, KeyTitle(o.target, o.key));
  return st ? Fail(st) : kExitOk;
}

}  // namespace

int CmdReg(CommandArgs args) {
  Options o;
  std::vector<std::string> positional;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const auto a = args[i];
    if (IsHelp(a)) return std::fputs(kHelp, stdout), kExitOk;
    const auto take = [&](std::string& into) {
      if (++i == args.size()) return false;
      into = std::string(args[i]);
      return true;
    };
    if (a == "--json") o.json = true;
    else if (a == "--type") { if (!take(o.type)) return UsageError("reg", "--type needs a type"); o.has_type = true; }
    else if (a == "--data") { if (!take(o.data)) return UsageError("reg", "--data needs the data"); o.has_data = true; }
    else if (a == "--machine") { if (!take(o.machine)) return UsageError("reg", "--machine needs a name"); }
    else if (a.starts_with("--")) return UsageError("reg", "unknown option '" + std::string(a) + "'");
    else positional.emplace_back(a);
  }
  if (positional.empty()) return UsageError("reg", "a subcommand is needed: query, set, delete, export or check");
  o.verb = positional[0];
  if (o.verb == "check") {
    // The store itself is the subject: it is opened by the check alone, never through the layer,
    // which would read a damaged file as an error of its own first.
    if (positional.size() > 1) return UsageError("reg", "check takes no KEY");
    if (o.json || o.has_data || o.has_type) return UsageError("reg", "check takes --machine only");
    return Check(o);
  }
  if (positional.size() < 2) return UsageError("reg", "a KEY is needed");
  o.key = positional[1];
  if (positional.size() > 2) o.value = positional[2], o.has_value = true;
  if (positional.size() > 3) return UsageError("reg", "too many arguments");
  const bool query = o.verb == "query", set = o.verb == "set", del = o.verb == "delete", exp = o.verb == "export";
  if (!query && !set && !del && !exp) return UsageError("reg", "unknown subcommand '" + o.verb + "'");
  if (set && (!o.has_value || !o.has_data)) return UsageError("reg", "set needs KEY, VALUE and --data");
  if (exp && o.has_value) return UsageError("reg", "export takes a KEY only");
  if (o.json && !query) return UsageError("reg", "--json goes with query");
  if (!reg_open_target(o.machine.c_str(), o.target)) return Fail(platform::LastError());
  if (query) return Query(o);
  if (set) return Set(o);
  if (del) return Delete(o);
  return Export(o);
}
