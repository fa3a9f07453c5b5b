// chronyd's command protocol: the tracking request and reply.
#include "host/chrony.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "platform/host.h"

namespace {

constexpr std::uint8_t kProtocolVersion = 6;
constexpr std::uint8_t kRequestType = 1;    // PKT_TYPE_CMD_REQUEST
constexpr std::uint8_t kReplyType = 2;      // PKT_TYPE_CMD_REPLY
constexpr std::uint16_t kReqTracking = 33;
constexpr std::uint16_t kRpyTracking = 5;
constexpr std::uint16_t kFamilyInet4 = 1;
constexpr int kExpBits = 7;
constexpr int kCoefBits = 32 - kExpBits;

std::uint16_t Be16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }
std::uint32_t Be32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) << 24 | static_cast<std::uint32_t>(p[1]) << 16 |
         static_cast<std::uint32_t>(p[2]) << 8 | p[3];
}
void Put16(std::uint8_t* p, std::uint16_t v) {
  p[0] = static_cast<std::uint8_t>(v >> 8);
  p[1] = static_cast<std::uint8_t>(v);
}
void Put32(std::uint8_t* p, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (24 - 8 * i));
}

}  // namespace

double ChronyFloatToDouble(std::uint32_t x) {
  std::int32_t exp = static_cast<std::int32_t>(x >> kCoefBits);
  if (exp >= 1 << (kExpBits - 1)) exp -= 1 << kExpBits;
  exp -= kCoefBits;
  std::int32_t coef = static_cast<std::int32_t>(x % (1u << kCoefBits));
  if (coef >= 1 << (kCoefBits - 1)) coef -= 1 << kCoefBits;
  return std::ldexp(static_cast<double>(coef), exp);
}

std::uint32_t ChronyDoubleToFloat(double value) {
  int e = 0;
  if (value != 0.0 && std::isfinite(value)) std::frexp(value, &e);   // |value| = m * 2^e, 0.5 <= m < 1
  // The largest scale that keeps the coefficient within its signed 25 bits, within the exponent's range.
  int exp = value == 0.0 ? 0 : e - (kCoefBits - 1);
  exp = std::max(-(1 << (kExpBits - 1)) - kCoefBits, std::min(exp, (1 << (kExpBits - 1)) - 1 - kCoefBits));
  const long long limit = (1LL << (kCoefBits - 1)) - 1;
  const long long coef = std::clamp(std::llround(std::ldexp(value, -exp)), -limit - 1, limit);
  const std::uint32_t field = static_cast<std::uint32_t>(exp + kCoefBits) & ((1u << kExpBits) - 1);
  return field << kCoefBits | (static_cast<std::uint32_t>(coef) & ((1u << kCoefBits) - 1));
}

std::array<std::uint8_t, kChronyTrackingSize> ChronyTrackingRequest(std::uint32_t seq) {
  std::array<std::uint8_t, kChronyTrackingSize> req{};
  req[0] = kProtocolVersion;
  req[1] = kRequestType;
  Put16(&req[4], kReqTracking);
  Put32(&req[8], seq);
  return req;
}

bool ChronyParseTracking(const std::uint8_t* r, std::size_t size, std::uint32_t seq, ChronyTracking& out) {
  if (size < kChronyTrackingSize || r[0] != kProtocolVersion || r[1] != kReplyType || Be16(&r[4]) != kReqTracking ||
      Be16(&r[6]) != kRpyTracking || Be16(&r[8]) != 0 || Be32(&r[16]) != seq)
    return false;
  out = {};
  out.ref_id = Be32(&r[28]);
  if (Be16(&r[48]) == kFamilyInet4) std::memcpy(&out.ipv4, &r[32], 4);   // already in network order
  out.stratum = Be16(&r[52]);
  out.leap = Be16(&r[54]);
  out.ref_time_s = static_cast<std::int64_t>(static_cast<std::uint64_t>(Be32(&r[56])) << 32 | Be32(&r[60]));
  out.ref_time_ns = Be32(&r[64]);
  out.current_correction_s = ChronyFloatToDouble(Be32(&r[68]));
  out.last_offset_s = ChronyFloatToDouble(Be32(&r[72]));
  out.root_delay_s = ChronyFloatToDouble(Be32(&r[92]));
  out.root_dispersion_s = ChronyFloatToDouble(Be32(&r[96]));
  out.last_update_interval_s = ChronyFloatToDouble(Be32(&r[100]));
  return true;
}

bool ChronyQueryTracking(const char* socket_path, ChronyTracking& out) {
  static std::uint32_t seq = 0;
  const std::uint32_t this_seq = ++seq;
  const auto req = ChronyTrackingRequest(this_seq);
  std::uint8_t reply[512];
  const int n = platform::host::LocalDatagramRequest(socket_path, req.data(), req.size(), reply, sizeof reply,
                                                     kChronyTimeoutMs);
  return n > 0 && ChronyParseTracking(reply, static_cast<std::size_t>(n), this_seq, out);
}
