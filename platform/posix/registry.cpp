// The registry on POSIX: one SQLite database per machine, <machine root>/registry.db.
//
// keys(id, parent, name, security): the key tree; id 1 is HKEY_LOCAL_MACHINE. vals(key, name,
// type, data): typed values, the data kept byte for byte, enumerated in the order they were first
// written. Key and value names compare without regard to ASCII case (COLLATE NOCASE) and keep the
// case they were created with. security holds the key's access list as text.
//
// Every call is one transaction (changes BEGIN IMMEDIATE) with a busy time-out, so the host, its
// provider, the command line and the applet may use one store at once without losing a write.
// Within a process one connection per store serves every thread behind the store's mutex; a child
// process after fork opens its own.
//
// A crash or a power loss never damages the store: every connection sets journal_mode=DELETE and
// synchronous=FULL. A change is first copied into the rollback journal, which is flushed before the
// database is touched; the database is flushed before the journal goes, so a change interrupted
// anywhere leaves a hot journal that the next opener rolls back, and a call that returned has its
// change on disk. A rollback journal rather than WAL, because the store is opened (1) by processes
// on other machines through the network root, where WAL's shared-memory index cannot be shared and
// WAL is not safe, and (2) possibly by other users: a reader then needs read access to the file
// alone, where WAL needs every reader to write the -shm file. The cost is a few flushes per change;
// changes are rare (an Apply, an install), reads take none. A store still in WAL mode (made by an
// earlier build) switches when it is opened while no other process holds it, and is safe in the
// meantime (WAL with synchronous=FULL).
//
// The first process that creates a store fills in the machine identity values the system reads:
// ProductType ("ServerNT": a machine that serves time), PROCESSOR_ARCHITECTURE (from uname -m:
// x86_64 "AMD64", aarch64 "ARM64", i?86 "x86"), ComputerName, SystemRoot (the machine root) and ProductName.
// A store first made through the network root (another machine's mounted root, opened by
// RegConnectRegistry) takes its ComputerName from the machine's name; the rest comes from this
// machine, as the machines of one network run the same build.
// Access lists are stored, read back and inherited by new subkeys; they are not enforced against
// POSIX users: the file's own permissions decide (a read-only store gives 5 on every change). A
// handle's own rights are checked as on Windows: READ_CONTROL to read the list, WRITE_DAC to replace it.
//
// UseMemoryRegistryStore puts the local machine's store in a tree in memory instead
// (registry_memory.h), filled in with the same identity values. Each call checks the handle's
// access here, then runs on the memory tree or on SQLite.
#include "platform/registry.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <thread>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <strings.h>

#include "platform/os.h"
#include "platform/paths.h"
#include "platform/posix/registry_memory.h"
#include "platform/sys.h"

