// One datagram socket that serves many local addresses at once: bound to all addresses, it learns
// the address each datagram was sent to and answers from that same address, so that a client that
// matches replies by address sees one machine per address. Used by the loopback responder fleet of
// the benchmarks and tests. Linux (IP_PKTINFO) only: on Windows every call fails with 10045.
#pragma once
#include <cstddef>
#include <cstdint>

#include "platform/net.h"

namespace platform {

// Turns on the destination address of received datagrams, and off the report of peers' ICMP
// errors. False on failure (last socket error).
bool EnableDestinationAddress(SocketHandle s);
// recvfrom that also gives the datagram's destination address (network order). Bytes received or
// -1 with the last socket error (10060 when the receive time-out elapsed).
int ReceiveFromTo(SocketHandle s, void* buf, std::size_t size, SocketAddressV4& from, std::uint32_t& to_address);
// sendto from the local address from_address (network order). Bytes sent or -1.
int SendToFrom(SocketHandle s, const void* data, std::size_t size, const SocketAddressV4& to, std::uint32_t from_address);

}  // namespace platform
