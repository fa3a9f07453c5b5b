// chronyd's tracking state over its command socket: one REQ_TRACKING request, the reply decoded.
// All fields of the protocol are big-endian; chronyd's 32-bit floats carry a 7-bit exponent and a
// 25-bit coefficient.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr std::size_t kChronyTrackingSize = 104;   // request (padded) and reply, bytes
inline constexpr std::uint32_t kChronyTimeoutMs = 100;    // how long an answer is waited for (ms)

struct ChronyTracking {
  std::uint32_t ref_id = 0;          // the reference identifier (host order, as chronyd gives it)
  std::uint32_t ipv4 = 0;            // the source's IPv4 address in network order, 0 when it has none
  std::uint16_t stratum = 0;
  std::uint16_t leap = 0;            // 0 normal, 1 insert, 2 delete, 3 not synchronized
  std::int64_t ref_time_s = 0;       // the last update, seconds since 1970
  std::uint32_t ref_time_ns = 0;
  double current_correction_s = 0;  // the offset still being slewed out
  double last_offset_s = 0;
  double root_delay_s = 0;
  double root_dispersion_s = 0;
  double last_update_interval_s = 0;
};

// The request for sequence number seq (104 bytes: chronyd answers no request shorter than its reply).
std::array<std::uint8_t, kChronyTrackingSize> ChronyTrackingRequest(std::uint32_t seq);
// Decodes a reply to the request with seq; false when it is not a successful tracking reply.
bool ChronyParseTracking(const std::uint8_t* reply, std::size_t size, std::uint32_t seq, ChronyTracking& out);
// chronyd's float encoding, both ways (the second for scripted servers).
double ChronyFloatToDouble(std::uint32_t wire_host_order);
std::uint32_t ChronyDoubleToFloat(double value);
// Asks chronyd at socket_path; false when it does not answer in time.
bool ChronyQueryTracking(const char* socket_path, ChronyTracking& out);
