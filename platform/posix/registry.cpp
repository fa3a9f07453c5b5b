// The registry on POSIX: one SQLite database per machine, <machine root>/registry.db.
//
// keys(id, parent, name, security): the key tree; id 1 is HKEY_LOCAL_MACHINE. vals(key, name,
// type, data): typed values, the data kept byte for byte, enumerated in the order they were first
// written. Key and value names compare without regard to ASCII case (COLLATE NOCASE) and keep the
// case they were created with. security holds the key's access list as text.
//
// Every call is one transaction (changes BEGIN IMMEDIATE), the database runs in WAL mode with a
// busy time-out, so the provider and the applet may use one store at once without losing a write.
// Within a process one connection per store serves every thread behind the store's mutex; a child
// process after fork opens its own.
//
// The first process that creates a store fills in the machine identity values the system reads:
// ProductType ("ServerNT": a machine that serves time), PROCESSOR_ARCHITECTURE (from uname -m:
// x86_64 "AMD64", aarch64 "ARM64", i?86 "x86"), ComputerName and SystemRoot (the machine root).
// A store first made through the network root (another machine's mounted root, opened by
// RegConnectRegistry) takes its ComputerName from the machine's name; the rest comes from this
// machine, as the machines of one network run the same build.
// Access lists are stored, read back and inherited by new subkeys; they are not enforced against
// POSIX users: the file's own permissions decide (a read-only store gives 5 on every change).
#include "platform/registry.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <thread>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <strings.h>

#include "platform/os.h"
#include "platform/paths.h"

namespace platform {

namespace {

constexpr std::int64_t kRootId = 1;
constexpr std::size_t kMaxKeyNameLength = 255;
constexpr std::size_t kMaxValueNameLength = 16383;
constexpr int kBusyTimeoutMs = 30000;

struct Store {
  // A prepared statement kept for the life of the connection, by its SQL text.
  struct Cached {
    sqlite3_stmt* stmt = nullptr;
    bool in_use = false;
  };
  sqlite3* db = nullptr;
  std::mutex lock;                                   // one call at a time; the statements are used under it
  std::map<const char*, Cached> statements;
  std::string path;
  dev_t dev = 0;
  ino_t ino = 0;
  pid_t pid = 0;
  bool read_only = false;
  ~Store() {
    // A store inherited through fork is left alone: closing would touch the parent's WAL state.
    if (!db || pid != getpid()) return;
    for (auto& [sql, cached] : statements) sqlite3_finalize(cached.stmt);
    sqlite3_close_v2(db);
  }
};

}  // namespace

struct RegKeyObject {
  std::shared_ptr<Store> store;  // null for the predefined local-machine key (resolved per call)
  std::int64_t id = kRootId;
  std::uint32_t access = kKeyAllAccess;
  bool predefined = false;
};

namespace {

RegKeyObject g_local_machine{nullptr, kRootId, kKeyAllAccess, true};

std::mutex g_stores_lock;
std::map<std::string, std::shared_ptr<Store>> g_stores;
std::atomic<bool> g_memory_store{false};   // the local machine's store lives in memory

std::uint32_t StatusOf(int rc) {
  switch (rc & 0xFF) {
    case SQLITE_OK:
    case SQLITE_DONE:
    case SQLITE_ROW: return 0;
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH: return kErrorAccessDenied;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB: return kErrorRegistryCorrupt;
    default: return kErrorRegistryIoFailed;
  }
}

// One prepared statement: the store's kept one for this SQL (prepared the first time, reset after
// each use), or a statement of its own while the kept one is in use.
class Stmt {
 public:
  Stmt(Store& store, const char* sql) {
    Store::Cached& c = store.statements[sql];
    if (!c.stmt) rc_ = sqlite3_prepare_v3(store.db, sql, -1, SQLITE_PREPARE_PERSISTENT, &c.stmt, nullptr);
    if (rc_ == SQLITE_OK && !c.in_use) {
      c.in_use = true;
      cached_ = &c;
      s_ = c.stmt;
    } else {
      rc_ = sqlite3_prepare_v2(store.db, sql, -1, &s_, nullptr);
    }
  }
  ~Stmt() {
    if (!cached_) {
      sqlite3_finalize(s_);
      return;
    }
    sqlite3_reset(s_);
    sqlite3_clear_bindings(s_);
    cached_->in_use = false;
  }
  Stmt(const Stmt&) = delete;
  Stmt& operator=(const Stmt&) = delete;
  bool ok() const { return rc_ == SQLITE_OK; }
  int error() const { return rc_; }
  Stmt& Int(int i, std::int64_t v) { if (ok()) rc_ = sqlite3_bind_int64(s_, i, v); return *this; }
  Stmt& Text(int i, std::string_view v) {
    if (ok()) rc_ = sqlite3_bind_text(s_, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
    return *this;
  }
  Stmt& Blob(int i, const void* p, std::uint32_t n) {
    if (ok()) rc_ = sqlite3_bind_blob(s_, i, n ? p : "", static_cast<int>(n), SQLITE_TRANSIENT);
    return *this;
  }
  // SQLITE_ROW, SQLITE_DONE or an error.
  int Step() {
    if (!ok()) return rc_;
    const int rc = sqlite3_step(s_);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) rc_ = rc;
    return rc;
  }
  std::int64_t ColInt(int i) const { return sqlite3_column_int64(s_, i); }
  std::string_view ColText(int i) const {
    const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(s_, i));
    return p ? std::string_view(p, static_cast<std::size_t>(sqlite3_column_bytes(s_, i))) : std::string_view{};
  }
  std::span<const std::uint8_t> ColBlob(int i) const {
    const auto* p = static_cast<const std::uint8_t*>(sqlite3_column_blob(s_, i));
    return {p, p ? static_cast<std::size_t>(sqlite3_column_bytes(s_, i)) : 0};
  }

