// The registry access layer: every registry read and write of the applet and the provider.
//
// Paths are 8-bit strings translated by reg_key_path: "" or "Sub" lie under the product's
// Parameters key, "\" is the product key, "\Sub" a key below it, "\\Path" is Path at the root of
// the target's local-machine hive. Every call opens its key afresh, does one thing, closes it and
// leaves the registry status in the thread's last-error value (0 on success, 2 not found,
// 5 access denied, 234 more data). Success flags are 1/0; reads give the caller's default on any
// failure. Every call names the machine it works on (a RegTarget).
#pragma once
#include <cstdint>
#include <span>
#include <string>
#include <utility>

#include "platform/registry.h"

// The machine a call works on: its local-machine key and its name. Opened by reg_open_target (the
// one place a target is made) and passed to every call; a remote key closes with its target.
class RegTarget {
 public:
  RegTarget() = default;   // the local machine
  RegTarget(const RegTarget&) = delete;
  RegTarget& operator=(const RegTarget&) = delete;
  RegTarget(RegTarget&& other) noexcept { *this = std::move(other); }
  RegTarget& operator=(RegTarget&& other) noexcept;
  ~RegTarget();
  platform::RegKey root() const { return root_; }   // HKEY_LOCAL_MACHINE or the remote machine's
  const std::string& name() const { return name_; }  // the target as the user gave it; "" for the local machine
  bool local() const { return name_.empty(); }

 private:
  friend int reg_open_target(const char* machine, RegTarget& target);
  platform::RegKey root_ = platform::RegLocalMachine();
  std::string name_;
};
const RegTarget& reg_local();   // this machine

extern std::uint32_t g_reg_extra_access;   // ORed into every open and create; stays 0

// Target architecture codes (reg_target_architecture).
inline constexpr std::uint32_t kArchUnknown = 0;       // failure or an unrecognised processor
inline constexpr std::uint32_t kArchNoProductType = 1; // the product-type value is missing
inline constexpr std::uint32_t kArchX86 = 2;
inline constexpr std::uint32_t kArchAmd64 = 3;
inline constexpr std::uint32_t kArchIa64 = 4;
inline constexpr std::uint32_t kArchAlpha = 5;
inline constexpr std::uint32_t kArchMips = 6;
inline constexpr std::uint32_t kArchPpc = 7;

// Opens machine ("NAME" or "\\NAME"; nullptr, "" or this computer's own name: the local machine)
// into target; a longer name is cut to its first 127 characters. 1 on success; 0 with the
// registry's error as the last error and target local.
int reg_open_target(const char* machine, RegTarget& target);
// Translates a caller path into a path relative to the root key, into buf (size bytes, cut and
// terminated). Returns buf.
char* reg_key_path(const char* path, char* buf, std::uint32_t size);
// Open the translated path for reading (KEY_READ) / for writing (0x2001F, creating missing keys).
// Return the registry status; the caller closes the key with platform::RegCloseKey.
std::uint32_t reg_open_read(const RegTarget& t, const char* path, platform::RegKey& key);
std::uint32_t reg_open_write(const RegTarget& t, const char* path, platform::RegKey& key);
int reg_key_exists(const RegTarget& t, const char* path);   // 1 if the key can be opened for reading
// Whether the store holding path can be read: 0 (a missing key included), or the registry's error
// (1015 a damaged store, also when only the store's quick check finds the damage; 5 access denied, ...).
std::uint32_t reg_readable(const RegTarget& t, const char* path);

// Stores size bytes of data with the type, creating the key; no data or size 0 deletes the value.
int reg_write_value(const RegTarget& t, const char* path, const char* name, const void* data, std::uint32_t type, std::uint32_t size);
int reg_set_string(const RegTarget& t, const char* path, const char* name, const char* value);   // REG_SZ with its terminator; nullptr deletes
void reg_set_string_fmt(const RegTarget& t, const char* path, const char* name, const char* format, ...)
    __attribute__((format(printf, 4, 5)));                                   // printf-style into 32,767 characters, REG_SZ
int reg_delete_value(const RegTarget& t, const char* path, const char* name);                      // creates the key if it was missing
// Each write returns 1 when stored, 0 with the last error set.
int reg_set_binary(const RegTarget& t, const char* path, const char* name, const void* data, std::uint32_t size);  // REG_BINARY
int reg_set_dword(const RegTarget& t, const char* path, const char* name, std::uint32_t value);                    // REG_DWORD, 4 bytes
int reg_set_bool(const RegTarget& t, const char* path, const char* name, int flag);              // REG_SZ "True" / "False"

// Clears buf, then reads at most size bytes of the value.
int reg_get_binary(const RegTarget& t, const char* path, const char* name, void* buf, std::uint32_t size);
// Fills buf with the default (or zeros), reads at most size - 1 bytes and terminates them with two
// zero bytes where they fit; on failure buf holds the default.
int reg_get_string(const RegTarget& t, const char* path, const char* name, char* buf, std::uint32_t size, const char* def);
// The value in a new zero-filled allocation (size + 2 bytes), or def on any failure. Free the
// result with reg_free_string (it frees only what is not def).
char* reg_get_string_alloc(const RegTarget& t, const char* path, const char* name, char* def);
void reg_free_string(char* s, const char* def);
// Any value of at most 4 bytes as a little-endian number, whatever its type; else def.
std::uint32_t reg_get_dword(const RegTarget& t, const char* path, const char* name, std::uint32_t def);
// A boolean stored as a number, a letter or a word ("1", "Y", "T", "True", "yes" read as 1;
// "0", "N", "F", "False", "Never" as 0); def when missing.
int reg_get_bool(const RegTarget& t, const char* path, const char* name, int def);
// The value at index: name (name_size bytes), data (data_size bytes, may be nullptr) and type (may
// be nullptr). String data (types 1, 2, 7) is terminated.
int reg_enum_value(const RegTarget& t, const char* path, char* name, std::uint32_t name_size, void* data, std::uint32_t data_size,
                   std::uint32_t* type, std::uint32_t index);
int reg_delete_key(const RegTarget& t, const char* path);   // fails for a key that still has subkeys

// Replaces the access list of the key and all its subkeys: the domain's administrators (when
// domain_sid is a valid binary SID), Everyone (full access when everyone_full, else read), the
// local Administrators, LocalSystem, LocalService and NetworkService, all inheritable. NT only.
void reg_secure_tree(const RegTarget& t, const char* path, const void* domain_sid, int everyone_full);
// Replaces the access list of the key and all its subkeys with dacl. NT only.
void reg_set_tree_access(const RegTarget& t, const char* path, std::span<const platform::RegAce> dacl);
// Well-known SIDs of access lists, in text form.
inline constexpr const char* kSidAuthenticatedUsers = "S-1-5-11";
inline constexpr const char* kSidLocalSystem = "S-1-5-18";
inline constexpr const char* kSidLocalService = "S-1-5-19";
inline constexpr const char* kSidAdministrators = "S-1-5-32-544";
// The target's processor architecture code (kArch...), from its product type and environment.
std::uint32_t reg_target_architecture(const RegTarget& t);

// The text form ("S-1-5-21-...") of a binary SID, into text; false when sid is not a valid SID.
// extra_rid, when non-zero, is appended as one more sub-authority (which must still fit).
bool reg_sid_text(const void* sid, std::uint32_t extra_rid, char* text, std::uint32_t size);
