// The NTP query client: one SNTP request and reply over UDP, giving the local clock's offset from
// the server (100-ns units, server minus local: positive when the local clock is behind), the
// round-trip delay (ms) and an error code (0, a Winsock code, 87, 1901, or a system error code).
//
// The request is the classic client packet: first byte 0x0B (LI 0, version 1, mode 3) and the send
// time T1 in the originate field (offset 24), not in the transmit field. The client keeps its own
// T1 and never reads the reply's originate field, so servers that echo the request's transmit
// field there (as RFC 5905 servers do) and servers that echo the originate field both work.
//
// A reply is valid when LI != 3, mode == 4, the transmit timestamp is not 0 and the stratum is 1 to
// 15; any other reply gives 1901 ("clock not set on server"). The leap indicator of the last reply
// received is kept, before validation, for status displays.
//
// Figures: offset = ((T2 - T1) + (T3 - T4)) / 2 and delay = (T4 - T1) + (T3 - T2), the server's
// holding time added to the round trip rather than taken off it; a delay that comes out as exactly
// 1 ms is reported as 0 ms. Both are deliberate and kept.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "config/defaults.h"
#include "platform/net.h"

inline constexpr std::size_t kNtpRequestSize = 48;          // a fresh request as sent
inline constexpr std::size_t kNtpPrebuiltRequestSize = 68;  // a prebuilt request: room for key id and digest
inline constexpr std::size_t kNtpReplySize = 68;            // the reply buffer

// The four timestamps of one exchange as 64-bit NTP fixed-point values (seconds since 1900 in the
// high half, fraction in the low half), host byte order: T1 sent and T4 received by this machine,
// T2 received and T3 sent by the server.
struct NtpTimes {
  std::uint64_t t1, t2, t3, t4;
};

// What a query asks. Only server is required; the rest have the product's defaults.
struct NtpQueryOptions {
  const char* server = nullptr;          // a host name or dotted address; a ":port" suffix is ignored
  std::uint32_t timeout_ms = 0;          // receive time-out (ms); 0 means 2000
  bool prebuilt_request = false;         // send *request as it stands (68 bytes, T1 written into it)
  std::uint8_t* request = nullptr;       // 48 (68 when prebuilt) bytes: the request as sent; nullptr: scratch
  std::uint8_t* reply = nullptr;         // 68 bytes: zero-filled, then the reply as received; nullptr: scratch
  bool multi_sample = defaults::kNtpMultiSample;  // three exchanges 100 ms apart, the median by |offset| of the valid ones
};

// What a query hands back. The reply's own fields are filled whenever a reply was received, valid
// or refused (error 1901); the figures only when it was valid.
struct NtpResult {
  std::int32_t valid = 0;                // 1: the reply passed validation and the figures were computed
  std::uint32_t delay_ms = 0;            // round-trip delay (ms), truncated; exactly 1 ms reads 0
  std::int64_t offset = 0;               // 100-ns units, server minus local: positive when the local clock is behind
  std::uint32_t error = 0;               // 0, a Winsock code, 87, 1901, or a system error code
  bool replied = false;                  // a reply was received (valid, or refused with 1901)
  std::uint8_t leap = 0;                 // the reply's leap indicator (0..3)
  std::uint8_t stratum = 0;              // the reply's stratum (0 kiss-of-death, 1 primary, 2..15, 16 unsynchronised)
  std::array<std::uint8_t, 4> reference_id{};  // the reply's reference identifier, bytes as sent
  double delay_seconds = 0;              // the delay before truncation (s)
  NtpTimes times{};                      // T1..T4 of a valid reply (all 0 otherwise)
};

// Asks options.server for its time: one exchange, or three with multi_sample (the product keeps
// it off). Blocks for at most the time-out (three times over with
// multi_sample). The error is also left as the thread's last socket error.
NtpResult NtpQuery(const NtpQueryOptions& options);
// One request and reply (multi_sample is not looked at).
NtpResult NtpExchange(const NtpQueryOptions& options);

// The receiving half of an exchange, given the reply (68 bytes) and this machine's T1 and T4 (NTP
// timestamps, host order): keeps the leap indicator, reads the reply's fields, validates it (else
// error 1901, valid 0) and computes the figures (error 0, valid 1).
NtpResult NtpReadReply(const std::uint8_t* reply, std::uint64_t t1, std::uint64_t t4);

// The reference identifier as text: four characters at strata 0 and 1 (a kiss code or a clock's
// name, unprintable bytes as '.'), the upstream server's dotted IPv4 address above.
std::string NtpReferenceIdText(const NtpResult& result);
// The leap indicator in words: "no warning", "last minute has 61 s", "last minute has 59 s",
// "not synchronised".
const char* NtpLeapText(std::uint8_t leap);

// Multi-sample choice: sorts the three samples (valid before invalid, then by |offset|, smaller
// first) and returns the chosen position 0..2: the median of three valid samples, the better of
// two, the only one; with none valid, the last of positions 2 and 1 whose error is not 0, else 0.
std::size_t ChooseNtpSample(std::array<NtpResult, 3>& samples);

// The leap indicator (0..3) of the last reply received by any exchange.
std::uint8_t NtpLastLeapIndicator();

// The current precise time as an NTP timestamp, 8 bytes in network order.
std::array<std::uint8_t, 8> BuildNtpTimestamp();
// A file time (100-ns units since 1601) as an NTP timestamp, host order. The fraction is the
// sub-second remainder divided by 10,000,000 / 4,294,967,295 (not 2^32), truncated.
std::uint64_t FileTimeToNtpTimestamp(std::uint64_t file_time);
// An NTP timestamp (host order) as seconds since 1900: seconds + fraction / 4,294,967,295.
double NtpTimestampToSeconds(std::uint64_t timestamp);
// The difference of two NTP timestamps taken as a signed fixed-point value, in seconds.
double NtpDifferenceSeconds(std::uint64_t later, std::uint64_t earlier);
// Reads and writes an 8-byte big-endian timestamp at p.
std::uint64_t LoadNtpTimestamp(const std::uint8_t* p);
void StoreNtpTimestamp(std::uint8_t* p, std::uint64_t timestamp);

// Resolves host (a dotted address, else looked up by name) and the port: the named service's port
// for "udp" (type 2, datagram) or "tcp" (otherwise) when service is given and known, else
// default_port (host order). Fills out (family, port and address in network order). Returns 2 for
// a dotted address, 1 for a looked-up name, 0 on failure (last socket error: the lookup's, 11001
// to 11004).
int ResolveHostPort(const char* host, platform::SocketAddressV4& out, const char* service, std::uint16_t default_port,
                    int type);
// Resolves as ResolveHostPort and opens an IPv4 socket of the type (2 datagram/UDP, else
// stream/TCP) with the receive time-out (ms) set, bound to local_port when it is not 0. Returns
// the socket, or kInvalidSocket with the last socket error set.
platform::SocketHandle OpenSocketTo(const char* host, platform::SocketAddressV4& out, const char* service,
                                    std::uint16_t default_port, int type, std::uint32_t timeout_ms,
                                    std::uint16_t local_port);
