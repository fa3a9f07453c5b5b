// The registry access layer over the platform's registry calls.
#include "config/registry.h"

#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "config/defaults.h"
#include "platform/error.h"
#include "platform/os.h"
#include "platform/text.h"

std::uint32_t g_reg_extra_access = 0;

namespace {

using platform::RegKey;

constexpr std::uint32_t kAccessWrite = 0x2001F;     // KEY_READ | KEY_SET_VALUE | KEY_CREATE_SUB_KEY
constexpr std::uint32_t kBoolSentinel = 0xFEDCBA98;
constexpr std::uint32_t kSubkeyNameSize = 515;

// The translated path, or false (last error 206) when it does not fit the path buffer.
bool Translate(const char* path, std::string& out) {
  std::array<char, defaults::kRegPathSize + 1> buf{};
  reg_key_path(path, buf.data(), static_cast<std::uint32_t>(buf.size()));
  out = buf.data();
  if (out.size() < defaults::kRegPathSize) return true;
  platform::SetLastError(platform::kErrorPathTooLong);
  return false;
}

// Sets the last error to status; true when it is 0.
bool Done(std::uint32_t status) {
  platform::SetLastError(status);
  return status == 0;
}

// An open key closed at scope exit.
struct Key {
  RegKey h = nullptr;
  ~Key() { if (h) platform::RegCloseKey(h); }
};

bool IsStringType(std::uint32_t type) {
  return type == platform::kRegSz || type == platform::kRegExpandSz || type == platform::kRegMultiSz;
}

void SecureKey(const RegTarget& t, const std::string& path, std::span<const platform::RegAce> dacl) {
  Key key;
  if (platform::RegCreateKey(t.root(), path, platform::kMaximumAllowed | g_reg_extra_access, key.h) != 0) return;
  platform::RegSetKeySecurity(key.h, dacl);
  std::array<char, kSubkeyNameSize> sub{};
  for (std::uint32_t i = 0; platform::RegEnumKey(key.h, i, sub.data(), static_cast<std::uint32_t>(sub.size())) == 0; ++i)
    SecureKey(t, path + "\\" + sub.data(), dacl);
}

}  // namespace

RegTarget& RegTarget::operator=(RegTarget&& other) noexcept {
  if (this != &other) {
    if (root_ != platform::RegLocalMachine()) platform::RegCloseKey(root_);
    root_ = std::exchange(other.root_, platform::RegLocalMachine());
    name_ = std::exchange(other.name_, std::string());
  }
  return *this;
}

RegTarget::~RegTarget() {
  if (root_ != platform::RegLocalMachine()) platform::RegCloseKey(root_);
}

const RegTarget& reg_local() {
  static const RegTarget local;
  return local;
}

int reg_open_target(const char* machine, RegTarget& target) {
  target = RegTarget();
  if (!machine || !*machine) return Done(0), 1;
  // The name as given, at most 127 characters.
  target.name_.assign(machine, strnlen(machine, defaults::kRegTargetNameChars));
  const std::string unc = target.name_.rfind("\\\\", 0) == 0 ? target.name_ : "\\\\" + target.name_;
  if (platform::EqualsNoCase(unc, "\\\\" + platform::ComputerName())) return Done(0), 1;
  RegKey remote = nullptr;
  const std::uint32_t status = platform::RegConnectRegistry(unc, platform::IsNtFamily(), remote);
  if (status != 0) {
    target.name_.clear();
    return Done(status), 0;
  }
  target.root_ = remote;
  return Done(0), 1;
}

char* reg_key_path(const char* path, char* buf, std::uint32_t size) {
  if (!buf || size == 0) return buf;
  std::memset(buf, 0, size);
  const char* product = defaults::kProductName;
  if (!path || path[0] != '\\') {
    if (path && *path) std::snprintf(buf, size, "Software\\Morvane\\%s\\Parameters\\%s", product, path);
    else std::snprintf(buf, size, "Software\\Morvane\\%s\\Parameters", product);
  } else if (path[1] == '\0') {
    std::snprintf(buf, size, "Software\\Morvane\\%s", product);
  } else if (path[1] != '\\') {
    std::snprintf(buf, size, "Software\\Morvane\\%s%s", product, path);
  } else {
    std::snprintf(buf, size, "%s", path + 2);
  }
  return buf;
}

