// Not offered on Windows: the loopback responder fleet runs on Linux only.
#include "platform/error.h"
#include "platform/udp_multihome.h"

namespace platform {

bool EnableDestinationAddress(SocketHandle) { return SetLastSocketError(kWsaEopnotsupp), false; }
int ReceiveFromTo(SocketHandle, void*, std::size_t, SocketAddressV4&, std::uint32_t&) {
  SetLastSocketError(kWsaEopnotsupp);
  return -1;
}
int SendToFrom(SocketHandle, const void*, std::size_t, const SocketAddressV4&, std::uint32_t) {
  SetLastSocketError(kWsaEopnotsupp);
  return -1;
}

}  // namespace platform
