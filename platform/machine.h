// A machine as the applet meets it: the user's administrator rights here, another machine's
// server information, the loaded module and its file, file versions, and the file operations that
// install and remove the module. Failures return false / 0 with the Win32 code in LastError().
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/clock.h"

namespace platform {

// ---- Administrator rights (the steps of the applet's check, each on its own) ----
// The local administrative share opens: Windows: "\\NAME\ADMIN$" opened for read data with
// backup semantics. POSIX: the machine root may be written (it holds the registry store and the
// system directory, which is what the share gives on Windows).
bool AdminShareOpens(std::string_view computer_name);
// SeTcbPrivilege can be enabled in the process token. POSIX: the effective user is root.
bool EnableTcbPrivilege();
// The process token holds the local Administrators group (S-1-5-32-544). POSIX: false.
bool TokenHasAdministrators();

// ---- Another machine ----
struct ServerInfo {
  std::uint32_t type;    // server type bits (SV_TYPE_...)
  std::uint32_t major;   // version, as NetServerGetInfo level 101 gives it
  std::uint32_t minor;
};
// NetServerGetInfo level 101 of machine (no leading backslashes; "" the local machine). Returns 0
// or the error (53 the machine was not found). POSIX: from the machine's registry store (its root
// under the network root): the version its store declares (CurrentMajorVersionNumber and
// CurrentMinorVersionNumber under SOFTWARE\Microsoft\Windows NT\CurrentVersion, as Windows keeps
// them), else NT 6.3; a server when its ProductType is not "WinNT".
std::uint32_t GetServerInfo(std::string_view machine, ServerInfo& out);

// The time of day of machine ("NAME") by the network time-of-day service (NetRemoteTOD), UTC
// broken down. 0 on success, else the error. POSIX: there is no such service (50, not supported):
// callers ask the machine's KR2 responder instead.
std::uint32_t RemoteTimeOfDay(std::string_view machine, SystemTime& utc);

// ---- The module ----
// The file of the module that holds this code (the .cpl; a test program's own file). POSIX: the
// provider module the host daemon loads: $CHRONWARDEN_MODULE, else w32tmkr.cpl beside the running
// program or one folder up, else the running program.
std::string ThisModuleFile();
// The program that plays the time service on this system, as the command line its service entry
// runs. POSIX: the host daemon, $CHRONWARDEN_HOST, else chronwarden-host beside the running
// program, in ../sbin (an installed layout) or in ../host (the build tree), with "--foreground";
// empty when none is found. Windows: empty (the system's own Windows Time service).
std::string TimeServiceProgram();
// The file version (fixed version information: most significant << 32 | least significant); 0
// for a file without one. POSIX: the version marker embedded in the file ("CWFILEVER" and 8 bytes).
std::uint64_t FileVersion(std::string_view path);
// This build's own file version (4.2.0.build).
std::uint64_t ThisFileVersion();

// ---- File operations (Windows paths; POSIX through NativePath) ----
bool ClearFileAttributes(std::string_view path);           // SetFileAttributesA(NORMAL)
bool CopyFileOver(std::string_view from, std::string_view to);   // CopyFileA, replacing
bool DeleteFileAt(std::string_view path);                  // DeleteFileA
bool MoveFileReplacing(std::string_view from, std::string_view to);  // MoveFileExA(REPLACE_EXISTING)
// Writes bytes into "<path>.part" beside path (FileCreate, FileWrite), then moves it over path, so
// that a reader never sees half a file; readable_by_all gives it SecureDataFile's access rules
// (everybody reads) first. A failure leaves no ".part" behind and its Win32 code in LastError().
bool WriteFileWhole(std::string_view path, std::string_view bytes, bool readable_by_all);

}  // namespace platform