std::uint32_t reg_open_read(const RegTarget& t, const char* path, platform::RegKey& key) {
  key = nullptr;
  std::string p;
  if (!Translate(path, p)) return platform::LastError();
  const std::uint32_t st = platform::RegOpenKey(t.root(), p, platform::kKeyRead | g_reg_extra_access, key);
  platform::SetLastError(st);
  return st;
}

std::uint32_t reg_open_write(const RegTarget& t, const char* path, platform::RegKey& key) {
  key = nullptr;
  std::string p;
  if (!Translate(path, p)) return platform::LastError();
  const std::uint32_t st = platform::RegCreateKey(t.root(), p, kAccessWrite | g_reg_extra_access, key);
  platform::SetLastError(st);
  return st;
}

int reg_key_exists(const RegTarget& t, const char* path) {
  Key key;
  return reg_open_read(t, path, key.h) == 0 ? 1 : 0;
}

std::uint32_t reg_readable(const RegTarget& t, const char* path) {
  Key key;
  const std::uint32_t st = reg_open_read(t, path, key.h);
  if (st != 0 && st != platform::kErrorFileNotFound && st != platform::kErrorPathNotFound) return st;
  // Keys that open do not make a sound store: a damaged page elsewhere would read as defaults.
  platform::RegistryStoreReport report;
  const std::uint32_t check = platform::RegistryStoreCheck(t.name().c_str(), true, report);
  return check == platform::kErrorRegistryCorrupt ? check : 0;
}

int reg_write_value(const RegTarget& t, const char* path, const char* name, const void* data, std::uint32_t type, std::uint32_t size) {
  Key key;
  if (reg_open_write(t, path, key.h) != 0) return 0;
  if (data && size) return Done(platform::RegSetValue(key.h, name, type, data, size));
  return Done(platform::RegDeleteValue(key.h, name));
}

int reg_set_string(const RegTarget& t, const char* path, const char* name, const char* value) {
  if (!value) return reg_write_value(t, path, name, nullptr, platform::kRegSz, 0);
  return reg_write_value(t, path, name, value, platform::kRegSz, static_cast<std::uint32_t>(std::strlen(value) + 1));
}

void reg_set_string_fmt(const RegTarget& t, const char* path, const char* name, const char* format, ...) {
  std::vector<char> buf(defaults::kRegFormatSize + 1, '\0');
  va_list args;
  va_start(args, format);
  std::vsnprintf(buf.data(), buf.size(), format, args);
  va_end(args);
  reg_set_string(t, path, name, buf.data());
}

int reg_delete_value(const RegTarget& t, const char* path, const char* name) { return reg_write_value(t, path, name, nullptr, 0, 0); }

int reg_set_binary(const RegTarget& t, const char* path, const char* name, const void* data, std::uint32_t size) {
  return reg_write_value(t, path, name, data, platform::kRegBinary, size);
}

int reg_set_dword(const RegTarget& t, const char* path, const char* name, std::uint32_t value) {
  const std::array<std::uint8_t, 4> le{static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
                                       static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 24)};
  return reg_write_value(t, path, name, le.data(), platform::kRegDword, 4);
}

int reg_set_bool(const RegTarget& t, const char* path, const char* name, int flag) {
  return flag ? reg_write_value(t, path, name, "True", platform::kRegSz, 5)
              : reg_write_value(t, path, name, "False", platform::kRegSz, 6);
}

int reg_get_binary(const RegTarget& t, const char* path, const char* name, void* buf, std::uint32_t size) {
  if (buf && size) std::memset(buf, 0, size);
  Key key;
  if (reg_open_read(t, path, key.h) != 0) return 0;
  std::uint32_t n = size;
  return Done(platform::RegQueryValue(key.h, name, nullptr, buf, &n));
}

