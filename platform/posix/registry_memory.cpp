// The registry's memory store on POSIX (see registry_memory.h).
#include "platform/posix/registry_memory.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "platform/error.h"

namespace platform::memreg {

namespace {

// Each byte with the ASCII capitals folded to small letters (a table: no compares per byte).
constexpr auto kFold = [] {
  std::array<unsigned char, 256> fold{};
  for (int c = 0; c < 256; ++c) fold[c] = static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  return fold;
}();

// Below, at or above zero as a sorts before, with or after b, ASCII case ignored (SQLite's NOCASE).
int Compare(std::string_view a, std::string_view b) {
  const std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i)
    if (const int d = kFold[static_cast<unsigned char>(a[i])] - kFold[static_cast<unsigned char>(b[i])]) return d;
  return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
}

}  // namespace

std::mutex& Lock() {
  static std::mutex lock;
  return lock;
}

KeyPtr NewTree() {
  auto root = std::make_shared<Key>();
  root->name = "HKEY_LOCAL_MACHINE";
  return root;
}

std::uint32_t Walk(const KeyPtr& from, std::string_view path, bool create, KeyPtr& out) {
  if (create)
    for (auto rest = path; !rest.empty();)
      if (NextPart(rest).size() > kMaxKeyNameLength) return kErrorInvalidParameter;
  const KeyPtr* key = &from;
  for (auto part = NextPart(path); !part.empty(); part = NextPart(path)) {
    if (part.size() > kMaxKeyNameLength) return kErrorInvalidParameter;
    auto& subkeys = (*key)->subkeys;
    auto at = std::lower_bound(subkeys.begin(), subkeys.end(), part,
                               [](const KeyPtr& k, std::string_view name) { return Compare(k->name, name) < 0; });
    if (at == subkeys.end() || Compare((*at)->name, part) != 0) {
      if (!create) return kErrorFileNotFound;
      at = subkeys.insert(at, std::make_shared<Key>(Key{std::string(part), key->get(), {}, {},
                                                        InheritedSecurity((*key)->security), false}));
    }
    key = &*at;
  }
  out = *key;
  return 0;
}

Value* FindValue(Key& key, std::string_view name) {
  for (auto& v : key.values)
    if (v.name.size() == name.size() && Compare(v.name, name) == 0) return &v;
  return nullptr;
}

void SetValue(Key& key, std::string_view name, std::uint32_t type, const void* data, std::uint32_t size) {
  Value* v = FindValue(key, name);
  if (!v) v = &key.values.emplace_back(Value{std::string(name), type, {}});
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  v->type = type;
  v->data.assign(bytes, bytes + size);
}

bool DeleteValue(Key& key, std::string_view name) {
  const Value* v = FindValue(key, name);
  if (v) key.values.erase(key.values.begin() + (v - key.values.data()));
  return v != nullptr;
}

std::uint32_t DeleteKey(Key& key) {
  if (!key.parent || !key.subkeys.empty()) return kErrorAccessDenied;
  key.deleted = true;
  key.values.clear();
  auto& siblings = key.parent->subkeys;
  siblings.erase(std::find_if(siblings.begin(), siblings.end(), [&](const KeyPtr& k) { return k.get() == &key; }));
  return 0;
}

std::string_view NextPart(std::string_view& path) {
  while (!path.empty()) {
    const auto cut = path.find('\\');
    const auto part = path.substr(0, cut);
    path.remove_prefix(cut == std::string_view::npos ? path.size() : cut + 1);
    if (!part.empty()) return part;
  }
  return {};
}

std::string SecurityText(std::span<const RegAce> dacl) {
  std::string text;
  char head[48];
  for (const auto& ace : dacl) {
    std::snprintf(head, sizeof head, "%u,%u,%08x,", ace.type, ace.flags, ace.mask);
    text += head + ace.sid + ";";
  }
  return text;
}

std::vector<RegAce> ParseSecurity(std::string_view text) {
  std::vector<RegAce> dacl;
  while (!text.empty()) {
    const auto end = text.find(';');
    const std::string entry(text.substr(0, end));
    unsigned type = 0, flags = 0, mask = 0;
    int used = 0;
    if (std::sscanf(entry.c_str(), "%u,%u,%x,%n", &type, &flags, &mask, &used) == 3 && used > 0)
      dacl.push_back(RegAce{static_cast<std::uint8_t>(type), static_cast<std::uint8_t>(flags), mask, entry.substr(used)});
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return dacl;
}

// The entries containers inherit, marked inherited.
std::string InheritedSecurity(std::string_view parent) {
  std::vector<RegAce> inherited;
  for (auto& ace : ParseSecurity(parent))
    if (ace.flags & 2) inherited.push_back(RegAce{ace.type, static_cast<std::uint8_t>(ace.flags | kAceInherited), ace.mask, ace.sid});
  return SecurityText(inherited);
}

}  // namespace platform::memreg