 private:
  sqlite3_stmt* s_ = nullptr;
  Store::Cached* cached_ = nullptr;
  int rc_ = SQLITE_OK;
};

std::uint32_t Exec(sqlite3* db, const char* sql) { return StatusOf(sqlite3_exec(db, sql, nullptr, nullptr, nullptr)); }

// One statement without results, through the store's kept statements.
std::uint32_t Run(Store& s, const char* sql) {
  Stmt q(s, sql);
  q.Step();
  return StatusOf(q.error());
}

// One transaction: BEGIN (IMMEDIATE for a change), COMMIT by Commit(), else ROLLBACK.
class Txn {
 public:
  Txn(Store& s, bool write) : s_(s) { status_ = Run(s, write ? "BEGIN IMMEDIATE" : "BEGIN"); }
  ~Txn() { if (status_ == 0 && !done_) Run(s_, "ROLLBACK"); }
  std::uint32_t status() const { return status_; }
  std::uint32_t Commit() {
    done_ = true;
    const std::uint32_t st = Run(s_, "COMMIT");
    if (st) Run(s_, "ROLLBACK");
    return st;
  }

 private:
  Store& s_;
  std::uint32_t status_;
  bool done_ = false;
};

std::vector<std::string_view> SplitPath(std::string_view path) {
  std::vector<std::string_view> parts;
  while (!path.empty()) {
    const auto cut = path.find('\\');
    const auto part = path.substr(0, cut);
    if (!part.empty()) parts.push_back(part);
    if (cut == std::string_view::npos) break;
    path.remove_prefix(cut + 1);
  }
  return parts;
}

bool KeyAlive(Store& s, std::int64_t id) {
  Stmt q(s, "SELECT 1 FROM keys WHERE id = ?");
  return q.Int(1, id).Step() == SQLITE_ROW;
}

std::uint32_t FindChild(Store& s, std::int64_t parent, std::string_view name, std::int64_t& id) {
  Stmt q(s, "SELECT id FROM keys WHERE parent = ? AND name = ?");
  const int rc = q.Int(1, parent).Text(2, name).Step();
  if (rc == SQLITE_ROW) return id = q.ColInt(0), 0;
  return rc == SQLITE_DONE ? kErrorFileNotFound : StatusOf(rc);
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

// The entries a new subkey takes over from its parent: those that containers inherit.
std::string InheritedSecurity(Store& s, std::int64_t parent) {
  Stmt q(s, "SELECT security FROM keys WHERE id = ?");
  if (q.Int(1, parent).Step() != SQLITE_ROW) return {};
  std::vector<RegAce> inherited;
  for (auto& ace : ParseSecurity(q.ColText(0)))
    if (ace.flags & 2) inherited.push_back(RegAce{ace.type, static_cast<std::uint8_t>(ace.flags | kAceInherited), ace.mask, ace.sid});
  return SecurityText(inherited);
}

// Walks from the key id down the path; creates missing keys when create is set (inside a write
// transaction).
std::uint32_t Walk(Store& s, std::int64_t from, std::string_view path, bool create, std::int64_t& id) {
  id = from;
  for (const auto part : SplitPath(path)) {
    if (part.size() > kMaxKeyNameLength) return kErrorInvalidParameter;
    std::int64_t child = 0;
    std::uint32_t st = FindChild(s, id, part, child);
    if (st == kErrorFileNotFound && create) {
      Stmt ins(s, "INSERT INTO keys(parent, name, security) VALUES(?, ?, ?)");
      if (ins.Int(1, id).Text(2, part).Text(3, InheritedSecurity(s, id)).Step() != SQLITE_DONE) return StatusOf(ins.error());
      child = sqlite3_last_insert_rowid(s.db);
      st = 0;
    }
    if (st) return st;
    id = child;
  }
  return 0;
}

std::uint32_t PutValue(Store& s, std::int64_t key, std::string_view name, std::uint32_t type, const void* data,
                       std::uint32_t size) {
  Stmt up(s,
          "INSERT INTO vals(key, name, type, data) VALUES(?, ?, ?, ?) "
          "ON CONFLICT(key, name) DO UPDATE SET type = excluded.type, data = excluded.data");
  up.Int(1, key).Text(2, name).Int(3, type).Blob(4, data, size);
  return up.Step() == SQLITE_DONE ? 0 : StatusOf(up.error());
}

std::string ArchitectureName() {
  utsname u{};
  if (uname(&u) != 0) return "Unknown";
  const std::string_view m = u.machine;
  if (m == "x86_64" || m == "amd64") return "AMD64";
  if (m == "aarch64" || m == "arm64") return "ARM64";
  if (m.size() == 4 && m[0] == 'i' && m.substr(2) == "86") return "x86";
  if (m == "ia64") return "IA64";
  if (m.starts_with("ppc") || m.starts_with("powerpc")) return "PPC";
  if (m.starts_with("mips")) return "MIPS";
  if (m.starts_with("alpha")) return "ALPHA";
  std::string upper(m);
  for (auto& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return upper;
}

std::uint32_t PutString(Store& s, std::string_view path, const char* name, const std::string& value) {
  std::int64_t id = 0;
  std::uint32_t st = Walk(s, kRootId, path, true, id);
  return st ? st : PutValue(s, id, name, kRegSz, value.c_str(), static_cast<std::uint32_t>(value.size() + 1));
}

// Schema, and the machine identity the first time the store is made (one write transaction).
std::uint32_t Initialise(Store& s, const std::string& computer_name, const std::string& system_root) {
  Txn t(s, true);
  if (t.status()) return t.status();
  std::uint32_t st = Exec(s.db,
                          "CREATE TABLE IF NOT EXISTS keys(id INTEGER PRIMARY KEY, parent INTEGER NOT NULL, "
                          "name TEXT NOT NULL COLLATE NOCASE, security TEXT, UNIQUE(parent, name));"
                          "CREATE TABLE IF NOT EXISTS vals(key INTEGER NOT NULL, name TEXT NOT NULL COLLATE NOCASE, "
                          "type INTEGER NOT NULL, data BLOB NOT NULL, UNIQUE(key, name));"
                          "CREATE TABLE IF NOT EXISTS meta(name TEXT PRIMARY KEY, value TEXT);");
  if (st) return st;
  Stmt probe(s, "SELECT 1 FROM keys WHERE id = 1");
  const int rc = probe.Step();
  if (rc == SQLITE_ROW) return t.Commit();
  if (rc != SQLITE_DONE) return StatusOf(probe.error());
  st = Exec(s.db, "INSERT INTO keys(id, parent, name) VALUES(1, 0, 'HKEY_LOCAL_MACHINE')");
  if (!st) st = PutString(s, "SYSTEM\\CurrentControlSet\\Control\\ProductOptions", "ProductType", "ServerNT");
  if (!st)
    st = PutString(s, "SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment", "PROCESSOR_ARCHITECTURE",
                   ArchitectureName());
  if (!st) st = PutString(s, "SYSTEM\\CurrentControlSet\\Control\\ComputerName\\ComputerName", "ComputerName", computer_name);
  if (!st) st = PutString(s, "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "SystemRoot", system_root);
  if (!st) st = PutString(s, "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "ProductName", OsProductName());
  return st ? st : t.Commit();
}

std::uint32_t OpenStoreFile(Store& s, const std::string& computer_name, const std::string& system_root) {
  int rc = sqlite3_open_v2(s.path.c_str(), &s.db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    sqlite3_close_v2(s.db);
    s.db = nullptr;
    const int open_errno = errno;
    rc = sqlite3_open_v2(s.path.c_str(), &s.db, SQLITE_OPEN_READONLY | SQLITE_OPEN_FULLMUTEX, nullptr);
    if (rc != SQLITE_OK) return (open_errno == EACCES || open_errno == EPERM || errno == EACCES) ? kErrorAccessDenied : kErrorRegistryIoFailed;
    s.read_only = true;
  }
  sqlite3_busy_timeout(s.db, kBusyTimeoutMs);
  if (s.read_only) return 0;
  // Two processes making the same new store meet while one switches it to WAL or fills it in, and
  // SQLite may then answer "busy" without waiting: try again for up to a second.
  for (int attempt = 0;; ++attempt) {
    std::uint32_t st = Exec(s.db, "PRAGMA journal_mode=WAL");
    if (!st) st = Exec(s.db, "PRAGMA synchronous=NORMAL");
    if (!st) st = Initialise(s, computer_name, system_root);
    if (st != kErrorRegistryIoFailed || attempt == 50) return st;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

// The store of a machine root, opened once per process (again after fork, or when the file was
// replaced). create_root: make a missing root folder (the local machine); else a missing root is
// an unreachable machine (53).
// The local machine's store in memory, made on first use (a forked child works on its copy).
std::uint32_t GetMemoryStore(std::shared_ptr<Store>& out) {
  std::lock_guard guard(g_stores_lock);
  static std::shared_ptr<Store> memory;
  if (!memory) {
    auto store = std::make_shared<Store>();
    store->path = ":memory:";
    store->pid = getpid();
    if (const std::uint32_t status = OpenStoreFile(*store, ComputerName(), MachineRoot())) return status;
    memory = std::move(store);
  }
  out = memory;
  return 0;
}

std::uint32_t GetStore(const std::string& root, bool create_root, const std::string& computer_name,
                       std::shared_ptr<Store>& out) {
  if (g_memory_store.load() && create_root) return GetMemoryStore(out);
  std::lock_guard guard(g_stores_lock);
  const std::string path = root + "/registry.db";
  struct stat st {};
  const bool file_there = ::stat(path.c_str(), &st) == 0;
  auto it = g_stores.find(path);
  if (it != g_stores.end() && it->second->pid == getpid() && file_there && st.st_dev == it->second->dev &&
      st.st_ino == it->second->ino) {
    out = it->second;
    return 0;
  }
  std::error_code ec;
  if (!std::filesystem::is_directory(root, ec)) {
    if (!create_root) return kErrorBadNetPath;
    std::filesystem::create_directories(root, ec);
    if (ec) return ec == std::errc::permission_denied || ec == std::errc::read_only_file_system ? kErrorAccessDenied
                                                                                               : kErrorRegistryIoFailed;
  }
  auto store = std::make_shared<Store>();
  store->path = path;
  store->pid = getpid();
  if (const std::uint32_t status = OpenStoreFile(*store, computer_name, root)) return status;
  if (::stat(path.c_str(), &st) == 0) store->dev = st.st_dev, store->ino = st.st_ino;
  g_stores[path] = store;
  out = std::move(store);
  return 0;
}

// The store and key id behind a handle.
std::uint32_t Resolve(RegKey key, std::shared_ptr<Store>& store, std::int64_t& id) {
  if (!key) return kErrorInvalidHandle;
  id = key->id;
  if (key->store) return store = key->store, 0;
  if (g_memory_store.load()) return GetMemoryStore(store);
  return GetStore(MachineRoot(), true, ComputerName(), store);
}

std::uint32_t Granted(std::uint32_t access, bool read_only) {
  std::uint32_t g = access & 0x000F003F;
  if (access & (kMaximumAllowed | kGenericAll)) g |= kKeyAllAccess;
  if (access & kGenericRead) g |= kKeyRead;
  if (access & 0x40000000) g |= kKeyWrite;  // GENERIC_WRITE
  if (read_only) g &= kKeyRead;
  return g;
}

// Runs fn(store, key id) under the store's lock inside a transaction; fn returns a status.
template <typename Fn>
std::uint32_t WithKey(RegKey key, bool write, Fn fn) {
  std::shared_ptr<Store> store;
  std::int64_t id = 0;
  if (std::uint32_t st = Resolve(key, store, id)) return st;
  if (write && store->read_only) return kErrorAccessDenied;
  std::lock_guard guard(store->lock);
  Txn t(*store, write);
  if (t.status()) return t.status();
  if (!KeyAlive(*store, id)) return kErrorKeyDeleted;
  if (const std::uint32_t st = fn(*store, id)) return st;
  return t.Commit();
}

std::uint32_t OpenOrCreate(RegKey parent, std::string_view subkey, std::uint32_t access, bool create, RegKey& out) {
  out = nullptr;
  std::shared_ptr<Store> store;
  std::int64_t from = 0;
  if (std::uint32_t st = Resolve(parent, store, from)) return st;
  const std::uint32_t granted = Granted(access, store->read_only);
  if ((access & ~(kMaximumAllowed | kGenericRead | kKeyWow64_32Key | kKeyWow64_64Key)) & ~granted) return kErrorAccessDenied;
  std::int64_t id = 0;
  const std::uint32_t st = WithKey(parent, create && !store->read_only, [&](Store& s, std::int64_t start) {
    const std::uint32_t found = Walk(s, start, subkey, false, id);
    if (found == kErrorFileNotFound && create) return s.read_only ? kErrorAccessDenied : Walk(s, start, subkey, true, id);
    return found;
  });
  if (st) return st;
  out = new RegKeyObject{store, id, granted, false};
  return 0;
}

bool NameFits(const char* name) { return !name || std::strlen(name) <= kMaxValueNameLength; }

}  // namespace

RegKey RegLocalMachine() { return &g_local_machine; }

std::uint32_t RegOpenKey(RegKey parent, std::string_view subkey, std::uint32_t access, RegKey& out) {
  return OpenOrCreate(parent, subkey, access, false, out);
}

std::uint32_t RegCreateKey(RegKey parent, std::string_view subkey, std::uint32_t access, RegKey& out) {
  return OpenOrCreate(parent, subkey, access, true, out);
}

void RegCloseKey(RegKey key) {
  if (key && !key->predefined) delete key;
}

std::uint32_t RegQueryValue(RegKey key, const char* name, std::uint32_t* type, void* data, std::uint32_t* size) {
  if (key && !(key->access & kKeyQueryValue)) return kErrorAccessDenied;
  if (data && !size) return kErrorInvalidParameter;
  return WithKey(key, false, [&](Store& s, std::int64_t id) -> std::uint32_t {
    Stmt q(s, "SELECT type, data FROM vals WHERE key = ? AND name = ?");
    const int rc = q.Int(1, id).Text(2, name ? name : "").Step();
    if (rc != SQLITE_ROW) return rc == SQLITE_DONE ? kErrorFileNotFound : StatusOf(q.error());
    const auto bytes = q.ColBlob(1);
    const auto needed = static_cast<std::uint32_t>(bytes.size());
    if (type) *type = static_cast<std::uint32_t>(q.ColInt(0));
    if (!size) return 0;
    if (data && *size < needed) return *size = needed, kErrorMoreData;
    if (data && needed) std::memcpy(data, bytes.data(), needed);
    *size = needed;
    return 0;
  });
}

std::uint32_t RegSetValue(RegKey key, const char* name, std::uint32_t type, const void* data, std::uint32_t size) {
  if (key && !(key->access & kKeySetValue)) return kErrorAccessDenied;
  if (!NameFits(name) || (size && !data)) return kErrorInvalidParameter;
  return WithKey(key, true, [&](Store& s, std::int64_t id) { return PutValue(s, id, name ? name : "", type, data, size); });
}

std::uint32_t RegDeleteValue(RegKey key, const char* name) {
  if (key && !(key->access & kKeySetValue)) return kErrorAccessDenied;
  return WithKey(key, true, [&](Store& s, std::int64_t id) -> std::uint32_t {
    Stmt del(s, "DELETE FROM vals WHERE key = ? AND name = ?");
    if (del.Int(1, id).Text(2, name ? name : "").Step() != SQLITE_DONE) return StatusOf(del.error());
    return sqlite3_changes(s.db) ? 0 : kErrorFileNotFound;
  });
}

std::uint32_t RegEnumValue(RegKey key, std::uint32_t index, char* name, std::uint32_t* name_size, std::uint32_t* type,
                           void* data, std::uint32_t* data_size) {
  if (key && !(key->access & kKeyQueryValue)) return kErrorAccessDenied;
  if (!name || !name_size || (data && !data_size)) return kErrorInvalidParameter;
  return WithKey(key, false, [&](Store& s, std::int64_t id) -> std::uint32_t {
    Stmt q(s, "SELECT name, type, data FROM vals WHERE key = ? ORDER BY rowid LIMIT 1 OFFSET ?");
    const int rc = q.Int(1, id).Int(2, index).Step();
    if (rc != SQLITE_ROW) return rc == SQLITE_DONE ? kErrorNoMoreItems : StatusOf(q.error());
    const auto value_name = q.ColText(0);
    const auto bytes = q.ColBlob(2);
    const auto needed = static_cast<std::uint32_t>(bytes.size());
    if (*name_size <= value_name.size()) return kErrorMoreData;
    std::memcpy(name, value_name.data(), value_name.size());
    name[value_name.size()] = '\0';
    *name_size = static_cast<std::uint32_t>(value_name.size());
    if (type) *type = static_cast<std::uint32_t>(q.ColInt(1));
    if (data_size) {
      if (data && *data_size < needed) return *data_size = needed, kErrorMoreData;
      if (data && needed) std::memcpy(data, bytes.data(), needed);
      *data_size = needed;
    }
    return 0;
  });
}

std::uint32_t RegEnumKey(RegKey key, std::uint32_t index, char* name, std::uint32_t size) {
  if (key && !(key->access & kKeyEnumerateSubKeys)) return kErrorAccessDenied;
  if (!name) return kErrorInvalidParameter;
  return WithKey(key, false, [&](Store& s, std::int64_t id) -> std::uint32_t {
    Stmt q(s, "SELECT name FROM keys WHERE parent = ? ORDER BY name COLLATE NOCASE LIMIT 1 OFFSET ?");
    const int rc = q.Int(1, id).Int(2, index).Step();
    if (rc != SQLITE_ROW) return rc == SQLITE_DONE ? kErrorNoMoreItems : StatusOf(q.error());
    const auto sub = q.ColText(0);
    if (size <= sub.size()) return kErrorMoreData;
    std::memcpy(name, sub.data(), sub.size());
    name[sub.size()] = '\0';
    return 0;
  });
}

std::uint32_t RegDeleteKey(RegKey parent, std::string_view subkey) {
  return WithKey(parent, true, [&](Store& s, std::int64_t start) -> std::uint32_t {
    std::int64_t id = 0;
    if (const std::uint32_t st = Walk(s, start, subkey, false, id)) return st;
    if (id == kRootId) return kErrorAccessDenied;
    Stmt kids(s, "SELECT 1 FROM keys WHERE parent = ? LIMIT 1");
    const int rc = kids.Int(1, id).Step();
    if (rc == SQLITE_ROW) return kErrorAccessDenied;
    if (rc != SQLITE_DONE) return StatusOf(kids.error());
    Stmt del_vals(s, "DELETE FROM vals WHERE key = ?");
    if (del_vals.Int(1, id).Step() != SQLITE_DONE) return StatusOf(del_vals.error());
    Stmt del_key(s, "DELETE FROM keys WHERE id = ?");
    return del_key.Int(1, id).Step() == SQLITE_DONE ? 0 : StatusOf(del_key.error());
  });
}

std::uint32_t RegSetKeySecurity(RegKey key, std::span<const RegAce> dacl) {
  return WithKey(key, true, [&](Store& s, std::int64_t id) -> std::uint32_t {
    Stmt up(s, "UPDATE keys SET security = ? WHERE id = ?");
    return up.Text(1, SecurityText(dacl)).Int(2, id).Step() == SQLITE_DONE ? 0 : StatusOf(up.error());
  });
}

std::uint32_t RegGetKeySecurity(RegKey key, std::vector<RegAce>& dacl) {
  dacl.clear();
  return WithKey(key, false, [&](Store& s, std::int64_t id) -> std::uint32_t {
    Stmt q(s, "SELECT security FROM keys WHERE id = ?");
    if (q.Int(1, id).Step() != SQLITE_ROW) return StatusOf(q.error());
    dacl = ParseSecurity(q.ColText(0));
    return 0;
  });
}

std::uint32_t RegConnectRegistry(std::string_view unc_name, bool /*wide*/, RegKey& out) {
  out = nullptr;
  while (!unc_name.empty() && unc_name.front() == '\\') unc_name.remove_prefix(1);
  const std::string host(unc_name);
  std::shared_ptr<Store> store;
  std::uint32_t st = 0;
  const std::string local = ComputerName();
  if (host.empty() || strcasecmp(host.c_str(), local.c_str()) == 0) {
    st = GetStore(MachineRoot(), true, local, store);
  } else {
    if (host == "." || host == ".." || host.find_first_of("/\\") != std::string::npos) return kErrorBadNetPath;
    std::string name = host;  // as a NetBIOS name, like ComputerName
    for (auto& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    st = GetStore(RemoteMachineRoot(host), false, name, store);
  }
  if (st) return st;
  out = new RegKeyObject{store, kRootId, kKeyAllAccess, false};
  return 0;
}

void UseMemoryRegistryStore() { g_memory_store.store(true); }

}  // namespace platform
