// The KR2 client.
#include "applet/kr2_client.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <unordered_map>

#include "platform/error.h"
#include "timing/ntp_client.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRefused = platform::kWsaEconnreset;   // an ICMP port unreachable of one peer
constexpr int kTimedOut = platform::kWsaEtimedout;

bool SameAddress(const platform::SocketAddressV4& a, const platform::SocketAddressV4& b) {
  return a.address == b.address && a.port == b.port;
}

std::uint64_t AddressKey(const platform::SocketAddressV4& a) {
  return (std::uint64_t{a.address} << 16) | a.port;
}

std::uint32_t RemainingMs(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left <= 0 ? 0 : static_cast<std::uint32_t>(left);
}

}  // namespace

std::array<std::uint8_t, kKr2RequestSize> Kr2BuildRequest(std::uint8_t code, std::uint32_t argument, std::uint32_t tag) {
  std::array<std::uint8_t, kKr2RequestSize> r{};
  std::memcpy(r.data(), &tag, sizeof tag);
  r[kKr2CommandOffset] = code;
  std::memcpy(r.data() + kKr2ArgumentOffset, &argument, sizeof argument);
  return r;
}

std::size_t Kr2ReplySize(std::uint8_t code) {
  switch (code) {
    case kKr2Ack: case kKr2Resync: case kKr2Resync204: case kKr2Nak5: case kKr2Nak132: case kKr2Zero150:
      return sizeof(Kr2Word);
    case kKr2Time: case kKr2LocalTime: return sizeof(Kr2SystemTime);
    case kKr2Identity: return sizeof(IdentityRecord);
    case kKr2TimeZone: return sizeof(Kr2TimeZoneReply);
    case kKr2Status: case kKr2StatusClear: return sizeof(LocalStatusRecord);
    case kKr2Limits: return sizeof(Kr2Limits);
    case kKr2DriftAfter: return sizeof(DriftRecord);
    case kKr2Products: case kKr2Products201: return sizeof(Kr2Products);
    default: return 0;
  }
}

bool Kr2Open(Kr2Peer& peer, const char* host, std::uint16_t port, std::uint32_t timeout_ms) {
  Kr2Close(peer);
  if (!ResolveHostPort(host, peer.address, kKr2ServiceName, kKr2DefaultPort, platform::kSocketDatagram)) return false;
  if (port) peer.address.port = platform::HostToNet16(port);
  peer.socket = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
  if (peer.socket == platform::kInvalidSocket) return false;
  peer.timeout_ms = timeout_ms;
  peer.tag = static_cast<std::uint32_t>(Clock::now().time_since_epoch().count());
  return true;
}

int Kr2Ask(Kr2Peer& peer, std::uint8_t code, std::uint32_t argument, void* reply, std::size_t size) {
  // Drop what an earlier, timed-out request may have left queued.
  std::uint8_t scratch[kKr2RequestMax];
  while (platform::ReceiveNow(peer.socket, scratch, sizeof scratch) >= 0 ||
         platform::LastSocketError() == kRefused) {
  }
  const auto request = Kr2BuildRequest(code, argument, ++peer.tag);
  if (platform::SendTo(peer.socket, request.data(), request.size(), peer.address) < 0) return -1;
  const auto deadline = Clock::now() + std::chrono::milliseconds(peer.timeout_ms);
  for (;;) {
    const std::uint32_t left = RemainingMs(deadline);
    if (left == 0 || !platform::SetReceiveTimeout(peer.socket, left)) break;
    platform::SocketAddressV4 from{};
    const int n = platform::ReceiveFrom(peer.socket, scratch, sizeof scratch, &from);
    if (n < 0) {
      if (platform::LastSocketError() == kTimedOut) break;
      return -1;   // e.g. 10054: nothing listens on the port
    }
    if (!SameAddress(from, peer.address)) continue;
    std::memcpy(reply, scratch, std::min<std::size_t>(size, static_cast<std::size_t>(n)));
    return n;
  }
  platform::SetLastSocketError(kTimedOut);
  return -1;
}

void Kr2Close(Kr2Peer& peer) {
  platform::CloseSocket(peer.socket);
  peer.socket = platform::kInvalidSocket;
}

