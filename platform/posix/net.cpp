// IPv4 sockets and lookups on POSIX, with errno mapped to the Winsock numbers.
// Winsock start-up has no counterpart here. Datagram sockets get IP_RECVERR so that an ICMP port
// unreachable from the peer fails the next receive (10054) even though the socket is not
// connected, as Winsock reports it, instead of passing unnoticed until the time-out.
#include "platform/net.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "platform/error.h"
#include "platform/posix/event.h"
#include "platform/sys.h"

namespace platform {
namespace {

int Fd(SocketHandle s) { return static_cast<int>(s); }

bool IsDatagram(int fd) {
  int type = 0;
  socklen_t len = sizeof type;
  return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) == 0 && type == SOCK_DGRAM;
}

// errno as Winsock would number the same failure. A refusal on a datagram socket is the ICMP port
// unreachable that Winsock reports as a reset (10054); on a stream socket it is a refused
// connection (10061).
int WinsockCode(int err, bool datagram) {
  switch (err) {
    case 0: return 0;
    case EINTR: return kWsaEintr;
    case EACCES: case EPERM: return kWsaEacces;
    case EFAULT: return kWsaEfault;
    case EINVAL: return kWsaEinval;
    case EMFILE: case ENFILE: return kWsaEmfile;
    case EWOULDBLOCK: return kWsaEwouldblock;  // EAGAIN is the same value
    case EINPROGRESS: return kWsaEinprogress;
    case EALREADY: return kWsaEalready;
    case EBADF: case ENOTSOCK: return kWsaEnotsock;
    case EDESTADDRREQ: return kWsaEdestaddrreq;
    case EMSGSIZE: return kWsaEmsgsize;
    case EPROTOTYPE: return kWsaEprototype;
    case ENOPROTOOPT: return kWsaEnoprotoopt;
    case EPROTONOSUPPORT: return kWsaEprotonosupport;
    case EOPNOTSUPP: return kWsaEopnotsupp;
    case EAFNOSUPPORT: return kWsaEafnosupport;
    case EADDRINUSE: return kWsaEaddrinuse;
    case EADDRNOTAVAIL: return kWsaEaddrnotavail;
    case ENETDOWN: return kWsaEnetdown;
    case ENETUNREACH: return kWsaEnetunreach;
    case ENETRESET: return kWsaEnetreset;
    case ECONNABORTED: return kWsaEconnaborted;
    case ECONNRESET: return kWsaEconnreset;
    case ENOBUFS: case ENOMEM: return kWsaEnobufs;
    case EISCONN: return kWsaEisconn;
    case ENOTCONN: return kWsaEnotconn;
    case ESHUTDOWN: return kWsaEshutdown;
    case ETIMEDOUT: return kWsaEtimedout;
    case ECONNREFUSED: return datagram ? kWsaEconnreset : kWsaEconnrefused;
    case EHOSTDOWN: return kWsaEhostdown;
    case EHOSTUNREACH: return kWsaEhostunreach;
    default: return kWsaEinval;}
}

int Fail(int err, bool datagram) {
  SetLastSocketError(WinsockCode(err, datagram));
  return -1;
}

// A receive that failed with err, as its Winsock code. An ICMP error that IP_RECVERR queued on a
// datagram socket also leaves the socket's error queue: once reported it must not keep the socket
// ready (a poll would wake its waiter forever, with nothing ever to read).
int ReceiveFail(int fd, int err) {
  const bool datagram = IsDatagram(fd);
  if (datagram) {
    char data[64], control[512];
    for (int i = 0; i < 64; ++i) {
      iovec iov{data, sizeof data};
      msghdr msg{};
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      if (recvmsg(fd, &msg, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) break;
    }
  }
  return Fail(err, datagram);
}

sockaddr_in ToNative(const SocketAddressV4& a) {
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_port = a.port;
  sin.sin_addr.s_addr = a.address;
  return sin;
}

// getaddrinfo's failures as the Winsock lookup errors.
int LookupCode(int eai) {
  switch (eai) {
    case EAI_NONAME: return kWsaHostNotFound;
    case EAI_AGAIN: return kWsaTryAgain;
#ifdef EAI_NODATA
    case EAI_NODATA: return kWsaNoData;
#endif
    case EAI_ADDRFAMILY: return kWsaNoData;case EAI_MEMORY: return kWsaEnobufs;default: return kWsaNoRecovery;
  }
}

}  // namespace

std::uint16_t HostToNet16(std::uint16_t v) { return htons(v); }
std::uint32_t HostToNet32(std::uint32_t v) { return htonl(v); }

int sys::NetStartup() { return 0; }
void NetCleanup() {}

std::uint32_t InetAddr(const char* text) { return text ? inet_addr(text) : kInaddrNone; }

bool ServicePort(const char* service, const char* protocol, std::uint16_t& port) {
  servent entry{};
  servent* found = nullptr;
  std::array<char, 1024> scratch{};
  if (getservbyname_r(service, protocol, &entry, scratch.data(), scratch.size(), &found) != 0 || !found) return false;
  port = static_cast<std::uint16_t>(found->s_port);
  return true;
}

bool sys::LookupHostV4(const char* host, std::uint32_t& address) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  addrinfo* list = nullptr;
  const int rc = getaddrinfo(host, nullptr, &hints, &list);
  if (rc != 0 || !list) {
    SetLastSocketError(rc == EAI_SYSTEM ? WinsockCode(errno, false) : LookupCode(rc));
    return false;
  }
  address = reinterpret_cast<const sockaddr_in*>(list->ai_addr)->sin_addr.s_addr;
  freeaddrinfo(list);
  return true;
}

