// Destination addresses of datagrams through IP_PKTINFO (recvmsg / sendmsg control messages).
#include "platform/udp_multihome.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "platform/error.h"

namespace platform {
namespace {

int Fail() {
  SetLastSocketError(errno == EAGAIN ? kWsaEtimedout : errno == ECONNREFUSED ? kWsaEconnreset : kWsaEinval);
  return -1;
}

// A message of one buffer to or from peer, with room for one IP_PKTINFO control message.
struct PktInfoMessage {
  sockaddr_in peer{};
  iovec io{};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
  msghdr m{};
  PktInfoMessage(void* buf, std::size_t size) : io{buf, size} {
    m.msg_name = &peer;
    m.msg_namelen = sizeof peer;
    m.msg_iov = &io;
    m.msg_iovlen = 1;
    m.msg_control = control;
    m.msg_controllen = sizeof control;
  }
};

}  // namespace

bool EnableDestinationAddress(SocketHandle s) {
  // A server of many clients does not hear of one client's ICMP errors: no IP_RECVERR queue that
  // would take receive buffer space from the requests.
  const int on = 1, off = 0;
  return (setsockopt(static_cast<int>(s), IPPROTO_IP, IP_PKTINFO, &on, sizeof on) == 0 &&
          setsockopt(static_cast<int>(s), IPPROTO_IP, IP_RECVERR, &off, sizeof off) == 0) ||
         Fail() == 0;
}

int ReceiveFromTo(SocketHandle s, void* buf, std::size_t size, SocketAddressV4& from, std::uint32_t& to_address) {
  PktInfoMessage msg(buf, size);
  msghdr& m = msg.m;
  const ssize_t n = recvmsg(static_cast<int>(s), &m, 0);
  if (n < 0) return Fail();
  from = {kFamilyInet, msg.peer.sin_port, msg.peer.sin_addr.s_addr};
  to_address = 0;
  for (cmsghdr* c = CMSG_FIRSTHDR(&m); c; c = CMSG_NXTHDR(&m, c))
    if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
      in_pktinfo info{};
      std::memcpy(&info, CMSG_DATA(c), sizeof info);
      to_address = info.ipi_addr.s_addr;
    }
  return static_cast<int>(n);
}

int SendToFrom(SocketHandle s, const void* data, std::size_t size, const SocketAddressV4& to, std::uint32_t from_address) {
  PktInfoMessage msg(const_cast<void*>(data), size);
  msghdr& m = msg.m;
  msg.peer.sin_family = AF_INET;
  msg.peer.sin_port = to.port;
  msg.peer.sin_addr.s_addr = to.address;
  cmsghdr* c = CMSG_FIRSTHDR(&m);
  c->cmsg_level = IPPROTO_IP;
  c->cmsg_type = IP_PKTINFO;
  c->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
  in_pktinfo info{};
  info.ipi_spec_dst.s_addr = from_address;
  std::memcpy(CMSG_DATA(c), &info, sizeof info);
  const ssize_t n = sendmsg(static_cast<int>(s), &m, 0);
  return n < 0 ? Fail() : static_cast<int>(n);
}

}  // namespace platform