int reg_get_string(const RegTarget& t, const char* path, const char* name, char* buf, std::uint32_t size, const char* def) {
  if (!buf || size == 0) return Done(87), 0;
  const auto fill_default = [&] {
    std::memset(buf, 0, size);
    if (def) std::strncpy(buf, def, size);
    buf[size - 1] = '\0';
  };
  fill_default();
  Key key;
  if (reg_open_read(t, path, key.h) != 0) return 0;
  std::uint32_t n = size - 1;
  const std::uint32_t st = platform::RegQueryValue(key.h, name, nullptr, buf, &n);
  if (st != 0) {
    fill_default();
    platform::SetLastError(st);
    return 0;
  }
  for (std::uint32_t i = n; i < size && i < n + 2; ++i) buf[i] = '\0';
  return Done(0), 1;
}

char* reg_get_string_alloc(const RegTarget& t, const char* path, const char* name, char* def) {
  Key key;
  if (reg_open_read(t, path, key.h) != 0) return def;
  std::uint32_t size = 0;
  std::uint32_t st = platform::RegQueryValue(key.h, name, nullptr, nullptr, &size);
  if (st != 0 && st != platform::kErrorMoreData) return platform::SetLastError(st), def;
  // The value may grow between the two reads; ask again with the new size a few times.
  for (int attempt = 0; attempt < 4; ++attempt) {
    auto* text = static_cast<char*>(std::calloc(static_cast<std::size_t>(size) + 2, 1));
    if (!text) return platform::SetLastError(platform::kErrorNotEnoughMemory), def;
    std::uint32_t n = size;
    st = platform::RegQueryValue(key.h, name, nullptr, text, &n);
    if (st == 0) {
      text[n] = text[n + 1] = '\0';
      return Done(0), text;
    }
    std::free(text);
    if (st != platform::kErrorMoreData) break;
    size = n;
  }
  platform::SetLastError(st);
  return def;
}

void reg_free_string(char* s, const char* def) {
  if (s && s != def) std::free(s);
}

std::uint32_t reg_get_dword(const RegTarget& t, const char* path, const char* name, std::uint32_t def) {
  Key key;
  if (reg_open_read(t, path, key.h) != 0) return def;
  std::array<std::uint8_t, 4> le{};
  std::uint32_t n = 4;
  if (!Done(platform::RegQueryValue(key.h, name, nullptr, le.data(), &n))) return def;
  return le[0] | (le[1] << 8) | (le[2] << 16) | (static_cast<std::uint32_t>(le[3]) << 24);
}

int reg_get_bool(const RegTarget& t, const char* path, const char* name, int def) {
  const std::uint32_t v = reg_get_dword(t, path, name, kBoolSentinel);
  if (v == 0 || v == '0' || v == 'F' || v == 'N' || v == 'f' || v == 'n') return 0;
  if (v != kBoolSentinel) return 1;
  char* text = reg_get_string_alloc(t, path, name, nullptr);
  if (!text) return def;
  const char c = text[0];
  reg_free_string(text, nullptr);
  return c == 't' || c == 'T' || c == '1' || c == 'y' || c == 'Y' ? 1 : 0;
}

int reg_enum_value(const RegTarget& t, const char* path, char* name, std::uint32_t name_size, void* data, std::uint32_t data_size,
                   std::uint32_t* type, std::uint32_t index) {
  if (name && name_size) std::memset(name, 0, name_size);
  if (data && data_size) std::memset(data, 0, data_size);
  if (!name || !name_size) return Done(87), 0;
  Key key;
  if (reg_open_read(t, path, key.h) != 0) return 0;
  std::uint32_t n = name_size, d = data_size, found = 0;
  const std::uint32_t st = platform::RegEnumValue(key.h, index, name, &n, &found, data, data ? &d : nullptr);
  if (!Done(st)) return 0;
  name[n < name_size ? n : name_size - 1] = '\0';
  if (type) *type = found;
  if (data && data_size && IsStringType(found)) static_cast<char*>(data)[d < data_size ? d : data_size - 1] = '\0';
  return 1;
}

