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
// Where: the W32Time Parameters values "ChronySourcesFile" and "ChronyCommandSocket" of the
// machine's store; without them the machine's own chrony (its sources.d folder and command socket)
// when the machine root is the system's own, and nothing at all otherwise (a test's machine root
// never reaches the machine's chrony), nor on Windows.
#pragma once
#include <string>

#include "config/w32time.h"

std::string chrony_sources_text(const W32tSettings& s);   // the sources file's text for the settings
std::string chrony_source_line(const W32tServer& e, std::uint32_t poll_interval_s);   // "server NAME iburst ..."
// Applies the settings to the local chrony. 1 on success or when no chrony is configured; 0 with
// the last error: 2 chronyc missing, 1722 chronyd not answering, 13 a source stayed missing, or the
// file's write error.
int chrony_apply_settings(const W32tSettings& s);
