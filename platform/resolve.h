// IPv4 addresses from text: dotted addresses and host names.
#pragma once
#include <cstdint>
#include <string_view>

namespace platform {

// inet_addr: the address of a dotted text in network order (as stored in memory), or 0xFFFFFFFF
// (INADDR_NONE) when the text is not an address.
std::uint32_t ParseIPv4(std::string_view text);
// gethostbyname: the first IPv4 address of a host name, in network order. False when it does not
// resolve. Under the fake clock the answer comes from the fake's host table only (no lookup leaves
// the process).
bool ResolveHostIPv4(std::string_view name, std::uint32_t& address_network_order);

}  // namespace platform
