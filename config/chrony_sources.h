// The time service's servers as chrony sources (Linux, where chrony is the time service's NTP
// client): the settings become one sources file, written atomically and only when it changes,
// then chrony reloads its sources and every configured source is checked to be present.
//
// Mapping of a server entry (name, mode flags):
//   - a name that starts with "pool." or contains ".pool." is a "pool", any other a "server";
//     flag 0x4 (symmetric active) makes it a "peer" instead;
//   - every server and pool gets "iburst" (a quick first synchronisation, as the time service's
//     start does);
//   - flag 0x1 (special poll interval) sets "minpoll P maxpoll P" with 2^P the client's special poll
//     interval rounded to a power of two (P from 3 to 17); without it chrony picks its own interval;
//   - flag 0x8 (client mode) is chrony's default mode; flag 0x2 (fallback only) has no chrony
//     counterpart and adds nothing: chrony's selection drops sources that disagree anyway.
// Sync type NoSync writes a file without sources; NTP, AllSync and NT5DS (no domain hierarchy on
// Linux) write the servers.
//
// The administrator's own sources (chrony.conf and the files its sourcedir, confdir and include
// lines name, ours excepted) are never rewritten or dropped: a server of the settings that chrony
// already has from there is left out of our file, so that installing on a machine whose chrony
// already has sources takes them into the settings (chrony_import_sources) without doubling them.
//
// Where: the W32Time Parameters values "ChronySourcesFile", "ChronyConfigFile" and
// "ChronyCommandSocket" of the machine's store; without them the machine's own chrony (its
// chrony.conf, sources.d folder and command socket) when the machine root is the system's own, and
// nothing at all otherwise (a test's machine root never reaches the machine's chrony), nor on Windows.
#pragma once
#include <string>
#include <vector>

#include "config/w32time.h"

// A source line of chrony's configuration: "server", "pool" or "peer" and the name it names.
struct ChronySource {
  std::string kind;
  std::string name;
};
// The sources of chrony's configuration file conf and of the files it names (sourcedir *.sources,
// confdir *.conf, include patterns whose wildcards are in the file name), skipping the file skip.
// Files that cannot be read add nothing.
std::vector<ChronySource> chrony_config_sources(const std::string& conf, const std::string& skip);
// Where the machine's own chrony keeps its sources file and its configuration when the store names
// none: /etc/chrony's when the machine root is the system's own, else "" (a test's machine root,
// and Windows, whose machine root is "").
std::string chrony_default_sources_file();
std::string chrony_default_config_file();
// The command socket of machine's chronyd: for this machine its store's "ChronyCommandSocket", else
// chrony's own; another machine (nullptr, "" or only backslashes: this one) is asked at chrony's own.
std::string chrony_command_socket(const char* machine);
// The machine's chrony sources that are not ours (none where no chrony is configured).
std::vector<ChronySource> chrony_machine_sources();
// Takes the machine's chrony sources into settings that have no servers (at most six; pools and
// servers in client mode, flags 0x8, peers symmetric active, 0x4); settings with servers are left
// alone. True when the machine's chrony has sources of its own.
bool chrony_import_sources(W32tSettings& s);
// The sources file's text for the settings, leaving out servers named in skip (chrony has them).
std::string chrony_sources_text(const W32tSettings& s, const std::vector<ChronySource>& skip = {});
std::string chrony_source_line(const W32tServer& e, std::uint32_t poll_interval_s);   // "server NAME iburst ..."
// Applies the settings to the local chrony. 1 on success or when no chrony is configured; 0 with
// the last error: 2 chronyc missing, 1722 chronyd not answering, 13 a source stayed missing, or the
// file's write error.
int chrony_apply_settings(const W32tSettings& s);
