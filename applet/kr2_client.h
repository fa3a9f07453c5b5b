// The KR2 client: asks another machine's responder for its identity, status, time, zone, products
// or drift history, one request at a time (Kr2Open/Kr2Ask/Kr2Close) or many machines at once over
// one socket (Kr2Sweep). Replies carry no header: a reply is matched to its request by the
// address it comes from and, in a sweep, by its size.
//
// Each request carries a tag in its first four bytes that changes from one request to the next, so
// that polling the same command twice is never taken by the responder for a repeated datagram.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/net.h"
#include "provider/kr2_records.h"

// A request: tag (bytes 0-3), the command code (byte 4), zero (5-7), the argument word (8-11).
std::array<std::uint8_t, kKr2RequestSize> Kr2BuildRequest(std::uint8_t code, std::uint32_t argument, std::uint32_t tag);
// The size of a command's reply, 0 for a command that is not answered.
std::size_t Kr2ReplySize(std::uint8_t code);

// One responder: the socket, its address, the reply wait.
struct Kr2Peer {
  platform::SocketHandle socket = platform::kInvalidSocket;
  platform::SocketAddressV4 address{};
  std::uint32_t timeout_ms = 0;
  std::uint32_t tag = 0;
};
// Resolves host (name or dotted address) and opens the socket. port 0: the "kaironsync" service's
// port, else 9909. timeout_ms: the wait for each reply. False with the last socket error set.
bool Kr2Open(Kr2Peer& peer, const char* host, std::uint16_t port, std::uint32_t timeout_ms);
// Sends one request and waits for a datagram from the peer: its size (copied into reply, at most
// size bytes), or -1 with the last socket error (10060 when nothing came within the time-out).
int Kr2Ask(Kr2Peer& peer, std::uint8_t code, std::uint32_t argument, void* reply, std::size_t size);
void Kr2Close(Kr2Peer& peer);

// What a sweep learned of one machine.
struct Kr2SweepEntry {
  platform::SocketAddressV4 address{};
  bool have_status = false;
  bool have_identity = false;
  LocalStatusRecord status{};
  IdentityRecord identity{};
  double reply_ms = 0;   // from the first send to the last reply, ms
};
// Asks every machine for its status (128) and identity (4) over one socket, all requests in flight
// together; machines still silent at half the time-out are asked once more. Returns after every
// machine answered both or timeout_ms elapsed. False when no socket could be opened.
bool Kr2Sweep(std::vector<Kr2SweepEntry>& machines, std::uint32_t timeout_ms);

// The family's products by their bit in the installed-products word of command 200.
struct Kr2ProductName {
  std::uint16_t bit;
  const char* name;
};
std::span<const Kr2ProductName> Kr2InstalledProductNames();
