// Error codes as text: socket errors (Winsock numbers plus the NTP client's private codes -1, -2
// and 1901) and system (Win32) errors, the system's message text on one line. Results are always
// terminated and silently cut to size - 1. Portable code over platform/error.h (no backend of its
// own), so that every floor shows the same words; plain functions, outside the platform namespace.
#pragma once
#include <cstdint>
#include <string>

#include "platform/error.h"

char* SocketErrorText(std::uint32_t code, char* buf, std::uint32_t size);       // "Error %d: description"
char* SocketErrorShortName(std::uint32_t code, char* buf, std::uint32_t size);  // a short name, or "Error %d"
const char* LastSocketErrorText();      // SocketErrorText of the thread's last socket error; one shared 128-byte buffer
char* SystemErrorText(std::uint32_t code, char* buf, std::uint32_t size);       // system text; code 0: the thread's last error
std::string SystemErrorLine(std::uint32_t code);   // SystemErrorText (up to 511 characters) without its trailing blanks