SocketHandle sys::CreateSocketV4(int type, int protocol) {
  const bool datagram = type == kSocketDatagram;
  const int fd = socket(AF_INET, (datagram ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC, protocol);
  if (fd < 0) return Fail(errno, datagram), kInvalidSocket;
  if (datagram) {
    const int on = 1;
    setsockopt(fd, IPPROTO_IP, IP_RECVERR, &on, sizeof on);
  }
  return static_cast<SocketHandle>(fd);
}

bool SetReceiveTimeout(SocketHandle s, std::uint32_t timeout_ms) {
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(timeout_ms / 1000);
  tv.tv_usec = static_cast<suseconds_t>((timeout_ms % 1000) * 1000);
  if (setsockopt(Fd(s), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0) return Fail(errno, false), false;
  return true;
}

bool SetNoDelay(SocketHandle s, bool on) {
  const int v = on ? 1 : 0;
  if (setsockopt(Fd(s), IPPROTO_TCP, TCP_NODELAY, &v, sizeof v) != 0) return Fail(errno, false), false;
  return true;
}

bool SetReuseAddress(SocketHandle s, bool on) {
  const int v = on ? 1 : 0;
  if (setsockopt(Fd(s), SOL_SOCKET, SO_REUSEADDR, &v, sizeof v) != 0) return Fail(errno, false), false;
  return true;
}

bool BindV4(SocketHandle s, const SocketAddressV4& local) {
  const sockaddr_in sin = ToNative(local);
  if (bind(Fd(s), reinterpret_cast<const sockaddr*>(&sin), sizeof sin) != 0) return Fail(errno, false), false;
  return true;
}

int sys::SendTo(SocketHandle s, const void* data, std::size_t size, const SocketAddressV4& to) {
  const sockaddr_in sin = ToNative(to);
  const ssize_t n = sendto(Fd(s), data, size, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&sin), sizeof sin);
  if (n < 0) return Fail(errno, IsDatagram(Fd(s)));
  return static_cast<int>(n);
}

int ReceiveFrom(SocketHandle s, void* buf, std::size_t size, SocketAddressV4* from) {
  sockaddr_in sin{};
  socklen_t len = sizeof sin;
  ssize_t n;
  do {
    n = recvfrom(Fd(s), buf, size, 0, from ? reinterpret_cast<sockaddr*>(&sin) : nullptr, from ? &len : nullptr);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    // SO_RCVTIMEO elapsing reads as EAGAIN here; Winsock calls it a time-out.
    const int err = errno == EAGAIN || errno == EWOULDBLOCK ? ETIMEDOUT : errno;
    return ReceiveFail(Fd(s), err);
  }
  if (from) *from = SocketAddressV4{kFamilyInet, sin.sin_port, sin.sin_addr.s_addr};
  return static_cast<int>(n);
}

int Receive(SocketHandle s, void* buf, std::size_t size) { return ReceiveFrom(s, buf, size, nullptr); }

int ReceiveNow(SocketHandle s, void* buf, std::size_t size) {
  const ssize_t n = recv(Fd(s), buf, size, MSG_DONTWAIT);
  if (n < 0) return ReceiveFail(Fd(s), errno);   // EAGAIN reads as 10035 here
  return static_cast<int>(n);
}

bool SetReceiveBufferSize(SocketHandle s, std::uint32_t bytes) {
  const int size = static_cast<int>(std::min<std::uint32_t>(bytes, 0x7FFFFFFF / 2));
  if (setsockopt(Fd(s), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) == 0) return true;
  if (setsockopt(Fd(s), SOL_SOCKET, SO_RCVBUF, &size, sizeof size) == 0) return true;
  return Fail(errno, IsDatagram(Fd(s))), false;
}

bool SocketName(SocketHandle s, SocketAddressV4& local) {
  sockaddr_in sin{};
  socklen_t len = sizeof sin;
  if (getsockname(Fd(s), reinterpret_cast<sockaddr*>(&sin), &len) != 0) return Fail(errno, false), false;
  local = SocketAddressV4{kFamilyInet, sin.sin_port, sin.sin_addr.s_addr};
  return true;
}

int ReceiveFromNow(SocketHandle s, void* buf, std::size_t size, SocketAddressV4* from) {
  sockaddr_in sin{};
  socklen_t len = sizeof sin;
  const ssize_t n = recvfrom(Fd(s), buf, size, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&sin), &len);
  if (n < 0) return ReceiveFail(Fd(s), errno);   // EAGAIN reads as 10035 here
  if (from) *from = SocketAddressV4{kFamilyInet, sin.sin_port, sin.sin_addr.s_addr};
  return static_cast<int>(n);
}