namespace platform {

namespace {

constexpr std::int64_t kRootId = 1;
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
  std::shared_ptr<Store> store;  // null for the predefined local-machine key (resolved per call) and memory keys
  std::int64_t id = kRootId;
  std::uint32_t access = kKeyAllAccess;
  bool predefined = false;
  memreg::KeyPtr node;           // the key of a memory store, else null
};

namespace {

RegKeyObject g_local_machine{nullptr, kRootId, kKeyAllAccess, true, nullptr};

std::mutex g_stores_lock;
std::map<std::string, std::shared_ptr<Store>> g_stores;
memreg::KeyPtr g_memory_root;   // the local machine's store while it lives in memory (under g_stores_lock)

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
  // Steps to the query's first row: 0 with one, none without, else the error's status.
  std::uint32_t Row(std::uint32_t none) {
    const int rc = Step();
    return rc == SQLITE_ROW ? 0 : rc == SQLITE_DONE ? none : StatusOf(rc);
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

bool KeyAlive(Store& s, std::int64_t id) {
  Stmt q(s, "SELECT 1 FROM keys WHERE id = ?");
  return q.Int(1, id).Step() == SQLITE_ROW;
}

std::uint32_t FindChild(Store& s, std::int64_t parent, std::string_view name, std::int64_t& id) {
  Stmt q(s, "SELECT id FROM keys WHERE parent = ? AND name = ?");
  if (const std::uint32_t st = q.Int(1, parent).Text(2, name).Row(kErrorFileNotFound)) return st;
  id = q.ColInt(0);
  return 0;
}

// The entries a new subkey takes over from its parent: those that containers inherit.
std::string InheritedSecurity(Store& s, std::int64_t parent) {
  Stmt q(s, "SELECT security FROM keys WHERE id = ?");
  if (q.Int(1, parent).Step() != SQLITE_ROW) return {};
  return memreg::InheritedSecurity(q.ColText(0));
}

// Walks from the key id down the path; creates missing keys when create is set (inside a write
// transaction).
std::uint32_t Walk(Store& s, std::int64_t from, std::string_view path, bool create, std::int64_t& id) {
  id = from;
  for (auto part = memreg::NextPart(path); !part.empty(); part = memreg::NextPart(path)) {
    if (part.size() > memreg::kMaxKeyNameLength) return kErrorInvalidParameter;
    std::int64_t child = 0;
    std::uint32_t st = FindChild(s, id, part, child);
    if (st == kErrorFileNotFound && create) {
      // Ids are never given out again (a handle to a deleted key must not reach a newer one): the
      // next id lies above both the keys there are and the highest one ever deleted.
      Stmt ins(s,
               "INSERT INTO keys(id, parent, name, security) SELECT max(max(id), coalesce((SELECT CAST(value AS "
               "INTEGER) FROM meta WHERE name = 'deleted_key_id'), 0)) + 1, ?, ?, ? FROM keys");
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

// The machine identity values a new store starts with, each a string value (key path, name, text).
struct IdentityValue {
  const char* path;
  const char* name;
  std::string text;
};
std::array<IdentityValue, 5> MachineIdentity(const std::string& computer_name, const std::string& system_root) {
  return {{{"SYSTEM\\CurrentControlSet\\Control\\ProductOptions", "ProductType", "ServerNT"},
           {"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment", "PROCESSOR_ARCHITECTURE", ArchitectureName()},
           {"SYSTEM\\CurrentControlSet\\Control\\ComputerName\\ComputerName", "ComputerName", computer_name},
           {"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "SystemRoot", system_root},
           {"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "ProductName", OsProductName()}}};
}

std::uint32_t TextSize(const std::string& text) { return static_cast<std::uint32_t>(text.size() + 1); }

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
  for (const auto& v : MachineIdentity(computer_name, system_root)) {
    std::int64_t id = 0;
    if (!st) st = Walk(s, kRootId, v.path, true, id);
    if (!st) st = PutValue(s, id, v.name, kRegSz, v.text.c_str(), TextSize(v.text));
  }
  return st ? st : t.Commit();
}

// The store's folder is one the host's group may write, and root opens the store too: a link planted
// at its name is refused (SQLite opens its journals without following links as well).
constexpr int kStoreOpen = SQLITE_OPEN_FULLMUTEX | SQLITE_OPEN_NOFOLLOW;

std::uint32_t OpenStoreFile(Store& s, const std::string& computer_name, const std::string& system_root) {
  int rc = sqlite3_open_v2(s.path.c_str(), &s.db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | kStoreOpen, nullptr);
  if (rc != SQLITE_OK) {
    sqlite3_close_v2(s.db);
    s.db = nullptr;
    const int open_errno = errno;
    rc = sqlite3_open_v2(s.path.c_str(), &s.db, SQLITE_OPEN_READONLY | kStoreOpen, nullptr);
    if (rc != SQLITE_OK) return (open_errno == EACCES || open_errno == EPERM || errno == EACCES) ? kErrorAccessDenied : kErrorRegistryIoFailed;
    s.read_only = true;
  }
  sqlite3_busy_timeout(s.db, kBusyTimeoutMs);
  if (s.read_only) return 0;
  // Two processes making the same new store meet while one fills it in, and SQLite may then answer
  // "busy" without waiting: try again for up to a second.
  for (int attempt = 0;; ++attempt) {
    std::uint32_t st = Exec(s.db, "PRAGMA journal_mode=DELETE");
    // Leaving WAL needs the store to itself: while another process holds it, it stays in WAL.
    if (st == kErrorRegistryIoFailed) st = 0;
    if (!st) st = Exec(s.db, "PRAGMA synchronous=FULL");
    if (!st) st = Initialise(s, computer_name, system_root);
    if (st != kErrorRegistryIoFailed || attempt == 50) return st;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

// The store of a machine root, opened once per process (again after fork, or when the file was
// replaced). create_root: make a missing root folder (the local machine); else a missing root is
// an unreachable machine (53).
std::uint32_t GetStore(const std::string& root, bool create_root, const std::string& computer_name,
                       std::shared_ptr<Store>& out) {
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

// The root of the local machine's memory store, or null while the machine root's file is used.
memreg::KeyPtr MemoryRoot() {
  std::lock_guard guard(g_stores_lock);
  return g_memory_root;
}

// The handle with the predefined key resolved to the local machine's current store.
std::uint32_t Resolve(RegKey key, RegKeyObject& out) {
  if (!key) return kErrorInvalidHandle;
  out = *key;
  if (!key->predefined) return 0;
  out.predefined = false;
  if ((out.node = MemoryRoot())) return 0;
  return GetStore(MachineRoot(), true, ComputerName(), out.store);
}

std::uint32_t Granted(std::uint32_t access, bool read_only) {
  std::uint32_t g = access & 0x000F003F;
  if (access & (kMaximumAllowed | kGenericAll)) g |= kKeyAllAccess;
  if (access & kGenericRead) g |= kKeyRead;
  if (access & 0x40000000) g |= kKeyWrite;  // GENERIC_WRITE
  if (read_only) g &= kKeyRead;
  return g;
}

// Runs the call on the key behind the handle, each way returning a status: on a memory store
// mem(key) under the tree's lock; on SQLite sql(store, key id) under the store's lock inside a
// transaction. A deleted key gives 1018.
template <typename Sql, typename Mem>
std::uint32_t WithKey(RegKey handle, bool write, Sql sql, Mem mem) {
  RegKeyObject key;
  if (std::uint32_t st = Resolve(handle, key)) return st;
  if (key.node) {
    std::lock_guard guard(memreg::Lock());
    return key.node->deleted ? kErrorKeyDeleted : mem(key.node);
  }
  Store& store = *key.store;
  if (write && store.read_only) return kErrorAccessDenied;
  std::lock_guard guard(store.lock);
  Txn t(store, write);
  if (t.status()) return t.status();
  if (!KeyAlive(store, key.id)) return kErrorKeyDeleted;
  if (const std::uint32_t st = sql(store, key.id)) return st;
  return t.Commit();
}

// A key path as the system's 8-bit calls see it: up to its first NUL.
std::string_view CPath(std::string_view path) { return path.substr(0, path.find('\0')); }

std::uint32_t OpenOrCreate(RegKey parent, std::string_view subkey, std::uint32_t access, bool create, RegKey& out) {
  out = nullptr;
  subkey = CPath(subkey);
  RegKeyObject from;
  if (std::uint32_t st = Resolve(parent, from)) return st;
  const bool read_only = from.store && from.store->read_only;
  const std::uint32_t granted = Granted(access, read_only);
  if ((access & ~(kMaximumAllowed | kGenericRead | kKeyWow64_32Key | kKeyWow64_64Key)) & ~granted) return kErrorAccessDenied;
  RegKeyObject opened{from.store, 0, granted, false, nullptr};
  const std::uint32_t st = WithKey(
      &from, create && !read_only,
      [&](Store& s, std::int64_t start) {
        const std::uint32_t found = Walk(s, start, subkey, false, opened.id);
        if (found == kErrorFileNotFound && create) return s.read_only ? kErrorAccessDenied : Walk(s, start, subkey, true, opened.id);
        return found;
      },
      [&](const memreg::KeyPtr& start) { return memreg::Walk(start, subkey, create, opened.node); });
  if (st) return st;
  out = new RegKeyObject(std::move(opened));
  return 0;
}

bool NameFits(const char* name) { return !name || std::strlen(name) <= kMaxValueNameLength; }

// Hands a value to the caller: its type, and when size is given its bytes (when data is given and
// they fit; 234 when not) and their count.
std::uint32_t GiveValue(std::uint32_t value_type, std::span<const std::uint8_t> bytes, std::uint32_t* type, void* data,
                        std::uint32_t* size) {
  const auto needed = static_cast<std::uint32_t>(bytes.size());
  if (type) *type = value_type;
  if (!size) return 0;
  if (data && *size < needed) return *size = needed, kErrorMoreData;
  if (data && needed) std::memcpy(data, bytes.data(), needed);
  *size = needed;
  return 0;
}

// Copies a name, terminated, into the caller's buffer of size characters; 234 when it does not fit.
std::uint32_t GiveName(std::string_view text, char* name, std::uint32_t size) {
  if (size <= text.size()) return kErrorMoreData;
  std::memcpy(name, text.data(), text.size());
  name[text.size()] = '\0';
  return 0;
}

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
  const std::string_view value_name = name ? name : "";
  return WithKey(
      key, false,
      [&](Store& s, std::int64_t id) -> std::uint32_t {
        Stmt q(s, "SELECT type, data FROM vals WHERE key = ? AND name = ?");
        if (const std::uint32_t st = q.Int(1, id).Text(2, value_name).Row(kErrorFileNotFound)) return st;
        return GiveValue(static_cast<std::uint32_t>(q.ColInt(0)), q.ColBlob(1), type, data, size);
      },
      [&](const memreg::KeyPtr& k) {
        const memreg::Value* v = memreg::FindValue(*k, value_name);
        return v ? GiveValue(v->type, v->data, type, data, size) : kErrorFileNotFound;
      });
}

std::uint32_t sys::RegSetValue(RegKey key, const char* name, std::uint32_t type, const void* data, std::uint32_t size) {
  if (key && !(key->access & kKeySetValue)) return kErrorAccessDenied;
  if (!NameFits(name) || (size && !data)) return kErrorInvalidParameter;
  const std::string_view value_name = name ? name : "";
  return WithKey(
      key, true, [&](Store& s, std::int64_t id) { return PutValue(s, id, value_name, type, data, size); },
      [&](const memreg::KeyPtr& k) {
        memreg::SetValue(*k, value_name, type, data, size);
        return 0u;
      });
}

std::uint32_t RegDeleteValue(RegKey key, const char* name) {
  if (key && !(key->access & kKeySetValue)) return kErrorAccessDenied;
  const std::string_view value_name = name ? name : "";
  return WithKey(
      key, true,
      [&](Store& s, std::int64_t id) -> std::uint32_t {
        Stmt del(s, "DELETE FROM vals WHERE key = ? AND name = ?");
        if (del.Int(1, id).Text(2, value_name).Step() != SQLITE_DONE) return StatusOf(del.error());
        return sqlite3_changes(s.db) ? 0 : kErrorFileNotFound;
      },
      [&](const memreg::KeyPtr& k) { return memreg::DeleteValue(*k, value_name) ? 0 : kErrorFileNotFound; });
}

std::uint32_t RegEnumValue(RegKey key, std::uint32_t index, char* name, std::uint32_t* name_size, std::uint32_t* type,
                           void* data, std::uint32_t* data_size) {
  if (key && !(key->access & kKeyQueryValue)) return kErrorAccessDenied;
  if (!name || !name_size || (data && !data_size)) return kErrorInvalidParameter;
  const auto give = [&](std::string_view value_name, std::uint32_t value_type, std::span<const std::uint8_t> bytes) {
    if (const std::uint32_t st = GiveName(value_name, name, *name_size)) return st;
    *name_size = static_cast<std::uint32_t>(value_name.size());
    return GiveValue(value_type, bytes, type, data, data_size);
  };
  return WithKey(
      key, false,
      [&](Store& s, std::int64_t id) -> std::uint32_t {
        Stmt q(s, "SELECT name, type, data FROM vals WHERE key = ? ORDER BY rowid LIMIT 1 OFFSET ?");
        if (const std::uint32_t st = q.Int(1, id).Int(2, index).Row(kErrorNoMoreItems)) return st;
        return give(q.ColText(0), static_cast<std::uint32_t>(q.ColInt(1)), q.ColBlob(2));
      },
      [&](const memreg::KeyPtr& k) {
        if (index >= k->values.size()) return kErrorNoMoreItems;
        const memreg::Value& v = k->values[index];
        return give(v.name, v.type, v.data);
      });
}

std::uint32_t RegEnumKey(RegKey key, std::uint32_t index, char* name, std::uint32_t size) {
  if (key && !(key->access & kKeyEnumerateSubKeys)) return kErrorAccessDenied;
  if (!name) return kErrorInvalidParameter;
  return WithKey(
      key, false,
      [&](Store& s, std::int64_t id) -> std::uint32_t {
        Stmt q(s, "SELECT name FROM keys WHERE parent = ? ORDER BY name COLLATE NOCASE LIMIT 1 OFFSET ?");
        if (const std::uint32_t st = q.Int(1, id).Int(2, index).Row(kErrorNoMoreItems)) return st;
        return GiveName(q.ColText(0), name, size);
      },
      [&](const memreg::KeyPtr& k) {
        return index < k->subkeys.size() ? GiveName(k->subkeys[index]->name, name, size) : kErrorNoMoreItems;
      });
}

std::uint32_t RegDeleteKey(RegKey parent, std::string_view subkey) {
  subkey = CPath(subkey);
  return WithKey(
      parent, true,
      [&](Store& s, std::int64_t start) -> std::uint32_t {
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
        if (del_key.Int(1, id).Step() != SQLITE_DONE) return StatusOf(del_key.error());
        Stmt seen(s,
                  "INSERT INTO meta(name, value) VALUES('deleted_key_id', ?) ON CONFLICT(name) "
                  "DO UPDATE SET value = max(CAST(value AS INTEGER), CAST(excluded.value AS INTEGER))");
        return seen.Int(1, id).Step() == SQLITE_DONE ? 0 : StatusOf(seen.error());
      },
      [&](const memreg::KeyPtr& start) {
        memreg::KeyPtr k;
        const std::uint32_t st = memreg::Walk(start, subkey, false, k);
        return st ? st : memreg::DeleteKey(*k);
      });
}

std::uint32_t RegSetKeySecurity(RegKey key, std::span<const RegAce> dacl) {
  if (key && !(key->access & kWriteDac)) return kErrorAccessDenied;
  const std::string text = memreg::SecurityText(dacl);
  return WithKey(
      key, true,
      [&](Store& s, std::int64_t id) -> std::uint32_t {
        Stmt up(s, "UPDATE keys SET security = ? WHERE id = ?");
        return up.Text(1, text).Int(2, id).Step() == SQLITE_DONE ? 0 : StatusOf(up.error());
      },
      [&](const memreg::KeyPtr& k) {
        k->security = text;
        return 0u;
      });
}

std::uint32_t RegGetKeySecurity(RegKey key, std::vector<RegAce>& dacl) {
  dacl.clear();
  if (key && !(key->access & kReadControl)) return kErrorAccessDenied;
  return WithKey(
      key, false,
      [&](Store& s, std::int64_t id) -> std::uint32_t {
        Stmt q(s, "SELECT security FROM keys WHERE id = ?");
        if (q.Int(1, id).Step() != SQLITE_ROW) return StatusOf(q.error());
        dacl = memreg::ParseSecurity(q.ColText(0));
        return 0;
      },
      [&](const memreg::KeyPtr& k) {
        dacl = memreg::ParseSecurity(k->security);
        return 0u;
      });
}

std::uint32_t RegConnectRegistry(std::string_view unc_name, bool /*wide*/, RegKey& out) {
  out = nullptr;
  while (!unc_name.empty() && unc_name.front() == '\\') unc_name.remove_prefix(1);
  const std::string host(unc_name);
  RegKeyObject root{nullptr, kRootId, kKeyAllAccess, false, nullptr};
  std::uint32_t st = 0;
  const std::string local = ComputerName();
  if (host.empty() || strcasecmp(host.c_str(), local.c_str()) == 0) {
    if (!(root.node = MemoryRoot())) st = GetStore(MachineRoot(), true, local, root.store);
  } else {
    if (host == "." || host == ".." || host.find_first_of("/\\") != std::string::npos) return kErrorBadNetPath;
    std::string name = host;  // as a NetBIOS name, like ComputerName
    for (auto& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    st = GetStore(RemoteMachineRoot(host), false, name, root.store);
  }
  if (st) return st;
  out = new RegKeyObject(std::move(root));
  return 0;
}

std::uint32_t RegistryStoreCheck(const char* machine, bool quick, RegistryStoreReport& out) {
  out = RegistryStoreReport{};
  std::string host = machine ? machine : "";
  while (!host.empty() && host.front() == '\\') host.erase(0, 1);
  const bool local = host.empty() || strcasecmp(host.c_str(), ComputerName().c_str()) == 0;
  if (!local && (host == "." || host == ".." || host.find_first_of("/\\") != std::string::npos)) return kErrorBadNetPath;
  if (local && MemoryRoot()) {
    out.store = "the memory store";   // made whole in this process; nothing on disk to check
    return 0;
  }
  const std::string root = local ? MachineRoot() : RemoteMachineRoot(host);
  out.store = root + "/registry.db";
  std::error_code ec;
  if (!std::filesystem::is_directory(root, ec)) return local ? kErrorFileNotFound : kErrorBadNetPath;
  if (!std::filesystem::exists(out.store, ec)) return kErrorFileNotFound;
  out.checked = true;
  // Read-write when allowed, so that a hot journal left by a crash is rolled back first, as any
  // opener does; a store that may only be read is checked as it is.
  sqlite3* db = nullptr;
  int rc = sqlite3_open_v2(out.store.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    sqlite3_close_v2(db);
    db = nullptr;
    rc = sqlite3_open_v2(out.store.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_FULLMUTEX, nullptr);
  }
  std::uint32_t status = 0;
  if (rc == SQLITE_OK) {
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    sqlite3_stmt* q = nullptr;
    rc = sqlite3_prepare_v2(db, quick ? "PRAGMA quick_check(10)" : "PRAGMA integrity_check(10)", -1, &q, nullptr);
    while (rc == SQLITE_OK || rc == SQLITE_ROW) {
      rc = sqlite3_step(q);
      if (rc != SQLITE_ROW) break;
      const auto* line = reinterpret_cast<const char*>(sqlite3_column_text(q, 0));
      // A finding may span lines ("*** in database main ***\nOn tree page 4 ..."): one line each.
      std::string_view text = line ? line : "";
      if (text == "ok") continue;
      for (std::size_t end; !text.empty(); text.remove_prefix(end == text.npos ? text.size() : end + 1))
        if ((end = text.find('\n')) != 0) out.problems.emplace_back(text.substr(0, end));
    }
    sqlite3_finalize(q);
    if (rc != SQLITE_DONE) {
      status = StatusOf(rc);
      out.problems.insert(out.problems.begin(), sqlite3_errmsg(db));
    } else if (!out.problems.empty()) {
      status = kErrorRegistryCorrupt;
    }
  } else {
    status = StatusOf(rc);
    out.problems.emplace_back(db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
  }
  sqlite3_close_v2(db);
  return status;
}

bool UseMemoryRegistryStore(bool on) {
  memreg::KeyPtr root;
  if (on) {
    // A tree of its own, filled in as a new store is; no other thread can reach it yet.
    root = memreg::NewTree();
    for (const auto& v : MachineIdentity(ComputerName(), MachineRoot())) {
      memreg::KeyPtr key;
      memreg::Walk(root, v.path, true, key);
      memreg::SetValue(*key, v.name, kRegSz, v.text.c_str(), TextSize(v.text));
    }
  }
  std::lock_guard guard(g_stores_lock);
  g_memory_root = std::move(root);
  return true;
}

}  // namespace platform
