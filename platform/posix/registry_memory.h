// The registry's memory store on POSIX: a tree of keys in this process's memory, with the rules of
// the SQLite store (names compare without regard to ASCII case and keep the case they were created
// with, values keep their type and exact bytes, access lists are kept as text and inherited).
// Every use of a tree is made under Lock(). Also the key path and access list helpers both stores use.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry.h"

namespace platform::memreg {

inline constexpr std::size_t kMaxKeyNameLength = 255;   // characters of one key name

// One value.
struct Value {
  std::string name;                 // as first written
  std::uint32_t type = 0;
  std::vector<std::uint8_t> data;   // byte for byte
};

// One key. Handles hold it by shared_ptr, so it outlives its deletion from the tree.
struct Key {
  std::string name;                           // as created
  Key* parent = nullptr;                      // null for the root; followed only while not deleted
  std::vector<std::shared_ptr<Key>> subkeys;  // sorted by name, case ignored
  std::vector<Value> values;                  // in the order first written
  std::string security;                       // the access list as SecurityText
  bool deleted = false;                       // removed from the tree
};
using KeyPtr = std::shared_ptr<Key>;

std::mutex& Lock();                                   // the one lock of every memory tree
KeyPtr NewTree();                                     // a tree of the root key (HKEY_LOCAL_MACHINE) alone
// From the key down the backslash path; create: missing keys are made, taking their parent's
// inheritable entries, and a name over 255 characters anywhere refuses the lot. 2 missing, 87 too long.
std::uint32_t Walk(const KeyPtr& from, std::string_view path, bool create, KeyPtr& out);
Value* FindValue(Key& key, std::string_view name);    // the key's value of that name, or nullptr
void SetValue(Key& key, std::string_view name, std::uint32_t type, const void* data, std::uint32_t size);
bool DeleteValue(Key& key, std::string_view name);    // false when there is no such value
std::uint32_t DeleteKey(Key& key);                    // 5 for the root or a key with subkeys

std::string_view NextPart(std::string_view& path);    // the next key name of a backslash path, taken off it; "" at the end
std::string SecurityText(std::span<const RegAce> dacl);    // an access list as stored
std::vector<RegAce> ParseSecurity(std::string_view text);  // the access list of a stored text
std::string InheritedSecurity(std::string_view parent);    // the stored text a new subkey takes from its parent's

}  // namespace platform::memreg
