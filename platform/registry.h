// The machine's registry: Win32-shaped key and value calls, each returning a Win32 status
// (0 success, 2 not found, 5 access denied, 53 machine unreachable, 234 more data, 259 no more items).
// Windows: the system registry. POSIX: one SQLite store per machine, <machine root>/registry.db,
// with case-insensitive (ASCII) key and value names, typed values kept byte for byte, a stored
// access list per key, and every change one transaction shared safely between processes; or, for
// the local machine when UseMemoryRegistryStore asks for it, a tree in this process's memory.
#pragma once
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"
#include "platform/file.h"

// <windows.h> maps these names to its A/W calls; here they are this layer's own.
#undef RegOpenKey
#undef RegCreateKey
#undef RegQueryValue
#undef RegSetValue
#undef RegDeleteValue
#undef RegEnumValue
#undef RegEnumKey
#undef RegDeleteKey
#undef RegConnectRegistry

namespace platform {

struct RegKeyObject;                 // opaque
using RegKey = RegKeyObject*;        // a key handle (HKEY)

// Value types.
inline constexpr std::uint32_t kRegNone = 0;
inline constexpr std::uint32_t kRegSz = 1;
inline constexpr std::uint32_t kRegExpandSz = 2;
inline constexpr std::uint32_t kRegBinary = 3;
inline constexpr std::uint32_t kRegDword = 4;
inline constexpr std::uint32_t kRegMultiSz = 7;

// Access rights of a key handle.
inline constexpr std::uint32_t kKeyQueryValue = 0x0001;
inline constexpr std::uint32_t kKeySetValue = 0x0002;
inline constexpr std::uint32_t kKeyCreateSubKey = 0x0004;
inline constexpr std::uint32_t kKeyEnumerateSubKeys = 0x0008;
inline constexpr std::uint32_t kReadControl = 0x20000;   // read the key's access list (RegGetKeySecurity)
inline constexpr std::uint32_t kWriteDac = 0x40000;      // replace the key's access list (RegSetKeySecurity)
inline constexpr std::uint32_t kKeyRead = 0x20019;
inline constexpr std::uint32_t kKeyWrite = 0x20006;
inline constexpr std::uint32_t kKeyAllAccess = 0xF003F;
inline constexpr std::uint32_t kKeyWow64_64Key = 0x0100;
inline constexpr std::uint32_t kKeyWow64_32Key = 0x0200;
inline constexpr std::uint32_t kMaximumAllowed = 0x02000000;
inline constexpr std::uint32_t kGenericAll = 0x10000000;
// kGenericRead (GENERIC_READ) is the one of platform/file.h.

// The statuses the registry calls return are the Win32 codes of platform/error.h.

// One entry of a key's access list. sid is the text form ("S-1-5-32-544").
struct RegAce {
  std::uint8_t type;    // 0 access allowed, 1 access denied
  std::uint8_t flags;   // 1 object inherit, 2 container inherit, 0x10 inherited
  std::uint32_t mask;   // access mask (generic or key rights)
  std::string sid;
};
inline constexpr std::uint8_t kAceAccessAllowed = 0;
inline constexpr std::uint8_t kAceInherit = 3;          // object inherit | container inherit
inline constexpr std::uint8_t kAceInherited = 0x10;

// HKEY_LOCAL_MACHINE of the local machine (never closed). POSIX: the store of the machine root
// that is current at each call.
RegKey RegLocalMachine();

// RegOpenKeyExA: opens parent\subkey (an empty subkey reopens parent) with the access asked for.
std::uint32_t RegOpenKey(RegKey parent, std::string_view subkey, std::uint32_t access, RegKey& out);
// RegCreateKeyExA: opens parent\subkey, creating every missing key on the way.
std::uint32_t RegCreateKey(RegKey parent, std::string_view subkey, std::uint32_t access, RegKey& out);
void RegCloseKey(RegKey key);   // nothing for the predefined keys

// RegQueryValueExA. name: nullptr or "" for the key's default value. data may be nullptr (the
// size alone is asked for). size: in, the buffer's bytes; out, the value's bytes. A buffer too
// small gives 234 with the needed size in size.
std::uint32_t RegQueryValue(RegKey key, const char* name, std::uint32_t* type, void* data, std::uint32_t* size);
// RegSetValueExA: stores exactly size bytes of data with the type.
std::uint32_t RegSetValue(RegKey key, const char* name, std::uint32_t type, const void* data, std::uint32_t size);
std::uint32_t RegDeleteValue(RegKey key, const char* name);   // RegDeleteValueA
// RegEnumValueA at index (0-based; 259 past the end). name_size: in, the buffer's characters
// including the terminator; out, the name's length. data and data_size may be nullptr.
std::uint32_t RegEnumValue(RegKey key, std::uint32_t index, char* name, std::uint32_t* name_size, std::uint32_t* type,
                           void* data, std::uint32_t* data_size);
// RegEnumKeyA: the name of the subkey at index (259 past the end), terminated, into name (size bytes).
std::uint32_t RegEnumKey(RegKey key, std::uint32_t index, char* name, std::uint32_t size);
// RegDeleteKeyA: removes parent\subkey; a key that still has subkeys is not removed (5).
std::uint32_t RegDeleteKey(RegKey parent, std::string_view subkey);

// RegSetKeySecurity with the access list only (DACL_SECURITY_INFORMATION); the handle needs
// kWriteDac, RegGetKeySecurity's kReadControl (5 without). Windows builds an
// absolute descriptor with a 16,000-byte list (revision 2); POSIX stores the list with the key and
// hands its inheritable entries down to keys created below it.
std::uint32_t RegSetKeySecurity(RegKey key, std::span<const RegAce> dacl);
// RegGetKeySecurity, access list only. POSIX: an empty list when none was ever set.
std::uint32_t RegGetKeySecurity(RegKey key, std::vector<RegAce>& dacl);

// RegConnectRegistry for HKEY_LOCAL_MACHINE of another machine ("\\NAME"). wide: the UTF-16 call
// (the name converted with the system code page, at most 256 characters) rather than the 8-bit one.
// POSIX: NAME's store under the network root (RemoteMachineRoot); 53 when NAME's root is not there.
std::uint32_t RegConnectRegistry(std::string_view unc_name, bool wide, RegKey& out);

// What RegistryStoreCheck found.
struct RegistryStoreReport {
  std::string store;                  // what was checked: POSIX the store's file; Windows "the system registry"
  bool checked = false;               // false where the store is not this program's to check (Windows, memory store)
  std::vector<std::string> problems;  // the first lines the check reported (at most 10); empty when sound
};
// Checks the store of machine ("" or nullptr: this machine; "\\NAME" or "NAME": NAME's) for damage.
// POSIX: SQLite's integrity check (quick: its quick check, which does not compare indexes with their
// tables) on a connection of its own, so a damaged file is read afresh. Returns 0 when sound; 1015
// when damaged (problems: SQLite's own text when the file is no store at all, else its first
// findings); 2 when the machine has no store yet; 53 when its machine root is not there; 5 when the
// file may not be read. Windows: the system registry keeps itself consistent; 0 with checked false.
std::uint32_t RegistryStoreCheck(const char* machine, bool quick, RegistryStoreReport& out);

// Switches this process's local-machine store (RegLocalMachine, RegConnectRegistry of this machine)
// for fuzzing, benchmarks and tests that must not wait on a disk. Handles already open keep theirs.
// on: a fresh tree in memory holding only the machine identity values a new store starts with.
// off: the machine root's file store again, as it was left.
// Returns whether this platform has a memory store (POSIX true; Windows false, and nothing changes).
bool UseMemoryRegistryStore(bool on = true);

}  // namespace platform
