// IPv4 sockets, name and service lookup, in Winsock terms on both targets.
// Every function that fails sets the calling thread's last socket error (LastSocketError) to the
// Winsock number of the failure, so that error texts read the same on Windows and Linux:
// a receive time-out is 10060, a refused datagram (ICMP port unreachable) 10054, a refused stream
// connection 10061, an unknown host 11001, a lookup that should be retried 11002, an unrecoverable
// lookup error 11003, a name without an IPv4 address 11004.
#pragma once
#include <cstddef>
#include <cstdint>

namespace platform {

struct EventObject;   // platform/sync.h

using SocketHandle = std::uintptr_t;                        // SOCKET; a file descriptor on POSIX
inline constexpr SocketHandle kInvalidSocket = ~SocketHandle{0};   // INVALID_SOCKET

inline constexpr int kSocketStream = 1;      // SOCK_STREAM
inline constexpr int kSocketDatagram = 2;    // SOCK_DGRAM
inline constexpr int kProtocolTcp = 6;       // IPPROTO_TCP
inline constexpr int kProtocolUdp = 17;      // IPPROTO_UDP
inline constexpr std::uint16_t kFamilyInet = 2;             // AF_INET
inline constexpr std::uint32_t kInaddrNone = 0xFFFFFFFFu;   // INADDR_NONE (also 255.255.255.255)

// An IPv4 socket address, laid out as sockaddr_in's leading fields. Port and address are in
// network byte order, as on the wire.
struct SocketAddressV4 {
  std::uint16_t family;    // kFamilyInet
  std::uint16_t port;      // network order
  std::uint32_t address;   // network order
};

// Byte order helpers: host <-> network for 16 and 32 bits.
std::uint16_t HostToNet16(std::uint16_t v);
std::uint32_t HostToNet32(std::uint32_t v);
inline std::uint16_t NetToHost16(std::uint16_t v) { return HostToNet16(v); }
inline std::uint32_t NetToHost32(std::uint32_t v) { return HostToNet32(v); }

// Winsock start-up and clean-up (WSAStartup 2.2 / WSACleanup; nothing on POSIX). NetStartup
// returns 0 or the Winsock error; calls nest, each NetStartup is matched by one NetCleanup.
int NetStartup();
void NetCleanup();

// inet_addr: a dotted IPv4 text to an address in network order; kInaddrNone when it is not one
// (and for "255.255.255.255" itself).
std::uint32_t InetAddr(const char* text);
// getservbyname: the port (network order) of a named service for protocol "udp" or "tcp".
// False when the service is unknown.
bool ServicePort(const char* service, const char* protocol, std::uint16_t& port);
// gethostbyname for IPv4: the first address (network order) of a host name. False on failure,
// with the last socket error 11001..11004.
bool LookupHostV4(const char* host, std::uint32_t& address);

// True when address (network order) is one of this machine's own: its host name (gethostname)
// resolved to all its IPv4 addresses (gethostbyname).
bool IsOwnAddress(std::uint32_t address);

// socket(AF_INET, type, protocol): kInvalidSocket on failure. A datagram socket reports an ICMP
// port unreachable from its peer as 10054 on its next receive, as Winsock does.
SocketHandle CreateSocketV4(int type, int protocol);
bool SetReceiveTimeout(SocketHandle s, std::uint32_t timeout_ms);   // SO_RCVTIMEO, ms (0: wait for ever)
bool SetNoDelay(SocketHandle s, bool on);                           // TCP_NODELAY (fails on datagram sockets)
bool SetReuseAddress(SocketHandle s, bool on);                      // SO_REUSEADDR
// SO_RCVBUF of bytes (Linux: past the system's cap, net.core.rmem_max, where the caller may).
bool SetReceiveBufferSize(SocketHandle s, std::uint32_t bytes);
bool BindV4(SocketHandle s, const SocketAddressV4& local);          // bind
bool SocketName(SocketHandle s, SocketAddressV4& local);            // getsockname: the bound address and port
// sendto: bytes sent, or -1 on failure.
int SendTo(SocketHandle s, const void* data, std::size_t size, const SocketAddressV4& to);
// recv / recvfrom (from may be nullptr): bytes received, or -1 on failure (10060 when the receive
// time-out elapsed).
int Receive(SocketHandle s, void* buf, std::size_t size);
int ReceiveFrom(SocketHandle s, void* buf, std::size_t size, SocketAddressV4* from);
// recv without waiting: bytes received, or -1 with 10035 (would block) when nothing is queued, or
// with the receive's own error.
int ReceiveNow(SocketHandle s, void* buf, std::size_t size);
// recvfrom without waiting: as ReceiveNow, with the sender's address (from may be nullptr).
int ReceiveFromNow(SocketHandle s, void* buf, std::size_t size, SocketAddressV4* from);
// One datagram of a batch: its buffer (data, size bytes), the bytes it holds (length) and the peer
// it came from or goes to.
struct Datagram {
  std::uint8_t* data;
  std::size_t size;
  std::size_t length;
  SocketAddressV4 peer;
};
// The datagrams already waiting, at most count, without waiting (one recvmmsg on Linux, recvfrom
// after recvfrom on Windows): how many were received, or -1 as ReceiveFromNow fails (10035 when
// none is queued). A datagram longer than its buffer is cut to the buffer (Linux) or fails
// (Windows), as a single receive does. A failure after the first datagram ends the batch and is
// reported by the next call.
int ReceiveBatchNow(SocketHandle s, Datagram* batch, std::size_t count);
// Sends count datagrams (each its length bytes to its peer; sendmmsg on Linux): how many were sent
// (those after the first failure are not), or -1 when the first failed.
int SendBatch(SocketHandle s, const Datagram* batch, std::size_t count);
// gethostbyaddr for IPv4 (address in network order): the host name into name (size bytes, always
// terminated). False when the address has no name.
bool LookupAddressV4(std::uint32_t address, char* name, std::size_t size);
// WSAEventSelect for FD_READ: with read true the event is set whenever a datagram waits on the
// socket (the POSIX event waits notice it through poll); with read false the binding is undone.
bool SelectSocketEvent(SocketHandle s, EventObject* event, bool read);
bool ShutdownSocket(SocketHandle s);         // shutdown(SD_BOTH)
bool CloseSocket(SocketHandle s);            // closesocket; kInvalidSocket is ignored

}  // namespace platform