int reg_delete_key(const RegTarget& t, const char* path) {
  std::string p;
  if (!Translate(path, p)) return 0;
  return Done(platform::RegDeleteKey(t.root(), p)) ? 1 : 0;
}

bool reg_sid_text(const void* sid, std::uint32_t extra_rid, char* text, std::uint32_t size) {
  if (!sid || !text || size == 0) return false;
  const auto* b = static_cast<const std::uint8_t*>(sid);
  const unsigned count = b[1];
  if (b[0] != 1 || count > 15 || (extra_rid && count >= 15)) return false;
  std::uint64_t authority = 0;
  for (int i = 2; i < 8; ++i) authority = authority << 8 | b[i];
  std::string s = "S-1-";
  char part[32];
  if (authority >> 32) std::snprintf(part, sizeof part, "0x%012llX", static_cast<unsigned long long>(authority));
  else std::snprintf(part, sizeof part, "%llu", static_cast<unsigned long long>(authority));
  s += part;
  for (unsigned i = 0; i < count; ++i) {
    const std::uint8_t* r = b + 8 + 4 * i;
    const std::uint32_t rid = r[0] | r[1] << 8 | r[2] << 16 | static_cast<std::uint32_t>(r[3]) << 24;
    std::snprintf(part, sizeof part, "-%u", rid);
    s += part;
  }
  if (extra_rid) {
    std::snprintf(part, sizeof part, "-%u", extra_rid);
    s += part;
  }
  if (s.size() >= size) return false;
  std::memcpy(text, s.c_str(), s.size() + 1);
  return true;
}

void reg_secure_tree(const RegTarget& t, const char* path, const void* domain_sid, int everyone_full) {
  if (!platform::IsNtFamily()) return;
  using platform::RegAce;
  std::vector<RegAce> dacl;
  char domain_admins[256] = {};
  if (reg_sid_text(domain_sid, 512, domain_admins, sizeof domain_admins))
    dacl.push_back(RegAce{platform::kAceAccessAllowed, platform::kAceInherit, platform::kGenericAll, domain_admins});
  dacl.push_back(RegAce{platform::kAceAccessAllowed, platform::kAceInherit,
                        everyone_full ? platform::kGenericAll : platform::kGenericRead, "S-1-1-0"});
  for (const char* sid : {"S-1-5-32-544", "S-1-5-18", "S-1-5-19", "S-1-5-20"})
    dacl.push_back(RegAce{platform::kAceAccessAllowed, platform::kAceInherit, platform::kGenericAll, sid});
  reg_set_tree_access(t, path, dacl);
}

void reg_set_tree_access(const RegTarget& t, const char* path, std::span<const platform::RegAce> dacl) {
  if (!platform::IsNtFamily()) return;
  std::string p;
  if (!Translate(path, p)) return;
  SecureKey(t, p, dacl);
}

std::uint32_t reg_target_architecture(const RegTarget& t) {
  char* type = reg_get_string_alloc(t, "\\\\System\\CurrentControlSet\\Control\\ProductOptions", "ProductType", nullptr);
  if (!type || !*type) {
    const std::uint32_t err = platform::LastError();
    reg_free_string(type, nullptr);
    return err == platform::kErrorFileNotFound || err == platform::kErrorPathNotFound ? kArchNoProductType : kArchUnknown;
  }
  reg_free_string(type, nullptr);
  char* arch = reg_get_string_alloc(t, "\\\\System\\CurrentControlSet\\Control\\Session Manager\\Environment",
                                    "PROCESSOR_ARCHITECTURE", nullptr);
  if (!arch) return kArchUnknown;
  for (char* c = arch; *c; ++c) *c = static_cast<char>(std::tolower(static_cast<unsigned char>(*c)));
  static constexpr const char* kNames[] = {"x86", "amd64", "ia64", "alpha", "mips", "ppc"};
  std::uint32_t code = kArchUnknown;
  for (std::uint32_t i = 0; i < 6; ++i)
    if (std::strcmp(arch, kNames[i]) == 0) code = kArchX86 + i;
  reg_free_string(arch, nullptr);
  platform::SetLastError(0);
  return code;
}
