// Address texts and host names on Windows (Winsock, started here once for callers that did not).
#include <winsock2.h>

#include <cstring>
#include <string>

#include "platform/resolve.h"
#include "platform/sys.h"

namespace platform {
namespace {

void EnsureWinsock() {
  static const bool started = [] {
    WSADATA data;
    return ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
  }();
  (void)started;
}

}  // namespace

std::uint32_t ParseIPv4(std::string_view text) {
  EnsureWinsock();
  return ::inet_addr(std::string(text).c_str());
}

bool sys::ResolveHostIPv4(std::string_view name, std::uint32_t& address) {
  EnsureWinsock();
  const hostent* h = ::gethostbyname(std::string(name).c_str());
  if (!h || h->h_addrtype != AF_INET || !h->h_addr_list || !h->h_addr_list[0]) return false;
  std::uint32_t a;
  std::memcpy(&a, h->h_addr_list[0], sizeof a);
  address = a;
  return true;
}

}  // namespace platform