bool Kr2Sweep(std::vector<Kr2SweepEntry>& machines, std::uint32_t timeout_ms) {
  const platform::SocketHandle s = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
  if (s == platform::kInvalidSocket) return false;
  // Room for the replies of a large fleet that come while requests are still going out (two
  // replies of up to 1 KiB each a machine); a smaller buffer only means more of them are retried.
  constexpr std::size_t kMaxBuffer = 32u << 20;
  platform::SetReceiveBufferSize(s, static_cast<std::uint32_t>(std::min(machines.size() * 2048 + 65536, kMaxBuffer)));
  std::unordered_map<std::uint64_t, std::size_t> index;
  for (std::size_t i = 0; i < machines.size(); ++i) index.emplace(AddressKey(machines[i].address), i);
  std::uint32_t tag = static_cast<std::uint32_t>(Clock::now().time_since_epoch().count());
  std::size_t missing = machines.size() * 2;
  const auto start = Clock::now();
  const auto retry_at = start + std::chrono::milliseconds(timeout_ms / 2);
  const auto deadline = start + std::chrono::milliseconds(timeout_ms);

  std::uint8_t buf[kKr2RequestMax];
  auto take = [&](int n, const platform::SocketAddressV4& from) {
    const auto it = index.find(AddressKey(from));
    if (it == index.end()) return;
    Kr2SweepEntry& m = machines[it->second];
    if (n == static_cast<int>(sizeof(LocalStatusRecord)) && !m.have_status) {
      std::memcpy(&m.status, buf, sizeof m.status);
      m.have_status = true;
    } else if (n == static_cast<int>(sizeof(IdentityRecord)) && !m.have_identity) {
      std::memcpy(&m.identity, buf, sizeof m.identity);
      m.have_identity = true;
    } else {
      return;
    }
    --missing;
    m.reply_ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  };
  // Takes every reply already queued; an ICMP error of one machine is skipped.
  auto drain = [&] {
    platform::SocketAddressV4 from{};
    for (;;) {
      const int n = platform::ReceiveFromNow(s, buf, sizeof buf, &from);
      if (n >= 0) take(n, from);
      else if (platform::LastSocketError() != kRefused) return;
    }
  };
  // Sends the requests still unanswered, taking queued replies in between, so that the socket's
  // receive queue stays short however many machines there are.
  auto send_round = [&] {
    for (auto& m : machines) {
      if (!m.have_status) {
        const auto request = Kr2BuildRequest(kKr2Status, 0, ++tag);
        platform::SendTo(s, request.data(), request.size(), m.address);
      }
      if (!m.have_identity) {
        const auto request = Kr2BuildRequest(kKr2Identity, 0, ++tag);
        platform::SendTo(s, request.data(), request.size(), m.address);
      }
      drain();
    }
  };

  send_round();
  bool retried = false;
  while (missing > 0) {
    const auto now = Clock::now();
    if (now >= deadline) break;
    if (!retried && now >= retry_at) {
      send_round();
      retried = true;
      continue;
    }
    const std::uint32_t wait = RemainingMs(retried ? deadline : retry_at);
    platform::SetReceiveTimeout(s, wait ? wait : 1);
    platform::SocketAddressV4 from{};
    const int n = platform::ReceiveFrom(s, buf, sizeof buf, &from);
    if (n >= 0) take(n, from);
  }
  platform::CloseSocket(s);
  return true;
}

std::span<const Kr2ProductName> Kr2InstalledProductNames() {
  static constexpr Kr2ProductName kNames[] = {
      {kKr2InstalledServer, "Kairon Server"},          {kKr2InstalledClient, "Kairon Client"},
      {kKr2InstalledThinClient, "Kairon Thin Client"}, {kKr2InstalledSet, "Kairon Set"},
      {kKr2InstalledManager, "Kairon II Manager"},     {kKr2InstalledMonitor, "Kairon II Monitor"},
      {kKr2InstalledUpdateServer, "Kairon II Update Server"},
      {kKr2InstalledAuditServer, "Kairon II Audit Server"},
      {kKr2InstalledUltraThinClient, "Kairon Ultra Thin Client"},
      {kKr2InstalledChronwarden, "Chronwarden"}};
  return kNames;
}
