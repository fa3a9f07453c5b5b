// The registry value readers against values of any type and size: the first byte picks the stored
// type, the second the caller's buffer size, the rest is the value's data (also tried as a caller
// path). Every reader must stay inside its buffer and terminate its strings.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "config/registry.h"
#include "platform/registry.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

bool Terminated(const char* buf, std::size_t size) { return std::memchr(buf, 0, size) != nullptr; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool ready = [] {
    platform::UseMemoryRegistryStore();   // no file, no flush: the readers are what is tested
    return true;
  }();
  Check(ready);
  if (size < 2) return 0;
  static constexpr std::uint32_t kTypes[] = {0, 1, 2, 3, 4, 7, 5, 11};
  const std::uint32_t type = kTypes[data[0] & 7];
  const std::uint32_t buf_size = data[1] % 40;
  const std::uint8_t* value = data + 2;
  const auto value_size = static_cast<std::uint32_t>(size - 2);

  // The data as a caller path.
  const std::string path(reinterpret_cast<const char*>(value), value_size);
  char translated[64];
  reg_key_path(path.c_str(), translated, sizeof translated);
  Check(Terminated(translated, sizeof translated));

  reg_write_value(reg_local(), "Fuzz", "V", value, type, value_size);

  std::vector<char> buf(buf_size + 1, '\x7f');  // one guard byte behind the caller's buffer
  reg_get_binary(reg_local(), "Fuzz", "V", buf.data(), buf_size);
  Check(buf[buf_size] == '\x7f');
  if (buf_size) {
    reg_get_string(reg_local(), "Fuzz", "V", buf.data(), buf_size, "default");
    Check(buf[buf_size] == '\x7f' && Terminated(buf.data(), buf_size));
  }
  char* text = reg_get_string_alloc(reg_local(), "Fuzz", "V", nullptr);
  if (text) Check(std::strlen(text) <= value_size);
  reg_free_string(text, nullptr);
  const std::uint32_t number = reg_get_dword(reg_local(), "Fuzz", "V", 0xDEADBEEF);
  if (value_size > 4) Check(number == 0xDEADBEEF);
  const int flag = reg_get_bool(reg_local(), "Fuzz", "V", 7);
  Check(flag == 0 || flag == 1 || (flag == 7 && value_size == 0));

  char name[8];
  std::fill(buf.begin(), buf.end(), '\x7f');
  std::uint32_t got_type = 0;
  if (reg_enum_value(reg_local(), "Fuzz", name, sizeof name, buf_size ? buf.data() : nullptr, buf_size, &got_type, 0)) {
    Check(std::strcmp(name, "V") == 0 && got_type == type);
    if (buf_size && (type == 1 || type == 2 || type == 7)) Check(Terminated(buf.data(), buf_size));
  }
  Check(buf[buf_size] == '\x7f');
  return 0;
}
