// IPv4 sockets and lookups on Windows: Winsock 2.2 as it stands.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <cstring>
#include <utility>

#include "platform/error.h"
#include "platform/net.h"
#include "platform/sys.h"

namespace platform {
namespace {

SOCKET S(SocketHandle s) { return static_cast<SOCKET>(s); }

sockaddr_in ToNative(const SocketAddressV4& a) {
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_port = a.port;
  sin.sin_addr.s_addr = a.address;
  return sin;
}

}  // namespace

std::uint16_t HostToNet16(std::uint16_t v) { return htons(v); }
std::uint32_t HostToNet32(std::uint32_t v) { return htonl(v); }

int sys::NetStartup() {
  WSADATA data;
  return ::WSAStartup(MAKEWORD(2, 2), &data);
}
void NetCleanup() { ::WSACleanup(); }

std::uint32_t InetAddr(const char* text) { return text ? ::inet_addr(text) : kInaddrNone; }

bool ServicePort(const char* service, const char* protocol, std::uint16_t& port) {
  const servent* found = ::getservbyname(service, protocol);  // per-thread storage in Winsock
  if (!found) return false;
  port = static_cast<std::uint16_t>(found->s_port);
  return true;
}

bool sys::LookupHostV4(const char* host, std::uint32_t& address) {
  const hostent* entry = ::gethostbyname(host);  // per-thread storage in Winsock; sets the lookup error
  if (!entry) return false;
  if (entry->h_addrtype != AF_INET || !entry->h_addr_list || !entry->h_addr_list[0]) {
    ::WSASetLastError(WSANO_DATA);
    return false;
  }
  std::memcpy(&address, entry->h_addr_list[0], sizeof address);
  return true;
}

SocketHandle sys::CreateSocketV4(int type, int protocol) {
  const SOCKET s = ::socket(AF_INET, type == kSocketDatagram ? SOCK_DGRAM : SOCK_STREAM, protocol);
  return s == INVALID_SOCKET ? kInvalidSocket : static_cast<SocketHandle>(s);
}

bool SetReceiveTimeout(SocketHandle s, std::uint32_t timeout_ms) {
  const DWORD v = timeout_ms;
  return ::setsockopt(S(s), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&v), sizeof v) == 0;
}

bool SetNoDelay(SocketHandle s, bool on) {
  const BOOL v = on ? TRUE : FALSE;
  return ::setsockopt(S(s), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&v), sizeof v) == 0;
}

bool SetReuseAddress(SocketHandle s, bool on) {
  const BOOL v = on ? TRUE : FALSE;
  return ::setsockopt(S(s), SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&v), sizeof v) == 0;
}

bool SetReceiveBufferSize(SocketHandle s, std::uint32_t bytes) {
  const int size = static_cast<int>(bytes > 0x7FFFFFFF ? 0x7FFFFFFF : bytes);
  return ::setsockopt(S(s), SOL_SOCKET, SO_RCVBUF, reinterpret_cast<const char*>(&size), sizeof size) == 0;
}

bool BindV4(SocketHandle s, const SocketAddressV4& local) {
  const sockaddr_in sin = ToNative(local);
  return ::bind(S(s), reinterpret_cast<const sockaddr*>(&sin), sizeof sin) == 0;
}

int sys::SendTo(SocketHandle s, const void* data, std::size_t size, const SocketAddressV4& to) {
  const sockaddr_in sin = ToNative(to);
  const int n = ::sendto(S(s), static_cast<const char*>(data), static_cast<int>(size), 0,
                         reinterpret_cast<const sockaddr*>(&sin), sizeof sin);
  return n == SOCKET_ERROR ? -1 : n;
}

int ReceiveFrom(SocketHandle s, void* buf, std::size_t size, SocketAddressV4* from) {
  sockaddr_in sin{};
  int len = sizeof sin;
  const int n = ::recvfrom(S(s), static_cast<char*>(buf), static_cast<int>(size), 0,
                           from ? reinterpret_cast<sockaddr*>(&sin) : nullptr, from ? &len : nullptr);
  if (n == SOCKET_ERROR) return -1;
  if (from) *from = SocketAddressV4{kFamilyInet, sin.sin_port, sin.sin_addr.s_addr};
  return n;
}

