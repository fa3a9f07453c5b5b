// Address texts and host names on POSIX.
#include "platform/resolve.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>

#include "platform/sys.h"

namespace platform {

std::uint32_t ParseIPv4(std::string_view text) { return ::inet_addr(std::string(text).c_str()); }

bool sys::ResolveHostIPv4(std::string_view name, std::uint32_t& address) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* res = nullptr;
  if (::getaddrinfo(std::string(name).c_str(), nullptr, &hints, &res) != 0 || !res) return false;
  address = reinterpret_cast<const sockaddr_in*>(res->ai_addr)->sin_addr.s_addr;
  ::freeaddrinfo(res);
  return true;
}

}  // namespace platform
