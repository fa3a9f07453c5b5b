// Error texts for socket, private and system error codes.
#include "platform/error_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/error.h"

namespace {

struct SocketError {
  std::int32_t code;
  std::string_view text;   // long description
  std::string_view name;   // short name for narrow fields; empty: "Error %d"
};

// 10022 reads "the port is already in use" because bind is where the system meets it.
constexpr SocketError kSocketErrors[] = {
    {-2, "incorrect protocol response", "Protocol error"},
    {-1, "invalid data or unknown request", "Invalid data"},
    {0, "operation successful", ""},
    {1901, "clock not set on server", ""},
    {10004, "operation canceled", "Op cancelled"},
    {10013, "permission denied", "Denied"},
    {10014, "invalid pointer or buffer too small", "Buffer err"},
    {10022, "the port is already in use", "Port in use"},
    {10024, "Too many open sockets", "No sockets"},
    {10035, "operation would block", "Op would block"},
    {10036, "blocking operation in progress", "Blking err"},
    {10037, "operation already in progress", "Op in progress"},
    {10038, "invalid socket descriptor", "Invld sckt"},
    {10040, "UDP packet too large", "Pkt too big"},
    {10042, "unsupported protocol", "Unsupp proto"},
    {10048, "address already in use", "Addr in use"},
    {10049, "address not available", "Addr unavail"},
    {10050, "network is down", "Net down"},
    {10051, "target network unreachable", "Unreachable"},
    {10052, "keep-alive failed", "KpAlive reset"},
    {10053, "connection aborted", "Aborted"},
    {10054, "connection reset by peer", "Conn reset"},
    {10055, "no system buffer space available", "Insuff buff"},
    {10056, "socket already connected", "Alrdy conn"},
    {10057, "not connected", "Not conn"},
    {10058, "socket has been shut down", "Sock shutdown"},
    {10060, "timed out", "Timed out"},
    {10061, "connection refused by peer", "Refused"},
    {10064, "destination host down", "Dest down"},
    {10065, "no route to host", "No route"},
    {10091, "network subsystem not available", "Winsock down"},
    {10093, "winsock subsystem not initialized", "Winsock down"},
    {10101, "shutdown in progress", "Shutting down"},
    {11001, "target host not found", "Not found"},
    {11002, "non-authoritative host not found", "Need retry"},
    {11003, "unrecoverable lookup error", "Lookup failed"},
    {11004, "lookup failure; valid name but no data", "Invalid name"},
};

const SocketError* Find(std::int32_t code) {
  auto it = std::find_if(std::begin(kSocketErrors), std::end(kSocketErrors),
                         [&](const SocketError& e) { return e.code == code; });
  return it == std::end(kSocketErrors) ? nullptr : it;
}

// Zero-fills buf and copies at most size - 1 bytes of text.
char* CopyCut(std::string_view text, char* buf, std::uint32_t size) {
  if (!buf || size == 0) return buf;
  std::memset(buf, 0, size);
  std::memcpy(buf, text.data(), std::min<std::size_t>(text.size(), size - 1));
  return buf;
}

}  // namespace

char* SocketErrorText(std::uint32_t code, char* buf, std::uint32_t size) {
  const auto signed_code = static_cast<std::int32_t>(code);
  const SocketError* e = Find(signed_code);
  std::array<char, 128> text{};
  const std::string_view description = e ? e->text : "undetermined internal error";
  std::snprintf(text.data(), text.size(), "Error %d: %.*s", signed_code, static_cast<int>(description.size()),
                description.data());
  return CopyCut(text.data(), buf, size);
}

char* SocketErrorShortName(std::uint32_t code, char* buf, std::uint32_t size) {
  const auto signed_code = static_cast<std::int32_t>(code);
  const SocketError* e = Find(signed_code);
  if (e && !e->name.empty()) return CopyCut(e->name, buf, size);
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "Error %d", signed_code);
  return CopyCut(text.data(), buf, size);
}

const char* LastSocketErrorText() {
  static char buffer[128];
  return SocketErrorText(static_cast<std::uint32_t>(platform::LastSocketError()), buffer, sizeof buffer);
}

char* SystemErrorText(std::uint32_t code, char* buf, std::uint32_t size) {
  const std::uint32_t effective = code != 0 ? code : platform::LastError();
  if (buf && size != 0) std::memset(buf, 0, size);

  std::array<char, 2048> text{};
  switch (effective) {
    case 1641: std::strcpy(text.data(), "The computer will now be rebooted to complete setup."); break;
    case 3010: std::strcpy(text.data(), "The computer must be rebooted to complete setup."); break;
    case 3011: std::strcpy(text.data(), "The service must be stopped and restarted to complete setup."); break;
    default:
      // Asks about the argument as given: an argument of 0 asks the system about message 0.
      if (platform::SystemMessage(code, text.data(), 2047)) {
        text[2046] = 0;
        for (char& c : text) if (c == '\r') c = ' ';
        for (char& c : text) if (c == '\n') c = ' ';
        std::string_view view(text.data());
        std::array<char, 2048> squeezed{};
        std::size_t n = 0;
        for (std::size_t i = 0; i < view.size(); ++i)
          if (!(view[i] == ' ' && n > 0 && squeezed[n - 1] == ' ')) squeezed[n++] = view[i];
        text = squeezed;
      } else {
        std::snprintf(text.data(), text.size(), "Error %d (no description available)", static_cast<std::int32_t>(code));
      }
  }

  if (buf && size != 0) {
    std::memcpy(buf, text.data(), std::min<std::size_t>(std::strlen(text.data()) + 1, size));
    buf[size - 1] = 0;
    if (size >= 6 && buf[size - 2] != 0) std::memcpy(buf + size - 4, "...", 3);
  }
  platform::SetLastError(code);
  return buf;
}

std::string SystemErrorLine(std::uint32_t code) {
  char buf[512];
  std::string line = SystemErrorText(code, buf, sizeof buf);
  while (!line.empty() && (line.back() == ' ' || line.back() == '\n' || line.back() == '\r')) line.pop_back();
  return line;
}
