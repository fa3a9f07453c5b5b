// Where the product's files live, and Windows paths (including another machine's UNC paths) in
// native terms.
#pragma once
#include <string>
#include <string_view>

namespace platform {

// The machine root: Windows: the Windows folder's parent is not used, this is "" (paths are native).
// POSIX: $CHRONWARDEN_ROOT, default /var/lib/chronwarden; it holds system32/ and the registry store.
std::string MachineRoot();
// The system directory ("C:\Windows\system32"; POSIX: <machine root>/system32), without a trailing separator.
std::string SystemDirectory();
// POSIX: $CHRONWARDEN_NETWORK_ROOT, default /net, where the mounts of other machines stand
// (<network root>/HOST is the mount of HOST's machine root). Windows: "".
std::string NetworkRoot();
// The machine root of another machine, by name (no leading backslashes). POSIX: <network root>/HOST,
// the name matched without regard to case as Windows machine names are.
std::string RemoteMachineRoot(std::string_view host);
// A Windows path in native terms. Windows: unchanged. POSIX: "\\HOST\admin$\rest" becomes
// <network root>/HOST/rest (admin$ is that machine's product root), "\\HOST\SHARE\rest" becomes
// <network root>/HOST/SHARE/rest, and every other backslash a slash.
std::string NativePath(std::string_view windows_path);
// The folder of the Cockpit page (the web console's package "chronwarden"). POSIX:
// $CHRONWARDEN_COCKPIT_DIR, else /usr/share/cockpit/chronwarden for the real machine root, else ""
// (a machine root of its own, named by $CHRONWARDEN_ROOT, has no page unless a folder is named).
// Windows: "" (no Cockpit).
std::string CockpitPackageDirectory();

// Sets (value nullptr: removes) an environment variable of this process, such as CHRONWARDEN_ROOT
// or CHRONWARDEN_NETWORK_ROOT, which the roots above read at each call.
void SetEnvironmentValue(const char* name, const char* value);

}  // namespace platform