int ReceiveBatchNow(SocketHandle s, Datagram* batch, std::size_t count) {
  constexpr std::size_t kMax = 64;   // per call: the responder's batch
  count = std::min(count, kMax);
  std::array<mmsghdr, kMax> msgs{};
  std::array<iovec, kMax> iovs{};
  std::array<sockaddr_in, kMax> peers{};
  for (std::size_t i = 0; i < count; ++i) {
    iovs[i] = {batch[i].data, batch[i].size};
    msgs[i].msg_hdr.msg_iov = &iovs[i];
    msgs[i].msg_hdr.msg_iovlen = 1;
    msgs[i].msg_hdr.msg_name = &peers[i];
    msgs[i].msg_hdr.msg_namelen = sizeof peers[i];
  }
  const int n = recvmmsg(Fd(s), msgs.data(), static_cast<unsigned>(count), MSG_DONTWAIT, nullptr);
  if (n < 0) return ReceiveFail(Fd(s), errno);   // EAGAIN reads as 10035 here
  for (int i = 0; i < n; ++i) {
    batch[i].length = msgs[i].msg_len;
    batch[i].peer = SocketAddressV4{kFamilyInet, peers[i].sin_port, peers[i].sin_addr.s_addr};
  }
  return n;
}

int sys::SendBatch(SocketHandle s, const Datagram* batch, std::size_t count) {
  constexpr std::size_t kMax = 64;
  int total = 0;
  while (count > 0) {
    const std::size_t now = std::min(count, kMax);
    std::array<mmsghdr, kMax> msgs{};
    std::array<iovec, kMax> iovs{};
    std::array<sockaddr_in, kMax> peers{};
    for (std::size_t i = 0; i < now; ++i) {
      iovs[i] = {batch[i].data, batch[i].length};
      peers[i] = ToNative(batch[i].peer);
      msgs[i].msg_hdr.msg_iov = &iovs[i];
      msgs[i].msg_hdr.msg_iovlen = 1;
      msgs[i].msg_hdr.msg_name = &peers[i];
      msgs[i].msg_hdr.msg_namelen = sizeof peers[i];
    }
    int n;
    do n = sendmmsg(Fd(s), msgs.data(), static_cast<unsigned>(now), MSG_NOSIGNAL);
    while (n < 0 && errno == EINTR);
    if (n < 0) return total ? total : Fail(errno, true);
    total += n;
    if (static_cast<std::size_t>(n) < now) break;
    batch += now, count -= now;
  }
  return total;
}

bool sys::LookupAddressV4(std::uint32_t address, char* name, std::size_t size) {
  if (!name || size == 0) return false;
  name[0] = 0;
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_addr.s_addr = address;
  char host[NI_MAXHOST];
  if (getnameinfo(reinterpret_cast<const sockaddr*>(&sin), sizeof sin, host, sizeof host, nullptr, 0, NI_NAMEREQD) != 0)
    return false;
  std::strncat(name, host, size - 1);
  return true;
}

bool SelectSocketEvent(SocketHandle s, EventObject* event, bool read) {
  if (!event) return SetLastSocketError(kWsaEinval), false;
  std::lock_guard<std::mutex> hold(event->mutex);
  event->socket_fd = read ? Fd(s) : -1;
  return true;
}

bool ShutdownSocket(SocketHandle s) {
  if (shutdown(Fd(s), SHUT_RDWR) != 0) return Fail(errno, IsDatagram(Fd(s))), false;
  return true;
}

bool CloseSocket(SocketHandle s) {
  if (s == kInvalidSocket) return true;
  if (close(Fd(s)) != 0) return Fail(errno, false), false;
  return true;
}

}  // namespace platform

namespace platform {
bool IsOwnAddress(std::uint32_t address) {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return false;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* list = nullptr;
  if (getaddrinfo(name, nullptr, &hints, &list) != 0) return false;
  bool found = false;
  for (addrinfo* a = list; a && !found; a = a->ai_next)
    found = reinterpret_cast<const sockaddr_in*>(a->ai_addr)->sin_addr.s_addr == address;
  freeaddrinfo(list);
  return found;
}
}  // namespace platform
