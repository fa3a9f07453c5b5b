// The thread's last-error values and the system's own error texts.
#pragma once
#include <cstddef>
#include <cstdint>

namespace platform {

std::uint32_t LastError();               // the calling thread's last-error value (Win32 numbering)
void SetLastError(std::uint32_t code);   // sets the calling thread's last-error value
int LastSocketError();                   // the calling thread's last socket error (Winsock numbering: 10060 timed out, ...)
void SetLastSocketError(int code);       // sets the calling thread's last socket error

// The system's message text for a Win32 error code, as FormatMessageA gives it (each text ends in
// ".\r\n"), written terminated into buf (size bytes). Returns false, leaving buf empty, for an
// unknown code. Win32: FormatMessageA; POSIX: the project's table of standard Windows wordings.
bool SystemMessage(std::uint32_t code, char* buf, std::size_t size);

}  // namespace platform