int Receive(SocketHandle s, void* buf, std::size_t size) {
  const int n = ::recv(S(s), static_cast<char*>(buf), static_cast<int>(size), 0);
  return n == SOCKET_ERROR ? -1 : n;
}

int ReceiveNow(SocketHandle s, void* buf, std::size_t size) {
  // Winsock has no per-call non-blocking flag: ask what is queued, and only then receive.
  u_long queued = 0;
  if (::ioctlsocket(S(s), FIONREAD, &queued) == SOCKET_ERROR) return -1;
  if (queued == 0) {
    ::WSASetLastError(WSAEWOULDBLOCK);
    return -1;
  }
  return Receive(s, buf, size);
}

bool SocketName(SocketHandle s, SocketAddressV4& local) {
  sockaddr_in sin{};
  int len = sizeof sin;
  if (::getsockname(S(s), reinterpret_cast<sockaddr*>(&sin), &len) == SOCKET_ERROR) return false;
  local = SocketAddressV4{kFamilyInet, sin.sin_port, sin.sin_addr.s_addr};
  return true;
}

int ReceiveFromNow(SocketHandle s, void* buf, std::size_t size, SocketAddressV4* from) {
  u_long queued = 0;
  if (::ioctlsocket(S(s), FIONREAD, &queued) == SOCKET_ERROR) return -1;
  if (queued == 0) {
    ::WSASetLastError(WSAEWOULDBLOCK);
    return -1;
  }
  return ReceiveFrom(s, buf, size, from);
}

// Winsock has no batched receive: datagrams are taken one recvfrom at a time while any is queued.
// A failure after the first datagram ends the batch and is reported by the socket's next call, as
// Linux's recvmmsg does, so that no failed receive goes uncounted.
int ReceiveBatchNow(SocketHandle s, Datagram* batch, std::size_t count) {
  static thread_local SocketHandle held_socket = kInvalidSocket;
  static thread_local int held_error = 0;
  if (held_error && held_socket == s) {
    ::WSASetLastError(std::exchange(held_error, 0));
    return -1;
  }
  std::size_t n = 0;
  for (; n < count; ++n) {
    const int got = ReceiveFromNow(s, batch[n].data, batch[n].size, &batch[n].peer);
    if (got < 0) {
      const int error = ::WSAGetLastError();
      if (n == 0) return -1;
      if (error != WSAEWOULDBLOCK) held_socket = s, held_error = error;
      break;
    }
    batch[n].length = static_cast<std::size_t>(got);
  }
  return static_cast<int>(n);
}

int sys::SendBatch(SocketHandle s, const Datagram* batch, std::size_t count) {
  int sent = 0;
  for (; static_cast<std::size_t>(sent) < count; ++sent)
    if (sys::SendTo(s, batch[sent].data, batch[sent].length, batch[sent].peer) < 0) return sent ? sent : -1;
  return sent;
}

bool sys::LookupAddressV4(std::uint32_t address, char* name, std::size_t size) {
  if (!name || size == 0) return false;
  name[0] = 0;
  const hostent* h = ::gethostbyaddr(reinterpret_cast<const char*>(&address), 4, AF_INET);
  if (!h || !h->h_name) return false;
  std::strncat(name, h->h_name, size - 1);
  return true;
}

bool SelectSocketEvent(SocketHandle s, EventObject* event, bool read) {
  return ::WSAEventSelect(S(s), reinterpret_cast<HANDLE>(event), read ? FD_READ : 0) == 0;
}

bool ShutdownSocket(SocketHandle s) { return ::shutdown(S(s), SD_BOTH) == 0; }

bool CloseSocket(SocketHandle s) {
  if (s == kInvalidSocket) return true;
  return ::closesocket(S(s)) == 0;
}

}  // namespace platform

namespace platform {
bool IsOwnAddress(std::uint32_t address) {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0) return false;
  const hostent* h = ::gethostbyname(name);
  if (!h || h->h_addrtype != AF_INET) return false;
  for (char** a = h->h_addr_list; a && *a; ++a) {
    std::uint32_t v;
    std::memcpy(&v, *a, sizeof v);
    if (v == address) return true;
  }
  return false;
}
}  // namespace platform
